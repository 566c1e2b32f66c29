"""Whether a record can be what a test with these limits finds: status and message follow from the record's own values. Written
down from docs/records.md, not from the agent's code.

    misfit(records.LOAD_AVERAGE, ("8", "6", "4"), record)   "" or what does not fit

`fields` are those of the add command behind the location id. Where the status tells nothing of the limits (a page that
cannot be reached) everything fits."""

import math
import re

import records

OK, LIMIT, NOT_FOUND, REMOTE_FAILED = 0, 2, 3, 10
NOT_AVAILABLE = 18446744073709551616.0
STATUS_AT = {records.NETWORK: 9, records.PROCESS: 4}
PERFORMED = ("HTTP OK", "HTTP CRITICAL - string")


def status_of(record):
    if record.ui32[0] == records.DISCOVERY:
        return OK
    return record.ui32[STATUS_AT.get(record.ui32[0], 3)]


def misfit(kind, fields, record):
    judged = _JUDGES[kind](fields, record)
    if judged is None:
        return ""
    status, message = judged
    if (status_of(record), "".join(record.strings[:1])) != (status, message):
        return "status %d, %r; expected %d, %r" % (status_of(record), record.strings, status, message)
    return ""


def _lines(well, *lines):
    """Status and message of limits: pairs of whether one is reached and its line."""
    reached = [line for is_reached, line in lines if is_reached]
    return (LIMIT, "".join(reached)) if reached else (OK, well)


def _load(fields, record):
    if status_of(record) == REMOTE_FAILED:
        return None
    return _lines("Load Average values are within acceptable limits\n", *(
        (limit != "-1" and value >= int(limit),
         "Load Average %d min value: %.2f / Max value: %s\n" % (minutes, value, limit))
        for minutes, value, limit in zip((1, 5, 15), record.d64, fields)))


def _shares(fields, values):
    names = (("User CPU usage", "Max"), ("System CPU usage", "Max"), ("Nice CPU usage", "Max"), ("CPU Idle", "Min"),
             ("CPU IO Wait", "Max"))
    return _lines("CPU usage is within acceptable limits\n", *(
        (limit != "-1" and (value < int(limit) if bound == "Min" else value >= int(limit)),
         "%s: %.2f / %s value: %s\n" % (name, value, bound, limit))
        for (name, bound), value, limit in zip(names, values, fields)))


def _cpu(fields, record):
    if status_of(record) == REMOTE_FAILED:
        return None
    for part in record.nested:
        if (part.ui32[0], part.strings[0]) != _shares(fields, part.d64):
            return -1, "that of a processor: %s" % (part[1:],)
    return _shares(fields, record.d64)


def _memory(fields, record):
    if status_of(record) == REMOTE_FAILED:
        return None
    free, _, swap, _, buffers, cached, _, virtual = record.d64
    lines = []
    for name, value, limit, is_least in zip(
            ("Physical memory free size: %.2f / Min", "Swap memory free size: %.2f / Min", "Virtual memory size: %.2f / Max",
             "Buffers memory size: %.2f / Max", "Cached memory size: %.2f / Max"),
            (free, swap, virtual, buffers, cached), map(int, fields), (True, True, True, False, False)):
        reached = limit != -1 and value != NOT_AVAILABLE and (value <= limit if is_least else value > limit)
        lines.append((reached, "%s value: %d\n" % (name % value, limit)))
    return _lines("Memory usage is within acceptable limits\n", *lines)


def _disk(fields, record):
    name, least = fields[0], float(fields[1])
    if status_of(record) == NOT_FOUND:
        return NOT_FOUND, "Drive: %s not found.\n" % name
    return _lines("Drive: %s free space is within acceptable limits.\n" % name, (
        least > 0 and least >= record.d64[1],
        "Drive: %s free space: %.2f / Min value: %.2f.\n" % (name, record.d64[1], least)))


def _process(fields, record):
    if status_of(record) == NOT_FOUND:
        return NOT_FOUND, "The process is not running"
    cpu, resident, virtual = record.d64
    most = [int(field) for field in fields[:3]]
    status, message = _lines("", *(
        (limit != -1 and math.floor(value) >= limit if unit else limit != -1 and value >= limit,
         "Current %s: %.2f%s / Max value: %d\n" % (name, value, unit or "%", limit))
        for name, value, limit, unit in (("CPU usage", cpu, most[0], ""), ("Working set size", resident, most[1], " MB"),
                                         ("Page file usage", virtual, most[2], " MB"))))
    if status == OK and status_of(record) == OK:  # what else it says is that something is over
        return None
    return status, message


def _network(fields, record):
    received, packets_received, errors_received, sent, packets_sent, errors_sent = record.ui32[3:9]
    name, limits = fields[0], [int(field) for field in fields[1:7]]
    if not any(limit >= 1 for limit in limits):
        return OK, ""
    order = ((received, 3, "bytes received"), (packets_received, 1, "packets received"), (errors_received, 5, "errors received"),
             (sent, 2, "bytes sent"), (packets_sent, 0, "packets sent"), (errors_sent, 4, "errors sent"))
    return _lines("Network adapter: %s Statistics are within acceptable limits.\n" % name, *(
        (limits[at] >= 1 and value >= limits[at], "Network adapter: %s %s: %d / Max value: %d.\n" % (name, what, value, limits[at]))
        for value, at, what in order))


def _ping(fields, record):
    lost, most = record.ui32[4], int(fields[4])
    if record.strings == ["All sent packages were lost"]:
        return None
    return _lines("ICMP echo results are within acceptable limits",
                  (lost > most, "Number of lost packages: %d / Max value: %d" % (lost, most)))


class Pages:
    """What the pages of a test's server have, by path; who may see it is told by `allowed` (user and password, path)."""
    texts = {}

    @classmethod
    def has(cls, path, text, user="", password=""):
        return text in cls.texts.get((path, user, password), "")


def _http(fields, record):
    path, text, user, password, must = fields[1], fields[3], fields[5], fields[6], fields[11] == "1"
    message = "".join(record.strings[:1])
    if not message.startswith(PERFORMED) and "200 OK" not in message and "401" not in message:
        return None  # it was not reached in time
    whole = fields[10] == "1"
    if not text or not whole:
        return status_of(record), message
    found = Pages.has(path, text, user, password)
    if found != must:
        return LIMIT, "HTTP CRITICAL - string%sfound" % (" " if found else " not ")
    return OK, message if message.startswith("HTTP OK") else "HTTP OK ..."


def _snmp(fields, record):
    objects = [name for name in fields[3].split(";") if name]
    if record.ui32[4] != len(objects):
        return -1, "%d objects, not %d" % (record.ui32[4], len(objects))
    if status_of(record) != OK:
        return None
    for name, limit, part in zip(objects, fields[12].split(";"), record.nested):
        low, _, high = limit.partition(",")
        value = re.fullmatch(r"-?\d+", part.strings[0])
        reached = bool(high and value and not int(low) <= int(value.group()) <= int(high))
        if (part.ui32[1] == LIMIT) != reached or name not in part.strings[1]:
            return -1, "%s with %s: %s" % (name, limit, part[1:])
        if reached and "Min Value: %s\nMax Value: %s\n" % (low, high) not in part.strings[1]:
            return -1, "%s with %s: %s" % (name, limit, part[1:])
    return status_of(record), "".join(record.strings[:1])


def _mysql(fields, record):
    if status_of(record) == NOT_FOUND:
        return None
    result, wrong = "", ""
    told = dict(entry.split("|")[:2] for entry in record.strings[0].split(";") if entry)
    for entry in fields[5].split(";"):
        name, high, low, *_ = entry.split("|") + ["", ""]
        value = told.get(name, "?")
        good = re.match(r"\d", value) is not None
        good = good and not (high and float(value) > float(high)) and not (low and float(value) < float(low))
        result += "%s|%s|%d;" % (name, value, OK if good else LIMIT)
        wrong += "" if good else "%s - %s: NOK;" % (name, value)
    if "".join(record.strings[1:2]) != wrong:
        return -1, wrong
    return (LIMIT if wrong else OK), result


_JUDGES = {
    records.LOAD_AVERAGE: _load, records.CPU: _cpu, records.MEMORY: _memory, records.DISK: _disk, records.PROCESS: _process,
    records.NETWORK: _network, records.PING: _ping, records.HTTP: _http, records.SNMP: _snmp, records.MYSQL: _mysql,
    records.SNMP_TABLE: lambda fields, record: None, records.DISCOVERY: lambda fields, record: None,
}
