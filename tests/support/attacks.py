"""Blocks made to cost a collector much: small as they are sent, large when unpacked."""

import struct


def record(values=b"", i32=0, ui32=(99,), strings=0, nested=0, tail=b"", size=None):
    body = values + struct.pack("<%dI" % len(ui32), *ui32) + tail
    return struct.pack("<8I", size or 32 + len(body), i32, len(ui32), 0, 0, 0, strings, nested) + body


def load_record(test, when):
    text = b"Load Average values are within acceptable limits\n\0"
    return struct.pack("<8I", 32 + 16 + 8 + 24 + len(text), 0, 4, 1, 0, 3, 1, 0) + struct.pack(
        "<4Iq3d", 66, test, 1, 0, when, 0.5, 0.25, 0.125) + text


def nested_record(room):
    inner = record(ui32=())
    return record(nested=room // len(inner), tail=inner * (room // len(inner)))


def trial_record(room):
    """Every number of strings is tried, and none is right."""
    inner = record()
    inner = inner[:8] + struct.pack("<I", 2) + inner[12:]  # more values than it has
    for _ in range(8):
        count = room // 16
        inner = record(strings=count + 5, nested=1, tail=b"a\0" * count + inner)
    return inner


ATTACKS = {
    "strings": lambda n: record(strings=n // 2, tail=b"a\0" * (n // 2 - 20)),
    "empty strings": lambda n: record(strings=n, tail=bytes(n - 40)),
    "zeros": bytes,
    "values": lambda n: record(values=bytes(n - 36), i32=(n - 36) // 4)[:n],
    "nested": lambda n: nested_record(n - 36),
    "trials": lambda n: trial_record(n),
    "many trials": lambda n: trial_record(30000) * (n // len(trial_record(30000))),
    "rows": lambda n: record() * (n // 36),
    "honest": lambda n: b"".join(load_record(i % 20 + 1, 1700000000 + i) for i in range(n // 131)),
}
