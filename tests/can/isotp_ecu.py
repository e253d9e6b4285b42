#!/usr/bin/python3
"""An ECU on CAN ISO-TP, independent of our code: the kernel's ISO-TP socket
(Python's socket.CAN_ISOTP) answers requests from a fixed table.

    isotp_ecu.py IFNAME REQUEST_ID RESPONSE_ID ANSWERS_JSON [BLOCK_SIZE ST_MIN [OPTION...]]

ANSWERS_JSON maps a request (hex) to the answers sent in turn, each
{"after-ms": N, "data": "HEX"} (after-ms counts from the previous answer, or
from the request for the first), or {"frame": "HEX"}: one raw CAN frame on
the response id, outside ISO-TP (a first frame with nothing after it is an
answer broken off). A request not in the table gets no answer.
BLOCK_SIZE and ST_MIN are what this ECU's flow control asks of a sender.
Options: --fd (CAN FD frames of up to 64 bytes, with bit-rate switch),
--extended-addressing OWN TESTER (frames taken start with OWN, frames sent
with TESTER).
Prints "ready" once bound, then "request HEX", "answer HEX" and "error TEXT"
lines (a transfer the peer did not complete).
"""
import json
import socket
import struct
import sys
import time

SOL_CAN_ISOTP = 106  # SOL_CAN_BASE + CAN_ISOTP; Python has no name for it
CAN_ISOTP_OPTS = 1
CAN_ISOTP_RECV_FC = 2
CAN_ISOTP_LL_OPTS = 5
CAN_ISOTP_EXTEND_ADDR = 0x002
CAN_ISOTP_RX_EXT_ADDR = 0x200
CANFD_MTU = 72
CANFD_BRS = 0x01
LARGEST_MESSAGE = 4095


def send_frame(ifname, can_id, data):
    with socket.socket(socket.AF_CAN, socket.SOCK_RAW, socket.CAN_RAW) as raw:
        raw.bind((ifname,))
        raw.send(struct.pack("=IB3x8s", can_id, len(data), data))


def main():
    ifname, request_id, response_id, answers = sys.argv[1:5]
    block_size, st_min = (int(v, 0) for v in sys.argv[5:7]) if len(sys.argv) > 5 else (0, 0)
    options = sys.argv[7:]
    table = {request.upper(): steps for request, steps in json.loads(answers).items()}
    ecu = socket.socket(socket.AF_CAN, socket.SOCK_DGRAM, socket.CAN_ISOTP)
    ecu.setsockopt(SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, struct.pack("=BBB", block_size, st_min, 0))
    if "--fd" in options:
        ecu.setsockopt(SOL_CAN_ISOTP, CAN_ISOTP_LL_OPTS, struct.pack("=BBB", CANFD_MTU, 64, CANFD_BRS))
    if "--extended-addressing" in options:
        at = options.index("--extended-addressing")
        own, tester = (int(v, 0) for v in options[at + 1:at + 3])
        flags = CAN_ISOTP_EXTEND_ADDR | CAN_ISOTP_RX_EXT_ADDR
        # flags, frame_txtime, ext_address (sent), txpad, rxpad, rx_ext_address (taken)
        ecu.setsockopt(SOL_CAN_ISOTP, CAN_ISOTP_OPTS,
                       struct.pack("=IIBBBB", flags, 0, tester, 0xCC, 0xCC, own))
    ecu.bind((ifname, int(request_id, 0), int(response_id, 0)))
    print("ready", flush=True)
    while True:
        try:
            request = ecu.recv(LARGEST_MESSAGE).hex().upper()
        except OSError as error:  # the kernel reports a failed transfer on the next call
            print("error", error, flush=True)
            continue
        print("request", request, flush=True)
        for step in table.get(request, []):
            time.sleep(step.get("after-ms", 0) / 1000)
            if "frame" in step:
                send_frame(ifname, int(response_id, 0), bytes.fromhex(step["frame"]))
                print("frame", step["frame"].upper(), flush=True)
                continue
            ecu.send(bytes.fromhex(step["data"]))
            print("answer", step["data"].upper(), flush=True)


if __name__ == "__main__":
    main()
