"""Packages of npm's registry that a check needs, in the versions and with the hashes of a package-lock.json. Only the
first run asks the registry."""

import filecmp
import os
import shutil
import subprocess

LOCK = "package-lock.json"
PATIENCE_S = 600


class Failure(Exception):
    """Why they cannot be had."""


def install(source, place, *files):
    """Has node_modules in `place` be what the lock of `source` says: once, and again when that has changed. The other
    files of `source` that are named are copied there, too."""
    installed = os.path.join(place, "installed.json")
    os.makedirs(place, exist_ok=True)
    for name in ("package.json", LOCK, *files):
        shutil.copy(os.path.join(source, name), place)
    if os.path.exists(installed) and filecmp.cmp(installed, os.path.join(place, LOCK), shallow=False):
        return
    try:
        done = subprocess.run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund", "--no-update-notifier"],
                              cwd=place, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                              timeout=PATIENCE_S)
    except FileNotFoundError:
        raise Failure("there is no npm: `scripts/setup all` installs it") from None
    except subprocess.TimeoutExpired:
        raise Failure("npm did not end within ten minutes: is its registry within reach?") from None
    if done.returncode != 0:
        raise Failure("what stands in %s cannot be had from npm's registry; its last words were:\n%s" % (
            os.path.join(source, LOCK), done.stdout))
    shutil.copy(os.path.join(place, LOCK), installed)
