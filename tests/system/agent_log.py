"""What an agent's own log (LOGLEVEL 6) says of it: what it was told, which tests it has since its last start, and which
blocks it sent.

The log has every answer as it came. What the agent does upon a command is written down here once more, after
docs/commands.md. For kinds whose list of tests says itself what it did (`Added test. tid:7, lid:3, ...`) that is read, too,
and both have to come to the same."""

import collections
import os
import re

import harness

Test = collections.namedtuple("Test", "location fields")  # as they stand in the command

# List of tests -> codes that add, change and remove, and where a log line has what a command has from field 2 on.
LISTS = {
    "load": (("LAA",), ("LAM",), ("LAD",)),
    "cpu": (("CUA",), ("CUM",), ("CUD",)),
    "memory": (("MMA",), ("MMM",), ("MMD",)),
    "disk": (("DKA",), ("DKM",), ("DKD",)),
    "process": (("PRA",), ("PRM",), ("PRD",)),
    "network": (("NTA",), ("NTM",), ("NTD",)),
    "ping": (("PGA",), ("PGM",), ("PGD",)),
    "http": (("HPA",), ("HPM",), ("HPD",)),
    "snmp": (("SPA", "STA"), ("SPM", "STM"), ("STD",)),
    "mysql": (("MQA",), ("MQM",), ("MQD",)),
    "discovery": (("DCA",), ("DCM",), ("DCR",)),
}
ADDS, CHANGES, REMOVES = ({code: name for name, codes in LISTS.items() for code in codes[i]} for i in range(3))

# Lists that say what they did, with the fields of a command that the line has.
_DID = re.compile(r"INFO: (\w+?)\. (Added|Modified|Removed) test\. tid:(\d+)(?:, lid:(\d+), (.*))?$", re.S)
_SAYING = {"lda": "load", "mem": "memory", "diskdesc": "disk", "disk": "disk", "proc": "process", "nettest": "network",
           "ping": "ping"}
_SAID = {
    "load": (r"la1:(.*), la5:(.*), la15:(.*)", lambda f: f[:3]),
    "memory": (r"mem_min:(.*), swap_min:(.*), virt_min:(.*), buffered_max:(.*), cached_max:(.*)", lambda f: f[:5]),
    "disk": (r"disk:'(.*)', min_free_space:(.*), max_read:.*", lambda f: (f[0], "%f" % float(f[1]))),
    "process": (r"process:'(.*)', cpu_critical:(.*), rss_critical:(.*), vsize_critical:(.*)",
                lambda f: (f[3], f[0], f[1], f[2])),
    "network": (r"adapter:'(.*)', max_pkts_sent:(.*), max_pkts_recv:(.*), max_bytes_sent:(.*), max_bytes_recv:(.*), "
                r"max_errors_sent:(.*), max_errors_recv:(.*)", lambda f: f[:7]),
    "ping": (r"host:'(.*)', p_size:(.*), p_cpount:(.*), p_timeout:(.*), max_lost:(.*)", lambda f: f[:5]),
}
_ANSWER = re.compile(r"INFO: make_poll: Response received!.*?\n\*{40,}\n(.*)\n\*{40,}\nContent Length", re.S)
_SENT = re.compile(r"^Vnd-CheckSum: (\d+)\n", re.M)
STARTED = "VINDRAL SMART AGENT"
ACCEPTED, ANSWERED = "main_worker_thread::make_poll result: 1", "main_worker_thread::make_poll result: "


class Life:
    """One run of an agent."""

    def __init__(self):
        self.tests = {}      # {(list, id): Test}, by what it was told
        self.said = {}       # {(list, id): (location, fields)}, by what its lists say
        self.poll = self.check = 0  # seconds
        self.sums = []       # of the blocks that it sent, as it counts them; each sending
        self.accepted = []   # those of them that an answer followed
        self.errors = []
        self.commands = 0
        self._answer = self._sum = None
        self._is_in = False

    def take(self, text):
        """One entry."""
        if text.startswith("INFO: make_poll: sending request"):
            found = _SENT.search(text)
            self._answer, self._sum = None, int(found.group(1)) if found else None
            if found:
                self.sums.append(self._sum)
            self._is_login = "Vnd-SessionID:" not in text
        elif found := _ANSWER.match(text):
            self._answer = found.group(1).partition("\n\n")[2]
        elif ANSWERED in text:
            if ACCEPTED in text and self._answer is not None:
                for line in self._answer.split("\n"):
                    self._obey(line.split("\t"))
                if self._sum is not None:
                    self.accepted.append(self._sum)
            self._answer = None
        elif text.startswith("ERROR: "):
            self.errors.append(text)
        elif found := _DID.match(text):
            self._did(*found.groups())

    def _obey(self, fields):
        code = fields[0]
        if code in ("POL", "CHK"):
            setattr(self, "poll" if code == "POL" else "check", int(fields[2]))
        elif code in REMOVES:
            self.tests.pop((REMOVES[code], int(fields[1])), None)
        elif code in ADDS or code in CHANGES:
            key = ({**ADDS, **CHANGES}[code], int(fields[1]))
            if (key in self.tests) == (code in CHANGES):
                self.tests[key] = Test(int(fields[2]), (code[:2], *fields[3:]))
        elif code:
            self.errors.append("an unknown command: " + code)
        self.commands += code != ""

    def _did(self, function, what, number, location, rest):
        name = function.split("_", 1)[1]
        if name not in _SAYING:
            return
        key = (_SAYING[name], int(number))
        if what == "Removed":
            self.said.pop(key, None)
        else:
            self.said[key] = (int(location), re.match(_SAID[key[0]][0] + "$", rest.strip(), re.S).groups())

    def contradictions(self):
        """Where what its lists say is not what follows from the commands."""
        told = {key: (test.location, tuple(_SAID[key[0]][1](test.fields[1:])))
                for key, test in self.tests.items() if key[0] in _SAID}
        return ["%s %d: told %s, says %s" % (*key, told.get(key), self.said.get(key))
                for key in sorted({**told, **self.said}) if told.get(key) != self.said.get(key)]


class AgentLog:
    """Reads on where it has stopped."""

    def __init__(self, path):
        self.path, self.at, self.rest = path, 0, ""
        self.lives = []

    def read(self):
        """Takes in what was written since; returns the last life, None before the first."""
        if os.path.exists(self.path):
            with open(self.path, "rb") as file:
                file.seek(self.at)
                new = file.read()
            self.at += len(new)
            text = self.rest + new.decode("utf-8", "surrogateescape").replace("\r", "")
            # The last entry may not be whole: it is when another one begins behind it.
            entries = harness.log_entries(text + "\n") if text else []
            self.rest = entries.pop() if entries else ""
            for entry in entries:
                self._take(entry.split("\t", 1)[1] if "\t" in entry else entry)
        return self.lives[-1] if self.lives else None

    def _take(self, text):
        if STARTED in text:
            self.lives.append(Life())
        elif self.lives:
            self.lives[-1].take(text)
