"""Reads a collector's database; shares no code with the collector.

The records of polls lie in `blocks` as they came, and after a while in `packed_YYYYMMDD`, packed by test; what became
of a test in a day is in `rollups5_YYYYMM` and `rollups60_YYYYMM`. Packed things are pieces (collector/store/columns.h)
that hold a chunk or a roll-up (collector/store/pack.h). Whatever is not as it should be is a ValueError."""

import collections
import sqlite3
import struct
import zlib

Row = collections.namedtuple("Row", "account agent type test location time status record")
Bucket = collections.namedtuple("Bucket", "start count ok problem values")  # values: {id: Value}
Value = collections.namedtuple("Value", "count min mean max")

CHUNK, ROLL_UP = 0x11, 0x21
SCALES = (*(10.0 ** n for n in range(10)), 2.0 ** 10, 2.0 ** 20, 2.0 ** 30)
WORD = 1 << 64


# ---- pieces ----

def _signed(word):
    word %= WORD
    return word - WORD if word >= WORD // 2 else word


def _unfold(folded):
    return -(folded + 1) // 2 if folded % 2 else folded // 2


class Piece:
    """Reads the text and the noise of a piece from front to back."""

    def __init__(self, packed, kind):
        if len(packed) < 5 or packed[0] != kind:
            raise ValueError("it is no piece of kind %#x" % kind)
        body, (crc,) = packed[:-4], struct.unpack("<I", packed[-4:])
        if zlib.crc32(body) != crc:
            raise ValueError("its sum is wrong")
        self.text, self.at = body, 1
        size, deflated = self.number(), self.number()
        end = self.at + (deflated or size)
        text = body[self.at:end]
        self.noise, self.noise_at = body[end:], 0
        self.text, self.at = zlib.decompress(text, -15) if deflated else text, 0
        if len(self.text) != size:
            raise ValueError("its text has %d bytes, not %d" % (len(self.text), size))

    def bytes(self, count):
        self.at += count
        if self.at > len(self.text):
            raise ValueError("its text ends early")
        return self.text[self.at - count:self.at]

    def number(self):
        value = shift = 0
        while True:
            (byte,) = self.bytes(1)
            value |= (byte & 127) << shift
            shift += 7
            if byte < 128:
                return value

    def string(self):
        end = self.text.index(b"\0", self.at)
        text, self.at = self.text[self.at:end], end + 1
        return text

    def column(self, count):
        (kinds,) = struct.unpack("<H", self.bytes(2))
        words = [0] * count
        for plane in range(8):
            kind = kinds >> 2 * plane & 3
            if kind == 1:
                found = self.bytes(count)
            elif kind == 2:
                self.noise_at += count
                found = self.noise[self.noise_at - count:self.noise_at]
            elif kind == 0:
                continue
            if kind == 3 or len(found) != count:
                raise ValueError("a plane is no plane")
            for i, byte in enumerate(found):
                words[i] |= byte << 8 * plane
        return words

    def whole(self, count):
        if not count:
            return []
        (how,) = self.bytes(1)
        first = _unfold(self.number())
        if how == 0:
            return [_signed(first + word) for word in self.column(count)]
        if how != 1:
            raise ValueError("whole numbers of kind %d" % how)
        values = [first]
        for word in self.column(count - 1):
            values.append(_signed(values[-1] + _unfold(word)))
        return values

    def real(self, count):
        if not count:
            return []
        (how,) = self.bytes(1)
        if how == 0:
            bits = [int.from_bytes(self.bytes(8), "little")]
            for word in self.column(count - 1):
                bits.append(bits[-1] ^ word)
            return [struct.unpack("<d", word.to_bytes(8, "little"))[0] for word in bits]
        if how <= len(SCALES):
            return [number / SCALES[how - 1] for number in self.whole(count)]
        if how != 14:
            raise ValueError("real numbers of kind %d" % how)
        digits, exponents = self.whole(count), self.whole(count)
        return [float("%dE%d" % pair) for pair in zip(digits, exponents)]

    def end(self):
        if self.at != len(self.text) or self.noise_at != len(self.noise):
            raise ValueError("something is left over")


# ---- chunks ----

def _read_shape(piece):
    """Counts of values, declared and held strings, and the nested shapes."""
    *counts, declared, held, nested = (piece.number() for _ in range(8))
    return counts, declared, held, [_read_shape(piece) for _ in range(nested)]


def _nodes(shape):
    yield shape
    for nested in shape[3]:
        yield from _nodes(nested)


def _read_group(piece, shape, count):
    """The columns of a shape, each with a value packed as in a record, or a string, for each record."""
    columns = []
    for counts, _, _, _ in _nodes(shape):
        for kind, values in zip("iIqQd", counts):
            for _ in range(values):
                if kind == "d":
                    columns.append([struct.pack("<d", value) for value in piece.real(count)])
                else:
                    size = 4 if kind in "iI" else 8
                    columns.append([(value % WORD).to_bytes(8, "little")[:size] for value in piece.whole(count)])
    strings = []
    for _, _, held, _ in _nodes(shape):
        for _ in range(held):
            which = piece.whole(count)
            texts = [piece.string() + b"\0" for _ in range(max(which, default=-1) + 1)]
            strings.append([texts[i] for i in which])
    return columns, strings


def _build(shape, values, strings):
    """A record of iterators over the values and strings that it and its nested ones have."""
    counts, declared, held, nested = shape
    tail = b"".join(next(values) for _ in range(sum(counts)))
    tail += b"".join(next(strings) for _ in range(held))
    tail += b"".join(_build(inner, values, strings) for inner in nested)
    return struct.pack("<8I", 32 + len(tail), *counts, declared, len(nested)) + tail


def unpack_chunk(packed):
    """(received, record) of each, in the order of arrival."""
    piece = Piece(packed, CHUNK)
    count, shapes = piece.number(), piece.number()
    shapes = [_read_shape(piece) for _ in range(shapes)]
    which, received = piece.whole(count), piece.whole(count)
    built = []
    for number, shape in enumerate(shapes, 1):
        rows = which.count(number)
        columns, strings = _read_group(piece, shape, rows)
        built.append(iter([_build(shape, iter([column[row] for column in columns]),
                                  iter([column[row] for column in strings])) for row in range(rows)]))
    found = []
    for i in range(count):
        if which[i]:
            record = next(built[which[i] - 1])
        else:
            (size,) = struct.unpack_from("<I", piece.text, piece.at)
            record = piece.bytes(size)
        found.append((received[i], record))
    piece.end()
    return found


# ---- roll-ups ----

def unpack_roll_up(packed):
    """The buckets of a day."""
    piece = Piece(packed, ROLL_UP)
    count = piece.number()
    starts, counts, ok, problem = (piece.whole(count) for _ in range(4))
    buckets = [Bucket(*numbers, {}) for numbers in zip(starts, counts, ok, problem)]
    for _ in range(piece.number()):
        value = piece.number()
        there = [1] * count if piece.number() else piece.whole(count)
        have = [bucket for bucket, is_there in zip(buckets, there) if is_there]
        lacking = piece.whole(len(have))
        same = piece.number()
        ends = piece.real(len(have) * (1 if same else 2))
        steps = [0] * len(have) if same else piece.whole(len(have))
        for i, bucket in enumerate(have):
            low, high = ends[i], ends[i] if same else ends[len(have) + i]
            part = steps[i] / 65535
            mean = min(max(low * (1 - part) + high * part, low), high)
            bucket.values[value] = Value(bucket.count - lacking[i], low, mean, high)
    piece.end()
    return buckets


# ---- the database ----

# Of the types that are known: places of test, location and status among the UI32 values, and how many UI32, I64 and
# D64 values and strings there have to be. The time is the first I64 value.
_TYPES = {
    38: (1, 2, 9, 10, 1, 0, 0),  # network
    39: (None, None, None, 1, 1, 0, 0), 42: (None, None, None, 1, 1, 0, 0), 45: (None, None, None, 1, 1, 0, 0),
    40: (1, 2, None, 3, 1, 0, 0),  # discovery
    43: (1, 2, 4, 5, 1, 3, 0),  # process
    44: (1, 2, 3, 4, 1, 5, 0),  # cpu
    46: (1, 2, 3, 4, 1, 2, 0),  # disk
    47: (1, 2, 3, 4, 1, 8, 0),  # memory
    48: (1, 2, 3, 5, 1, 1, 0),  # ping
    49: (1, 2, 3, 7, 1, 0, 0),  # http
    57: (1, 2, 3, 5, 1, 1, 0),  # snmp
    66: (1, 2, 3, 4, 1, 3, 0),  # load average
    67: (1, 2, 3, 4, 1, 0, 0),  # snmp table
    74: (1, 2, 3, 5, 1, 0, 1),  # mysql
}


def as_row(account, agent, record):
    i32, ui32, i64, ui64, d64 = struct.unpack_from("<5I", record, 4)
    words = struct.unpack_from("<%di" % ui32, record, 32 + 4 * i32)
    test, location, status, *least = _TYPES.get(words[0], (None, None, None, 0, 1 << 32, 0, 0))
    strings = record[32 + 4 * (i32 + ui32) + 8 * (i64 + ui64 + d64):].count(b"\0")
    if any(have < must for have, must in zip((ui32, i64, d64, strings), least)):
        return Row(account, agent, words[0], None, None, None, None, record)
    (time,) = struct.unpack_from("<q", record, 32 + 4 * (i32 + ui32))
    return Row(account, agent, words[0], *(None if place is None else words[place] for place in (test, location)),
               time, None if status is None else words[status], record)


def split(block):
    """The records that lie behind each other."""
    at = 0
    while at < len(block):
        size = int.from_bytes(block[at:at + 4], "little")
        if not 32 <= size <= len(block) - at:
            raise ValueError("a record of %d bytes where %d are left" % (size, len(block) - at))
        yield block[at:at + size]
        at += size


class Database:
    """One state of a results.db, also while a collector writes."""

    def __init__(self, path, timeout_s=60):
        self.connection = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=timeout_s, isolation_level=None)
        self.connection.execute("BEGIN")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()

    def query(self, sql, *values):
        return self.connection.execute(sql, values).fetchall()

    def tables(self, prefix):
        return [name for (name,) in self.query(
            "SELECT name FROM sqlite_schema WHERE type = 'table' AND name GLOB ? ORDER BY name", prefix + "_[0-9]*")]

    def agents(self):
        """{id: (account, name)}"""
        return {number: (account, name) for number, account, name in self.query("SELECT id, account, name FROM agents")}

    def chunks(self):
        """(agent, test, packed) of each."""
        for day in self.tables("packed"):
            yield from self.query("SELECT agent, tests.id, data FROM %s JOIN tests ON tests.id = %s.id >> 34 "
                                  "ORDER BY %s.id" % (day, day, day))

    def rows(self):
        """All results in the order of storing: by their arrival. Where they arrived in the same second, those of
        blocks are in their order; those that are packed stand before them, by test."""
        agents, found = self.agents(), []
        for agent, _, packed in self.chunks():
            found += [(received, agent, record) for received, record in unpack_chunk(packed)]
        for agent, received, block in self.query("SELECT agent, received, records FROM blocks ORDER BY id"):
            found += [(received, agent, record) for record in split(block)]
        found.sort(key=lambda one: one[0])
        return [as_row(*agents[agent], record) for _, agent, record in found]

    def roll_ups(self, minutes):
        """{(test, day since the epoch): buckets}, by 5 or 60 minutes."""
        return {(key >> 20, key & (1 << 20) - 1): unpack_roll_up(packed)
                for month in self.tables("rollups%d" % minutes)
                for key, packed in self.query("SELECT id, data FROM %s ORDER BY id" % month)}


def rows(path):
    with Database(path) as database:
        return database.rows()
