"""What each agent is to have, by a fleet file: a second opinion, which shares no code with the collector.

`read()` knows as much YAML as the tests write: maps and lists by indentation, maps and lists in braces and brackets, texts
plain or in quotes, comments. `wanted()` is docs/fleet.md once more, for the keys that the tests use."""

import collections
import fnmatch
import ipaddress
import re

# ---- YAML ----


def read(text):
    lines = [(len(line) - len(line.lstrip(" ")), line.strip()) for line in text.splitlines()
             if line.strip() and not line.lstrip().startswith("#")]
    value, rest = _block(lines, 0)
    if rest:
        raise ValueError("left over: %s" % rest[0][1])
    return value


def _block(lines, indent):
    """What begins with the first line, and the lines behind it."""
    if lines[0][1].startswith("- "):
        found = []
        while lines and lines[0][0] == indent and lines[0][1].startswith("- "):
            depth = len(lines[0][1]) - len(lines[0][1][2:].lstrip(" "))
            lines = [(indent + depth, lines[0][1][depth:]), *lines[1:]]
            value, lines = _block(lines, indent + depth) if _KEY.match(lines[0][1]) else (_whole(lines[0][1]), lines[1:])
            found.append(value)
        return found, lines
    found = {}
    while lines and lines[0][0] == indent:
        key, value = _KEY.match(lines[0][1]).groups()
        key, value, lines = _scalar(key), (value or "").strip(), lines[1:]
        if key in found:
            raise ValueError("twice: " + key)
        if value:
            found[key] = _whole(value)
        else:
            found[key], lines = _block(lines, lines[0][0]) if lines and lines[0][0] > indent else (None, lines)
    return found, lines


_QUOTED = r'"(?:[^"\\]|\\.)*"|\'(?:[^\']|\'\')*\''
_KEY = re.compile(r"""(%s|[^\s"'\[{&][^:#]*?):(?:\s+(.*)|$)""" % _QUOTED)
_TOKEN = re.compile(r'\s*(?:(%s)|([][{},])|((?:[^][{},":]|:(?! ))[^][{},:]*(?::(?! )[^][{},:]*)*)|(:))' % _QUOTED)


def _scalar(text):
    if text.startswith('"'):
        return re.sub(r"\\(.)", r"\1", text[1:-1])
    if text.startswith("'"):
        return text[1:-1].replace("''", "'")
    return text.strip()


def _whole(text):
    tokens = []
    at = 0
    if text[0] not in "[{\"'":
        return _scalar(re.sub(r"\s+#.*", "", text))
    while at < len(text.rstrip()):
        found = _TOKEN.match(text, at)
        if found.group(3) and found.group(3).startswith("#"):
            break
        at = found.end()
        tokens.append(found.group().strip())
    value, rest = _flow(tokens)
    if rest:
        raise ValueError("left over: %s" % rest)
    return value


def _flow(tokens):
    first, rest = tokens[0], tokens[1:]
    if first == "[":
        found = []
        while rest[0] != "]":
            value, rest = _flow(rest)
            found.append(value)
            rest = rest[1:] if rest[0] == "," else rest
        return found, rest[1:]
    if first == "{":
        found = {}
        while rest[0] != "}":
            key, colon = _scalar(rest[0]), rest[1]
            if colon != ":" or key in found:
                raise ValueError("no map: %s" % tokens)
            found[key], rest = _flow(rest[2:])
            rest = rest[1:] if rest[0] == "," else rest
        return found, rest[1:]
    return _scalar(first), rest


# ---- who has what ----

Wanted = collections.namedtuple("Wanted", "groups poll check tests")  # tests: {name: Test}
Test = collections.namedtuple("Test", "name group spelling")  # the map as it stands in the file


def seconds(text):
    units = {"h": 3600, "m": 60, "s": 1, "ms": 0.001}
    parts = re.findall(r"([\d.]+)\s*(h|ms|m|s)?", text)
    return sum(float(number) * units[unit or "s"] for number, unit in parts)


def matches(pattern, account, name):
    if "/" in pattern:
        its_account, pattern = pattern.rsplit("/", 1)
        if not fnmatch.fnmatchcase(account, its_account):
            return False
    return fnmatch.fnmatchcase(name, pattern)


def wanted(fleet, account, name):
    """Of that agent."""
    groups = [group for group in fleet["groups"] if any(matches(p, account, name) for p in group["agents"])]
    tests = {}
    for group in groups:
        for test, spelling in (group.get("tests") or {}).items():
            tests.pop(test, None)
            if spelling != "off":
                tests[test] = Test(test, group["name"], spelling)
    intervals = []
    for kind in ("poll", "check"):
        own = [seconds(group["intervals"][kind]) for group in groups if kind in (group.get("intervals") or {})]
        everyone = fleet.get("intervals", {}).get(kind, "60s")
        intervals.append(int(min(own) if own else seconds(everyone)))
    return Wanted([group["name"] for group in groups], *intervals, tests)


# ---- what the agent is told of a test ----

GIGABYTE = 1 << 30
_SIZES = {"B": 1, "KB": 1 << 10, "MB": 1 << 20, "GB": GIGABYTE}
ANY = None  # a field that the file leaves open


def size(text):
    number, unit = re.fullmatch(r"([\d.]+)\s*(B|KB|MB|GB)?", text).groups()
    return float(number) * _SIZES[unit or "B"]


def _megabytes(text):
    return str(round(size(text) / (1 << 20)))


def _percent(text):
    return text.rstrip("% ")


def _milliseconds(text):
    return str(round(1000 * seconds(text)))


def _limits(spelling, keys, read_one=str):
    return [read_one(spelling[key]) if key in spelling else "-1" for key in keys]


def _host(test):
    return [test["host"]] if "host" in test else []


def _load(test, _):
    return ("LA", *_limits(test["load"], ("1m", "5m", "15m")), *_host(test))


def _cpu(test, _):
    order = ("user", "nice", "system", "idle", "iowait")  # of a local one two are crossed by the protocol
    if "host" in test:
        order = ("user", "system", "nice", "idle", "iowait")
    return ("CU", *_limits(test["cpu"], order, _percent), *_host(test), *([test["os"]] if test.get("os") == "linux" else []))


def _memory(test, _):
    return ("MM", *_limits(test["memory"], ("free", "swap", "virtual", "buffers", "cached"), _megabytes), *_host(test))


def _disk(test, disks):
    name, whole = disks[test["disk"]]
    free = test.get("free", "0 B")
    if not free.endswith("%"):
        return "DK", name, size(free) / GIGABYTE
    return "DK", name, ANY if whole is None else float(_percent(free)) / 100 * whole


def _process(test, _):
    return ("PR", *_limits(test, ("cpu",), _percent), *_limits(test, ("resident", "virtual"), _megabytes), test["process"])


def _network(test, _):
    def bytes_of(text):
        return str(round(size(text)))
    packets, errors = test.get("packets"), test.get("errors")
    return ("NT", test["network"], test.get("packets sent", packets) or "-1", test.get("packets received", packets) or "-1",
            *_limits(test, ("sent", "received"), bytes_of),
            test.get("errors sent", errors) or "-1", test.get("errors received", errors) or "-1")


def _ping(test, _):
    packets = test.get("packets", "3")
    return ("PG", test["ping"], test.get("size", "56"), packets, _milliseconds(test.get("within", "1s")),
            test.get("lost", str(int(packets) - 1)))


def _http(test, _):
    scheme, host, port, path = re.fullmatch(r"(https?)://([^/:]+)(?::(\d+))?(/.*)?", test["http"]).groups()
    tls = scheme == "https"
    text = test.get("contains", test.get("without", ""))
    method = {"get": "0", "post": "1", "head": "2"}[test.get("method", "post" if "post" in test else "get")]
    return ("HP", host, path or "/", port or ("443" if tls else "80"), text, test.get("post", ""), test.get("user", ""),
            test.get("password", ""), "%d" % seconds(test.get("within", "10s")), "1" if tls else "0",
            "0" if test.get("redirects") == "false" else "1", "1" if text else ANY,
            ("0" if "without" in test else "1") if text else ANY, method)


def _named(objects):
    if isinstance(objects, str):
        return {objects: {}}
    return objects if isinstance(objects, dict) else dict.fromkeys(objects, {})


def _login(test):
    version = test.get("version", "2")
    if version == "3":
        return version, ("", test.get("authentication", "sha"), test["user"], test["password"])
    return version, (test.get("community", "public"), "", "", "")


def _snmp(test, _):
    version, login = _login(test)
    objects = _named(test["objects"])
    limits = ["%s,%s" % (limit["at least"], limit["at most"]) if limit else "-" for limit in objects.values()]
    return ("SP", test["snmp"], test.get("port", "161"), version, ";".join(objects), *login, ANY, ANY,
            "%d" % seconds(test.get("within", "2s")), test.get("retries", "1"), ";".join(limits))


def _snmp_table(test, _):
    version, login = _login(test)
    return ("ST", test["snmp table"], test.get("port", "161"), test.get("repetitions", "0" if version == "1" else "20"), version,
            test["table"], *login, ANY, ANY, "%d" % seconds(test.get("within", "2s")), test.get("retries", "1"))


def _mysql(test, _):
    values = []
    for name, limit in _named(test.get("values", "Uptime")).items():
        values.append("|".join([name, limit.get("at most", ""), limit.get("at least", "")]).rstrip("|"))
    socket = test["mysql"] if test["mysql"].startswith("/") else ""
    return ("MQ", "localhost" if socket else test["mysql"], ANY if socket else test.get("port", "3306"), socket, test["user"],
            test.get("password", ""), ";".join(values), "%d" % seconds(test.get("within", "10s")))


def _discovery(test, _):
    first, _, last = test["discovery"].replace(" ", "").partition("-")
    if "/" in first:
        network = ipaddress.ip_network(first)
        first, last = network.network_address + 1, network.broadcast_address - 1
    end = ipaddress.ip_address(last or first) + 1
    objects = test.get("objects", [])
    return ("DC", str(first), str(end), *([";".join(objects)] if objects else []))


KINDS = {  # the list of tests that it is in (agent_log.py), the type of its records, its command
    "load": ("load", 66, _load), "cpu": ("cpu", 44, _cpu), "memory": ("memory", 47, _memory), "disk": ("disk", 46, _disk),
    "process": ("process", 43, _process), "network": ("network", 38, _network), "ping": ("ping", 48, _ping),
    "http": ("http", 49, _http), "snmp": ("snmp", 57, _snmp), "snmp table": ("snmp", 67, _snmp_table),
    "mysql": ("mysql", 74, _mysql), "discovery": ("discovery", 40, _discovery),
}


def kind_of(test):
    kinds = set(test.spelling) & set(KINDS)
    if "process" in kinds:  # which may have a limit of the name of a kind
        kinds.discard("cpu")
    kind, = kinds
    return kind


def fields_of(test, disks, secrets):
    """What stands behind the location id, with the letters that the add and modify commands begin with in front. `disks`:
    {directory: (the inventory's name, GB in all)}; None when the agent cannot have the test."""
    kind = kind_of(test)
    if kind == "disk" and test.spelling["disk"] not in disks:
        return None
    fields = KINDS[kind][2](test.spelling, disks)

    def expand(field):
        if not isinstance(field, str):
            return field
        return re.sub(r"\$\{secret:([\w.-]+)\}", lambda found: secrets[found.group(1)], field)
    try:
        return tuple(map(expand, fields))
    except KeyError:
        return None


def same(ours, theirs):
    """Whether an agent's fields say what is wanted. Numbers are compared as such; every limit below 1 of an interface is off, -1
    for other limits."""
    return len(ours) == len(theirs) and all(_same_field(ours[0], a, b) for a, b in zip(ours, theirs))


def _same_field(code, ours, theirs):
    if ours is ANY or ours == theirs:
        return True
    try:
        a, b = float(ours), float(theirs)
    except ValueError:
        return False
    if code == "NT":
        return max(a, 0) == max(b, 0)
    return abs(a - b) <= 1e-6 * abs(a) if code == "DK" else a == b
