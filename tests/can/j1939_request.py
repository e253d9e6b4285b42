#!/usr/bin/python3
"""A J1939 tester, independent of our code: asks one ECU for parameter groups
with requests (PGN 0xEA00) over the kernel's J1939 socket (Python's
socket.CAN_J1939) and prints what came back.

    j1939_request.py IFNAME OWN_ADDRESS ECU_ADDRESS PGN...

For each PGN (hex text), one line: "FEDA answer HEX" (the group, from the
ECU), "FEDA refused CONTROL" (its acknowledgement PGN 0xE800) or "FEDA none"
(nothing within a second). ECU_ADDRESS FF sends global requests.
"""
import socket
import sys
import time

PGN_REQUEST = 0xEA00
PGN_ACKNOWLEDGEMENT = 0xE800


def ask(tester, ifname, ecu, pgn):
    request = pgn.to_bytes(3, "little")
    tester.sendto(request, (ifname, socket.J1939_NO_NAME, PGN_REQUEST, ecu))
    until = time.monotonic() + 1
    while time.monotonic() < until:
        tester.settimeout(max(0.01, until - time.monotonic()))
        try:
            data, (_, _, got, source) = tester.recvfrom(1785)
        except socket.timeout:
            break
        if ecu != 0xFF and source != ecu:
            continue
        if got == pgn:
            return "answer " + data.hex().upper()
        if got == PGN_ACKNOWLEDGEMENT and data[5:8] == request:
            return "refused %02X" % data[0]
    return "none"


def main():
    ifname, own, ecu = sys.argv[1], int(sys.argv[2], 16), int(sys.argv[3], 16)
    tester = socket.socket(socket.AF_CAN, socket.SOCK_DGRAM, socket.CAN_J1939)
    tester.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    tester.bind((ifname, socket.J1939_NO_NAME, socket.J1939_NO_PGN, own))
    for pgn in sys.argv[4:]:
        print(pgn.upper(), ask(tester, ifname, ecu, int(pgn, 16)), flush=True)


if __name__ == "__main__":
    main()
