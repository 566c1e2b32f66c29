"""vindral-enrol where systemd runs: a stand-in for systemctl starts and stops the agent and notes what it was told;
/etc and /run are the test's own. With the real systemd packaging/check_install tries it."""

import os
import re
import subprocess
import unittest

import harness
from enrolling import FakeCollector, Host

SYSTEMCTL = r"""#!/bin/bash
# Knows what vindral-enrol says to systemctl, and nothing else.
state=STATE
echo "$*" >>"$state/told"
[[ $1 == --no-ask-password ]] || exit 9
shift
words=()
now=false
for word; do
    case $word in
    --quiet) ;;
    --now) now=true ;;
    *) words+=("$word") ;;
    esac
done
unit=${words[1]}
pid() { cat HOME/vindral.pid 2>/dev/null; }
runs() { [[ -n $(pid) && $(readlink "/proc/$(pid)/exe") == PROGRAM ]]; } # not a zombie
stop() {
    runs || return 0
    local old
    old=$(pid)
    kill -HUP "$old"
    while [[ -n $(readlink "/proc/$old/exe") ]]; do sleep 0.05; done
}
start() {
    [[ ! -e $state/broken ]] || { echo "Job for $unit failed."; exit 1; }
    # It gives up its output when it holds its PID file.
    setpriv --reuid USER --regid USER --clear-groups PROGRAM -C /etc/vindral.conf </dev/null 2>&1 | cat >/dev/null
    runs
}
case ${words[0]} in
is-active) runs ;;
is-enabled) [[ -e $state/$unit.enabled ]] ;;
enable)
    touch "$state/$unit.enabled"
    [[ $unit != *.timer || ! -e $state/no-timer ]] || { echo "no timer"; exit 1; }
    ;;
disable) rm -f "$state/$unit.enabled" ;;
restart) stop; start ;;
stop) stop ;;
*) exit 8 ;;
esac
"""


class ServedHost(Host):
    """Its /etc is a copy of this machine's; the configuration is the one of the service."""

    def __init__(self, test, name="host", conf=""):
        super().__init__(test, name, conf)
        self.etc = os.path.join(self.dir, "copy")
        subprocess.run(["cp", "-a", "/etc", self.etc], check=True)
        self.text_before = self.before
        subprocess.run(["mv", self.conf, os.path.join(self.etc, "vindral.conf")], check=True)
        os.rename(self.directory, os.path.join(self.etc, "vindral"))
        self.conf, self.directory = os.path.join(self.etc, "vindral.conf"), os.path.join(self.etc, "vindral")
        self.state = os.path.join(self.dir, "systemd")
        os.mkdir(self.state)
        programs = os.path.join(self.dir, "bin")
        os.mkdir(programs, 0o755)
        systemctl = os.path.join(programs, "systemctl")
        text = SYSTEMCTL
        for word, value in (("STATE", self.state), ("HOME", self.home), ("USER", str(self.user)),
                            ("PROGRAM", os.path.join(os.path.dirname(self.program), "vindral"))):
            text = text.replace(word, value)
        harness.write_text(systemctl, text)
        os.chmod(systemctl, 0o755)
        self.env = {"PATH": programs + ":" + os.environ["PATH"]}
        self.wrap = ["unshare", "--mount", "sh", "-c",
                     "mount --bind '%s' /etc && mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/system && exec \"$@\""
                     % self.etc, "sh"]

    def command(self, *words):
        return [self.program, *words]

    def begin(self, *words, env=None, wrap=()):
        return super().begin(*words, env=dict(self.env, **(env or {})), wrap=[*self.wrap, *wrap])

    def agent(self):
        pid = harness.read_text(self.pid_path).strip()
        return int(pid) if pid and "-C\0/etc/vindral.conf" in harness.read_text("/proc/%s/cmdline" % pid) else None

    def start_agent(self):
        subprocess.run([*self.wrap, "systemctl", "--no-ask-password", "restart", "vindral.service"], check=True,
                       env=dict(os.environ, **self.env))
        return harness.wait_until(self.agent, "the agent to run")

    def told(self):
        return [line.removeprefix("--no-ask-password ")
                for line in harness.read_text(os.path.join(self.state, "told")).splitlines()]

    def enabled(self):
        return sorted(name[:-8] for name in os.listdir(self.state) if name.endswith(".enabled"))

    def value(self, key):
        """Paths as they are outside of that /etc."""
        found = super().value(key)
        return re.sub("^/etc", self.etc, found) if found else found

    def beside(self):
        return sorted(name for name in os.listdir(self.etc) if name.startswith("vindral.conf"))


@unittest.skipUnless(harness.isolated, "needs root: it has an /etc of its own")
class Service(harness.TestCase):
    def test_the_service_and_the_timer_are_enabled_and_started(self):
        collector = FakeCollector(self)
        host = ServedHost(self)
        said = host.enrol(collector.url, collector.make_token())
        host.check_enrolled("operator@example.org", "web-01")
        self.assertIn("Started the agent, now and with the system (vindral.service).", said)
        self.assertIn("(vindral-enrol.timer)", said)
        self.assertEqual(host.enabled(), ["vindral-enrol.timer", "vindral.service"])
        self.assertIn("enable --quiet --now vindral-enrol.timer", host.told())

    def test_a_start_that_fails_is_undone(self):
        collector = FakeCollector(self)
        host = ServedHost(self)
        harness.write_text(os.path.join(host.state, "broken"), "")
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("systemctl restart vindral.service failed: Job for vindral.service failed.", said)
        self.assertIn("Undone: the agent is stopped, as it was.", said)
        host.check_untouched(running=False, files=["agent-key.new"])
        self.assertEqual(host.enabled(), [])

    def test_an_agent_that_ran_runs_again(self):
        old, collector = FakeCollector(self, "old"), FakeCollector(self, "new")
        host = ServedHost(self, conf="USEREMAIL operator@example.org\nAGENTNAME web-01\nUSEHOST %s/x\n" % old.url)
        harness.write_text(os.path.join(host.state, "vindral.service.enabled"), "")
        first = host.start_agent()
        serve = collector.server.default

        def refuse(peer):
            if collector.asked("/enrol"):
                peer.read_request()
                peer.send(b"HTTP/1.0 200 OK\r\nVnd-SessionID: 666666\r\nContent-Length: 0\r\n\r\n")
                peer.end()
            else:
                serve(peer)
        collector.server.default = refuse
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("Undone: the agent runs again with its old settings.", said)
        host.check_untouched(running=True, files=["agent-key.new"])
        self.assertNotEqual(host.agent(), first)
        self.assertEqual(host.enabled(), ["vindral.service"])

    def test_without_a_timer_it_is_said(self):
        collector = FakeCollector(self)
        host = ServedHost(self)
        harness.write_text(os.path.join(host.state, "no-timer"), "")
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("The certificate will not be renewed by itself: vindral-enrol.timer cannot be started: no timer",
                      said)
        host.check_enrolled("operator@example.org", "web-01")


if __name__ == "__main__":
    harness.main()
