#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into fuzz/corpus/<target>/.

The seeds are small, meaningful inputs: the worked frames of the wire format,
typical answers and unsolicited messages of the MCU, typical hex strings,
command lines, parameter records and images. Run it again after changing an
input layout; the files are committed.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def crc16(data, crc=0xFFFF):
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ 0x8408 if crc & 1 else crc >> 1
    return crc


def frame(msgid, payload=b"", seq=1, compid=2, sysid=1, extra=0):
    n = len(payload)
    head = bytes([0xFD, n & 0xFF, n >> 8, seq, compid, sysid, msgid])
    head += bytes([sum(head) & 0xFF])
    crc = crc16(bytes([extra]), crc16(head[1:] + payload))
    return head + payload + struct.pack("<H", crc)


def write(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


ACK = bytes.fromhex("FD0000010201FEFF7B11")
assert frame(254) == ACK
assert frame(219, seq=1, compid=1, sysid=2) == bytes.fromhex("FD0000010102DBDCA71A")
assert frame(230, b"\x01\x02\x03", seq=5, compid=1, sysid=2) == bytes.fromhex(
    "FD0300050102E6EE01020358 99".replace(" ", ""))

HEARTBEAT = frame(208, bytes.fromhex("0E013214"))
DEBUG_LOOPBACK = frame(230, struct.pack("<5I", 2, 1, 0, 0, 0))
DEBUG_TIMESYNC = frame(230, struct.pack("<5I", 1, 0x11, 0x22, 0, 0))
DEBUG_CPU = frame(230, struct.pack("<5I", 32, 1, 2, 3, 4))
DEBUG_BAD = frame(230, struct.pack("<5I", 21, 0, 0, 0, 0))
BAD_CRC = ACK[:-1] + b"\x12"
VERSIONS = frame(219, bytes(range(1, 17)))
BUSY = frame(254 - 1, struct.pack("<H", 100))
NAK = frame(255)
SYSLOG = frame(229, struct.pack("<5I", 5, 0xA, 0xB, 0xC, 0xD), seq=9, compid=2, sysid=1)
USER_STRING = frame(232, b"hello", seq=3)
SEQ_SYS_BAD = frame(254, seq=2, compid=2, sysid=3)
ID_207 = frame(207)
LEN_FAIL = bytes.fromhex("FDE9FD")
SUM_FAIL = bytes.fromhex("FD0000010201FE00")
PAYLOAD_FD = frame(219, bytes([0xFD] * 16))
BIG = frame(232, b"A" * 300)

# SPI: flags (all checks), target 1, last sequence 1, then the block.
spi = {
    "ack": ACK,
    "ack_after_junk": b"\x00\x11" + ACK,
    "bad_crc": BAD_CRC,
    "seq_and_source_bad": SEQ_SYS_BAD,
    "msgid_207": ID_207,
    "len_fail_then_ack": LEN_FAIL + ACK,
    "sum_fail_then_ack": SUM_FAIL + ACK,
    "heartbeat": HEARTBEAT,
    "debug_reply": DEBUG_LOOPBACK,
    "versions": VERSIONS,
    "payload_with_fd": PAYLOAD_FD,
    "spi_result_busy": frame(219, bytes([2, 0x40, 0x1F])),
    "cut_frame": VERSIONS[:20],
}
for name, body in spi.items():
    write("fuzz_parser_spi", name, bytes([0x1F, 0x01, 0x01]) + body)
write("fuzz_parser_spi", "ack_checks_off", bytes([0x01, 0x01, 0x01]) + frame(17, seq=40))

# TTY: flags, target, last sequence, filter / request id, sizes, time-out and
# retries; then the stream. Sequence 1 for the parser pass; the exchange then
# expects replies with sequence 2.
def tty(name, flags, seq, ident, stream, sizes=0x80, timing=0x24):
    write("fuzz_parser_tty", name, bytes([flags, 0x01, seq, ident, sizes, timing]) + stream)


tty("ack", 0x1F, 1, 0xFF, ACK)
tty("stream_mixed", 0x3F, 1, 0xFF,
    HEARTBEAT + BAD_CRC + SYSLOG + USER_STRING + DEBUG_TIMESYNC + LEN_FAIL + ACK)
tty("monitor_syslog_only", 0x3F, 1, 229, HEARTBEAT + SYSLOG + USER_STRING)
tty("monitor_big_string", 0x3F, 1, 0xFF, BIG + DEBUG_CPU)
tty("engine_ack", 0x5F, 0, 219, ACK)
tty("engine_versions", 0x5F, 0, 219, VERSIONS)
tty("engine_versions_too_long", 0x5F, 0, 219, VERSIONS, sizes=0x40)
tty("engine_busy_then_ack", 0x5F, 0, 219, BUSY + frame(254, seq=2))
tty("engine_nak", 0x5F, 0, 209, NAK)
tty("engine_heartbeat", 0x5F, 0, 219, HEARTBEAT)
tty("engine_debug_bad", 0x5F, 0, 230, DEBUG_BAD)
tty("engine_silent", 0x5F, 0, 219, b"", timing=0x13)
tty("engine_wrong_seq", 0x5F, 0, 219, frame(254, seq=7) + ACK)
tty("engine_null_buffer", 0xDF, 0, 219, VERSIONS)

# Hex strings: capacity byte (0xFF: a whole frame record), then the text.
hexes = {
    "digits": (0xFF, "313233343536373839"),
    "mixed_case": (0x10, "aB"),
    "prefix_0x": (0xFF, "0x12"),
    "blank": (0xFF, "12 34"),
    "odd": (0xFF, "abc"),
    "empty": (0xFF, ""),
    "too_small": (0x02, "E8D00102"),
    "zero_capacity": (0x00, "E8"),
    "sendraw": (0xFF, "D00102"),
    "writeraw_header": (0xFF, "FD0000010102DB00"),
}
for name, (cap, text) in hexes.items():
    write("fuzz_hex", name, bytes([cap]) + text.encode())

# Command lines: arguments separated by zero bytes.
cmdlines = {
    "none": [],
    "help": ["--help"],
    "short_help": ["-h"],
    "version": ["--version"],
    "crc16": ["--calc-crc16", "313233343536373839"],
    "crc16_bad": ["--calc-crc16", "0G"],
    "hexdump_then_version": ["--hex-dump", "abc", "--version"],
    "sendraw_monitor": ["--sendraw", "D001", "--monitor", "e8", "--timeout", "5"],
    "monitor_before_sendraw": ["--monitor", "e8", "--sendraw", "D001"],
    "writeraw": ["--writeraw", "FD00000101020000"],
    "timeretry": ["--get-timeretry"],
    "reset_missing_value": ["--reset"],
    "reset": ["-r", "1"],
    "speed_zero": ["-speed", "0"],
    "date": ["--date", "1"],
    "flood": ["--flood-test", "10", "--length", "20", "--interval", "-1", "--pattern", "aa"],
    "extra_words": ["--version", "one", "two"],
    "unknown": ["--bogus"],
    "ambiguous": ["--calc-crc"],
    "settings": ["--ignore-seq", "--extra-crc", "55", "--dd", "--loopback", "1"],
    "stats": ["--get-stts", "--clear-stts", "--get-sn"],
}
for name, args in cmdlines.items():
    write("fuzz_cmdline", name, b"\0".join(a.encode() for a in args))


# Upgrade: 16-byte record, flags (bit 0 raw values, bits 1-2 drops), dropped
# chunk, first sequence number, image.
def record(pt, pr, pk, er, cc, ra, bl, mt):
    return struct.pack("<8H", pt, pr, pk, er, cc, ra, bl, mt)


def image(n):
    return bytes((i * 7 + 3) & 0xFF for i in range(n))


TYPICAL = record(2000, 3, 240, 30, 3, 3, 3, 1000)
write("fuzz_upgrade", "all_zero_record", record(0, 0, 0, 0, 0, 0, 0, 0) + bytes([0, 0xFF, 0]) + image(1000))
write("fuzz_upgrade", "typical", TYPICAL + bytes([0, 0xFF, 0]) + image(600))
write("fuzz_upgrade", "one_drop", TYPICAL + bytes([2, 1, 0]) + image(600))
write("fuzz_upgrade", "lost_chunk", record(1000, 2, 240, 20, 2, 2, 2, 500) + bytes([6, 2, 254]) + image(700))
write("fuzz_upgrade", "too_large", record(65535, 65535, 65535, 65535, 65535, 65535, 65535, 65535)
      + bytes([0, 0xFF, 0]) + image(300))
write("fuzz_upgrade", "raw_low_guards", record(500, 0, 64, 20, 2, 2, 2, 500) + bytes([1, 0xFF, 0]) + image(500))
write("fuzz_upgrade", "exact_chunk", TYPICAL + bytes([0, 0xFF, 0]) + image(240))
write("fuzz_upgrade", "slow_first_figure", TYPICAL + bytes([0, 0xFF, 0]) + image(1920))
write("fuzz_upgrade", "empty_image", TYPICAL + bytes([0, 0xFF, 0]))
