"""Programs that agents are tried against, each in a directory and on ports of its own: Net-SNMP's agent, MariaDB's
server, nginx; and certificates. ./run, the system tests and the measurements start them here.

Whoever makes one waits until `ready()` in a way of his own, gives up when `ended()`, and calls `end()`."""

import os
import random
import shutil
import signal
import socket
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))

_given_ports = set()


def free_port(kind=socket.SOCK_STREAM):
    """A free port, for programs that cannot tell which one they were given: below those that the kernel
    gives to connections, and none twice."""
    while True:
        port = random.randrange(10000, 32000)
        if port not in _given_ports and can_bind("127.0.0.1", port, kind):
            _given_ports.add(port)
            return port


def can_bind(address, port, kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        try:
            probe.bind((address, port))
        except OSError:
            return False
    return True


def find(name):
    """The path of an installed program, None when there is none. Daemons are not in everybody's PATH."""
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin")


def read_text(path):
    """The file's text; "" while there is no such file, or no longer such a process."""
    try:
        with open(path, encoding="utf-8", errors="surrogateescape", newline="") as file:
            return file.read()
    except (FileNotFoundError, ProcessLookupError):
        return ""


def write_text(path, text):
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else text.encode("utf-8", "surrogateescape"))


class Peer:
    """A program that runs. `wrap` goes before its command line and must exec it."""

    programs = ()  # that must be installed
    end_signal = signal.SIGKILL
    own_session = False  # whether no key of a terminal is to end it

    def __init__(self, directory, wrap=()):
        self.directory, self.wrap, self.process = directory, list(wrap), None
        self.log = os.path.join(directory, "log")

    @classmethod
    def missing(cls):
        """The name of a program that it needs and that is not installed, or None."""
        return next((name for name in cls.programs if not find(name)), None)

    def launch(self, command, **more):
        self.process = subprocess.Popen([*self.wrap, find(command[0]), *command[1:]], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        start_new_session=self.own_session, **more)

    def ended(self):
        """True when it has ended by itself."""
        return self.process is None or self.process.poll() is not None

    def end(self):
        if self.process is not None:
            self.process.send_signal(self.end_signal)
            self.process.wait()
            self.process = None

    def errors(self):
        """The end of its log."""
        return read_text(self.log)[-3000:]


AUTH = "pass phrase of eight"
USERS = ('createUser md5user MD5 "%s"' % AUTH, 'createUser shauser SHA "%s"' % AUTH, "rouser md5user auth",
         "rouser shauser auth")

# Where the tests' own module is, what it describes, and its table.
MIBS = {"MIBDIRS": os.path.join(HERE, "fixtures", "snmp"), "MIBS": "VINDRAL-TEST-MIB"}
TEST = "1.3.6.1.4.1.99990."
TABLE = TEST + "1"


class Snmpd(Peer):
    """With these lines in its configuration, on a port of its own, or on `addresses` instead."""

    programs = ("snmpd",)

    # The time since the start, by version 1 and community public.
    _REQUEST = bytes.fromhex("302902010004067075626c6963a01c02040000000102010002010030"
                             "0e300c06082b060102010103000500")

    def __init__(self, directory, *lines, addresses=(), more_addresses=(), wrap=()):
        super().__init__(directory, wrap)
        self.port = free_port(socket.SOCK_DGRAM)
        self.address = "127.0.0.1:%d" % self.port
        self.elsewhere = bool(addresses)
        conf = os.path.join(directory, "snmpd.conf")
        write_text(conf, "".join(line + "\n" for line in ("rocommunity public", *lines)))
        self.launch(["snmpd", "-f", "-LF", "w", self.log, "-C", "-c", conf, "-m", "", "-p", os.path.join(directory, "pid"),
                     *(addresses or ("udp:" + self.address,)), *more_addresses],
                    env={"PATH": os.environ["PATH"], "SNMP_PERSISTENT_DIR": directory})

    def ready(self):
        if self.elsewhere:  # on the standard port, wherever it runs
            return ":%04X " % 161 in read_text("/proc/%d/net/udp" % self.process.pid)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.settimeout(0.2)
            try:
                probe.connect(("127.0.0.1", self.port))
                probe.send(self._REQUEST)
                return len(probe.recv(1500)) > 0
            except OSError:
                return False


ACCOUNT, PASSWORD = "monitor", "pass;word|of 'hers'"


class Mariadb(Peer):
    """On a data directory of its own, which is made first: it takes a second or two. root comes in without a password by
    the socket, whose path may not be long. `light` is a quick start and little memory."""

    programs = ("mariadbd", "mariadb-install-db")

    def __init__(self, directory, *options, sock=None, network=True, light=True):
        super().__init__(directory)
        self.socket = sock or os.path.join(directory, "mysql.sock")
        self.port = free_port() if network else 0
        self.server = None
        common = ["--no-defaults", "--datadir=" + os.path.join(directory, "data"), "--tmpdir=" + directory]
        if os.geteuid() == 0:  # it refuses to run as root unless told to
            common.append("--user=root")
        if light:
            common += ["--skip-innodb", "--default-storage-engine=Aria", "--key-buffer-size=1M",
                       "--aria-pagecache-buffer-size=1M", "--aria-log-file-size=8M"]
        where = ["--bind-address=127.0.0.1", "--port=%d" % self.port] if network else ["--skip-networking"]
        self.command = ["mariadbd", *common, "--socket=" + self.socket, *where, "--skip-name-resolve", "--skip-log-bin",
                        "--performance-schema=OFF", "--log-error=" + self.log, *options]
        with open(self.log, "ab") as log:
            self.installation = subprocess.Popen(
                [find("mariadb-install-db"), *common, "--auth-root-authentication-method=normal", "--skip-test-db"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True)

    def start(self):
        self.launch(self.command)

    def ended(self):
        if self.process is None and self.installation is not None:
            return self.installation.poll() not in (None, 0)
        return super().ended()

    def ready(self):
        """Starts the server once the directory is made; true when it greets."""
        if self.installation is not None:
            if self.installation.poll() != 0:
                return False
            self.installation = None
            self.start()
        with socket.socket(socket.AF_UNIX) as probe:
            probe.settimeout(1)
            try:
                probe.connect(self.socket)
                return len(probe.recv(1)) > 0
            except OSError:
                return False

    def end(self):
        if self.installation is not None:
            # a script, whose server is its child
            if self.installation.poll() is None:
                os.killpg(self.installation.pid, signal.SIGKILL)
            self.installation.wait()
        super().end()

    def sql(self, text):
        """What the statements answer, without headings."""
        return subprocess.run([find("mariadb"), "--no-defaults", "--user=root", "--socket=" + self.socket,
                               "--batch", "--skip-column-names", "-e", text],
                              stdout=subprocess.PIPE, text=True, check=True).stdout

    def add_account(self):
        """ACCOUNT may come from this machine."""
        for host in ("localhost", "127.0.0.1"):
            self.sql("CREATE USER %s@'%s' IDENTIFIED BY \"%s\"" % (ACCOUNT, host, PASSWORD))

    def connections(self, user=ACCOUNT):
        """Numbers of the connections of a user."""
        return self.sql("SELECT id FROM information_schema.processlist WHERE user = '%s'" % user).split()

    def stop(self):
        """Neither answers nor closes anything until it is told to go on."""
        self.process.send_signal(signal.SIGSTOP)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)


class Nginx(Peer):
    """What stands in `http`, with %(NAME)d for each of the ports that are named, %(dir)s for the directory, and other
    values. It is ready when it listens on the last one."""

    programs = ("nginx",)
    end_signal = signal.SIGTERM  # it ends its worker

    def __init__(self, directory, http, ports, worker=False, wrap=(), **values):
        super().__init__(directory, wrap)
        self.ports = {name: free_port() for name in ports}
        paths = "".join("%s_temp_path %s/%s;\n" % (kind, directory, kind)
                        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        conf = os.path.join(directory, "nginx.conf")
        write_text(conf, "daemon off; master_process %s; worker_processes 1; pid %s/pid; error_log %s;\n%s"
                   "events { worker_connections 8192; }\nhttp {\n%sroot %s;\n%s}\n" % (
                       "on" if worker else "off", directory, self.log,
                       "user root;\n" if worker and os.geteuid() == 0 else "", paths, directory,
                       http % dict(values, dir=directory, **self.ports)))
        self.launch(["nginx", "-c", conf, "-e", self.log])

    def ready(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", list(self.ports.values())[-1])) == 0


class FarSide:
    """A network namespace of its own, connected to this one: 10.9.NUMBER.1 is here, the addresses, numbers of 1 to 254,
    are there. `enter` goes before a command line that is to run there. Needs root."""

    def __init__(self, number, *hosts):
        self.here, self.near = "10.9.%d.1" % number, "near%d" % number
        self.holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep infinity"],
                                       stdout=subprocess.PIPE)
        self.holder.stdout.readline()
        self.holder.stdout.close()
        self.pid = self.holder.pid
        self.enter = ["nsenter", "--target", str(self.pid), "--net"]
        commands = [["ip", "link", "add", self.near, "type", "veth", "peer", "name", "far", "netns", str(self.pid)],
                    ["ip", "link", "set", self.near, "up"], ["ip", "addr", "add", self.here + "/24", "dev", self.near],
                    self.enter + ["ip", "link", "set", "far", "up"]]
        commands += [self.enter + ["ip", "addr", "add", "10.9.%d.%d/24" % (number, host), "dev", "far"]
                     for host in hosts]
        for command in commands:
            subprocess.run(command, check=True)

    def end(self):
        subprocess.run(["ip", "link", "del", self.near], check=True)
        self.holder.kill()
        self.holder.wait()


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


KEYS = {
    "ec": ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"],
    "ec384": ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-384"],
    "rsa": ["-newkey", "rsa:2048"],
    "rsa4096": ["-newkey", "rsa:4096"],
    "ed25519": ["-newkey", "ed25519"],
}


def make_certificate(base, algorithm="ec", *options):
    """Paths of a self-signed certificate and its key, BASE.crt and BASE.key."""
    subject = [] if "-subj" in options else ["-subj", "/CN=collector.example.net"]
    openssl("req", "-x509", "-nodes", *KEYS[algorithm], "-keyout", base + ".key", "-out", base + ".crt", *subject,
            *options)
    return base + ".crt", base + ".key"
