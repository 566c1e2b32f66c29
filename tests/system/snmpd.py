"""Net-SNMP's agent on a port of its own, with objects as its configuration says."""

import os
import shutil
import socket
import subprocess

import harness

HERE = os.path.dirname(os.path.abspath(__file__))
MIBS = {"MIBDIRS": os.path.join(HERE, "..", "unit", "fixtures", "snmp"), "MIBS": "VINDRAL-TEST-MIB"}
TEST = "1.3.6.1.4.1.99990."  # what that module describes
TABLE = TEST + "1"

AUTH = "pass phrase of eight"

USERS = """createUser md5user MD5 "%(auth)s"
createUser shauser SHA "%(auth)s"
rouser md5user auth
rouser shauser auth
""" % {"auth": AUTH}


class Snmpd:
    """Started; it answers when this returns. `wrap` goes before the command line."""

    def __init__(self, test, *lines, addresses=(), wrap=(), name="snmpd"):
        program = shutil.which("snmpd", path=os.environ.get("PATH", "") + ":/usr/sbin")
        test.assertTrue(program, "snmpd is not installed")
        directory = test.subdir(name)
        conf = os.path.join(directory, "snmpd.conf")
        self.port = harness.free_port(socket.SOCK_DGRAM)
        harness.write_text(conf, "rocommunity public\n" + USERS + "".join(line + "\n" for line in lines))
        self.process = subprocess.Popen(
            [*wrap, program, "-f", "-Lf", os.path.join(directory, "log"), "-C", "-c", conf, "-m", "",
             "-p", os.path.join(directory, "pid"),
             *(addresses or ("udp:127.0.0.1:%d" % self.port,))],
            env={"PATH": os.environ["PATH"], "SNMP_PERSISTENT_DIR": directory},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        test.addCleanup(self.end)
        harness.wait_until(self.listens if addresses else self.answers, "snmpd's answer")

    def listens(self):
        """On the standard port, wherever it runs."""
        return ":%04X " % 161 in harness.read_text("/proc/%d/net/udp" % self.process.pid)

    def answers(self):
        """Asks for the time since the start, by version 1 and community public."""
        request = bytes.fromhex("302902010004067075626c6963a01c02040000000102010002010030"
                                "0e300c06082b060102010103000500")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.settimeout(0.2)
            try:
                probe.connect(("127.0.0.1", self.port))
                probe.send(request)
                return len(probe.recv(1500)) > 0
            except OSError:
                return False

    def end(self):
        self.process.kill()
        self.process.wait()
