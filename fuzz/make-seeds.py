#!/usr/bin/env python3
"""Writes the seed inputs of driveRequestFuzz and blockStreamFuzz into
fuzz/corpus/drive-request and fuzz/corpus/block-stream (the layouts are
described at the top of each target). Run from anywhere; the seeds are
committed, so this is only needed when they change."""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(folder, name, data):
    path = os.path.join(HERE, "corpus", folder, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


# driveRequestFuzz: a mode byte, then records of u16 length + request.

QUERY, RELEASE, READ, WRITE = 0x12, 0x13, 0x26, 0x27


def header(io_context, code, letter):
    return struct.pack("<QII8x", io_context, code, ord(letter))


def query(letter, path, io_context=1):
    return header(io_context, QUERY, letter) + struct.pack("<I", 7) + path.encode("utf-16-le") + b"\0\0"


def release(letter):
    return header(0, RELEASE, letter)


def read(letter, offset, length, io_context=2):
    return header(io_context, READ, letter) + struct.pack("<I4xQI", 7, offset, length)


def write_req(letter, offset, data, io_context=3):
    return header(io_context, WRITE, letter) + struct.pack("<I4xQI4x", 7, offset, len(data)) + data


def drive_input(mode, *records):
    return bytes([mode]) + b"".join(struct.pack("<H", len(r)) + r for r in records)


DEVICE = "\\\\.\\sdz"
write("drive-request", "file-query-write-read-release", drive_input(
    0, query("E", "/srv/disk.img"), write_req("E", 100, b"hello"), read("E", 96, 16), release("E")))
write("drive-request", "device-query-read-release", drive_input(
    0, query("F", DEVICE), read("F", 0, 4096), read("F", 4000, 512), release("F")))
write("drive-request", "device-read-only-write", drive_input(
    0, query("G", DEVICE + "#P"), write_req("G", 0, b"x" * 8), read("G", 0, 8), release("G")))
write("drive-request", "device-longer-than-it-holds", drive_input(
    0, query("H", DEVICE + "#\u0080"), read("H", 500, 2000), read("H", 1500, 10), release("H")))
write("drive-request", "device-controls-fail", drive_input(
    0, query("I", DEVICE + "#F"), query("J", DEVICE + "#H"), query("K", DEVICE + "#`"), release("I")))
write("drive-request", "requery-and-no-reply-write", drive_input(
    0, query("E", "/a"), query("E", "/bb"), write_req("E", 0, b"abc", 0xBEEFBEEF), read("E", 0, 3), release("E")))
write("drive-request", "replies-cannot-be-had", drive_input(
    2, query("E", "/srv/disk.img"), read("E", 0, 64), read("E", 0, 64), write_req("E", 0, b"zz"), release("E")))
write("drive-request", "malformed-records", drive_input(
    9, header(1, QUERY, "E") + b"\1\0", header(1, READ, "E") + b"\0" * 19, header(1, WRITE, "E") + b"\0" * 16,
    header(1, 0x14, "E"), b"\1\2\3"))


# blockStreamFuzz: a mode byte, then passes of u16 length + blocks.

OPEN, OPEN_ACK, CLOSE, CLOSE_ACK, SHUTDOWN, MSG = 1, 2, 3, 4, 5, 6
FIRST, LAST = 1, 2


def block(msg_type, flags, dest, payload=b"", total=None, src=0x5350, status=0):
    first = flags & FIRST
    head = 40 if first else 36
    out = struct.pack("<IIIQQII", msg_type, flags, status, src, dest, head + len(payload), len(payload))
    if first:
        out += struct.pack("<I", len(payload) if total is None else total)
    return out + payload


def message(dest, payload):
    return block(MSG, FIRST | LAST, dest, payload)


def control(msg_type, dest, status=0):
    return block(msg_type, FIRST | LAST, dest, status=status)


def open_msg(name):
    text = name.encode("utf-16-le")
    return block(OPEN, FIRST | LAST, 0, struct.pack("<I", len(text)) + text, src=0x7000)


def stream_input(mode, *passes):
    return bytes([mode]) + b"".join(struct.pack("<H", len(p)) + p for p in passes)


write("block-stream", "two-messages-then-close", stream_input(
    0, message(1, b"hello") + message(1, b"world"), control(CLOSE, 1)))
write("block-stream", "message-in-three-blocks", stream_input(
    2, block(MSG, FIRST, 1, b"abc", total=9) + block(MSG, 0, 1, b"def"), block(MSG, LAST, 1, b"ghi")))
write("block-stream", "open-ack-then-message", stream_input(
    1, control(OPEN_ACK, 1), message(1, b"reply")))
write("block-stream", "open-refused-after-data", stream_input(
    1, message(1, b"early") + control(OPEN_ACK, 1, status=7)))
write("block-stream", "we-close-peer-acks", stream_input(
    4 | 16, message(1, b"x"), control(CLOSE_ACK, 1)))
write("block-stream", "peer-opens-streams", stream_input(
    0, open_msg("tolvCommands") + open_msg("rejected") + open_msg("undecided"),
    message(2, b"on the second stream") + control(SHUTDOWN, 2)))
write("block-stream", "first-block-twice", stream_input(
    0, block(MSG, FIRST, 1, b"ab", total=4) + block(MSG, FIRST, 1, b"cd", total=4)))
write("block-stream", "control-gets-a-message", stream_input(
    12, message(0, b"not an open") + message(1, b"data"), control(CLOSE, 1)))
write("block-stream", "control-ended-by-an-empty-message", stream_input(
    0, message(0, b""), open_msg("x")))
write("block-stream", "control-closed-then-a-message", stream_input(
    0, control(CLOSE, 0) + message(0, b"after the close") + open_msg("late")))
