#!/usr/bin/python3
"""An ECU on a J1939 network, independent of our code: the kernel's J1939
socket (Python's socket.CAN_J1939) answers requests (PGN 0xEA00) from a table.

    j1939_ecu.py IFNAME ADDRESS ANSWERS_JSON

ADDRESS is this ECU's source address. ANSWERS_JSON maps a requested PGN (hex
text, "FEDA") to {"data": "HEX"}, sent to the requester (the kernel's RTS/CTS
transport beyond 8 bytes), or {"data": "HEX", "global": true}, sent to all
(BAM). A request for a PGN not in the table is refused with a negative
acknowledgement (PGN 0xE800) to the global address.
Prints "ready" once bound, then "request PGN from ADDRESS" lines.
"""
import json
import socket
import sys

PGN_REQUEST = 0xEA00
PGN_ACKNOWLEDGEMENT = 0xE800
GLOBAL = 0xFF


def main():
    ifname, address, answers = sys.argv[1:4]
    table = {int(pgn, 16): answer for pgn, answer in json.loads(answers).items()}
    ecu = socket.socket(socket.AF_CAN, socket.SOCK_DGRAM, socket.CAN_J1939)
    ecu.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    ecu.bind((ifname, socket.J1939_NO_NAME, socket.J1939_NO_PGN, int(address, 0)))
    print("ready", flush=True)
    while True:
        data, (_, _, pgn, requester) = ecu.recvfrom(1785)
        if pgn != PGN_REQUEST or len(data) != 3:
            continue
        wanted = int.from_bytes(data, "little")
        print("request %04X from %02X" % (wanted, requester), flush=True)
        answer = table.get(wanted)
        if answer is None:
            refusal = bytes([0x01, 0xFF, 0xFF, 0xFF, requester]) + data
            ecu.sendto(refusal, (ifname, socket.J1939_NO_NAME, PGN_ACKNOWLEDGEMENT, GLOBAL))
            continue
        to = GLOBAL if answer.get("global") else requester
        ecu.sendto(bytes.fromhex(answer["data"]), (ifname, socket.J1939_NO_NAME, wanted, to))


if __name__ == "__main__":
    main()
