#!/usr/bin/env python3
"""Figures of whole processes, from build/release: an idle agent, a large poll, and how many polls a
collector takes on one core beside an nginx worker on the same core. Needs nginx and taskset; two cores.

    tests/bench/whole.py [idle] [poll] [load]

Also what the other measurements share. None of its waits lasts for ever: each has an end, and says which
process has ended when that is why it was in vain.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path += [os.path.join(TOP, "tests", "support"), os.path.join(TOP, "tests", "system")]
import peers  # noqa: E402
import stored  # noqa: E402

BUILD = os.environ.get("VINDRAL_BUILD_DIR", os.path.join(TOP, "build", "release"))
BENCH = os.path.join(BUILD, "tests", "bench")
PATIENCE_S = 90  # a poll that failed is tried again after 60 s
TOOL_S = 900  # what a tool may take that asks many times

_counted_on = {}  # a Popen or an id: its name


def count_on(process, name):
    """A wait is in vain once this process, a Popen or an id, has ended. Returns it."""
    _counted_on[process] = name
    return process


def no_more(process):
    """It may end now."""
    _counted_on.pop(process, None)


def ending_of(process):
    """How it has ended, None while it runs. An id's process may be another's child, and gone."""
    if not isinstance(process, int):
        code = process.poll()
    else:
        try:
            with open("/proc/%d/stat" % process, encoding="latin-1") as file:
                fields = file.read().rpartition(")")[2].split()
        except (FileNotFoundError, ProcessLookupError):
            return "has ended"
        code = os.waitstatus_to_exitcode(int(fields[49])) if fields[0] in "ZX" else None
    if code is None:
        return None
    return "was ended by signal %d" % -code if code < 0 else "has ended with status %d" % code


def give_up(what):
    endings = [(name, ending_of(process)) for process, name in _counted_on.items()]
    sys.exit("waited in vain for %s%s" % (what, "".join("; %s %s" % pair for pair in endings if pair[1])))


def wait_for(condition, what, step_s=0.02, patience_s=PATIENCE_S):
    last = time.monotonic() + patience_s
    while True:
        try:
            if condition():
                return
        except OSError:
            if not any(map(ending_of, _counted_on)):
                raise
        if time.monotonic() > last or any(map(ending_of, _counted_on)):
            give_up(what)
        time.sleep(step_s)


def started(peer):
    """A peer of peers.py that is ready."""
    name = type(peer).__name__
    wait_for(lambda: peer.ready() or peer.ended(), name)
    if peer.ended():
        sys.exit("%s did not start: %s" % (name, peer.errors()))
    count_on(peer.process, name)
    return peer


def join(thread, what, patience_s=PATIENCE_S):
    thread.join(patience_s)
    if thread.is_alive():
        give_up(what)


def _end_by_signal(number, _):
    sys.exit("ended by signal %d" % number)


# The first process of a namespace would not even get those that it does not handle.
for _number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
    signal.signal(_number, _end_by_signal)


def start_collector(home, *before, options=(), env=None, program=None, step_s=0.02):
    port_file = os.path.join(home, "port")
    if os.path.exists(port_file):
        os.unlink(port_file)
    web = [] if program else ["--web", "off"]  # another program may be an earlier one, without that option
    process = subprocess.Popen(
        [*before, program or os.path.join(BUILD, "vindral-collector"), "--quiet", *web, "--port", "0", "--port-file",
         port_file, "--state-dir", os.path.join(home, "state"), "--max-per-address", "1000", *options],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
    count_on(process, "the collector")
    wait_for(lambda: os.path.exists(port_file), "the collector", step_s)
    with open(port_file, encoding="ascii") as file:
        return process, int(file.read())


def unit_environment():
    """The settings of the packaged service; home directories are the measurements' own."""
    with open(os.path.join(TOP, "packaging", "vindral.service.in"), encoding="utf-8") as unit:
        settings = [line.rstrip("\n").split("=", 2)[1:] for line in unit if line.startswith("Environment=")]
    return {name: value for name, value in settings if name != "HOME"}


def end(process):
    name = _counted_on.pop(process, process.args[0])
    process.terminate()
    try:
        process.wait(PATIENCE_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait(PATIENCE_S)
        sys.exit("%s had to be killed" % name)


def memory_kb(pid):
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as file:
        sizes = {line.split(":")[0]: int(line.split()[1]) for line in file if line.endswith(" kB\n")}
    return sizes["Rss"], sizes["Pss"]


def wake_ups(pid):
    total = 0
    for task in os.listdir("/proc/%d/task" % pid):
        with open("/proc/%d/task/%s/status" % (pid, task), encoding="ascii") as file:
            total += sum(int(line.split()[1]) for line in file if "ctxt_switches" in line)
    return total


def idle(home):
    collector, port = start_collector(home)
    paths = {key: os.path.join(home, key) for key in ("conf", "log", "pid")}
    with open(paths["conf"], "w", encoding="utf-8") as file:
        file.write("VINDRALHOME %s\nLOGFILE %s\nPIDFILE %s\nUSEREMAIL bench@example.org\nLOGLEVEL 1\n"
                   "AGENTNAME idle\nUSEHOST https://127.0.0.1:%d/fcgi-bin/agentgateway\n"
                   % (home, paths["log"], paths["pid"], port))
    started = time.monotonic()
    subprocess.run([os.path.join(BUILD, "vindral"), "-C", paths["conf"]], check=False,
                   env=dict(os.environ, **unit_environment()))

    def log():
        try:
            with open(paths["log"], encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    wait_for(lambda: "Authorization was successfully completed." in log(), "the first answer", step_s=0.0005)
    print("start to first answer: %.0f ms" % ((time.monotonic() - started) * 1000))
    with open(paths["pid"], encoding="ascii") as file:
        pid = int(file.read())
    time.sleep(5)
    before = wake_ups(pid)
    time.sleep(30)
    print("idle agent without a test: RSS %d KB, PSS %d KB, %.2f wake-ups/s" % (
        *memory_kb(pid), (wake_ups(pid) - before) / 30))
    os.kill(pid, signal.SIGHUP)
    wait_for(lambda: not os.path.exists("/proc/%d" % pid), "the agent's end")
    end(collector)


def poll(home):
    collector, port = start_collector(home)
    subprocess.run([os.path.join(BENCH, "poll_block"), str(port), "1", "20"], check=True,
                   timeout=TOOL_S)
    end(collector)


NGINX = """access_log off; keepalive_timeout 0;
server { listen 127.0.0.1:%(port)d ssl backlog=1024; ssl_certificate %(cert)s; ssl_certificate_key %(key)s;
ssl_protocols TLSv1.2 TLSv1.3; ssl_session_cache off; ssl_session_tickets off;
location / { return 200 ""; } }
"""


def start_nginx(home, certificate, key):
    """It and the id of its worker."""
    nginx = started(peers.Nginx(tempfile.mkdtemp(dir=home), NGINX, ["port"], worker=True,
                                wrap=["taskset", "-c", "0"], cert=certificate, key=key))
    with open("/proc/%d/task/%d/children" % (nginx.process.pid, nginx.process.pid), encoding="ascii") as file:
        return nginx, int(file.read().split()[0])


def load(home):
    """Load on one core, the server on the other, in turns."""
    proven_home, certificates = os.path.join(home, "proven"), os.path.join(home, "certificates")
    os.mkdir(proven_home)
    subprocess.run([os.path.join(BENCH, "fleet_identities"), os.path.join(proven_home, "state"), certificates,
                    "load@example.org", "load", "32"], check=True, stdout=subprocess.DEVNULL, timeout=TOOL_S)
    collector, port = start_collector(home, "taskset", "-c", "0")
    proven, proven_port = start_collector(proven_home, "taskset", "-c", "0", options=["--agents", "proven"])
    state = os.path.join(home, "state")
    pem = sorted(name for name in os.listdir(state) if name.endswith(".pem"))
    certificate = os.path.join(state, next(name for name in pem if "key" not in name))
    key = os.path.join(state, next(name for name in pem if "key" in name))
    nginx, nginx_worker = start_nginx(home, certificate, key)
    for _ in range(3):
        for name, pid, at, more in (("nginx", nginx_worker, nginx.ports["port"], ["--plain-answers"]),
                                    ("collector", collector.pid, port, []),
                                    ("collector, proven agents", proven.pid, proven_port,
                                     ["--certificates", certificates])):
            print(name + ": ", end="", flush=True)
            subprocess.run(["taskset", "-c", "1", os.path.join(BENCH, "poll_load"), "--port", str(at),
                            "--seconds", "5", "--threads", "32", "--pid", str(pid), *more], check=False,
                           timeout=TOOL_S)
    end(nginx.process)
    end(proven)
    end(collector)


def main():
    chosen = sys.argv[1:] or ["idle", "poll", "load"]
    home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
    try:
        for name in chosen:
            {"idle": idle, "poll": poll, "load": load}[name](home)
    finally:
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
