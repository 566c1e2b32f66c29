"""From the command line to the end of the process: options, configuration, the PID file, the log."""

import os
import re
import shutil
import signal
import subprocess

import harness
from scripted_server import ScriptedServer

USAGE = ("\nUsage: vindral  [-C configuration file] [-L log file] [ -l lock file] [-D home directory]"
         " [-U user e-mail] [-A agent name] [-V] [-h]\n")

OPTIONS = """Options:
  -h, --help               Print detailed help screen
  -V, --version            Print version information
  -C, --conf-file=ADDRESS  Configuration file address ( default: /etc/vindral.conf )
  -L, --log-file=ADDRESS   Log file address
  -l, --lock-file=ADDRESS  Lock file address
  -D, --home-dir=ADDRESS   Home directory address
  -E, --user-email=E-MAIL  E-Mail address
  -A, --agent-name=NAMA    Agent name

"""

BUILD_DATE = r"[A-Z][a-z]{2} [ 123]\d 20\d\d \d\d:\d\d:\d\d"
VERSION = r"\nVindral Smart Agent 3\.0\nBuilt at " + BUILD_DATE + r"\n\n"


class CommandLine(harness.TestCase):
    def run_agent(self, *options, program=harness.AGENT):
        agent = harness.Agent(self)
        return agent.run(*options, program=program, config=False)

    def expect(self, options, output, status=0):
        done = self.run_agent(*options)
        self.assertEqual((done.stdout, done.stderr, done.returncode), (output, "", status), options)

    def test_help(self):
        for option in ("-h", "--help"):
            done = self.run_agent(option)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertRegex(done.stdout, "^" + VERSION + r"Copyright .+\n\nProgram usage:" +
                             re.escape(USAGE + OPTIONS) + "$")

    def test_version(self):
        for option in ("-V", "--version"):
            done = self.run_agent(option)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertRegex(done.stdout, "^" + VERSION + "$")

    def test_help_does_not_read_the_configuration(self):
        done = self.run_agent("-C", "/proc/nonexistent", "-h")
        self.assertNotIn("nonexistent", done.stdout)
        self.assertEqual(done.returncode, 0)

    def test_wrong_options(self):
        """getopt_long says what is wrong on standard error, the agent how it is used."""
        for options, complaint in (
                (["-x"], "invalid option -- 'x'"),
                (["-E", "mail"], "invalid option -- 'E'"),
                (["--no-such-option"], "unrecognized option '--no-such-option'"),
                (["-C"], "option requires an argument -- 'C'"),
                (["--log-file"], "option '--log-file' requires an argument"),
                (["--help=x"], "option '--help' doesn't allow an argument")):
            done = self.run_agent(*options)
            self.assertEqual((done.stdout, done.stderr, done.returncode),
                             (USAGE, "%s: %s\n" % (harness.AGENT, complaint), 0))

    def test_first_argument_that_is_no_option_ends_the_options(self):
        agent = harness.Agent(self)
        agent.write_config()
        done = agent.run("stop", "-V", config=False)
        self.assertNotIn("Built at", done.stdout)

    def test_no_configuration_file(self):
        agent = harness.Agent(self)
        os.mkdir(agent.conf)
        for path, reason in (("/proc/nonexistent/vindral.conf", "No such file or directory"),
                             (agent.conf + "/", None)):
            done = self.run_agent("-C", path)
            if reason:
                self.assertEqual(done.stdout, '\nCan not open main configuration file: "%s" for '
                                 'reading, %s\n' % (path, reason))
            self.assertEqual((done.returncode, done.stderr), (0, ""))

    @harness.needs_namespaces
    def test_default_configuration_file(self):
        """Without options the configuration is /etc/vindral.conf, here one in a private /etc."""
        wrap = ["unshare", "--mount", "sh", "-c",
                "mount -t tmpfs tmpfs /etc && { [ -z \"$0\" ] || cp \"$0\" /etc/vindral.conf; } && "
                "exec \"$@\""]
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1, wrap=wrap + [""])
        done = agent.run(config=False)
        self.assertEqual(done.stdout, '\nCan not open main configuration file: "/etc/vindral.conf" '
                         'for reading, No such file or directory\n')
        self.assertEqual(done.returncode, 0)

        agent.write_config()
        agent.wrap = wrap + [agent.conf]
        done = agent.run(config=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        agent.adopt()
        server.wait_requests(1)

    def test_nobody_reads_the_output(self):
        """At LOGLEVEL 2 the configuration is printed; nobody needs to take it."""
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=2)
        agent.write_config()
        read_end, write_end = os.pipe()
        os.close(read_end)
        with open(write_end, "wb") as unread:
            parent = subprocess.run([harness.AGENT, "-C", agent.conf], env=agent.env, stdin=subprocess.DEVNULL,
                                    stdout=unread, check=False, timeout=harness.PATIENCE_S)
        self.assertEqual(parent.returncode, 1)
        harness.wait_until(lambda: os.path.exists(agent.pid_path) and harness.read_text(agent.pid_path),
                           "the PID file")
        agent.adopt()
        server.wait_requests(2)

    def test_renamed_program_starts_all_the_same(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1)
        program = os.path.join(self.dir, "vindral-renamed")
        shutil.copy(harness.AGENT, program)
        agent.start(program=program)
        self.assertEqual(agent.printed, "ERROR: vindral smart agent name changed\n\n")
        server.wait_requests(1)

    def test_options_win_over_the_configuration(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1, LOGFILE="/proc/nonexistent/log",
                              PIDFILE="/proc/nonexistent/pid", VINDRALHOME="/proc/nonexistent",
                              USEREMAIL="other@example.net", AGENTNAME="other")
        agent.start("-L", agent.log_path, "--lock-file", agent.pid_path, "-D", agent.dir,
                    "--user-email=chosen@example.net", "-Achosen name")
        head = server.wait_requests(1)[0].headers
        self.assertEqual((head["vnd-email"], head["vnd-aname"]),
                         ("chosen@example.net", "chosen name"))


class Configuration(harness.TestCase):
    def test_incomplete(self):
        """Ends without a word and with status 0 when one of the five settings is missing."""
        for key in ("VINDRALHOME", "LOGFILE", "PIDFILE", "USEREMAIL"):
            agent = harness.Agent(self, level=1, **{key: None})
            agent.env.pop("VINDRALHOME", None)
            self.assertEqual(agent.run_to_end(), ([0], ""), key)

    def test_no_name_is_made_without_an_address(self):
        agent = harness.Agent(self, level=2, USEREMAIL=None, AGENTNAME=None)
        done = agent.run()
        self.assertIn("\nname:\tN/A\n", done.stdout)
        self.assertEqual(done.returncode, 0)

    def test_home_from_the_environment(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=2, VINDRALHOME=None,
                              env={"VINDRALHOME": "/somewhere"})
        agent.start()
        self.assertIn("\n\t    Home Dir:\t/somewhere\n", agent.printed)

    def test_the_allocators_settings_are_the_starters(self):
        """The agent runs with the environment that it was given, settings of the C library or none."""
        server = ScriptedServer(self)
        for settings in (None, "", "glibc.malloc.tcache_count=0"):
            agent = harness.Agent(self, server.port, level=1)
            agent.env.pop("GLIBC_TUNABLES", None)
            if settings is not None:
                agent.env["GLIBC_TUNABLES"] = settings
            agent.start()
            environment = harness.read_text("/proc/%d/environ" % agent.process.pid).split("\0")
            self.assertEqual(sorted(filter(None, environment)),
                             sorted("%s=%s" % entry for entry in agent.env.items()))

    def test_name_from_the_host(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1, AGENTNAME=None).start()
        name = server.wait_requests(1)[0].headers["vnd-aname"]
        self.assertRegex(name, "^" + re.escape(os.uname().nodename[:63]) +
                         r"@\d\d:\d\d:20\d\d:\d\d:\d\d:\d\d$")

    def test_dump(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, name="the agent", level=2, APIKEY="k 1", VERSION="9",
                              DATAHOST="http://data.example.net/x", APIHOST="no url").start()
        self.assertEqual(
            agent.printed,
            "\nhost:\t127.0.0.1:%d/fcgi-bin/agentgateway\nVer:\t9\nemail:\tuser@example.net\n"
            "name:\tthe agent\nlog:\t%s\nlevel:\t2\nlock:\t%s\napihost:\tlocalhost:80/api\n"
            "apikey:\tk 1\nsecretkey:\tN/A\ndatahost:\tdata.example.net:80/x\n\n"
            "\nCurrent configuration:\n\n\t      E-Mail:\tuser@example.net\n"
            "\t  Agent Name:\tthe agent\n\t    Log File:\t%s\n\t   Log Level:\t2\n"
            "\t    PID File:\t%s\n\t    Home Dir:\t%s\n\t     Api Key:\tk 1\n"
            "\t  Secret Key:\tN/A\n\n"
            % (server.port, agent.log_path, agent.pid_path, agent.log_path, agent.pid_path, agent.dir))
        # The version of the configuration is for show; the server is told the program's own, and so
        # is the log.
        self.assertEqual(server.wait_requests(1)[0].headers["vnd-version"], "3.0")
        agent.wait_log("\tVersion: 3.0\n")


class PidFile(harness.TestCase):
    def test_second_agent(self):
        server = ScriptedServer(self)
        first = harness.Agent(self, server.port, level=1).start()
        second = harness.Agent(self, server.port, PIDFILE=first.pid_path)
        statuses, output = second.run_to_end()
        self.assertEqual(statuses, [1, 0])  # the fork comes before the lock
        self.assertTrue(output.endswith(
            '\nPID File "%s", %d.\n' % (first.pid_path, first.process.pid)), output)
        self.assertEqual(harness.read_text(first.pid_path), "%d\n" % first.process.pid)
        self.assertFalse(first.process.ended())
        server.wait_requests(2)

    def test_lock_is_free_after_the_end(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1).start()
        first = agent.process.pid
        agent.stop()
        agent.start()
        self.assertNotEqual(agent.process.pid, first)

    def test_lock_is_free_after_a_kill(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1).start()
        agent.process.send(signal.SIGKILL)
        self.assertEqual(agent.process.wait(), -signal.SIGKILL)
        agent.start()

    def test_old_contents(self):
        for content, accepted in (("", True), ("99999\n", True), ("  7 and more", True),
                                  ("123456789012345\n" * 5, True), ("-5\n", True),
                                  ("garbage\n", False), ("\n", False), (" x", False)):
            server = ScriptedServer(self)
            agent = harness.Agent(self, server.port, level=1)
            harness.write_text(agent.pid_path, content)
            if accepted:
                agent.start()
                self.assertEqual(harness.read_text(agent.pid_path), "%d\n" % agent.process.pid)
                agent.hang_up()
                continue
            done = agent.run()
            self.assertEqual((done.stdout, done.returncode),
                             ('\nPID File: "%s" does not contain a valid PID (%s)\n'
                              % (agent.pid_path, content), 0))
            self.assertEqual(harness.read_text(agent.pid_path), content)

    def test_cannot_open(self):
        agent = harness.Agent(self, level=1, PIDFILE="/proc/nonexistent/vindral.pid")
        done = agent.run()
        self.assertEqual((done.stdout, done.returncode),
                         ('\nFailed on opening PID file: "/proc/nonexistent/vindral.pid", '
                          'No such file or directory\n', 0))
        directory = harness.Agent(self, level=1, PIDFILE=self.dir).run()
        self.assertEqual(directory.stdout,
                         '\nFailed on opening PID file: "%s", Is a directory\n' % self.dir)

    def test_silent_at_level_0(self):
        done = harness.Agent(self, level=0, PIDFILE="/proc/nonexistent/vindral.pid").run()
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("", "", 0))


class Daemon(harness.TestCase):
    def test_shape_of_the_process(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1).start()
        proc = "/proc/%d" % agent.process.pid
        server.wait_requests(1)
        self.assertEqual(os.readlink(proc + "/cwd"), agent.dir)
        self.assertEqual([os.readlink(proc + "/fd/%d" % fd) for fd in range(3)], ["/dev/null"] * 3)
        self.assertEqual(os.getsid(agent.process.pid), agent.process.pid)
        self.assertRegex(harness.read_text(proc + "/status"), r"(?m)^Umask:\s+0022$")
        flags = {}
        for fd, target in harness.open_files(agent.process.pid).items():
            info = re.search(r"(?m)^flags:\s+(\d+)$", harness.read_text("%s/fdinfo/%d" % (proc, fd)))
            flags[target] = int(info[1], 8) if info else None  # closed meanwhile: none of the two that count
        self.assertEqual(flags[agent.pid_path] & os.O_CLOEXEC, os.O_CLOEXEC)
        self.assertEqual(flags[agent.log_path] & os.O_CLOEXEC, os.O_CLOEXEC)

    def test_without_a_home(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1)
        del agent.env["HOME"]
        agent.start()
        self.assertEqual(os.readlink("/proc/%d/cwd" % agent.process.pid), "/")

    def test_without_standard_streams(self):
        """The PID file must not end up as one of the three descriptors that the daemon closes."""
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1,
                              wrap=["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh"])
        parent = agent.run()
        self.assertEqual(parent.returncode, 1)
        harness.wait_until(lambda: harness.read_text(agent.pid_path).endswith("\n"), "the PID file")
        agent.adopt()
        server.wait_requests(1)
        second = harness.Agent(self, server.port, level=6, PIDFILE=agent.pid_path).run()
        self.assertIn('PID File "%s", %d.' % (agent.pid_path, agent.process.pid), second.stdout)

    def test_cannot_open_the_log(self):
        agent = harness.Agent(self, level=1, LOGFILE="/proc/nonexistent/vindral.log")
        # The message of the daemon goes to a standard output that is /dev/null by then.
        self.assertEqual(agent.run_to_end(), ([1, 0], ""))

    @harness.needs_namespaces
    def test_no_tls_library(self):
        """Without a TLS library that opens the agent says what is wrong with the one that is there, and
        ends."""
        hide = ('for d in /usr/lib/x86_64-linux-gnu /usr/lib/aarch64-linux-gnu /usr/lib /lib; do '
                'for f in $d/libssl.so*; do [ ! -f "$f" ] || mount --bind /dev/null "$f"; done; done; '
                'exec "$@"')
        agent = harness.Agent(self, level=1, wrap=["unshare", "--mount", "sh", "-c", hide, "sh"])
        self.assertEqual(agent.run_to_end(), ([1, 0], ""))
        self.assertRegex(agent.messages()[0],
                         r"^SSL: failed on loading libssl\.so, /\S+/libssl\.so\S*: ")
        self.assertEqual(agent.messages()[1:], ["SSL connection initialization failed."])


STARS = "*" * 51
BANNER = (r"\n\n\t\t\t\t" + re.escape(STARS) + r"\n\n\t\t\t\t\tVINDRAL SMART AGENT\n"
          r"\t\t\t\t\tPROCESS ID: %d\n\t\t\t\t\tVersion: 3\.0\n\t\t\t\t\tBuild Date: " + BUILD_DATE +
          r"\n\n\t\t\t\t" + re.escape(STARS) + r"\n\n")


# The tests have loopback only.
NO_INTERFACE = ("Net monitoring. get_adapter_list. No interfaces with IFF_UP, IFF_RUNNING and "
                "!IFF_LOOPBACK .")


class Log(harness.TestCase):
    def test_whole_life(self):
        """The exact lines from start to stop, in their order."""
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=3).start()
        server.wait_requests(2)
        agent.wait_log("INFO: data cache size: ")
        agent.stop()
        messages = agent.messages()
        banner = [i for i, line in enumerate(messages) if "SMART AGENT" in line]
        self.assertEqual(len(banner), 1)
        self.assertRegex(messages.pop(banner[0]), "^" + BANNER % agent.process.pid + "$")
        # Without a namespace of its own the agent sees the machine's interfaces.
        missing = [NO_INTERFACE] if harness.isolated else []
        self.assertEqual(banner[0], 12 + len(missing))
        self.assertEqual([re.sub(r"(?<=: )\d+$", "N", line) for line in messages
                          if "SSL_write" not in line], [
            "Process monitoring initialization done.",
            "HTTP checker initialization done",
            "PING checker initialization done",
            "MEMORY checker initialization done",
            "DISK checker initialization done",
            "CPU checker initialization done",
            "Load Average checker initialization done",
            "Feed Listener initialization done",
            "SNMP monitor initialization done",
            "MySQL checker initialization done",
            "NDIS monitor initialization done",
            *missing,
            "NET monitor initialization done",
            "Main Worker thread created successfully",
            "Authorization was successfully completed.",
            "INFO: Collecting results...",
            *missing,
            "INFO: data cache size: N",
            "SIGHUP Received, Shutting down.",
        ])

    def test_stamps(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1).start()
        server.wait_requests(2)
        agent.stop()
        for line in agent.log().splitlines():
            if not line.startswith(("\t", "[")) and line:
                self.fail(line)
        stamps = [line[:21] for line in harness.log_entries(agent.log())]
        self.assertTrue(stamps)
        for stamp in stamps:
            self.assertRegex(stamp, r"^\[\d\d/\d\d/20\d\d:\d\d:\d\d:\d\d\]$")

    def test_levels(self):
        """A line of level L shows when the configured level is above L."""
        always = "Load Average checker initialization done"
        marks = {-1: always, 0: "VINDRAL SMART AGENT",
                 1: "send_request: SSL_write: retV = ", 2: "INFO: Collecting results...",
                 5: "INFO: main_worker_thread::make_poll result: 1"}

        def check(level, configured):
            server = ScriptedServer(self)
            agent = harness.Agent(self, server.port, level=configured).start()
            server.wait_requests(2)
            agent.stop()
            log = agent.log()
            self.assertEqual({at for at, text in marks.items() if text in log},
                             {at for at in marks if level > at}, log)
        harness.in_parallel(self, [("level %d" % level, lambda level=level: check(level, level))
                                   for level in (-1, 0, 1, 2, 3, 5, 6, 100)] +
                            [("no level", lambda: check(0, None))])

    def test_crash_leaves_a_backtrace(self):
        if harness.SANITIZERS:
            self.skipTest("the sanitizers' own report takes the place of the agent's")
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=0).start()
        server.wait_requests(1)
        agent.process.send(signal.SIGSEGV)
        self.assertEqual(agent.process.wait(), 0)
        messages = agent.messages()
        start = messages.index("SIGSEGV Received, vindral will be terminated.")
        self.assertEqual(messages[start + 1], "Backtrace:")
        self.assertEqual(messages[-1], "end of Backtrace")
        frames = messages[start + 2:-1]
        self.assertGreater(len(frames), 2)
        for frame in frames:
            self.assertRegex(frame, r"^ 0x[0-9a-f]+: ")


if __name__ == "__main__":
    harness.main()
