"""The files of examples/: each is checked and applied by vindralctl, and agents of fitting names are sent what they say."""

import glob
import os
import re
import subprocess

import fleet_model as model
import harness
from fleet_place import ACCOUNT, Company, at_once

CTL = os.path.join(harness.BUILD, "vindralctl")
EXAMPLES = sorted(glob.glob(os.path.join(harness.HERE, "..", "..", "examples", "*.yaml")))


def names_for(fleet):
    """An agent for each pattern; and their account."""
    patterns = [pattern.rpartition("/") for group in fleet["groups"] for pattern in group["agents"]]
    accounts = {account for account, _, _ in patterns if account}
    names = {re.sub(r"[*?]", "1", name) if name != "*" else "anything" for _, _, name in patterns}
    return accounts.pop() if accounts else ACCOUNT, sorted(names)


class Examples(harness.TestCase):
    def ctl(self, *words):
        done = subprocess.run([CTL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, check=False, timeout=harness.PATIENCE_S,
                              env=dict(harness.sanitizer_environment(self.dir), LC_ALL="C.UTF-8",
                                       VINDRAL_TOKEN=self.company.collector.token,
                                       VINDRAL_URL="http://127.0.0.1:%d" % self.company.collector.web_port))
        self.assertEqual(done.returncode, 0, "%s\n%s\n%s" % (words, done.stdout, done.stderr))
        return done.stdout

    @harness.needs_namespaces
    def test_all(self):
        self.assertGreaterEqual(len(EXAMPLES), 3)
        for number, path in enumerate(EXAMPLES):
            with self.subTest(os.path.basename(path)):
                self.try_example(path, harness.read_text(path), 1 + 20 * number)

    def try_example(self, path, text, first):
        fleet = model.read(text)
        account, names = names_for(fleet)
        self.company = Company(self, account=account)
        self.ctl("fleet", "check", path)
        self.ctl("fleet", "apply", path)
        self.assertEqual(self.ctl("fleet", "export"), text)
        secrets = {name: "value of " + name for name in re.findall(r"\$\{secret:([\w.-]+)\}", text)}
        for name, value in secrets.items():
            self.company.set_secret(name, value)
        identities = dict(zip(names, at_once(self.company.enrol, names)))
        self.company.hire(*names, first=first, identity=identities.get)
        for member in self.company.members.values():
            self.check_told(fleet, member, secrets)
        harness.wait_until(lambda: not self.unexplained(), lambda: self.unexplained())
        self.assertIn(str(self.company.collector.get("/api/v1/fleet")["revision"]), self.ctl("fleet", "status"))
        for member in self.company.members.values():
            member.stop()
        self.company.collector.stop()

    def unexplained(self):
        """Of the newest change of each test: what cannot be, and not because there is no such disk or interface."""
        newest = {}
        for change in self.company.all_of("/api/v1/changes"):
            key = (change["agent"]["name"], change["test"])
            newest[key] = max(newest.get(key, change), change, key=lambda one: one["id"])
        return [change for change in newest.values() if change["outcome"] == "impossible" and not (
            change["type"] in ("disk", "network") and re.match("there is no (disk|interface) ", change["reason"]))]

    def check_told(self, fleet, member, secrets):
        """Whatever its host has is what the agent was told, and nothing else."""
        want = model.wanted(fleet, self.company.account, member.name)
        self.assertGreater(len(want.tests), 0, member.name)
        life = [None]

        def wanted():
            directories = dict(re.findall(r"([^\t]+?)\(([^\t]*)\)\t", "".join(member.recorded.inventories.get(45, ""))))
            interfaces = member.recorded.inventories.get(39, "").split("\t")
            fields = []
            for test in want.tests.values():
                kind = model.kind_of(test)
                looks_for = test.spelling[kind]
                if kind == "network" and looks_for not in interfaces:
                    continue
                disks = {looks_for: ("%s(%s)" % (looks_for, directories[looks_for]), None)} if kind == "disk" and looks_for in directories else {}
                fields.append((test.name, model.fields_of(test, disks, secrets)))
            return [(name, one) for name, one in fields if one is not None]

        def differences():
            life[0] = member.log.read()
            if life[0] is None or 45 not in member.recorded.inventories:
                return ["nothing was sent"]
            left = [test.fields for test in life[0].tests.values()]
            found = []
            for name, fields in wanted():
                have = next((other for other in left if model.same(fields, other)), None)
                if have is None:
                    found.append("%s: %s is not among %s" % (name, fields, left))
                else:
                    left.remove(have)
            return found + ["%s is too much" % (fields,) for fields in left] + life[0].contradictions()
        harness.wait_until(lambda: not differences(), lambda: "%s: %s" % (member.name, differences()))
        self.assertEqual((life[0].poll, life[0].check), (want.poll, want.check))


if __name__ == "__main__":
    harness.main()
