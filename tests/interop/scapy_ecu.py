#!/usr/bin/python3
"""A small DoIP entity with one ECU on scapy's DoIP and UDS packet classes, an
implementation independent of ours for the agent to talk to. It logs the bytes
of every message it receives and what it made of them.

A request that scapy does not read as exactly the expected layout is answered
with NRC 0x13, so a wrong byte from the agent shows as a failure. Scapy's own
DoIP socket parses whatever one TCP read returns; this entity frames by the
header's length instead.

    scapy_ecu.py --port PORT [--version 3]
        (prints "listening on 127.0.0.1:PORT" when ready)

With --version, the entity takes only that protocol version: any other is
answered with generic NACK 0x00 (incorrect pattern), and the connection closes.
"""
import argparse
import socket
import struct
import threading

from scapy.contrib.automotive.doip import DoIP
from scapy.contrib.automotive.uds import (UDS, UDS_NR, UDS_RC, UDS_RCPR, UDS_RDBI, UDS_RDBIPR,
                                          UDS_RDTCI, UDS_RDTCIPR)
from scapy.packet import Raw

ENTITY = 0x0100
ECU = 0x07E0
DTCS = [(0x030100, 0x2F), (0x017100, 0x08), (0xC10000, 0x24)]
DIDS = {0xF189: b"SCAPY-ECU 1.0", 0xF190: b"WZL00000000000001"}
ROUTINES = {0xFF00: b"\x00"}
VERSION = None  # the only protocol version taken (--version); None: any


def log(text):
    print("scapy-ecu: " + text, flush=True)


def negative(service, code):
    return UDS() / UDS_NR(requestServiceId=service, negativeResponseCode=code)


def exact(request, layer):
    """True when scapy reads the whole request as the layer, nothing left over."""
    return request.haslayer(layer) and not request.haslayer(Raw)


def answer_uds(data):
    request = UDS(data)
    service = data[0]
    if service == 0x19:
        if not exact(request, UDS_RDTCI) or request[UDS_RDTCI].reportType != 0x02:
            return negative(service, 0x13 if len(data) != 3 else 0x12)
        mask = request[UDS_RDTCI].DTCStatusMask
        records = b"".join(struct.pack(">I", code)[1:] + bytes([status])
                           for code, status in DTCS if status & mask)
        return UDS() / UDS_RDTCIPR(reportType=0x02, DTCStatusAvailabilityMask=0xFF,
                                   DTCAndStatusRecord=records)
    if service == 0x22:
        if not exact(request, UDS_RDBI) or len(request[UDS_RDBI].identifiers) != 1:
            return negative(service, 0x13)
        identifier = request[UDS_RDBI].identifiers[0]
        if identifier not in DIDS:
            return negative(service, 0x31)
        return UDS() / UDS_RDBIPR(dataIdentifier=identifier) / Raw(DIDS[identifier])
    if service == 0x31:
        if not request.haslayer(UDS_RC):
            return negative(service, 0x13)
        routine = request[UDS_RC]
        if routine.routineIdentifier not in ROUTINES or routine.routineControlType != 0x01:
            return negative(service, 0x31)
        return UDS() / UDS_RCPR(routineControlType=0x01,
                                routineIdentifier=routine.routineIdentifier) / Raw(
                                    ROUTINES[routine.routineIdentifier])
    return negative(service, 0x11)


def answer(message):
    """The DoIP messages that answer one received message, and what it was."""
    if VERSION is not None and message.protocol_version != VERSION:
        return "generic NACK 0x00", [DoIP(payload_type=0x0000, nack=0x00)]
    if message.payload_type == 0x0005:
        return "routing activation", [
            DoIP(payload_type=0x0006, logical_address_tester=message.source_address,
                 logical_address_doip_entity=ENTITY, routing_activation_response=0x10)]
    if message.payload_type == 0x0007:
        return "alive check", [DoIP(payload_type=0x0008, source_address=ENTITY)]
    if message.payload_type != 0x8001:
        return "ignored", []
    if message.target_address != ECU:
        return "NACK 0x03", [DoIP(payload_type=0x8003, source_address=message.target_address,
                                  target_address=message.source_address, nack_code=0x03)]
    data = bytes(message.payload)
    response = bytes(answer_uds(data))
    return data.hex().upper() + " -> " + response.hex().upper(), [
        DoIP(payload_type=0x8002, source_address=ECU, target_address=message.source_address,
             ack_code=0x00),
        DoIP(payload_type=0x8001, source_address=ECU,
             target_address=message.source_address) / Raw(response)]


def read_exactly(connection, count):
    data = b""
    while len(data) < count:
        chunk = connection.recv(count - len(data))
        if not chunk:
            return None
        data += chunk
    return data


def serve(connection):
    with connection:
        while True:
            header = read_exactly(connection, 8)
            payload = header and read_exactly(connection, struct.unpack(">I", header[4:8])[0])
            if payload is None:
                return
            message = DoIP(header + payload)
            what, replies = answer(message)
            log((header + payload).hex().upper() + ": " + what)
            for reply in replies:
                reply.protocol_version = message.protocol_version
                reply.inverse_version = message.protocol_version ^ 0xFF
                connection.sendall(bytes(reply))
            if what == "generic NACK 0x00":
                return


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--version", type=int, choices=[2, 3])
    global VERSION
    arguments = parser.parse_args()
    VERSION = arguments.version
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", arguments.port))
    listener.listen(4)
    log("listening on 127.0.0.1:%d" % listener.getsockname()[1])
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve, args=(connection,), daemon=True).start()


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
