"""Collection scripts that overrun: the daemon runs each script under /etc/utils
with a time limit of 10 s, kills the script's whole process group when the
limit runs out and sends the file as the script left it; a SIGTERM that comes
while a script runs still ends the daemon with status 1 within 2 s.

So that the host's /etc stays untouched, this file re-runs itself in a private
mount namespace where /etc is overlaid by a scratch layer and /etc/utils holds
the scripts that each test writes.
"""

import os
import signal
import subprocess
import sys
import time
import unittest


from privatemounts import rerun_with_private_mounts  # noqa: E402

if __name__ == "__main__":
    rerun_with_private_mounts(__file__, overlaid=("/etc",))

from chdtest import ChdEnv, curl, main  # noqa: E402

SCRIPT_LIMIT = 10.0
PRIVATE_HTTP_PORT = 80

# Writes part of its file, starts a child in its process group and waits for it far beyond the limit.
SLEEPING_SCRIPT = """#!/bin/sh
printf 'partial\\n' > '{log}'
sleep 120 &
echo "$$ $!" > '{pids}'
wait
printf 'never\\n' >> '{log}'
"""


def running(pid):
    """True while the process exists and is not a zombie waiting for its new parent."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def group_members(pgid):
    """Live processes whose process group is pgid."""
    members = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open("/proc/%s/stat" % entry) as f:
                    fields = f.read().rsplit(")", 1)[1].split()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if fields[0] != "Z" and int(fields[2]) == pgid:
                members.append(int(entry))
    return members


def wait_until(predicate, timeout):
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


class CollectionLimitsTest(unittest.TestCase):
    def install_sleeping_script(self, env):
        self.served = os.path.join(env.log_path, "procEntriesStatus.log")
        self.pids_file = os.path.join(env.tmp, "script.pids")
        os.makedirs(env.log_path, exist_ok=True)
        with open("/etc/utils/procEntriesStatus.sh", "w") as f:
            f.write(SLEEPING_SCRIPT.format(log=self.served, pids=self.pids_file))
        os.chmod("/etc/utils/procEntriesStatus.sh", 0o755)

    def script_pids(self):
        self.assertTrue(wait_until(lambda: os.path.exists(self.pids_file) and
                                   len(open(self.pids_file).read().split()) == 2, 20), "the script never started")
        with open(self.pids_file) as f:
            shell, child = (int(pid) for pid in f.read().split())
        return shell, child

    def url(self):
        return "http://127.0.0.1:%d%s" % (PRIVATE_HTTP_PORT, self.served)

    def test_overrunning_script_is_killed_with_its_group_and_the_file_sent_as_left(self):
        with ChdEnv(client_app=False, start=False) as env:
            self.install_sleeping_script(env)
            env.start_chd()
            started = time.monotonic()
            status, _, body = curl(self.url(), timeout=60)
            took = time.monotonic() - started
            self.assertEqual(status, 200)
            self.assertEqual(body, b"partial\n")
            self.assertGreaterEqual(took, SCRIPT_LIMIT - 0.5)
            self.assertLess(took, SCRIPT_LIMIT + 10)
            shell, child = self.script_pids()
            self.assertTrue(wait_until(lambda: not running(child) and not running(shell), 5),
                            "a process of the script survived its limit")
            self.assertEqual(group_members(shell), [])
            self.assertIn("Collection script [/etc/utils/procEntriesStatus.sh] ran longer than [10000] ms and was "
                          "killed", env.chd_log())
            self.assertNotIn("Failed to run command", env.chd_log())
            self.assertIsNone(env.chd.poll(), "the daemon ended")
            sys.stderr.write("answer after an overrunning script: %.2f s\n" % took)

    def test_sigterm_while_a_script_runs_exits_with_status_one_within_two_seconds(self):
        with ChdEnv(client_app=False, start=False) as env:
            self.install_sleeping_script(env)
            env.start_chd()
            request = subprocess.Popen(["curl", "-s", "--max-time", "60", "-o", "/dev/null", self.url()])
            try:
                shell, child = self.script_pids()
                self.assertTrue(running(child))
                started = time.monotonic()
                rc = env.stop_chd(signal.SIGTERM, timeout=10)
                took = time.monotonic() - started
                sys.stderr.write("SIGTERM while a script sleeps: exit status %s after %.2f s\n" % (rc, took))
                self.assertEqual(rc, 1)
                self.assertLess(took, 2.0)
                self.assertTrue(wait_until(lambda: not running(child) and not running(shell), 5),
                                "a process of the script outlived the daemon")
                self.assertEqual(group_members(shell), [])
                self.assertIn("Received signal [15] for the CHD applicaiton, stopping CHD", env.chd_log())
                # Ended by its own orderly stop, not rescued by the stop deadline.
                self.assertNotIn("Stopping took longer than", env.chd_log())
            finally:
                request.kill()
                request.wait()


if __name__ == "__main__":
    main()
