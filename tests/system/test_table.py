"""The live table, on a terminal of its own."""

import os
import pty
import re
import subprocess
import threading

import fcntl
import struct
import termios

import harness

PLAN = ["POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1", "LAA\t2\t1\t0\t-1\t-1"]
FRAME = re.compile(rb"\x1b\[H\x1b\[\?7l(.*?)\x1b\[J\x1b\[\?7h", re.S)
ESCAPE = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


class OnTerminal(harness.Collector):
    """A collector whose standard output is a terminal."""

    def __init__(self, *arguments, rows=24, columns=80, **named):
        super().__init__(*arguments, **named)
        self.size = struct.pack("HHHH", rows, columns, 0, 0)
        self.drawn = b""

    def launch(self, *options):
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, self.size)
        with open(os.path.join(self.dir, "errors"), "ab") as errors:
            self.process = subprocess.Popen(
                [harness.COLLECTOR, "--web", "off", "--port", str(self.port), "--port-file", self.port_file,
                 "--state-dir", self.state, *self.rules, *self.options, *options],
                stdin=subprocess.DEVNULL, stdout=theirs, stderr=errors,
                env=dict(self.env, TERM="xterm"))
        os.close(theirs)
        self.drawn = b""
        threading.Thread(target=self.read, args=(ours,), daemon=True).start()
        return self

    def read(self, terminal):
        try:
            while piece := os.read(terminal, 65536):
                self.drawn += piece
        except OSError:  # the collector has ended
            pass
        os.close(terminal)

    def screen(self):
        """The lines of the last whole screen."""
        frames = FRAME.findall(self.drawn)
        text = ESCAPE.sub("", frames[-1].decode()) if frames else ""
        return [line.rstrip() for line in text.split("\r\n")]

    def wait_screen(self, *texts):
        """Waits for a screen that has all of these and returns its lines."""
        def found():
            lines = self.screen()
            return all(text in "\n".join(lines) for text in texts) and lines
        return harness.wait_until(found, lambda: "%s on the screen; there is\n%s\n%s" % (
            texts, "\n".join(self.screen()), self.errors()))


class Table(harness.TestCase):
    def test_what_is_wrong_is_on_top(self):
        collector = OnTerminal(self, *PLAN).start()
        lines = collector.wait_screen("no agent is known yet", "USEHOST")
        self.assertIn("Listening on 127.0.0.1:%d" % collector.port, lines)
        agent = harness.Agent(self, collector.port, name="web1").start()
        lines = collector.wait_screen("1 problem, 1 ok - 2 tests on 1 host")
        self.assertEqual(lines[1], "web1  1 problem, 1 ok")
        self.assertRegex(lines[2], r"^  ! load average 2  for \d+s +Load Average 1 min value: \d+\.\d+ / Max value: 0")
        self.assertRegex(lines[3], r"^    load average 1  \d+s ago +load1 [\d.]+ load5 [\d.]+ load15 [\d.]+")
        self.assertFalse([line for line in lines if "login" in line or "process names" in line])
        # A test that is taken out vanishes.
        collector.add_to_plan("LAD\t2\t1")
        lines = collector.wait_screen("all ok - 1 test on 1 host")
        self.assertEqual(lines[1], "web1  1 ok")
        # A restart begins with what is stored, and holds its own absence against nobody.
        agent.stop()
        collector.stop()
        collector.start()
        lines = collector.wait_screen("all ok - 1 test on 1 host")
        self.assertRegex(lines[1], r"^web1  1 ok, last heard \d+s ago$")

    def test_the_collector_has_lines_at_the_bottom(self):
        collector = OnTerminal(self, *PLAN, "LAA\tone", rows=6, columns=50).start()
        lines = collector.wait_screen("plan line 5: ")
        self.assertRegex([line for line in lines if line][-1], r"^\* \d\d:\d\d:\d\d plan line 5: LAA takes 6 or 7")


if __name__ == "__main__":
    harness.main()
