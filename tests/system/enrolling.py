"""A host that is being enrolled, with directories of its own, and a collector of which a test says what it answers.

The agent runs as the user vindral, who need not exist here: the tests put one into /etc/passwd of their namespace."""

import itertools
import os
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
import threading

import harness
from peers import openssl
from scripted_server import ScriptedServer, response, server_context

ENROL = os.path.join(harness.BUILD, "vindral-enrol")
USER = 64917
CHANGED = re.compile(r"^(USEREMAIL|AGENTNAME|USEHOST|CAFILE|CERTFILE|KEYFILE)\s.*\n", re.M)
AUTHORITY_LINE = re.compile(r"^Agents' authority: SHA-256 ([0-9a-f]{64})$", re.M)

_made = threading.Lock()
_programs = []


def make_user():
    """In /etc of this namespace, once."""
    try:
        pwd.getpwnam("vindral")
        return
    except KeyError:
        pass
    for name, line in (("passwd", "vindral:x:%d:%d::/:/usr/sbin/nologin\n" % (USER, USER)),
                       ("group", "vindral:x:%d:\n" % USER)):
        copy = os.path.join(tempfile.tempdir, name)
        harness.write_text(copy, harness.read_text("/etc/" + name) + line)
        os.chmod(copy, 0o644)
        subprocess.run(["mount", "--bind", copy, "/etc/" + name], check=True)


def programs():
    """vindral-enrol, beside the agent, where everybody may run them."""
    with _made:
        if not _programs:
            os.chmod(tempfile.tempdir, 0o711)
            make_user()
            directory = os.path.join(tempfile.tempdir, "sbin")
            os.mkdir(directory, 0o755)
            for program in (ENROL, harness.AGENT):
                shutil.copy(program, directory)
            _programs.append(os.path.join(directory, "vindral-enrol"))
        return _programs[0]


class Host:
    """What the package leaves on a host, and vindral-enrol there."""

    def __init__(self, test, name="host", conf=""):
        self.test, self.program = test, programs()
        os.chmod(test.dir, 0o711)
        self.dir = test.subdir(name)
        os.chmod(self.dir, 0o711)
        self.conf = os.path.join(self.dir, "vindral.conf")
        self.directory = os.path.join(self.dir, "etc")
        self.home = os.path.join(self.dir, "home")
        self.user, self.group = pwd.getpwnam("vindral")[2:4]
        os.mkdir(self.directory, 0o750)
        os.chown(self.directory, 0, self.group)
        os.chmod(self.directory, 0o750)
        os.mkdir(self.home, 0o750)
        os.chown(self.home, self.user, self.group)
        self.log_path = os.path.join(self.home, "vindral.log")
        self.pid_path = os.path.join(self.home, "vindral.pid")
        harness.write_text(self.conf, "# as it was installed\n#USEREMAIL  operator@example.org\n" + conf +
                           "VINDRALHOME %s\nLOGFILE %s\nPIDFILE %s\nLOGLEVEL 6\n" % (
                               self.home, self.log_path, self.pid_path))
        os.chown(self.conf, 0, self.group)
        os.chmod(self.conf, 0o640)
        self.before = harness.read_text(self.conf)
        test.addCleanup(self._end)

    def command(self, *words):
        return [self.program, "--conf", self.conf, "--dir", self.directory, *words]

    def begin(self, *words, env=None, wrap=()):
        return subprocess.Popen([*wrap, *self.command(*words)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, errors="replace",
                                env=dict(harness.sanitizer_environment(self.dir), **(env or {})))

    def ask(self, *words):
        """Begins, and returns the process and the key that it says it waits with."""
        process, said = self.begin(*words), ""
        while "--key " not in said:
            line = process.stdout.readline()
            self.test.assertTrue(line, said)
            said += line
        return process, said.rsplit("--key ", 1)[1].strip()

    def run(self, *words, **more):
        """Exit status and what it said."""
        process = self.begin(*words, **more)
        try:
            said, _ = process.communicate(timeout=2 * harness.PATIENCE_S)
        except subprocess.TimeoutExpired:
            process.kill()
            said, _ = process.communicate()
            raise AssertionError("it does not end: " + said) from None
        return process.returncode, said

    def enrol(self, *words, status=0, **more):
        """Runs it, checks its exit status and returns what it said."""
        found, said = self.run(*words, **more)
        self.test.assertEqual(found, status, said + "\n" + harness.read_text(self.log_path)[-3000:])
        return said

    def text(self):
        return harness.read_text(self.conf)

    def value(self, key):
        found = re.findall(r"^%s\s+(.*?)\s*$" % key, self.text(), re.M)
        return (found[-1] if key == "USEHOST" else found[0]) if found else None

    def files(self):
        return sorted(os.listdir(self.directory))

    def beside(self):
        return sorted(name for name in os.listdir(self.dir) if name.startswith("vindral.conf"))

    def agent(self):
        """The id of the agent that runs, or None."""
        pid = harness.read_text(self.pid_path).strip()
        if pid and ("-C\0" + self.conf) in harness.read_text("/proc/%s/cmdline" % pid):
            return int(pid)
        return None

    def log(self):
        return harness.read_text(self.log_path)

    def start_agent(self):
        """As it runs before an enrolment: with the settings as they are."""
        subprocess.run([os.path.join(os.path.dirname(self.program), "vindral"), "-C", self.conf],
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=False, user=self.user,
                       group=self.group, extra_groups=[], env=dict(os.environ, HOME=self.home))
        return harness.wait_until(self.agent, "the agent to run")

    def check_untouched(self, running=None, files=()):
        """All is as it was, but for these files in the directory."""
        self.test.assertEqual(self.text(), self.before)
        self.test.assertEqual(self.files(), sorted(files))
        self.test.assertEqual(self.beside(), ["vindral.conf"])
        status = os.stat(self.conf)
        self.test.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777), (0, self.group, 0o640))
        if running is not None:
            self.test.assertEqual(self.agent() is not None, running)

    def check_whole(self):
        """Whatever was cut short, what is in force is whole: the old settings or all of the new ones."""
        if self.text() == self.before:
            return False
        identity = self.value("CERTFILE")
        self.test.assertEqual(identity, self.value("KEYFILE"))
        for file in (identity, self.value("CAFILE")):
            status = os.stat(file)
            self.test.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777),
                                  (0, self.group, 0o640), file)
        self.test.assertEqual(self.keys(identity, "pkey"), self.keys(identity, "x509"))
        self.test.assertIn("BEGIN CERTIFICATE", harness.read_text(self.value("CAFILE")))
        self.test.assertEqual(CHANGED.sub("", self.text()), CHANGED.sub("", self.before))
        return True

    def check_enrolled(self, account, name, identity="agent.pem", authorities="ca.pem", running=True):
        self.test.assertTrue(self.check_whole())
        self.test.assertEqual((self.value("USEREMAIL"), self.value("AGENTNAME")), (account, name))
        self.test.assertEqual(self.value("CERTFILE"), os.path.join(self.directory, identity))
        self.test.assertEqual(self.value("CAFILE"), os.path.join(self.directory, authorities))
        self.test.assertEqual(self.files(), sorted([identity, authorities]))
        self.test.assertEqual(self.beside(), ["vindral.conf"])
        if running:
            pid = self.agent()
            self.test.assertIsNotNone(pid, self.log()[-2000:])
            self.test.assertEqual(os.stat("/proc/%d" % pid).st_uid, self.user)

    @staticmethod
    def keys(path, kind):
        out = ["-pubout"] if kind == "pkey" else ["-pubkey", "-noout"]
        return subprocess.run(["openssl", kind, "-in", path, *out], check=True, stdout=subprocess.PIPE).stdout

    def identity(self):
        return harness.read_text(self.value("CERTFILE"))

    def _end(self):
        pid = self.agent()
        if pid is not None:
            process = harness.Process(pid)
            process.send(signal.SIGHUP)
            if not process.ended(20):
                process.kill()


class FakeCollector:
    """Enrols whoever asks, the way its attributes say, and lets every agent in.

    `authority_steps` and `enrol_steps` are functions of (collector, peer, head, body), which answer the next requests
    instead."""

    def __init__(self, test, name="fake", address=("127.0.0.1", 0)):
        self.test = test
        self.dir = test.subdir(name)
        self.server_ca = self._authority("server-ca")
        self.agents_ca = self._authority("agents-ca")
        self.names = ("operator@example.org", "web-01")
        self.status = 200
        self.days = 90
        self.token = None
        self.authority_steps, self.enrol_steps = [], []
        self.requests = []  # (method and path, headers by lower-case name, body)
        self.issued = itertools.count()  # next() is whole, whatever thread asks
        self.bundle = None
        key, pem = os.path.join(self.dir, "server.key"), os.path.join(self.dir, "server.pem")
        self._sign("server", "subjectAltName=DNS:localhost,IP:127.0.0.1\nextendedKeyUsage=serverAuth", self.server_ca)
        context = server_context(pem, key)
        context.load_verify_locations(self.agents_ca[0])
        context.verify_mode = 1  # asks for a certificate, and does not insist
        self.server = ScriptedServer(test, context=context, default=self._serve, address=address)
        self.port = self.server.port
        self.url = "https://127.0.0.1:%d" % self.port

    def _path(self, name, kind):
        return os.path.join(self.dir, "%s.%s" % (name, kind))

    def _authority(self, name):
        openssl("req", "-x509", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-keyout",
                self._path(name, "key"), "-out", self._path(name, "pem"), "-subj", "/CN=" + name, "-days", "30")
        return self._path(name, "pem"), self._path(name, "key")

    def _sign(self, name, extensions, by, days=30):
        openssl("req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-keyout",
                self._path(name, "key"), "-subj", "/CN=" + name, "-out", self._path(name, "csr"))
        self._sign_request(name, extensions, by, days)

    def _sign_request(self, name, extensions, by, days):
        harness.write_text(self._path(name, "ext"), extensions + "\n")
        openssl("x509", "-req", "-in", self._path(name, "csr"), "-days", str(days), "-extfile",
                self._path(name, "ext"), "-CA", by[0], "-CAkey", by[1], "-set_serial", "1", "-out",
                self._path(name, "pem"))

    def hash(self, pem):
        return subprocess.run("openssl x509 -in '%s' -outform DER | openssl dgst -sha256 -r" % pem, shell=True,
                              check=True, stdout=subprocess.PIPE, text=True).stdout.split()[0]

    def make_token(self, pin=None):
        """A token that pins the server's authority, or another certificate."""
        import base64
        raw = os.urandom(32) + bytes.fromhex(self.hash(pin or self.server_ca[0]))
        self.token = "ve_" + base64.urlsafe_b64encode(raw).decode().rstrip("=")
        return self.token

    def certificate(self, request, names=None, days=None):
        """PEM of a certificate for a request."""
        account, agent = (part.replace("@", "%40") for part in names or self.names)
        name = "issued-%d" % next(self.issued)
        harness.write_text(self._path(name, "csr"), request)
        self._sign_request(name, "subjectAltName=URI:vindral:%s/%s\nextendedKeyUsage=clientAuth" % (account, agent),
                           self.agents_ca, days or self.days)
        return harness.read_text(self._path(name, "pem"))

    def answer_authority(self, peer):
        text = self.bundle or harness.read_text(self.server_ca[0])
        peer.send(response(text, "Vnd-Authority: " + self.hash(self.agents_ca[0])))

    def answer_enrol(self, peer, head, body):
        if self.status != 200:
            peer.send(response("not you, not now\n", status="%d Because" % self.status))
        else:
            peer.send(response(self.certificate(body)))

    def asked(self, path):
        return [request for request in self.requests if request[0].endswith(path)]

    def _serve(self, peer):
        head, body = peer.read_head()
        lines = head.decode().split("\r\n")
        headers = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        while len(body) < int(headers.get("content-length", 0)):
            body += peer.sock.recv(65536)
        what = " ".join(lines[0].split()[:2])
        self.requests.append((what, headers, body))
        if what == "GET /authority":
            step = self.authority_steps.pop(0) if self.authority_steps else None
            step(self, peer, headers, body) if step else self.answer_authority(peer)
        elif what == "POST /enrol":
            step = self.enrol_steps.pop(0) if self.enrol_steps else None
            step(self, peer, headers, body) if step else self.answer_enrol(peer, headers, body)
        else:
            extra = ["Vnd-SessionID: s1"] if "vnd-sessionid" not in headers else []
            peer.send(response("POL\t0\t1\n", *extra))
        peer.end()


def cut(collector, peer, headers, body):
    """Nothing is answered, and the connection is reset."""
    peer.reset()


def answer_raw(data):
    def step(collector, peer, headers, body):
        peer.send(data)
    return step
