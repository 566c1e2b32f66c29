"""An agent that a scripted server tells what to do, and what it reported."""

import harness
import records
from scripted_server import ScriptedServer, accept_login, answer


class TestCase(harness.TestCase):
    def start(self, *lines, before="", **options):
        """An agent whose first poll's answer holds these lines."""
        self.server = ScriptedServer(self)
        self._decoded, self._seen = [], 0
        self.server.then(accept_login("s", "POL\t0\t1\nCHK\t0\t1\n" + before),
                         answer("".join(line + "\n" for line in lines)))
        self.agent = harness.Agent(self, self.server.port, **options).start()

    def blocks(self):
        for request in self.server.requests[self._seen:]:  # each is decoded once, however often a test looks
            self._seen += 1
            if request.body:
                self._decoded.append(records.decode(request.plain()))
        return self._decoded

    def records(self, kind):
        return [record for block in self.blocks() for record in block if record.ui32[0] == kind]

    def wait_record(self, kind, condition):
        return harness.wait_until(
            lambda: next(filter(condition, self.records(kind)), None),
            lambda: "a record of type %d, have %s\n%s" % (
                kind, [record[1:] for record in self.records(kind)][-5:], self.agent.log()[-2000:]))

    def wait_idle(self, count=2):
        """Waits for polls that came after what was changed."""
        self.server.wait_requests(len(self.server.requests) + count)
