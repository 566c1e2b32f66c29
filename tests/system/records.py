"""Reads result records; shares no code with what writes them or with the collector.

A record: eight little-endian 32-bit words (size in bytes; counts of I32, UI32, I64, UI64, D64 values,
strings and nested records), then the values in this order, nothing padded, strings ending in a NUL.
"""

import collections
import struct

Record = collections.namedtuple("Record", "raw i32 ui32 i64 ui64 d64 strings nested")

NETWORK = 38
INTERFACES = 39
DISCOVERY = 40
PROCESS_NAMES = 42
PROCESS = 43
CPU = 44
FILE_SYSTEMS = 45
DISK = 46
MEMORY = 47
PING = 48
HTTP = 49
SNMP = 57
LOAD_AVERAGE = 66
SNMP_TABLE = 67
MYSQL = 74
INVENTORIES = (INTERFACES, PROCESS_NAMES, FILE_SYSTEMS)  # part of every collection

Load = collections.namedtuple("Load", "test location time values message status")


def decode(block):
    """The records of a block. Raises ValueError when the bytes are no run of records."""
    found = []
    at = 0
    while at < len(block):
        found.append(_record(block, at))
        at += len(found[-1].raw)
    return found


def _record(block, start):
    if len(block) - start < 32:
        raise ValueError("%d bytes are no record" % (len(block) - start))
    size, *counts, n_strings, n_nested = struct.unpack_from("<8I", block, start)
    raw = bytes(block[start:start + size])
    if size < 32 or len(raw) != size:
        raise ValueError("a record of %d bytes in a block of %d" % (size, len(block)))
    at = 32
    values = []
    for kind, count in zip("iIqQd", counts):
        layout = "<%d%s" % (count, kind)
        values.append(list(struct.unpack_from(layout, raw, at)))
        at += struct.calcsize(layout)
    strings = []
    for _ in range(n_strings):
        if at == size:  # declared, but there was nothing to say
            break
        end = raw.index(b"\0", at)
        strings.append(raw[at:end].decode())
        at = end + 1
    nested = []
    for _ in range(n_nested):
        nested.append(_record(raw, at))
        at += len(nested[-1].raw)
    if at != size:
        raise ValueError("%d bytes left over in a record of %d" % (size - at, size))
    return Record(raw, *values, strings, nested)


def results(block):
    """The results of tests in a block, without the inventories."""
    return [record for record in decode(block) if record.ui32[0] not in INVENTORIES]


def without_inventories(block):
    """The same block as the collector keeps it: inventories have a place of their own."""
    return b"".join(record.raw for record in results(block))


def load_averages(block):
    """The load-average records of a block, which must hold no other results."""
    return [as_load(record) for record in results(block)]


def as_load(record):
    counts = [len(part) for part in record[1:]]
    if counts != [0, 4, 1, 0, 3, 1, 0] or record.ui32[0] != LOAD_AVERAGE:
        raise ValueError("not a load-average record: %r" % (record,))
    return Load(record.ui32[1], record.ui32[2], record.i64[0], tuple(record.d64),
                record.strings[0], record.ui32[3])


def encode_load(load):
    """The bytes of a load-average record."""
    text = load.message.encode() + b"\0"
    return struct.pack("<8I 4I q 3d", 32 + 48 + len(text), 0, 4, 1, 0, 3, 1, 0, LOAD_AVERAGE, load.test,
                       load.location, load.status, load.time, *load.values) + text
