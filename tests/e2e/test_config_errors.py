"""Configuration mistakes are reported, and a fatal start-up error is never silent."""

import os
import shutil
import subprocess
import tempfile
import unittest

from chdtest import BUILD_DIR, ChdEnv, binary, main


def run_chd(env, timeout=20, prefix=()):
    """Runs chd until it exits on its own: (exit status, standard error)."""
    done = subprocess.run(list(prefix) + [binary("chd")], env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                          timeout=timeout, check=False)
    return done.returncode, done.stderr


class ConfigErrorsTest(unittest.TestCase):
    def test_named_configuration_file_that_does_not_exist_exits_2(self):
        with tempfile.TemporaryDirectory() as tmp:
            missing = os.path.join(tmp, "platfrom.conf")
            env = dict(os.environ, CHD_PLATFORM_CONFIG=missing)
            env.pop("CHD_LOG_STDERR", None)
            rc, err = run_chd(env)
        self.assertEqual(rc, 2, err)
        self.assertIn(missing, err)
        self.assertIn("does not exist", err)

    def test_unknown_keys_groups_and_interfaces_are_warned_and_chd_runs(self):
        platform = {"modle": "K47", "ethernet_interface": "chd-nosuch0"}
        with ChdEnv(platform=platform, client_app=False, start=False) as env:
            with open(env.platform_conf, "a") as f:
                f.write("\n[settngs]\nfile=/tmp/x\n")
            env.start_chd()
            log = env.chd_log()
            self.assertIn("Unknown key [modle] in group [platform]", log)
            self.assertIn("Unknown group [settngs]", log)
            self.assertIn("Interface [chd-nosuch0] named by [ethernet_interface] does not exist", log)
            self.assertIsNone(env.chd.poll(), "chd keeps running")

    def test_bad_log_level_is_warned(self):
        with ChdEnv(client_app=False, extra_env={"CHD_LOG_LEVEL": "loud"}) as env:
            self.assertIn("CHD_LOG_LEVEL [loud] is not a level", env.chd_log())

    def test_fatal_start_up_error_reaches_stderr_without_syslog(self):
        # The build's library directory is replaced, for chd alone, by one that
        # holds the framework library but not the settings manager's: chd
        # cannot run and exits with status 1. No system logger listens on this
        # machine, and CHD_LOG_STDERR is unset.
        if os.path.exists("/dev/log"):
            self.skipTest("a system logger listens on /dev/log here")
        with ChdEnv(client_app=False, start=False) as env, tempfile.TemporaryDirectory() as libs:
            lib_dir = os.path.realpath(os.path.join(BUILD_DIR, "lib"))
            shutil.copy(os.path.join(lib_dir, "libtolvane.so"), libs)
            run_env = env.env()
            run_env.pop("CHD_LOG_STDERR")
            run_env["TLCOM_COMPONENT_PATH"] = libs
            hide = ["unshare", "--mount", "--propagation", "private", "--", "/bin/sh", "-c",
                    'mount --bind "$0" "$1" && exec "$2"', libs, lib_dir]
            rc, err = run_chd(run_env, prefix=hide)
        self.assertEqual(rc, 1, err)
        self.assertIn("Failed to load SettingsManager library", err)
        self.assertIn("unreachable; logging to standard error", err)


if __name__ == "__main__":
    main()
