#!/usr/bin/python3
"""A tester built on scapy's DoIP and UDS packet classes, against uoz-ecusim.

It starts the simulator on a free loopback port, activates routing and
exchanges ReadDTCInformation (several report types), ReadDataByIdentifier,
SecurityAccess and RoutineControl, parsing every answer with scapy's classes
and checking its bytes against the ISO 14229-1 layouts written out here.

scapy's own DoIP socket parses whatever one TCP read returns, so an answer
that shares a read with its ACK is lost; this client frames by the header's
length instead, and one run has the simulator coalesce ACK and answer.

Usage: ecusim_scapy_client.py PATH_TO_UOZ_ECUSIM
"""
import os
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

TESTER = 0x0E80
ENGINE = 0x07E0
GATEWAY = 0x1000
TIMEOUT = 5.0

# Sizes of the DIDs in the example vehicle's snapshots, as this test reads them.
DID_SIZES = {0xF40C: 2, 0xF405: 1, 0xF40D: 1, 0xF442: 2}


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
        marker = "listening on 127.0.0.1:"
        if marker not in line:
            self.stop()
            raise Failure("uoz-ecusim did not start: %r %s" % (line, self.process.stderr.read()))
        self.port = int(line.split(marker)[1].split()[0])

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=10)
        return self.process.returncode


class Tester:
    """A DoIP tester on one TCP connection that frames by the header's length."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=TIMEOUT)
        self.buffer = b""
        self.reads = []  # the size of every read, to see coalesced messages

    def send(self, packet):
        self.sock.sendall(bytes(packet))

    def _fill(self, size):
        deadline = time.monotonic() + TIMEOUT
        while len(self.buffer) < size:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.sock], [], [], left)[0]:
                raise Failure("no message within %.0f s" % TIMEOUT)
            chunk = self.sock.recv(65536)
            if not chunk:
                raise Failure("connection closed by the simulator")
            self.reads.append(len(chunk))
            self.buffer += chunk

    def receive(self):
        """The next whole DoIP message, parsed by scapy."""
        self._fill(8)
        length = struct.unpack(">I", self.buffer[4:8])[0]
        self._fill(8 + length)
        raw, self.buffer = self.buffer[:8 + length], self.buffer[8 + length:]
        return DoIP(raw)

    def activate(self):
        self.send(DoIP(payload_type=0x0005, source_address=TESTER, activation_type=0,
                       reserved_iso=0))
        answer = self.receive()
        expect(answer.payload_type == 0x0006, "routing activation response expected")
        expect(answer.routing_activation_response == 0x10,
               "routing activation code 0x%02X" % answer.routing_activation_response)
        expect(answer.logical_address_tester == TESTER, "tester address echoed")
        expect(answer.logical_address_doip_entity == GATEWAY, "gateway address 0x1000")

    def exchange(self, uds, target=ENGINE):
        """Sends UDS bytes to the ECU; returns (pending answers, final UDS packet)."""
        self.send(DoIP(payload_type=0x8001, source_address=TESTER, target_address=target) / uds)
        acked = False
        pending = 0
        while True:
            message = self.receive()
            if message.payload_type == 0x8002:
                expect(message.ack_code == 0, "ACK code 0")
                expect(message.source_address == target, "ACK from the ECU's address")
                acked = True
                continue
            expect(message.payload_type == 0x8001,
                   "diagnostic message expected, got 0x%04X" % message.payload_type)
            expect(message.source_address == target and message.target_address == TESTER,
                   "answer addressed from the ECU to the tester")
            answer = message[UDS]
            if answer.service == 0x7F and answer[UDS_NR].negativeResponseCode == 0x78:
                pending += 1
                continue
            expect(acked, "the ACK came before the answer")
            return pending, answer


def dtcs_and_status(record):
    expect(len(record) % 4 == 0, "DTC and status records are 4 bytes each")
    return [(int.from_bytes(record[i:i + 3], "big"), record[i + 3])
            for i in range(0, len(record), 4)]


def snapshot_records(data):
    """ISO layout after DTC and status: record number, number of identifiers,
    then each DID (2 bytes) and its data."""
    records, at = [], 0
    while at < len(data):
        number, count = data[at], data[at + 1]
        at += 2
        dids = []
        for _ in range(count):
            did = int.from_bytes(data[at:at + 2], "big")
            size = DID_SIZES[did]
            dids.append((did, data[at + 2:at + 2 + size].hex().upper()))
            at += 2 + size
        records.append((number, dids))
    return records


def builtin_key(level, seed):
    """The simulator's documented key: rotate_left_32(seed XOR 0x5A17C3E9,
    level MOD 32) + level * 0x01010101, modulo 2^32."""
    mixed = (seed ^ 0x5A17C3E9) & 0xFFFFFFFF
    shift = level % 32
    rotated = ((mixed << shift) | (mixed >> (32 - shift))) & 0xFFFFFFFF if shift else mixed
    return (rotated + level * 0x01010101) & 0xFFFFFFFF


def check_read_dtc(tester):
    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x02, DTCStatusMask=0xFF))
    response = answer[UDS_RDTCIPR]
    expect(answer.service == 0x59 and response.reportType == 0x02, "59 02")
    expect(response.DTCStatusAvailabilityMask == 0xFF, "availability mask 0xFF")
    expect(dtcs_and_status(response.DTCAndStatusRecord) ==
           [(0x030100, 0x2F), (0x017100, 0x2B), (0x011300, 0x50)],
           "DTCs by status mask: %s" % response.DTCAndStatusRecord.hex())

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x01, DTCStatusMask=0x08))
    response = answer[UDS_RDTCIPR]
    expect(response.DTCFormatIdentifier == 0x01 and response.DTCCount == 2,
           "two confirmed DTCs in the ISO 14229-1 format")

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x04, DTCHighByte=0x03,
                                                  DTCMiddleByte=0x01, DTCLowByte=0x00,
                                                  DTCSnapshotRecordNumber=0xFF))
    data = answer[UDS_RDTCIPR].dataRecord
    expect(data[:4] == bytes.fromhex("0301002F"), "snapshot answer starts with DTC and status")
    expect(snapshot_records(data[4:]) ==
           [(0x01, [(0xF40C, "1A2B"), (0xF405, "32"), (0xF40D, "0A")]),
            (0x02, [(0xF40C, "0F11"), (0xF442, "3A98")])],
           "snapshot records as DIDs with data: %s" % data.hex())

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x05, DTCSnapshotRecordNumber=0x02))
    data = answer[UDS_RDTCIPR].dataRecord
    expect(data[:5] == bytes.fromhex("020301002F"), "stored data: record, DTC, status")
    expect(snapshot_records(bytes([0x02]) + data[5:]) ==
           [(0x02, [(0xF40C, "0F11"), (0xF442, "3A98")])], "stored data record 2")

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x06, DTCHighByte=0x03,
                                                  DTCMiddleByte=0x01, DTCLowByte=0x00,
                                                  DTCExtendedDataRecordNumber=0x02))
    expect(answer[UDS_RDTCIPR].dataRecord == bytes.fromhex("0301002F027F"),
           "extended data record 2 of P0301")

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x14))
    expect(answer[UDS_RDTCIPR].dataRecord == bytes.fromhex("01130032"),
           "only the pre-failed DTC with its fault detection counter")

    _, answer = tester.exchange(UDS() / UDS_RDTCI(reportType=0x42))
    expect(answer.service == 0x7F and answer[UDS_NR].requestServiceId == 0x19 and
           answer[UDS_NR].negativeResponseCode == 0x12, "unknown report: 7F 19 12")
    return "ReadDTCInformation 0x01, 0x02, 0x04, 0x05, 0x06, 0x14 and a negative response"


def check_read_data(tester):
    _, answer = tester.exchange(UDS() / UDS_RDBI(identifiers=[0xF189]))
    expect(answer.service == 0x62 and answer[UDS_RDBIPR].dataIdentifier == 0xF189,
           "62 F189")
    expect(bytes(answer[UDS_RDBIPR].payload) == b"ENG-2.4.1", "software version text")
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
    expect(pending >= 1, "a slow routine answers responsePending first")
    expect(answer.service == 0x71 and bytes(answer[UDS_RCPR].payload) == b"\x01",
           "then its start answer")
    return "SecurityAccess with the built-in key, RoutineControl start/results, 0x78 first"


def check_coalesced(path):
    simulator = Simulator(path, "--coalesce")
    try:
        tester = Tester(simulator.port)
        tester.activate()
        before = len(tester.reads)
        _, answer = tester.exchange(UDS() / UDS_TP(subFunction=0))
        expect(bytes(answer) == b"\x7e\x00", "tester present answered")
        expect(len(tester.reads) - before == 1, "ACK and answer arrived in one read")
    finally:
        expect(simulator.stop() == 0, "simulator exits 0 on SIGTERM")
    return "ACK and answer in one TCP read framed into two messages"


def check_identification(port):
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.settimeout(TIMEOUT)
    sock.sendto(bytes(DoIP(protocol_version=0xFF, inverse_version=0x00, payload_type=0x0001)),
                ("127.0.0.1", port))
    answer = DoIP(sock.recv(4096))
    sock.close()
    expect(answer.payload_type == 0x0004, "vehicle announcement")
    expect(answer.vin == b"WZL00000000000001" and answer.logical_address == GATEWAY,
           "VIN and gateway address")
    return "vehicle identification over UDP"


def main():
    if len(sys.argv) != 2 or not os.access(sys.argv[1], os.X_OK):
        sys.exit(__doc__.strip().splitlines()[-1])
    path = sys.argv[1]
    passed = failed = 0

    def run(check, *arguments):
        nonlocal passed, failed
        try:
            print("ok - " + check(*arguments))
            passed += 1
        except (Failure, OSError, IndexError, KeyError, subprocess.TimeoutExpired) as error:
            print("not ok - %s: %s" % (check.__name__, error))
            failed += 1

    simulator = Simulator(path)
    try:
        tester = Tester(simulator.port)
        tester.activate()
        run(check_read_dtc, tester)
        run(check_read_data, tester)
        run(check_security_and_routines, tester)
        run(check_identification, simulator.port)
    finally:
        code = simulator.stop()
    run(expect_exit, code)
    run(check_coalesced, path)
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


def expect_exit(code):
    expect(code == 0, "simulator exit code %s" % code)
    return "simulator stopped by SIGTERM with exit code 0"


if __name__ == "__main__":
    sys.exit(main())
