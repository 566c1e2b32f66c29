#!/usr/bin/env python3
"""The API of a running collector: where it is, who may ask it, and how that is changed from the command line."""

import http.client
import json
import os
import stat
import subprocess
import socket

import harness


def command(*words, state):
    """Exit status, standard output and standard error of vindral-collector."""
    done = subprocess.run([harness.COLLECTOR, *words, "--state-dir", state], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, check=False, timeout=harness.PATIENCE_S)
    return done.returncode, done.stdout, done.stderr


class Web(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, "POL\t0\t1")
        self.port_file = os.path.join(self.collector.dir, "web port")

    def start(self):
        self.collector.start("--web", "127.0.0.1:0", "--web-port-file", self.port_file)

    def ask(self, method, path, body=None, **headers):
        with open(self.port_file, encoding="utf-8") as file:
            connection = http.client.HTTPConnection("127.0.0.1", int(file.read()), timeout=harness.PATIENCE_S)
        connection.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
        answer = connection.getresponse()
        text = answer.read()
        connection.close()
        return answer.status, answer.headers, text

    def token(self, name, role):
        status, secret, told = command("token", "add", name, "--role", role, state=self.collector.state)
        self.assertEqual((status, secret[:3], len(secret)), (0, "vt_", 47), told)
        self.assertNotIn(secret.strip(), told)
        return "Bearer " + secret.strip()

    def test_tokens_before_the_first_start_and_while_it_runs(self):
        early = self.token("early", "viewer")
        mode = os.stat(os.path.join(self.collector.state, "settings.db")).st_mode
        self.assertEqual(stat.S_IMODE(mode), 0o600)
        self.start()
        self.assertNotIn("#link=", self.collector.errors())
        late = self.token("late", "operator")
        for token in (early, late):
            self.assertEqual(self.ask("GET", "/api/v1/agents", Authorization=token)[0], 200)
        self.assertEqual(self.ask("GET", "/api/v1/agents")[0], 401)
        status, lines, _ = command("token", "list", state=self.collector.state)
        self.assertEqual((status, [line.split()[::2] for line in lines.splitlines()]),
                         (0, [["viewer", "early"], ["operator", "late"]]))
        self.assertEqual(command("token", "add", "late", "--role", "admin", state=self.collector.state)[:2], (1, ""))
        self.assertEqual(command("token", "remove", "early", state=self.collector.state)[0], 0)
        self.assertEqual(command("token", "remove", "early", state=self.collector.state)[0], 1)
        self.assertEqual(self.ask("GET", "/api/v1/agents", Authorization=early)[0], 401)
        self.assertEqual(self.ask("GET", "/api/v1/agents", Authorization=late)[0], 200)
        self.collector.stop()
        self.assertFalse(os.path.exists(self.port_file))

    def test_links_sign_in_once(self):
        self.start()
        told = self.collector.errors()
        url = told[told.index("http://127.0.0.1:"):].split()[0]
        links = [told[told.index("vl_"):].split()[0]]
        status, text, _ = command("link", "--role", "viewer", state=self.collector.state)
        self.assertEqual((status, text.startswith(url + "/#link=vl_")), (0, True), text)
        links.append(text.strip().partition("#link=")[2])
        for link, role in zip(links, ("admin", "viewer")):
            status, headers, _ = self.ask("POST", "/sign-in", json.dumps({"link": link}), Origin=url, Host=url[7:])
            self.assertEqual(status, 204)
            cookie = headers["Set-Cookie"].partition(";")[0]
            self.assertEqual(self.ask("GET", "/api/v1/agents", Cookie=cookie)[0], 200)
            self.assertEqual(self.ask("GET", "/api/v1/tokens", Cookie=cookie)[0], 200 if role == "admin" else 403)
            self.assertEqual(self.ask("POST", "/sign-in", json.dumps({"link": link}))[0], 401)
            self.collector.wait_errors(f"audit: link ({role}) from 127.0.0.1: signed in with a link")
            self.assertEqual(self.ask("POST", "/sign-out", Cookie=cookie)[0], 403)
            self.assertEqual(self.ask("POST", "/sign-out", Cookie=cookie, Origin=url, Host=url[7:])[0], 204)
            self.assertEqual(self.ask("GET", "/api/v1/agents", Cookie=cookie)[0], 401)
        self.collector.stop()
        self.assertFalse(os.path.exists(os.path.join(self.collector.state, "web-url")))

    def test_a_link_of_no_collector(self):
        nowhere = os.path.join(self.dir, "nowhere")
        status, text, told = command("link", state=nowhere)
        self.assertEqual((status, text), (1, ""))
        self.assertIn("no collector keeps anything in %s: --state-dir says where yours does" % nowhere, told)
        self.assertFalse(os.path.exists(nowhere), "nothing is made")
        self.token("early", "viewer")
        status, text, told = command("link", state=self.collector.state)
        self.assertEqual((status, "#link=vl_" in text), (0, True), told)
        self.assertIn("no collector runs with that state directory now: the link is for its next start", told)
        self.start()
        self.assertNotIn("no collector runs", command("link", state=self.collector.state)[2])

    def test_an_address_of_nothing(self):
        self.start()
        by_hand = "text/html,application/xhtml+xml,*/*;q=0.8"
        for path in ("/nosuch", "/fleet/", "/agents/", "/page/0/main.js"):
            for accept, kind in ((by_hand, "text/html; charset=utf-8"), ("*/*", "application/problem+json")):
                status, headers, _ = self.ask("GET", path, Accept=accept)
                self.assertEqual((status, headers["Content-Type"]), (404, kind), path)
        status, headers, _ = self.ask("GET", "/api/v1/nothing", Accept=by_hand)
        self.assertEqual((status, headers["Content-Type"]), (404, "application/problem+json"))

    def test_a_port_that_was_asked_for_and_is_taken(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            where = f"127.0.0.1:{taken.getsockname()[1]}"
            status, _, told = command("--port", "0", "--web", where, state=self.collector.state)
            self.assertEqual(status, 1)
            self.assertIn("cannot listen on 127.0.0.1 port", told)

    def test_off_loopback_it_speaks_tls(self):
        self.collector.start("--web", "0.0.0.0:0", "--web-port-file", self.port_file)
        self.assertIn("The API is at https://", self.collector.errors())
        self.assertEqual(self.ask("GET", "/healthz")[0], 400)
        self.collector.stop()


if __name__ == "__main__":
    harness.main()
