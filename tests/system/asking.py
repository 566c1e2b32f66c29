"""A collector with its API, and somebody who may ask it everything."""

import http.client
import json
import os
import subprocess
import time

import harness


class Asked(harness.Collector):
    """Its API listens on a port of the kernel's choice; `token` is an administrator's."""

    def __init__(self, test, *plan, **named):
        super().__init__(test, *plan, **named)
        self.web_port_file = os.path.join(self.dir, "web port")
        self.token = self.add_token("system test", "admin")

    def add_token(self, name, role):
        done = subprocess.run([harness.COLLECTOR, "token", "add", name, "--role", role, "--state-dir", self.state],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False, env=self.env,
                              timeout=harness.PATIENCE_S)
        self.test.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.strip()

    def launch(self, *options):
        return super().launch("--web", "127.0.0.1:0", "--web-port-file", self.web_port_file, *options)

    @property
    def web_port(self):
        return int(harness.read_text(self.web_port_file))

    def ask(self, target, method="GET", body=None, token=None, **headers):
        """Status, headers and text."""
        connection = http.client.HTTPConnection("127.0.0.1", self.web_port, timeout=harness.PATIENCE_S)
        try:
            connection.request(method, target, body, {"Authorization": "Bearer " + (token or self.token), **headers})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read().decode()
        finally:
            connection.close()

    def get(self, target):
        """Soon again when it is too often: something may be waited for, as often as the machine can ask."""
        status, _, text = self.ask(target)
        while status == 429:
            time.sleep(0.1)
            status, _, text = self.ask(target)
        self.test.assertEqual(status, 200, text)
        return json.loads(text)
