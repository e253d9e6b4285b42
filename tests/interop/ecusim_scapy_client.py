#!/usr/bin/python3
"""A tester built on scapy's DoIP and UDS packet classes, against uoz-ecusim:
every answer (TCP and UDP, announcements too) parsed with scapy's classes
and checked against the ISO 14229-1 layouts written out here. Scapy's own DoIP socket loses an answer that shares
a TCP read with its ACK, so this client frames by the header's length (the
simulator's coalesced answers are pinned byte for byte by tests/ecusim).

Usage: ecusim_scapy_client.py PATH_TO_UOZ_ECUSIM
"""
import select
import signal
import socket
import struct
import subprocess
import sys
import time

try:
    from scapy.contrib.automotive.doip import DoIP
    from scapy.contrib.automotive.uds import (UDS, UDS_DSC, UDS_NR, UDS_RC, UDS_RCPR, UDS_RDBI,
                                              UDS_RDBIPR, UDS_RDTCI, UDS_RDTCIPR, UDS_SA,
                                              UDS_SAPR, UDS_TP)
except ImportError as error:
    sys.exit("python3-scapy is missing (%s): run scripts/install-deps.sh" % error)

TESTER, ENGINE, GATEWAY, TIMEOUT = 0x0E80, 0x07E0, 0x1000, 5.0
DID_SIZES = {0xF40C: 2, 0xF405: 1, 0xF40D: 1, 0xF442: 2}  # the example vehicle's snapshot DIDs


class Failure(Exception):
    pass


def expect(condition, what):
    if not condition:
        raise Failure(what)


class Simulator:
    """uoz-ecusim on 127.0.0.1 and a port of the system's choosing."""

    def __init__(self, path, *switches):
        self.process = subprocess.Popen([path, "--listen", "127.0.0.1:0"] + list(switches),
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if "listening on 127.0.0.1:" not in line:
            self.stop()
            raise Failure("uoz-ecusim did not start: %r %s" % (line, self.process.stderr.read()))
        self.port = int(line.split("listening on 127.0.0.1:")[1].split()[0])

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=10)
        return self.process.returncode


class Tester:
    """A DoIP tester on one TCP connection, routing activated."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT)
        self.buffer = b""
        self.send(DoIP(payload_type=0x0005, source_address=TESTER, activation_type=0,
                       reserved_iso=0))
        answer = self.receive()
        expect(answer.payload_type == 0x0006 and answer.routing_activation_response == 0x10,
               "routing activation succeeds")
        expect(answer.logical_address_tester == TESTER, "tester address echoed")
        expect(answer.logical_address_doip_entity == GATEWAY, "gateway address 0x1000")

    def send(self, packet):
        self.sock.sendall(bytes(packet))

    def _fill(self, size):
        deadline = time.monotonic() + TIMEOUT
        while len(self.buffer) < size:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.sock], [], [], left)[0]:
                raise Failure("no message within %.0f s" % TIMEOUT)
            chunk = self.sock.recv(65536)
            expect(chunk, "connection closed by the simulator")
            self.buffer += chunk

    def receive(self):
        """The next whole DoIP message, parsed by scapy."""
        self._fill(8)
        size = 8 + struct.unpack(">I", self.buffer[4:8])[0]
        self._fill(size)
        raw, self.buffer = self.buffer[:size], self.buffer[size:]
        return DoIP(raw)

    def exchange(self, uds):
        """Sends UDS bytes to the engine; returns (pending answers, final UDS packet)."""
        self.send(DoIP(payload_type=0x8001, source_address=TESTER, target_address=ENGINE) / uds)
        acked, pending = False, 0
        while True:
            message = self.receive()
            if message.payload_type == 0x8002:
                expect(message.ack_code == 0 and message.source_address == ENGINE, "ACK")
                acked = True
                continue
            expect(message.payload_type == 0x8001 and message.source_address == ENGINE and
                   message.target_address == TESTER, "answer from the ECU to the tester")
            answer = message[UDS]
            if answer.service == 0x7F and answer[UDS_NR].negativeResponseCode == 0x78:
                pending += 1
                continue
            expect(acked, "the ACK came before the answer")
            return pending, answer


def snapshot_records(data):
    """Record number, number of identifiers, then each DID (2 bytes) and its data."""
    records, at = [], 0
    while at < len(data):
        number, count, dids = data[at], data[at + 1], []
        at += 2
        for _ in range(count):
            did = int.from_bytes(data[at:at + 2], "big")
            dids.append((did, data[at + 2:at + 2 + DID_SIZES[did]].hex().upper()))
            at += 2 + DID_SIZES[did]
        records.append((number, dids))
    return records


def builtin_key(level, seed):
    """The documented key: rotate_left_32(seed XOR 0x5A17C3E9, level MOD 32)
    + level * 0x01010101, modulo 2^32."""
    mixed, shift = (seed ^ 0x5A17C3E9) & 0xFFFFFFFF, level % 32
    rotated = ((mixed << shift) | (mixed >> (32 - shift))) & 0xFFFFFFFF if shift else mixed
    return (rotated + level * 0x01010101) & 0xFFFFFFFF


def check_read_dtc(tester):
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x02, DTCStatusMask=0xFF))
    response = answer[UDS_RDTCIPR]
    expect(answer.service == 0x59 and response.reportType == 0x02 and
           response.DTCStatusAvailabilityMask == 0xFF, "59 02 FF")
    record = response.DTCAndStatusRecord
    expect([(int.from_bytes(record[i:i + 3], "big"), record[i + 3])
            for i in range(0, len(record), 4)] ==
           [(0x030100, 0x2F), (0x017100, 0x2B), (0x011300, 0x50)] and len(record) % 4 == 0,
           "DTCs by status mask: %s" % record.hex())
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x01, DTCStatusMask=0x08))
    expect(answer[UDS_RDTCIPR].DTCFormatIdentifier == 0x01 and
           answer[UDS_RDTCIPR].DTCCount == 2, "two confirmed DTCs in the ISO 14229-1 format")
    _, answer = tester.exchange(UDS() / UDS_RDTCI(
        reportType=0x04, DTCHighByte=0x03, DTCMiddleByte=0x01, DTCLowByte=0x00,
        DTCSnapshotRecordNumber=0xFF))
    data = answer[UDS_RDTCIPR].dataRecord
    expect(data[:4] == bytes.fromhex("0301002F") and snapshot_records(data[4:]) ==
           [(0x01, [(0xF40C, "1A2B"), (0xF405, "32"), (0xF40D, "0A")]),
            (0x02, [(0xF40C, "0F11"), (0xF442, "3A98")])],
           "DTC, status and snapshot records as DIDs with data: %s" % data.hex())
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x05, DTCSnapshotRecordNumber=0x02))
    data = answer[UDS_RDTCIPR].dataRecord
    expect(data[:5] == bytes.fromhex("020301002F") and snapshot_records(bytes([0x02]) + data[5:])
           == [(0x02, [(0xF40C, "0F11"), (0xF442, "3A98")])], "stored data record 2")
    _, answer = tester.exchange(UDS() / UDS_RDTCI(
        reportType=0x06, DTCHighByte=0x03, DTCMiddleByte=0x01, DTCLowByte=0x00,
        DTCExtendedDataRecordNumber=0x02))
    expect(answer[UDS_RDTCIPR].dataRecord == bytes.fromhex("0301002F027F"), "extended record 2")
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x14))
    expect(answer[UDS_RDTCIPR].dataRecord == bytes.fromhex("01130032"),
           "only the pre-failed DTC with its fault detection counter")
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x42))
    expect(answer.service == 0x7F and answer[UDS_NR].requestServiceId == 0x19 and
           answer[UDS_NR].negativeResponseCode == 0x12, "unknown report: 7F 19 12")
    return "ReadDTCInformation 0x01, 0x02, 0x04, 0x05, 0x06, 0x14 and a negative response"


def check_read_data(tester):
    _, answer = tester.exchange(UDS() / UDS_RDBI(identifiers=[0xF189]))
    expect(answer.service == 0x62 and answer[UDS_RDBIPR].dataIdentifier == 0xF189 and
           bytes(answer[UDS_RDBIPR].payload) == b"ENG-2.4.1", "62 F189 and the version text")
    _, answer = tester.exchange(UDS() / UDS_RDBI(identifiers=[0xF191, 0xF190]))
    expect(bytes(answer)[1:] == bytes.fromhex("F191") + b"B3" + bytes.fromhex("F190") +
           b"WZL00000000000001", "two DIDs in the order asked")
    return "ReadDataByIdentifier of one and of two DIDs"


def check_security_and_routines(tester):
    _, answer = tester.exchange(UDS() / UDS_RC(routineControlType=1, routineIdentifier=0x0203))
    expect(answer.service == 0x71 and answer[UDS_RCPR].routineIdentifier == 0x0203 and
           bytes(answer[UDS_RCPR].payload) == b"\x00", "routine 0x0203 started")
    _, answer = tester.exchange(UDS() / UDS_RC(routineControlType=3, routineIdentifier=0x0203))
    expect(answer[UDS_RCPR].routineControlType == 3, "routine 0x0203 results")
    _, answer = tester.exchange(UDS() / UDS_RC(routineControlType=1, routineIdentifier=0xFF02))
    expect(answer.service == 0x7F and answer[UDS_NR].negativeResponseCode == 0x33,
           "a locked routine is refused with securityAccessDenied")
    tester.exchange(UDS() / UDS_DSC(diagnosticSessionType=0x03))
    _, answer = tester.exchange(UDS() / UDS_SA(securityAccessType=0x01))
    seed = int.from_bytes(answer[UDS_SAPR].securitySeed, "big")
    expect(answer.service == 0x67 and seed != 0, "a seed for level 1")
    key = builtin_key(0x01, seed).to_bytes(4, "big")
    _, answer = tester.exchange(UDS() / UDS_SA(securityAccessType=0x02, securityKey=key))
    expect(answer.service == 0x67 and answer[UDS_SAPR].securityAccessType == 0x02,
           "the key computed from the documented algorithm unlocks level 1")
    _, answer = tester.exchange(UDS() / UDS_RC(routineControlType=1, routineIdentifier=0xFF02))
    expect(answer.service == 0x71, "the routine runs once unlocked")
    pending, answer = tester.exchange(UDS() / UDS_RC(routineControlType=1,
                                                     routineIdentifier=0xFF01))
    expect(pending >= 1 and answer.service == 0x71 and
           bytes(answer[UDS_RCPR].payload) == b"\x01", "a slow routine: 0x78 first, then 71")
    return "SecurityAccess with the built-in key, RoutineControl start/results, 0x78 first"


VIN, EID = b"WZL00000000000001", b"\x02\x00\x00\x00\x10\x00"


def expect_announcement(answer, what):
    expect(answer.payload_type == 0x0004 and answer.vin == VIN and
           answer.logical_address == GATEWAY and answer.eid == EID and answer.gid == EID and
           answer.further_action == 0 and answer.vin_gid_status == 0,
           what + ": VIN, gateway 0x1000, EID, GID, no further action, synchronized")


def check_udp_requests(port):
    requests = [(DoIP(protocol_version=0xFF, inverse_version=0x00, payload_type=0x0001),
                 lambda a: expect_announcement(a, "identification")),
                (DoIP(payload_type=0x0003, vin=VIN),
                 lambda a: expect_announcement(a, "identification by VIN")),
                (DoIP(payload_type=0x0002, eid=EID),
                 lambda a: expect_announcement(a, "identification by EID")),
                (DoIP(payload_type=0x4001),
                 lambda a: expect(a.payload_type == 0x4002 and a.node_type == 0 and
                                  a.max_open_sockets == 16 and a.cur_open_sockets == 1 and
                                  a.max_data_size is not None, "entity status: gateway, 1 of 16")),
                (DoIP(payload_type=0x4003),
                 lambda a: expect(a.payload_type == 0x4004 and a.diagnostic_power_mode == 1,
                                  "power mode ready"))]
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.settimeout(TIMEOUT)
        for request, check in requests:
            sock.sendto(bytes(request), ("127.0.0.1", port))
            check(DoIP(sock.recv(4096)))
    return "vehicle identification (plain, by VIN, by EID), entity status, power mode over UDP"


def check_announcements(sock, port):
    started = time.monotonic()
    for number in range(1, 4):
        data, sender = sock.recvfrom(4096)
        expect(sender == ("127.0.0.1", port), "announcement %d from the entity's port" % number)
        expect_announcement(DoIP(data), "announcement %d" % number)
    # Up to 500 ms random wait, then two intervals of 500 ms.
    elapsed = time.monotonic() - started
    expect(elapsed >= 0.9, "announcements 500 ms apart, not %.2f s for all three" % elapsed)
    return "three vehicle announcements at start"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.strip().splitlines()[-1])
    failed = 0

    def run(check, *arguments):
        nonlocal failed
        try:
            print("ok - " + check(*arguments))
        except (Failure, OSError, IndexError, KeyError, subprocess.TimeoutExpired) as error:
            print("not ok - %s: %s" % (check.__name__, error))
            failed += 1

    announcements = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    announcements.bind(("127.0.0.1", 0))
    announcements.settimeout(TIMEOUT)
    simulator = Simulator(sys.argv[1], "--announce-to",
                          "127.0.0.1:%d" % announcements.getsockname()[1])
    try:
        run(check_announcements, announcements, simulator.port)
        tester = Tester(simulator.port)
        for check in (check_read_dtc, check_read_data, check_security_and_routines):
            run(check, tester)
        run(check_udp_requests, simulator.port)
    finally:
        code = simulator.stop()
        announcements.close()
    run(lambda: "simulator exit code 0 on SIGTERM" if code == 0 else expect(False, code))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
