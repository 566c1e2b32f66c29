"""The store ends at any moment, as by kill -9: while it stores, packs, rolls up, drops what is old, and takes over
what an earlier version left. It is started again, and goes on.

Expected: in the end all results, states, events, roll-ups, inventories and the ledger are what they are when nothing
happened; nothing is lost, nothing counted twice. What was repeated is counted as that. How soon what is too old goes depends on
the starts."""

import difflib
import os
import random
import re
import shutil
import signal
import subprocess

import harness
import store_history

DRIVER = os.path.join(harness.BUILD, "tests", "collector", "store_driver")
KILL_AT = os.path.join(harness.HERE, "faults", "kill_at.c")
PATIENCE_S = 300


class Store(harness.TestCase):
    kills = 8 if harness.SANITIZERS else 40

    def setUp(self):
        super().setUp()
        self.library = None
        if not harness.SANITIZERS:  # a sanitizer has its own place before libc
            self.library = os.path.join(self.subdir("library"), "kill_at.so")
            subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", self.library, KILL_AT], check=True)

    def play(self, directory, history, kill=None, dice=None):
        """One life of the store. True when it came to the end of the history."""
        env = dict(os.environ)
        if kill == "change":
            env["LD_PRELOAD"] = self.library
            env["KILL_AT"] = str(dice.randrange(1, dice.choice((40, 200, 1000))))
            if dice.random() < 0.5:
                env["KILL_HALF"] = "1"
        process = subprocess.Popen([DRIVER, "play", os.path.join(directory, "state"), history,
                                    os.path.join(directory, "done")], env=env, stderr=subprocess.PIPE, text=True)
        try:
            _, told = process.communicate(timeout=dice.uniform(0, 3 if harness.SANITIZERS else 0.3) if kill == "moment" else PATIENCE_S)
        except subprocess.TimeoutExpired:
            process.kill()
            _, told = process.communicate()
            self.assertEqual(kill, "moment", "it does not end: " + told)
        self.assertIn(process.returncode, (0, -signal.SIGKILL), told)
        return process.returncode == 0

    def shown(self, directory):
        done = subprocess.run([DRIVER, "show", os.path.join(directory, "state")], stdout=subprocess.PIPE, text=True,
                              check=True, timeout=PATIENCE_S)
        return done.stdout.splitlines()

    def torture(self, name, make_state, seed, kills):
        """Lives of the store until so many of them were cut short, against one that was not."""
        dice = random.Random(seed)
        home = self.subdir(name)
        path = os.path.join(home, "history")
        history = store_history.History(seed)
        history.write(path)

        def fresh(what):
            directory = os.path.join(home, what)
            shutil.rmtree(directory, ignore_errors=True)
            os.mkdir(directory)
            make_state(os.path.join(directory, "state"))
            return directory

        undisturbed = fresh("undisturbed")
        self.assertTrue(self.play(undisturbed, path))
        wanted = self.shown(undisturbed)
        self.check_whole(wanted)
        wanted = list(filter(history.is_kept, wanted))
        killed = runs = repeated = 0
        while killed < kills:
            directory = fresh("killed")
            while not self.play(directory, path, dice.choice(("change", "change", "change", "moment"))
                                if self.library else "moment", dice):
                killed += 1
            runs += 1
            found = list(filter(history.is_kept, self.shown(directory)))
            repeated += sum(int(line.split()[4]) for line in found if line.startswith("ledger"))
            self.assert_same(without_repeated(found), without_repeated(wanted), "%s, %d kills" % (name, killed))
        print("%s: %d kills in %d runs, %d lines, %d repeated" % (name, killed, runs, len(wanted), repeated), flush=True)
        return history, wanted

    def check_whole(self, shown):
        wrong = [line for line in shown if re.search("damaged|cannot be|another", line)]
        self.assertEqual(wrong, [])
        kinds = {line.split(" ", 1)[0] for line in shown}
        self.assertLessEqual({"test", "result", "five", "hour", "event", "ledger", "inventory"}, kinds)

    def assert_same(self, found, wanted, where):
        if found != wanted:
            different = list(difflib.unified_diff(wanted, found, "wanted", "found", lineterm="", n=1))
            self.fail("%s: %d lines\n%s" % (where, len(different), "\n".join(different[:40])))

    def test_killed(self):
        history, wanted = self.torture("killed", lambda directory: None, 1, self.kills)
        self.check_model(history, wanted)

    def check_model(self, history, shown):
        events, ledger = history.expected()
        first_event = min(int(line.split()[3]) for line in shown if line.startswith("event"))
        first_hour = min(int(line.split()[2]) for line in shown if line.startswith("ledger"))
        self.assertEqual([line for line in sorted(shown) if line.startswith("event")],
                         [line for line in events if int(line.split()[3]) >= first_event])
        self.assertEqual([line for line in without_repeated(sorted(shown)) if line.startswith("ledger")],
                         [line for line in ledger if int(line.split()[2]) >= first_hour])

    def test_killed_with_an_earlier_database(self):
        counts = []
        self.torture("earlier", lambda directory: counts.append(store_history.make_earlier(directory, 5)), 2,
                     self.kills // 2)


def without_repeated(shown):
    return [" ".join(words[:4] + words[5:]) if words[0] == "ledger" else " ".join(words)
            for words in (line.split(" ") for line in shown)
            if words[0] != "ledger" or (words[3], words[5]) != ("0", "0")]


if __name__ == "__main__":
    harness.main()
