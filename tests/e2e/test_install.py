"""The installed tree: `cmake --install` of this build into a temporary DESTDIR
under a prefix other than the build's, then the installed chd and
chd-client-app run from there, with no library or component path in their
environment, and answer over UPnP; the installed collection scripts serve the
log files and the installed chd-status and chd-cp reach the daemon.

The daemon runs its collection scripts from /etc/utils. So that the test does
not touch the host, this file re-runs itself in a private mount namespace
where /etc and /tmp are overlaid by scratch layers; /etc/utils there holds the
scripts as installed into the DESTDIR.
"""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from privatemounts import rerun_with_private_mounts  # noqa: E402

if __name__ == "__main__":
    rerun_with_private_mounts(__file__, utils=False)

from chdtest import BUILD_DIR, ChdEnv, iterate_until, main  # noqa: E402
from test_configuration import parameter_values  # noqa: E402
from wireload import WHOLE_TREE, Box, action_result, platform_with_port  # noqa: E402

PREFIX = "/opt/chd-installed"
EXECUTABLES = ["sbin/chd", "bin/chd-client-app", "bin/chd-status", "bin/chd-cp"]
LIBRARIES = ["lib/chd/libtolvane.so", "lib/chd/libzunalui_settingsmanager.so"]
SCRIPTS = ["procEntriesStatus.sh", "getNetstat.sh", "fdStatus.sh", "processList.sh", "wifiChipLogGet.sh"]
# The sample statuses and events installed as examples: with them and the
# sample settings file, every path of a Wi-Fi box's data model has a value but
# the setting without a box key and the client MAC address path, whose status
# reaches the access point's path on such a box.
SAMPLE_STATUSES_FILE = "share/doc/chd/examples/statuses.conf"
SAMPLE_EVENTS_FILE = "share/doc/chd/examples/events.conf"


def runpath(path):
    out = subprocess.run(["readelf", "-d", path], capture_output=True, text=True, check=True).stdout
    for line in out.splitlines():
        if "(RUNPATH)" in line or "(RPATH)" in line:
            return line.split("[", 1)[1].rstrip("]")
    return None


class InstalledTree(unittest.TestCase):
    destdir = None

    @classmethod
    def setUpClass(cls):
        # Whatever the caller's environment says, the installed programs must find their own files.
        os.environ.pop("TLCOM_COMPONENT_PATH", None)
        os.environ.pop("LD_LIBRARY_PATH", None)
        cls.destdir = tempfile.mkdtemp(prefix="chd-install-")
        done = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", PREFIX],
                              env=dict(os.environ, DESTDIR=cls.destdir), capture_output=True, text=True, timeout=120,
                              check=False)
        if done.returncode != 0:
            raise AssertionError("cmake --install failed:\n" + done.stdout + done.stderr)
        # What the box's image would hold at /etc/utils and /etc/chd (inside this test's private /etc).
        shutil.copytree(cls.installed("/etc/utils"), "/etc/utils", symlinks=True)
        shutil.copytree(cls.installed("/etc/chd"), "/etc/chd", symlinks=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.destdir, ignore_errors=True)

    @classmethod
    def installed(cls, path):
        if not path.startswith("/"):
            path = os.path.join(PREFIX, path)
        return cls.destdir + path

    def test_tree_holds_programs_libraries_scripts_units_and_configuration(self):
        for path in EXECUTABLES + ["/etc/utils/" + script for script in SCRIPTS]:
            self.assertTrue(os.access(self.installed(path), os.X_OK), path)
        for path in LIBRARIES + ["lib/systemd/system/chd.service", "lib/systemd/system/chd-client-app.service",
                                 "share/dbus-1/system.d/org.tolvane.StatusStore1.conf",
                                 "share/doc/chd/examples/settings.conf", SAMPLE_STATUSES_FILE, SAMPLE_EVENTS_FILE, "/etc/chd/platform.conf",
                                 "/etc/utils/chd_log_dir.sh"]:
            self.assertTrue(os.path.isfile(self.installed(path)), path)
        with open(self.installed("lib/systemd/system/chd.service")) as unit:
            self.assertIn("ExecStart=%s/sbin/chd\n" % PREFIX, unit.read())

    def test_runpath_is_relative_to_each_file(self):
        for path in EXECUTABLES:
            self.assertEqual(runpath(self.installed(path)), "$ORIGIN/../lib/chd", path)
        for path in LIBRARIES:
            self.assertEqual(runpath(self.installed(path)), "$ORIGIN", path)
        for path in EXECUTABLES[:3]:
            out = subprocess.run(["ldd", self.installed(path)], capture_output=True, text=True, check=True).stdout
            self.assertNotIn("not found", out)
            found = re.search(r"libtolvane\.so => (\S+)", out)
            self.assertTrue(found, out)
            self.assertEqual(os.path.realpath(found.group(1)), self.installed("lib/chd/libtolvane.so"))

    def test_installed_daemon_and_client_application_answer(self):
        programs = {"chd": self.installed("sbin/chd"), "chd-client-app": self.installed("bin/chd-client-app")}
        with ChdEnv(platform=platform_with_port({"wifi": "true"}), programs=programs, start=False) as env:
            shutil.copy(self.installed("share/doc/chd/examples/settings.conf"), env.settings_file)
            env.start_chd()
            env.start_client_app()
            self.load_samples(env)
            box = Box(env)

            # The settings manager component was found beside the installed framework library.
            with open("/proc/%d/maps" % env.chd.pid) as maps:
                mapped = maps.read()
            self.assertIn(self.installed("lib/chd/libzunalui_settingsmanager.so"), mapped)
            self.assertNotIn(BUILD_DIR.rstrip("/") + "/lib", mapped)

            status, body = box.get_values(WHOLE_TREE)
            self.assertEqual(status, 200, body)
            values = dict(parameter_values(action_result(body, "ParameterValueList")))
            self.assertGreater(len(values), 80)
            self.assertEqual(values["/vsp/HDTV/BAR_COLOR"], "DarkGray")
            self.assertEqual(values["/vsp/Preferences/LANGUAGE"], "English")
            empty = sorted(path for path, value in values.items() if value == "")
            self.assertEqual(empty, ["/vsp/CHD/MEDIA_TRANSITION", "/vsp/ClientInfo/MAC_ADDRESS"])

            # A log file regenerated by an installed collection script, on the stack's port and on port 80.
            for port in (None, 80):
                status, length = box.get_log("processList.log", port=port)
                self.assertEqual((status, length > 0), (200, True), "processList.log on port %s" % port)

            self.check_installed_tools(env)

    def sample_lines(self, path):
        with open(self.installed(path)) as sample:
            return [line.rstrip("\n").split("=", 1) for line in sample if line.strip() and not line.startswith("#")]

    def load_samples(self, env):
        statuses = self.sample_lines(SAMPLE_STATUSES_FILE)
        self.assertGreater(len(statuses), 40)
        for key, value in statuses:
            env.set_status(key, value)
        events = self.sample_lines(SAMPLE_EVENTS_FILE)
        for name, value in events:
            env.post_event(name, value)
        # The histories follow the events on the daemon's own thread.
        iterate_until(lambda: env.get_status("Media State History"), 10, "the sample events recorded")

    def check_installed_tools(self, env):
        status_tool = [self.installed("bin/chd-status"), "--bus", env.bus_address]
        subprocess.run(status_tool + ["set", "Install Test", "installed"], check=True, timeout=30)
        got = subprocess.run(status_tool + ["get", "Install Test"], capture_output=True, text=True, check=True,
                             timeout=30)
        self.assertEqual(got.stdout.strip(), "installed")
        cp = subprocess.run([self.installed("bin/chd-cp"), "get", "127.0.0.1", "/vsp/HDTV/BAR_COLOR"],
                            capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(cp.returncode, 0, cp.stderr)
        self.assertIn("DarkGray", cp.stdout)


if __name__ == "__main__":
    main()
