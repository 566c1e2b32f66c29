"""MariaDB's server on a data directory, a port and a socket of its own."""

import os
import signal
import socket
import subprocess
import tempfile

import harness

USER, PASSWORD = "monitor", "pass;word|of 'hers'"

# It refuses to run as root unless told to.
AS_ROOT = ("--user=root",) if os.geteuid() == 0 else ()

# A quick start and little memory.
LIGHT = ("--skip-innodb", "--default-storage-engine=Aria", "--key-buffer-size=1M",
         "--aria-pagecache-buffer-size=1M")


class Mariadb:
    """Started; it answers when this returns. There is one account, USER, from this machine."""

    def __init__(self, test, *options, name="mariadb"):
        self.directory = test.subdir(name)
        self.data = os.path.join(self.directory, "data")
        self.port = harness.free_port()
        # A socket's path may not be long.
        self.socket = os.path.join(tempfile.gettempdir(), "mysql%d" % self.port)
        self.client = harness.program(test, "mariadb")
        self.log = os.path.join(self.directory, "log")
        self.command = [
            harness.program(test, "mariadbd"), "--no-defaults", *AS_ROOT, "--datadir=" + self.data,
            "--socket=" + self.socket, "--bind-address=127.0.0.1", "--port=%d" % self.port,
            "--skip-name-resolve", "--skip-log-bin", "--performance-schema=OFF",
            "--tmpdir=" + self.directory, *LIGHT, "--log-error=" + self.log, *options]
        done = subprocess.run([harness.program(test, "mariadb-install-db"), "--no-defaults", *AS_ROOT,
                               "--auth-root-authentication-method=normal", "--skip-test-db", *LIGHT,
                               "--tmpdir=" + self.directory, "--datadir=" + self.data],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        test.assertEqual(done.returncode, 0, done.stdout)
        self.process = None
        test.addCleanup(self.end)
        self.start()
        for host in ("localhost", "127.0.0.1"):
            self.sql("CREATE USER %s@'%s' IDENTIFIED BY \"%s\"" % (USER, host, PASSWORD))

    def start(self):
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        harness.wait_until(self.answers, lambda: "MariaDB's greeting\n" + harness.read_text(self.log)[-2000:])

    def answers(self):
        with socket.socket() as probe:
            probe.settimeout(1)
            try:
                probe.connect(("127.0.0.1", self.port))
                return probe.recv(1)
            except OSError:
                return False

    def sql(self, text):
        """What the statements answer, without headings."""
        return subprocess.run([self.client, "--no-defaults", "--user=root", "--socket=" + self.socket,
                               "--batch", "--skip-column-names", "-e", text],
                              stdout=subprocess.PIPE, text=True, check=True).stdout

    def connections(self, user=USER):
        """Numbers of the connections of a user."""
        return self.sql("SELECT id FROM information_schema.processlist WHERE user = '%s'" % user).split()

    def stop(self):
        """Neither answers nor closes anything until it is told to go on."""
        self.process.send_signal(signal.SIGSTOP)

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def end(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None
