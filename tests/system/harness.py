"""What every system test stands on: the programs under test as objects, waiting for conditions, and
cleaning up.

A test file ends in `harness.main()`. As root that runs the file again in namespaces of its own (pid,
mount, net), so that nothing can be left behind: when the test process ends, however it ends, the
kernel ends every process it started and drops every mount; the only network is a loopback of its own.
Without root the tests run in place, and those that need a namespace are skipped.

Environment: VINDRAL_BUILD_DIR, the build directory with the programs (CTest sets it).
"""

import concurrent.futures
import ctypes
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(HERE, "..", "support"))

import peers  # noqa: E402
import stored  # noqa: E402

BUILD = os.environ.get(
    "VINDRAL_BUILD_DIR", os.path.join(HERE, "..", "..", "build", "release"))
AGENT = os.path.join(BUILD, "vindral")
COLLECTOR = os.path.join(BUILD, "vindral-collector")


def _sanitizers():
    try:
        with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as cache:
            for line in cache:
                if line.startswith("VINDRAL_SANITIZE:"):
                    return line.rstrip("\n").split("=", 1)[1]
    except OSError:
        pass
    return ""


SANITIZERS = _sanitizers()  # "" for a plain build
PATIENCE_S = 240 if SANITIZERS else 120  # how long a condition may take before it counts as failed

_NAMESPACE_MARK = "VINDRAL_TEST_NAMESPACE"
isolated = os.environ.get(_NAMESPACE_MARK) == "1"

needs_namespaces = unittest.skipUnless(
    isolated, "needs root: the kernel files it replaces are mounted in a private namespace")

def main(names=None):
    """Runs the tests of the calling file, or those that the command line (or else the caller) names
    (Class, Class.test_method), and ends with status 0 when all passed."""
    if os.geteuid() == 0 and not isolated:
        unshare = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
        if subprocess.run(unshare + ["true"], stderr=subprocess.DEVNULL, check=False).returncode == 0:
            os.environ[_NAMESPACE_MARK] = "1"
            os.execvp("unshare", unshare + [sys.executable] + sys.argv)
    tempfile.tempdir = tempfile.mkdtemp(prefix="vindral-test-")
    if isolated:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        # The files in memory: the collector syncs for every poll, and a loaded disk takes its time.
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=700", "tmpfs", tempfile.tempdir],
                       check=True)
    else:
        become_reaper()
    try:
        passed = _run_tests(sys.argv[1:] if names is None else names)
    finally:
        if isolated:
            subprocess.run(["umount", "--lazy", tempfile.tempdir], check=False)
        shutil.rmtree(tempfile.tempdir, ignore_errors=True)
    sys.exit(0 if passed else 1)


def become_reaper():
    """Makes the daemons that agents turn into children of this process, so that their exit status
    can be read and their ids stay theirs until then."""
    PR_SET_CHILD_SUBREAPER = 36
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def _flatten(suite):
    for test in suite:
        yield from _flatten(test) if isinstance(test, unittest.TestSuite) else [test]


_at_end = []  # what is still to be checked or cleaned up after the last test


def at_end(check, *arguments):
    """Has it called after the file's last test; what it raises is a failure."""
    _at_end.append((check, arguments))


def _run_tests(names):
    """Runs the tests in threads: nearly all of their time is waiting."""
    module = sys.modules["__main__"]
    loader = unittest.TestLoader()
    suite = loader.loadTestsFromNames(names, module) if names else loader.loadTestsFromModule(module)

    def run(test):
        result = unittest.TestResult()
        start = time.monotonic()
        test.run(result)
        skipped = "".join(" (skipped: %s)" % reason for _, reason in result.skipped)
        outcome = skipped or (" ok" if result.wasSuccessful() else " FAILED")
        print("%s ...%s, %.1f s" % (test.id(), outcome, time.monotonic() - start), flush=True)
        return result

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        results = list(pool.map(run, _flatten(suite)))
    problems = [problem for result in results for problem in result.failures + result.errors]
    for check, arguments in reversed(_at_end):
        try:
            check(*arguments)
        except Exception as error:
            problems.append((check, repr(error)))
    for test, text in problems:
        print("=" * 70 + "\nFAILED: %s\n%s" % (test, text))
    print("%d tests, %d problems" % (len(results), len(problems)))
    return results and not problems


def wait_until(condition, what, timeout_s=None):
    """Polls until `condition()` is true and returns its value; fails the test after the time."""
    end = time.monotonic() + (timeout_s or PATIENCE_S)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError("waited in vain for: %s" % (what() if callable(what) else what))
        time.sleep(0.005)


def in_parallel(test, cases, at_once=12):
    """Runs cases, pairs of a name and a function, in threads; each shows as a subtest of `test`."""
    def attempt(case):
        try:
            case[1]()
        except BaseException as error:  # every kind is shown below
            return error
        return None

    with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        outcomes = list(pool.map(attempt, cases))
    for (name, _), error in zip(cases, outcomes):
        with test.subTest(name):
            if error is not None:
                raise error


free_port, read_text, write_text = peers.free_port, peers.read_text, peers.write_text


def black_hole(test):
    """A port on which connecting never ends: a listener whose queue is full takes no more."""
    listener = socket.socket()
    test.addCleanup(listener.close)
    listener.bind(("127.0.0.1", 0))
    listener.listen(0)
    while True:
        waiting = socket.socket()
        test.addCleanup(waiting.close)
        waiting.settimeout(0.3)
        try:
            waiting.connect(listener.getsockname())
        except TimeoutError:
            return listener.getsockname()[1]


def mounted(*files):
    """Words to put before a command line so that it runs with files mounted over others: source,
    target, source, target, ... in a mount namespace of its own."""
    mounts = " && ".join("mount --bind '%s' '%s'" % pair for pair in zip(files[::2], files[1::2]))
    return ["unshare", "--mount", "sh", "-c", mounts + ' && exec "$@"', "sh"]


def make_socket_file(path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(path)


class RisingLoad:
    """A file to mount over /proc/loadavg, with values that rise every few milliseconds."""

    def __init__(self, test):
        self.path = os.path.join(test.subdir("rising"), "loadavg")
        self._file = open(self.path, "wb", buffering=0)
        self._write(0)
        self._stopping = threading.Event()
        self._thread = threading.Thread(target=self._rise)
        self._thread.start()
        test.addCleanup(self._stop)

    def _write(self, value):
        os.pwrite(self._file.fileno(), b"%09d.00 0.00 0.00 1/1 1\n" % value, 0)

    def _rise(self):
        value = 0
        while not self._stopping.wait(0.002):
            value += 1
            self._write(value)

    def _stop(self):
        self._stopping.set()
        self._thread.join()
        self._file.close()


class Process:
    """A process by its id, child or not, ended and waited for through a pidfd."""

    def __init__(self, pid):
        self.pid = pid
        self.fd = os.pidfd_open(pid)
        self.status = None  # exit status once ended; negative for a signal

    def send(self, number):
        try:
            signal.pidfd_send_signal(self.fd, number)
        except ProcessLookupError:
            pass

    def ended(self, timeout_s=0):
        """True when the process has ended; waits up to `timeout_s` for it."""
        if self.status is not None:
            return True
        poller = select.poll()  # select() stops at descriptor 1023
        poller.register(self.fd, select.POLLIN)
        if not poller.poll(timeout_s * 1000):
            return False
        try:
            _, status = os.waitpid(self.pid, 0)
            self.status = os.waitstatus_to_exitcode(status)
        except ChildProcessError:
            self.status = 0  # not ours to ask
        os.close(self.fd)
        return True

    def wait(self, timeout_s=None):
        """Waits for the end and returns the exit status."""
        if not self.ended(timeout_s or PATIENCE_S):
            raise AssertionError("process %d has not ended" % self.pid)
        return self.status

    def kill(self):
        if not self.ended():
            self.send(signal.SIGKILL)
            self.ended(PATIENCE_S)


def children_of(pid):
    """Ids of the processes whose parent is `pid`."""
    found = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open("/proc/%s/stat" % entry, encoding="latin-1") as stat:
                    fields = stat.read().rpartition(")")[2].split()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if int(fields[1]) == pid:
                found.append(int(entry))
    return found


def open_files(pid):
    """What the process has open: {descriptor: its target}. Those that are closed meanwhile are left out."""
    files = {}
    for entry in os.listdir("/proc/%d/fd" % pid):
        try:
            files[int(entry)] = os.readlink("/proc/%d/fd/%s" % (pid, entry))
        except FileNotFoundError:
            pass
    return files


def wait_no_pipes(pid):
    """Waits until the process has no pipe open: each is one of a child's, or of one just being started."""
    def pipes():
        return [name for name in open_files(pid).values() if name.startswith("pipe")]
    wait_until(lambda: not pipes(), lambda: "pipes left: %s" % pipes())


def sanitizer_environment(directory):
    """The environment with which a sanitized program leaves its findings in `directory`; a daemon has
    no terminal to print them on."""
    env = dict(os.environ)
    for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
        own = "log_path='%s/sanitizer'" % directory  # a name may hold blanks
        if name != "UBSAN_OPTIONS":
            own += ":suppressions='%s'" % os.path.join(HERE, name[:4].lower() + ".supp")
        env[name] = env[name] + ":" + own if env.get(name) else own
    return env


def sanitizer_findings(directory):
    text = ""
    for name in sorted(os.listdir(directory)):
        if name.startswith("sanitizer."):
            text += read_text(os.path.join(directory, name))
    return text


def start_peer(test, kind, *arguments, name=None, **options):
    """One of the programs of peers.py, which is ready when this returns, and ends with the test."""
    test.assertIsNone(kind.missing(), "is not installed")
    peer = kind(test.subdir(name or kind.__name__.lower()), *arguments, **options)
    test.addCleanup(peer.end)

    def ready():
        test.assertFalse(peer.ended(), peer.errors())
        return peer.ready()
    wait_until(ready, lambda: "%s\n%s" % (kind.__name__, peer.errors()))
    return peer


def far_side(test, number, *hosts):
    side = peers.FarSide(number, *hosts)
    test.addCleanup(side.end)
    return side


def start_snmpd(test, *lines, **options):
    return start_peer(test, peers.Snmpd, *peers.USERS, *lines, **options)


def start_mariadb(test, *options):
    peer = start_peer(test, peers.Mariadb, *options, sock=tempfile.mktemp(prefix="mysql"))
    peer.add_account()
    return peer


class TestCase(unittest.TestCase):
    """A test with a directory of its own, which goes away with those of the file's other tests."""

    longMessage = True
    maxDiff = None

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix=self._testMethodName + "-")
        self._names = set()
        self._names_lock = threading.Lock()

    def subdir(self, name):
        """A new directory below the test's; a number is added when the name is taken."""
        with self._names_lock:
            unique = name
            while unique in self._names:
                unique = "%s-%d" % (name, len(self._names))
            self._names.add(unique)
        path = os.path.join(self.dir, unique)
        os.mkdir(path)
        return path


# What an agent's log says of a collection, and who reports inventories in it.
COLLECTED = re.compile(r"INFO: collect_result::(\w+) data size: (\d+)")
INVENTORY_SOURCES = ("get_proc_name_list", "get_mounted_list", "get_adapter_list")


class Agent:
    """One agent with a directory of its own: configuration, log, PID file and home.

    `wrap` goes before the command line (`unshare` and the like) and must exec it. A setting given as
    None is left out of the configuration.

    An agent takes two seconds to end, in which its log writer drains. So one that still runs at the
    end of its test is only told to; that it did, in order, is checked after the file's last test."""

    def __init__(self, test, port=None, name="agent", level=6, wrap=(), env=None, **settings):
        self.test = test
        self.dir = test.subdir(name)
        self.conf = os.path.join(self.dir, "vindral.conf")
        self.log_path = os.path.join(self.dir, "vindral.log")
        self.pid_path = os.path.join(self.dir, "vindral.pid")
        self.wrap = list(wrap)
        self.env = sanitizer_environment(self.dir)
        self.env.update(HOME=self.dir, SNMP_PERSISTENT_DIR=os.devnull)
        self.env.update(env or {})
        self.process = None
        self.settings = {
            "VINDRALHOME": self.dir,
            "LOGFILE": self.log_path,
            "PIDFILE": self.pid_path,
            "LOGLEVEL": level,
            "USEREMAIL": "user@example.net",
            "AGENTNAME": name,
        }
        if port is not None:
            self.settings["USEHOST"] = "https://127.0.0.1:%d/fcgi-bin/agentgateway" % port
        self.settings.update(settings)
        test.addCleanup(self._end)

    def write_config(self):
        lines = ["%s\t%s\n" % (key, value) for key, value in self.settings.items() if value is not None]
        write_text(self.conf, "".join(lines))

    def run(self, *options, program=AGENT, config=True, **kwargs):
        """Runs the command line to the end of everything that holds its standard output, which a
        daemon gives up once it has the PID lock. Returns the completed process."""
        if config:
            self.write_config()
            options = ("-C", self.conf) + options
        return subprocess.run(self.wrap + [program, *options], env=self.env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              errors="surrogateescape", timeout=PATIENCE_S, **kwargs)

    def run_to_end(self, *options):
        """Like run, for an agent that does not stay: also waits for what the parent leaves behind.
        Returns the exit statuses, the parent's first, and the output."""
        script = ("import os, sys; sys.path.insert(0, %r); import harness; harness.become_reaper();"
                  "os.spawnv(os.P_NOWAIT, sys.argv[1], sys.argv[1:])\n"
                  "try:\n while True: print(os.waitstatus_to_exitcode(os.wait()[1]), file=sys.stderr)"
                  "\nexcept ChildProcessError: pass") % HERE
        self.write_config()
        done = subprocess.run(
            self.wrap + [sys.executable, "-c", script, AGENT, "-C", self.conf, *options],
            env=self.env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, check=True, timeout=PATIENCE_S)
        return [int(status) for status in done.stderr.split()], done.stdout

    def start(self, *options, **kwargs):
        """Starts the daemon and returns itself."""
        parent = self.run(*options, **kwargs)
        self.test.assertEqual((parent.returncode, parent.stderr), (1, ""), parent.stdout)
        self.printed = parent.stdout
        self.adopt()
        return self

    def adopt(self):
        """Takes over the daemon that holds the PID file."""
        self.process = Process(int(read_text(self.pid_path)))

    def log(self):
        return read_text(self.log_path)

    def wait_log(self, text, count=1, timeout_s=None):
        """Waits until the log holds `text` `count` times and returns the log."""
        return wait_until(lambda: (lambda log: log.count(text) >= count and log)(self.log()),
                          lambda: "%r in the log:\n%s" % (text, self.log()[-6000:]), timeout_s)

    def collected(self, inventories=True):
        """The bytes of each collection, by the log; with inventories, which the collector keeps apart and only when
        they change, or without."""
        return [sum(int(size) for source, size in COLLECTED.findall(collection)
                    if inventories or source not in INVENTORY_SOURCES)
                for collection in self.log().split("INFO: Collecting results...")[1:]]

    def messages(self):
        """The log as a list of messages without their time stamps."""
        return [entry.split("\t", 1)[1] for entry in log_entries(self.log())]

    def hang_up(self):
        self.process.send(signal.SIGHUP)

    def stop(self, timeout_s=None):
        """Ends the agent and checks that it ended in order."""
        self.hang_up()
        self.check_end(timeout_s)

    def check_end(self, timeout_s=None):
        try:
            status = self.process.wait(timeout_s)
        finally:
            self.process.kill()
        findings = sanitizer_findings(self.dir)
        if findings or status != 0:
            raise AssertionError("%s: the agent of %s ended with status %d %s" % (
                self.test.id(), self.dir, status, findings))

    def _end(self):
        if self.process is None or self.process.ended():
            findings = sanitizer_findings(self.dir)
            if findings:
                raise AssertionError(findings)
        else:
            self.hang_up()
            at_end(self.check_end)


_NEXT_ENTRY = re.compile(r"\n(?=\[\d\d/\d\d/\d{4}:\d\d:\d\d:\d\d\]\t)")


def log_entries(log):
    """Splits a log into entries "[time]\\ttext"; a text may have several lines."""
    return _NEXT_ENTRY.split(log[:-1]) if log else []


class Collector:
    """A collector with a state directory and a plan of its own. `start` may be called again after
    the process has ended. `wrap` goes before the command line and must exec it. `rules` are words in
    place of the plan's: none, and the API applies a fleet, or `--fleet` and a file."""

    def __init__(self, test, *plan, name="collector", options=(), wrap=(), env=None, rules=None):
        self.test = test
        self.dir = test.subdir(name)
        self.state = os.path.join(self.dir, "state")
        self.plan = os.path.join(self.dir, "plan")
        self.port_file = os.path.join(self.dir, "port")
        self.rules = ["--plan", self.plan] if rules is None else list(rules)
        self.options = list(options)
        self.wrap = list(wrap)
        self.env = dict(sanitizer_environment(self.dir), **(env or {}))
        self.port = 0  # after the first start: the port that it was given, and keeps
        self.process = None
        self.add_to_plan(*plan)
        test.addCleanup(self._clean_up)

    def add_to_plan(self, *lines):
        with open(self.plan, "a", encoding="utf-8") as plan:
            plan.write("".join(line + "\n" for line in lines))

    def launch(self, *options):
        """Starts the program without waiting for it to be ready."""
        with open(os.path.join(self.dir, "output"), "ab") as output, \
                open(os.path.join(self.dir, "errors"), "ab") as errors:
            self.process = subprocess.Popen(
                [*self.wrap, COLLECTOR, "--json", "--web", "off", "--port", str(self.port), "--port-file", self.port_file,
                 "--state-dir", self.state, *self.rules, *self.options, *options],
                stdin=subprocess.DEVNULL, stdout=output, stderr=errors, env=self.env)
        return self

    def start(self, *options):
        if os.path.exists(self.port_file):
            os.unlink(self.port_file)
        self.launch(*options)
        wait_until(lambda: os.path.exists(self.port_file) or self.process.poll() is not None,
                   "the collector's port")
        self.test.assertIsNone(self.process.poll(), self.errors())
        self.port = int(read_text(self.port_file))
        return self

    def stop(self):
        """Ends it in order and checks that it did."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(PATIENCE_S)
        self.test.assertEqual((status, sanitizer_findings(self.dir)), (0, ""), self.errors())

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE_S)

    def errors(self):
        return read_text(os.path.join(self.dir, "errors"))

    def wait_errors(self, text, count=1):
        wait_until(lambda: self.errors().count(text) >= count,
                   lambda: "%r on standard error:\n%s" % (text, self.errors()))

    def results(self):
        """The objects printed so far."""
        whole_lines = read_text(os.path.join(self.dir, "output")).rpartition("\n")[0]
        return [json.loads(line) for line in whole_lines.splitlines()]

    def wait_results(self, condition, what="results", timeout_s=None):
        """Waits until there are printed results that satisfy the condition and returns them."""
        def found():
            return [result for result in self.results() if condition(result)]
        return wait_until(found, lambda: "%s; have %s\n%s" % (
            what, self.results()[-3:], self.errors()), timeout_s)

    def wait_test(self, test, count=1):
        """Waits for `count` results of one test and returns them all."""
        def found():
            results = [result for result in self.results() if result["test"] == test]
            return len(results) >= count and results
        return wait_until(found, lambda: "%d results of test %d; have %s\n%s" % (
            count, test, self.results()[-3:], self.errors()))

    def rows(self):
        """The results in the database, in the order of storing; inventories are none."""
        return stored.rows(os.path.join(self.state, "results.db"))

    def missing(self):
        """Exit status and output of the report of planned tests without results."""
        done = subprocess.run(
            [COLLECTOR, "--missing", "--state-dir", self.state, "--plan", self.plan],
            stdout=subprocess.PIPE, text=True, check=False, timeout=PATIENCE_S)
        return done.returncode, done.stdout

    def _clean_up(self):
        if self.process is not None and self.process.poll() is None:
            self.stop()
