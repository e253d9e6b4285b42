#!/usr/bin/python3
"""Two DoIP entities on scapy's DoIP packet classes, found by `uozctl doip
discover --vin`: one answers the identification request, the other only
announces itself (and a vehicle with another VIN announces too, to be left
out); both answer entity status and power mode. Every datagram uozctl sends is
parsed with scapy's classes; its JSON must show what the entities said.

Usage: uozctl_scapy_entities.py PATH_TO_UOZCTL
"""
import json
import select
import socket
import subprocess
import sys
import time

try:
    from scapy.contrib.automotive.doip import DoIP
except ImportError as error:
    sys.exit("python3-scapy is missing (%s): run scripts/install-deps.sh" % error)

VIN, OTHER_VIN, TIMEOUT = b"WZL00000000000009", b"WZL00000000000008", 10.0
EID = {0x1000: bytes.fromhex("020000001000"), 0x2000: bytes.fromhex("020000002000")}


def udp_socket():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    return sock


def announcement(address, vin=VIN):
    return bytes(DoIP(payload_type=0x0004, vin=vin, logical_address=address, eid=EID[address],
                      gid=EID[0x1000], further_action=0, vin_gid_status=0))


def fail(what):
    sys.exit("not ok - " + what)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.strip().splitlines()[-1])
    answering, announcing = udp_socket(), udp_socket()
    with udp_socket() as probe:  # a free port for the announcements
        announce_port = probe.getsockname()[1]
    uozctl = subprocess.Popen(
        [sys.argv[1], "--json", "doip", "discover", "--to",
         "127.0.0.1:%d" % answering.getsockname()[1], "--vin", VIN.decode(), "--wait", "1500",
         "--announce-port", str(announce_port)], stdout=subprocess.PIPE, text=True)
    # (node type, power mode) of each entity; questions counted per entity.
    answers = {answering: (0x00, 0x01), announcing: (0x01, 0x00)}
    questions = {answering: [], announcing: []}
    deadline = time.monotonic() + TIMEOUT
    while uozctl.poll() is None and time.monotonic() < deadline:
        for sock in select.select([answering, announcing], [], [], 0.1)[0]:
            data, sender = sock.recvfrom(4096)
            request = DoIP(data)
            if request.payload_type == 0x0003:
                if request.vin != VIN or request.protocol_version != 0xFF:
                    fail("identification by VIN: %r" % request)
                # uozctl hears announcements from before it sends its request.
                announcing.sendto(announcement(0x2000), ("127.0.0.1", announce_port))
                answering.sendto(announcement(0x1000, OTHER_VIN), ("127.0.0.1", announce_port))
                sock.sendto(announcement(0x1000), sender)
            elif request.payload_type == 0x4001:
                node_type = answers[sock][0]
                sock.sendto(bytes(DoIP(payload_type=0x4002, node_type=node_type,
                                       max_open_sockets=4, cur_open_sockets=1,
                                       max_data_size=4095)), sender)
            elif request.payload_type == 0x4003:
                sock.sendto(bytes(DoIP(payload_type=0x4004,
                                       diagnostic_power_mode=answers[sock][1])), sender)
            questions[sock].append(request.payload_type)
    out = uozctl.communicate(timeout=TIMEOUT)[0]
    if uozctl.returncode != 0:
        fail("uozctl exit %d: %s" % (uozctl.returncode, out))
    if sorted(questions[answering]) != [0x0003, 0x4001, 0x4003] or \
            sorted(questions[announcing]) != [0x4001, 0x4003]:
        fail("one identification request, then status and power mode each: %r" % questions)
    found = [(e["logical_address"], e["vin"], e["eid"], e["answered"], e["announcements"],
              e["entity_status"]["node_type"], e["entity_status"]["max_data_size"],
              e["power_mode"]) for e in json.loads(out)["entities"]]
    expected = [(0x1000, VIN.decode(), "020000001000", True, 0, "gateway", 4095, "ready"),
                (0x2000, VIN.decode(), "020000002000", False, 1, "node", 4095, "not ready")]
    if found != expected:
        fail("entities %r, expected %r" % (found, expected))
    print("ok - uozctl doip discover finds an answering and an announcing scapy entity")
    return 0


if __name__ == "__main__":
    sys.exit(main())
