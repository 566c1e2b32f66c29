"""Whom an agent takes for its server, with CAFILE and without."""

import os
import re
import shutil
import signal
import ssl
import subprocess

import harness
from peers import openssl
from raw_client import RawClient
from scripted_server import ScriptedServer, accept_login, make_certificate, server_context

LOGGED_IN = "Authorization was successfully completed."
INTERNAL_ERROR = ("There is an internal error occurred, while trying to connect to the server.")
ISSUER_UNKNOWN = "unable to get local issuer certificate"


class Authority:
    """Signs certificates; by itself or, with `by`, as one below another. `pem` is its own."""

    def __init__(self, test, name, by=None):
        self.name = name
        self.dir = test.subdir(name)
        self.pem, self.key = by.issue(name, "basicConstraints=critical,CA:TRUE") if by else \
            self._sign(name, "basicConstraints=critical,CA:TRUE", ["-signkey", self._path(name, "key")])

    def _path(self, name, kind):
        return os.path.join(self.dir, "%s.%s" % (name, kind))

    def _sign(self, name, extension, signer, days=30):
        key, request, pem = (self._path(name, kind) for kind in ("key", "csr", "pem"))
        openssl("req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-keyout", key, "-subj", "/CN=" + name, "-out", request)
        harness.write_text(self._path(name, "ext"), extension + "\n")
        openssl("x509", "-req", "-in", request, "-days", str(days), "-extfile",
                self._path(name, "ext"), "-out", pem, *signer)
        return pem, key

    def issue(self, name, extension="subjectAltName=DNS:localhost", days=30):
        """Paths of a new certificate and its key."""
        return self._sign(name, extension, ["-CA", self.pem, "-CAkey", self.key, "-CAcreateserial"],
                          days)


def joined(path, *files):
    """A file with the text of others, put in place at once."""
    harness.write_text(path + ".new", "".join(harness.read_text(file) for file in files))
    os.rename(path + ".new", path)
    return path


def noting_names(context, names):
    """Appends to `names` what each client calls the server, None for nothing."""
    context.sni_callback = lambda sock, name, _: names.append(name)
    return context


class Trust(harness.TestCase):
    def bundle(self, *files):
        return joined(os.path.join(self.subdir("host"), "ca.pem"), *files)

    def start(self, server, bundle, host="localhost", **settings):
        """An agent that has made its first poll."""
        agent = harness.Agent(
            self, USEHOST="https://%s:%d/fcgi-bin/agentgateway" % (host, server.port),
            CAFILE=bundle, **settings).start()
        harness.wait_until(lambda: LOGGED_IN in agent.log() or INTERNAL_ERROR in agent.log(),
                           agent.log)
        return agent

    def check_trusted(self, context, bundle, host="localhost"):
        server = ScriptedServer(self, context=context)
        agent = self.start(server, bundle, host)
        self.assertIn(LOGGED_IN, agent.log())
        self.assertIn('INFO: make_poll: CAFILE "%s" was read: the server is verified.' % bundle,
                      agent.log())
        self.assertTrue(server.requests[0].is_login)

    def check_refused(self, context, bundle, reason, host="localhost", **settings):
        """The agent says why in these words (a pattern), once, and sends nothing."""
        server = ScriptedServer(self, context=context)
        agent = self.start(server, bundle, host, **settings)
        self.assertIn("INFO: main_worker_thread::make_poll result: 4", agent.log())
        errors = [line for line in agent.messages() if line.startswith("ERROR: ")]
        self.assertEqual(len(errors), 1, errors)
        self.assertRegex(errors[0], "^ERROR: make_poll: %s$" % reason)
        self.assertEqual(server.requests, [])

    def cannot_verify(self, bundle, check, reason, host="localhost"):
        return re.escape('Cannot verify the server "%s" with CAFILE "%s": ' % (host, bundle)) + \
            "the check of the %s failed: %s\\." % (check, reason)

    def test_authority_of_the_bundle(self):
        authority = Authority(self, "authority")
        context = server_context(*authority.issue("server"))
        self.check_trusted(context, self.bundle(authority.pem))
        self.check_trusted(context, self.bundle(Authority(self, "another").pem, authority.pem))

    def test_authority_that_is_not_in_the_bundle(self):
        context = server_context(*Authority(self, "authority").issue("server"))
        for name in ("another", "authority"):  # the name alone does not help
            bundle = self.bundle(Authority(self, name).pem)
            self.check_refused(context, bundle, self.cannot_verify(
                bundle, "certificate chain",
                "(%s|certificate signature failure)" % ISSUER_UNKNOWN))

    def test_name(self):
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        context = server_context(*authority.issue("server", "subjectAltName=DNS:other.example"))
        self.check_refused(context, bundle,
                           self.cannot_verify(bundle, "host name", "hostname mismatch"))

    def test_common_name(self):
        """It is no name of the server, with or without alternative names beside it."""
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        for extension in ("basicConstraints=CA:FALSE", "subjectAltName=DNS:other.example"):
            context = server_context(*authority.issue("localhost", extension))
            self.check_refused(context, bundle,
                               self.cannot_verify(bundle, "host name", "hostname mismatch"))

    def test_server_with_two_names(self):
        """It shows the certificate of the name that the agent asks for."""
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        context = server_context(*authority.issue("other", "subjectAltName=DNS:other.example"))
        asked = server_context(*authority.issue("asked"))

        def choose(sock, name, _):
            if name == "localhost":
                sock.context = asked
        context.sni_callback = choose
        self.check_trusted(context, bundle)

    def test_dates(self):
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        context = server_context(*authority.issue("server", days=-1))
        self.check_refused(context, bundle,
                           self.cannot_verify(bundle, "dates", "certificate has expired"))

    def test_purpose(self):
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        context = server_context(*authority.issue(
            "server", "subjectAltName=DNS:localhost\nextendedKeyUsage=clientAuth"))
        self.check_refused(context, bundle, self.cannot_verify(
            bundle, "certificate chain", "(unsupported|unsuitable) certificate purpose"))

    def test_self_signed(self):
        """Trusted when it is in the bundle itself, even if it is not made to sign anything."""
        certificate, key = make_certificate(
            self, "ec", "-addext", "subjectAltName=DNS:localhost",
            "-addext", "basicConstraints=critical,CA:FALSE", "-addext", "keyUsage=digitalSignature")
        context = server_context(certificate, key)
        self.check_trusted(context, self.bundle(certificate))
        bundle = self.bundle(Authority(self, "authority").pem)
        self.check_refused(context, bundle, self.cannot_verify(
            bundle, "certificate chain", "(self.signed certificate|%s)" % ISSUER_UNKNOWN))

    def test_intermediate_authority(self):
        root = Authority(self, "root")
        middle = Authority(self, "middle", by=root)
        certificate, key = middle.issue("server")
        chain = joined(os.path.join(self.dir, "chain"), certificate, middle.pem)
        self.check_trusted(server_context(chain, key), self.bundle(root.pem))
        self.check_trusted(server_context(certificate, key), self.bundle(middle.pem))
        bundle = self.bundle(root.pem)
        self.check_refused(server_context(certificate, key), bundle,
                           self.cannot_verify(bundle, "certificate chain", ISSUER_UNKNOWN))

    def test_address(self):
        """A server of an address is not named, and its certificate has to bear the address."""
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        names = []
        context = server_context(*authority.issue("with", "subjectAltName=IP:127.0.0.1"))
        self.check_trusted(noting_names(context, names), bundle, host="127.0.0.1")
        self.assertEqual(names, [None] * len(names))
        self.assertTrue(names)
        for certificate in ("subjectAltName=DNS:127.0.0.1", "subjectAltName=IP:127.0.0.2"):
            context = server_context(*authority.issue("127.0.0.1", certificate))
            self.check_refused(context, bundle, self.cannot_verify(
                bundle, "IP address", "IP address mismatch", host="127.0.0.1"), host="127.0.0.1")

    def test_no_certificate(self):
        """A host whose TLS library offers anonymous ciphers is not caught out by them."""
        bundle = self.bundle(Authority(self, "authority").pem)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.set_ciphers("aNULL:@SECLEVEL=0")
        context.maximum_version = ssl.TLSVersion.TLSv1_2
        config = os.path.join(self.dir, "openssl.cnf")
        harness.write_text(config, "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n"
                                   "[c]\nCipherString = ALL:@SECLEVEL=0\n")
        env = {"OPENSSL_CONF": config}
        self.check_refused(context, bundle, re.escape(
            'Cannot verify the server "localhost" with CAFILE "%s": it sent no certificate.' %
            bundle), env=env)
        unverified = self.start(ScriptedServer(self, context=context), None, env=env)
        self.assertIn(LOGGED_IN, unverified.log())

    def test_bundle_that_will_not_do(self):
        authority = Authority(self, "authority")
        context = server_context(*authority.issue("server"))
        directory = self.subdir("bundles")

        def file(name, text):
            path = os.path.join(directory, name)
            harness.write_text(path, text)
            return path

        def check(path, reason):
            self.check_refused(context, path,
                               re.escape('Cannot use CAFILE "%s": ' % path) + reason)
        whole = harness.read_text(authority.pem)
        harness.in_parallel(self, [
            ("missing", lambda: check(directory + "/none", "No such file or directory")),
            ("directory", lambda: check(directory, "Is a directory")),
            ("empty", lambda: check(file("empty", ""), ".*no certificate.*")),
            ("text", lambda: check(file("text", "no PEM\n" * 1000), ".*no certificate.*")),
            ("binary", lambda: check(file("binary", bytes(range(256)) * 9), ".*no certificate.*")),
            ("key", lambda: check(file("key", harness.read_text(authority.key)),
                                  ".*no certificate.*")),
            ("cut", lambda: check(file("cut", whole[:len(whole) // 2]), "error:.*")),
        ])
        os.mkfifo(os.path.join(directory, "fifo"))
        check(os.path.join(directory, "fifo"), "Invalid argument")
        if os.geteuid() != 0:
            os.chmod(file("private", whole), 0)
            check(os.path.join(directory, "private"), "Permission denied")

    def test_without_a_bundle(self):
        """Nobody is named and nobody is verified."""
        names = []
        context = noting_names(server_context(*make_certificate(self)), names)
        server = ScriptedServer(self, context=context).then(accept_login("s1", "POL\t0\t1\n"))
        agent = self.start(server, None)
        server.wait_requests(3)
        self.assertEqual(set(names), {None})
        self.assertNotIn("CAFILE", agent.log())

    def test_results_outlast_a_failed_verification(self):
        """A block that could not be sent to a server that failed goes out once, when it is the right
        one again; the bundle is read once per change."""
        authority = Authority(self, "authority")
        bundle = self.bundle(authority.pem)
        names = []
        context = noting_names(server_context(*authority.issue("server")), names)
        server = ScriptedServer(self, context=context).then(
            accept_login("s1", "POL\t0\t1\nCHK\t0\t1\nLAA\t1\t1\t-1\t-1\t-1\n"))
        agent = self.start(server, bundle)
        server.wait_requests(4)
        self.assertEqual(agent.log().count("was read"), 1)

        joined(bundle, Authority(self, "another").pem)
        agent.wait_log("the check of the certificate chain failed", count=3)
        sent = len(server.requests)
        collections = len(agent.collected())
        joined(bundle)
        agent.wait_log("Cannot use CAFILE", count=2)
        self.assertEqual(len(server.requests), sent)
        self.assertEqual(len(agent.collected()), collections, "the block waits")

        joined(bundle, authority.pem)
        server.wait_requests(sent + 4)
        self.assertEqual(agent.log().count("was read"), 3)
        agent.stop()
        blocks = [len(request.plain()) for request in server.requests if not request.is_login]
        self.assertEqual(blocks, agent.collected()[:len(blocks)])
        self.assertLess(sent, len(blocks))
        self.assertEqual(set(names), {"localhost"})

    def test_exchange_of_authorities(self):
        """Old and new in the bundle, then the server changes, then the old one goes; no restart."""
        old, new = Authority(self, "old"), Authority(self, "new")
        bundle = self.bundle(old.pem)
        server = ScriptedServer(self, context=server_context(*old.issue("server"))).then(
            accept_login("s1", "POL\t0\t1\n"))
        agent = self.start(server, bundle)
        joined(bundle, old.pem, new.pem)
        agent.wait_log("was read", count=2)
        server.wait_requests(len(server.requests) + 1)
        server.context = server_context(*new.issue("server"))
        server.wait_requests(len(server.requests) + 2)
        joined(bundle, new.pem)
        agent.wait_log("was read", count=3)
        server.wait_requests(len(server.requests) + 2)
        self.assertNotIn(INTERNAL_ERROR, agent.log())


class CollectorsAuthority(harness.TestCase):
    def lines(self, collector):
        """Host, port and file that the last start named, and the place that a copy is for."""
        found = re.findall(r"  USEHOST  https://(.+):(\d+)/fcgi-bin/agentgateway\n  CAFILE   (.+)\n"
                           r"and, as that file, a copy of\n  (.+)\n", collector.errors())
        host, port, place, authority = found[-1]
        return authority, host, port, place

    def start_as_told(self, collector):
        """An agent with the lines that the collector printed."""
        authority, host, port, place = self.lines(collector)
        self.assertEqual((int(port), place), (collector.port, "/etc/vindral-ca.pem"))
        self.copy = os.path.join(self.subdir("host"), "vindral-ca.pem")
        shutil.copy(authority, self.copy)
        agent = harness.Agent(self, CAFILE=self.copy,
                              USEHOST="https://%s:%s/fcgi-bin/agentgateway" % (host, port)).start()
        agent.wait_log(LOGGED_IN)
        return agent

    def test_first_start(self):
        collector = harness.Collector(self, "LAA\t1\t1\t-1\t-1\t-1", "CHK\t0\t1").start()
        self.assertEqual(self.lines(collector)[:2], (collector.state + "/ca.pem", "127.0.0.1"))
        self.start_as_told(collector)
        collector.wait_test(1)

    def test_another_name(self):
        """A name that is given later gets into the certificate; hosts keep their file."""
        collector = harness.Collector(self, "POL\t0\t1").start()
        agent = self.start_as_told(collector)
        collector.stop()
        collector.start("--name", "localhost", "--name", "collector.example")
        self.assertIn("/certificate.pem was renewed\n", collector.errors())
        self.assertEqual(self.lines(collector)[1], "localhost")
        polls = agent.log().count("make_poll result: 1")
        agent.wait_log("make_poll result: 1", count=polls + 2)
        self.start_as_told(collector)

    def exchange(self, collector, step):
        """A step of the exchange of its authority, of which the running collector is told at once."""
        done = subprocess.run([harness.COLLECTOR, "authority", step, "server", "--state-dir", collector.state],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, check=False, timeout=harness.PATIENCE_S)
        self.assertEqual(done.returncode, 0, done.stderr)
        collector.process.send_signal(signal.SIGHUP)

    def test_exchange_of_its_authority(self):
        """The collector goes on, and so does an agent whose file is exchanged meanwhile; no restart."""
        collector = harness.Collector(self, "POL\t0\t1").start()
        agent = self.start_as_told(collector)
        copy = self.copy
        old = harness.read_text(copy)

        self.exchange(collector, "renew")
        collector.wait_errors("certificates read again", count=1)
        joined(copy, collector.state + "/ca.pem", collector.state + "/ca-next.pem")
        agent.wait_log("was read", count=2)

        self.exchange(collector, "finish")
        collector.wait_errors("certificates read again", count=2)
        self.assertNotEqual(harness.read_text(collector.state + "/ca.pem"), old)
        polls = agent.log().count("make_poll result: 1")
        agent.wait_log("make_poll result: 1", count=polls + 2)

        joined(copy, collector.state + "/ca.pem")
        agent.wait_log("was read", count=3)
        polls = agent.log().count("make_poll result: 1")
        agent.wait_log("make_poll result: 1", count=polls + 2)
        self.assertNotIn(INTERNAL_ERROR, agent.log())
        self.start_as_told(collector)

    def test_relative_state_directory(self):
        """The file to copy is named so that it is found from anywhere."""
        collector = harness.Collector(self, options=["--state-dir", "state"])
        collector.wrap = ["env", "--chdir=" + collector.dir]
        collector.start()
        self.assertEqual(self.lines(collector)[0], collector.state + "/ca.pem")
        self.start_as_told(collector)

    def test_pair_of_before(self):
        """A self-signed pair stays, and is what hosts need."""
        collector = harness.Collector(self)
        os.mkdir(collector.state, 0o700)
        certificate, key = make_certificate(
            self, "ec", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
            "-addext", "basicConstraints=critical,CA:FALSE", "-addext", "keyUsage=digitalSignature")
        shutil.copy(certificate, collector.state + "/certificate.pem")
        shutil.copy(key, collector.state + "/key.pem")
        collector.start()
        self.assertEqual(self.lines(collector)[0], collector.state + "/certificate.pem")
        self.start_as_told(collector)
        self.assertEqual(harness.read_text(collector.state + "/certificate.pem"),
                         harness.read_text(certificate))
        self.assertFalse(os.path.exists(collector.state + "/ca.pem"))

    def test_pair_of_the_operator(self):
        authority = Authority(self, "authority")
        certificate, key = authority.issue("server", "subjectAltName=DNS:*.example,DNS:localhost")
        collector = harness.Collector(self, options=["--cert", certificate, "--key", key]).start()
        self.assertEqual(self.lines(collector)[:2],
                         ("the certificate of the authority that signed " + certificate, "localhost"))
        self.assertEqual(sorted(name for name in os.listdir(collector.state) if name.endswith(".pem")),
                         ["agents-ca-key.pem", "agents-ca.pem"])
        client = RawClient(collector.port)
        client.session()

    def test_pair_of_another_authority_in_the_state_directory(self):
        certificate, key = Authority(self, "authority").issue("server")
        collector = harness.Collector(self)
        os.mkdir(collector.state, 0o700)
        shutil.copy(certificate, collector.state + "/certificate.pem")
        shutil.copy(key, collector.state + "/key.pem")
        collector.start()
        self.assertEqual(self.lines(collector)[0], "the certificate of the authority that signed " +
                         collector.state + "/certificate.pem")


if __name__ == "__main__":
    harness.main()
