"""The service units and the status store's D-Bus policy, as installed.

The units are checked by `systemd-analyze verify` (which needs no running
systemd). The policy is loaded by a real dbus-daemon after the system bus's default
policy, the way the system bus includes it, and its decisions are observed from clients running as different
users: in a copy of the policy, the daemon's user stands for `chd` and a
second user's primary group for the `chd` group, as those need not exist on
the machine running the test.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD_DIR = os.environ.get("CHD_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
STORE = "org.tolvane.StatusStore1"
UNITS = ["chd.service", "chd-client-app.service"]
POLICY = "usr/share/dbus-1/system.d/org.tolvane.StatusStore1.conf"

# Stand-ins in the policy copy: uid 1 (daemon) for the chd user, gid 2 (bin,
# primary group of uid 2) for the chd group; uid 65534 (nobody) is untrusted.
OWNER_UID, TRUSTED_UID, UNTRUSTED_UID = 1, 2, 65534

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <!-- The system bus's own default policy (dbus's system.conf): no name
       may be owned and no method called unless a service's policy allows it. -->
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
  </policy>
  <include>{policy}</include>
</busconfig>
"""

# Run as the users above: owns the store's name, or calls one method of it,
# and prints "ok" or the D-Bus error's name.
CLIENT = r"""
import ast
import sys
from gi.repository import Gio, GLib
address, what = sys.argv[1], sys.argv[2]
bus = Gio.DBusConnection.new_for_address_sync(
    address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
    None, None)
try:
    if what == "own":
        reply = bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                              "RequestName", GLib.Variant("(su)", ("org.tolvane.StatusStore1", 4)),
                              GLib.VariantType("(u)"), Gio.DBusCallFlags.NONE, 5000, None)
        print("ok" if reply.unpack()[0] == 1 else "not-primary-owner", flush=True)
        if len(sys.argv) > 3:
            GLib.timeout_add_seconds(int(sys.argv[3]), lambda: sys.exit(0))
            GLib.MainLoop().run()
    else:
        method, signature, args = what, sys.argv[3], ast.literal_eval(sys.argv[4])
        bus.call_sync("org.tolvane.StatusStore1", "/org/tolvane/StatusStore1", "org.tolvane.StatusStore1", method,
                      GLib.Variant(signature, args), None, Gio.DBusCallFlags.NONE, 5000, None)
        print("ok")
except GLib.Error as error:
    print(Gio.DBusError.get_remote_error(error) or error.message)
"""


def install_tree(destdir):
    done = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"], env=dict(os.environ, DESTDIR=destdir),
                          capture_output=True, text=True, timeout=120, check=False)
    if done.returncode != 0:
        raise AssertionError("cmake --install failed:\n" + done.stdout + done.stderr)


class Units(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if shutil.which("systemd-analyze") is None:
            raise unittest.SkipTest("systemd-analyze is not installed (package systemd)")
        cls.tmp = tempfile.mkdtemp(prefix="chd-units-")
        install_tree(os.path.join(cls.tmp, "root"))

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def staged_unit(self, name, edit=None):
        """A copy of the installed unit whose programs are those staged in the DESTDIR, so that
        verify's checks of the executables look at the installed files."""
        root = os.path.join(self.tmp, "root")
        with open(os.path.join(root, "lib/systemd/system", name)) as unit:
            text = unit.read()
        text = text.replace("ExecStart=/usr/", "ExecStart=%s/usr/" % root)
        if edit:
            text = edit(text)
        directory = tempfile.mkdtemp(dir=self.tmp)
        path = os.path.join(directory, name)
        with open(path, "w") as unit:
            unit.write(text)
        return path

    def verify(self, path):
        done = subprocess.run(["systemd-analyze", "verify", path], capture_output=True, text=True, timeout=60,
                              check=False)
        return done.returncode, (done.stdout + done.stderr).strip()

    def test_every_unit_verifies_without_a_message(self):
        for name in UNITS:
            rc, output = self.verify(self.staged_unit(name))
            self.assertEqual((rc, output), (0, ""), name)

    def test_verify_reports_a_broken_unit(self):
        # The check above would be empty if verify said nothing about a bad unit either.
        rc, output = self.verify(self.staged_unit("chd.service", lambda t: t.replace("Restart=", "Restrat=")))
        self.assertIn("Restrat", output)
        rc, output = self.verify(self.staged_unit("chd.service", lambda t: t.replace("/sbin/chd", "/sbin/no-chd")))
        self.assertNotEqual(rc, 0, output)

    def test_daemon_unit_runs_chd_as_its_user_with_port_80_and_stop_status_1(self):
        with open(os.path.join(self.tmp, "root/lib/systemd/system/chd.service")) as unit:
            lines = set(unit.read().splitlines())
        for line in ["ExecStart=/usr/sbin/chd", "SuccessExitStatus=1", "Restart=on-failure", "User=chd",
                     "AmbientCapabilities=CAP_NET_BIND_SERVICE", "ProtectSystem=strict", "LogsDirectory=chd",
                     "StateDirectory=chd", "Environment=CHD_PLATFORM_CONFIG=/etc/chd/platform.conf"]:
            self.assertIn(line, lines)
        with open(os.path.join(self.tmp, "root/etc/chd/platform.conf")) as conf:
            self.assertIn("bus=system", conf.read().splitlines())


class Policy(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if shutil.which("dbus-daemon") is None:
            raise unittest.SkipTest("dbus-daemon is not installed")
        if os.getuid() != 0:
            raise unittest.SkipTest("the policy test runs clients as other users: needs root")
        cls.tmp = tempfile.mkdtemp(prefix="chd-policy-")
        os.chmod(cls.tmp, 0o755)
        install_tree(os.path.join(cls.tmp, "root"))
        with open(os.path.join(cls.tmp, "root", POLICY)) as policy:
            text = policy.read()
        subprocess.run(["xmllint", "--noout", os.path.join(cls.tmp, "root", POLICY)], check=True, timeout=30)
        # The stand-ins: the owner's user name and the trusted group's name on this machine.
        owner = subprocess.run(["id", "-un", str(OWNER_UID)], capture_output=True, text=True, check=True).stdout
        group = subprocess.run(["id", "-gn", str(TRUSTED_UID)], capture_output=True, text=True, check=True).stdout
        text = text.replace('user="chd"', 'user="%s"' % owner.strip()).replace('group="chd"',
                                                                               'group="%s"' % group.strip())
        cls.policy = os.path.join(cls.tmp, "policy.conf")
        cls.client = os.path.join(cls.tmp, "client.py")
        socket = os.path.join(cls.tmp, "bus")
        for path, content in [(cls.policy, text), (cls.client, CLIENT),
                              (os.path.join(cls.tmp, "bus.conf"), BUS_CONFIG.format(socket=socket, policy=cls.policy))]:
            with open(path, "w") as f:
                f.write(content)
            os.chmod(path, 0o644)
        cls.address = "unix:path=" + socket
        cls.bus = subprocess.Popen(["dbus-daemon", "--config-file", os.path.join(cls.tmp, "bus.conf"), "--nofork",
                                    "--nopidfile", "--print-address=1"], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        if not cls.bus.stdout.readline():
            raise AssertionError("dbus-daemon did not start: " + cls.bus.stderr.read())
        os.chmod(socket, 0o777)
        cls.owner = None

    @classmethod
    def tearDownClass(cls):
        if cls.owner is not None:
            cls.owner.kill()
            cls.owner.wait()
        cls.bus.terminate()
        cls.bus.wait(10)
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def client_args(self, uid, *args):
        return ["setpriv", "--reuid=%d" % uid, "--regid=%d" % self.primary_gid(uid), "--init-groups", sys.executable,
                self.client, self.address] + list(args)

    @staticmethod
    def primary_gid(uid):
        return int(subprocess.run(["id", "-g", str(uid)], capture_output=True, text=True, check=True).stdout)

    def run_client(self, uid, *args):
        done = subprocess.run(self.client_args(uid, *args), capture_output=True, text=True, timeout=30, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.strip()

    def ensure_owner(self):
        if Policy.owner is None:
            Policy.owner = subprocess.Popen(self.client_args(OWNER_UID, "own", "60"), stdout=subprocess.PIPE,
                                            stderr=subprocess.PIPE, text=True)
            answer = Policy.owner.stdout.readline().strip()
            if answer != "ok":
                Policy.owner.kill()
                self.fail("the daemon's user cannot own the name: %s %s" % (answer, Policy.owner.stderr.read()))

    def test_only_the_daemon_user_owns_the_name(self):
        for uid in (0, TRUSTED_UID, UNTRUSTED_UID):
            self.assertEqual(self.run_client(uid, "own"), "org.freedesktop.DBus.Error.AccessDenied", uid)
        self.ensure_owner()

    def test_root_and_the_group_may_set_statuses(self):
        self.ensure_owner()
        for uid in (0, TRUSTED_UID):
            # The stand-in owner serves no object: any answer but AccessDenied means the bus let it through.
            answer = self.run_client(uid, "SetStatus", "(ss)", "('Client Connection Status', 'Common.Connected')")
            self.assertNotEqual(answer, "org.freedesktop.DBus.Error.AccessDenied", uid)
            self.assertTrue(answer.startswith("org.freedesktop.DBus.Error."), answer)

    def test_others_may_only_read(self):
        self.ensure_owner()
        for method, signature, args in [("SetStatus", "(ss)", "('a', 'b')"), ("SetStatuses", "(a{ss})", "({},)"),
                                        ("PostEvent", "(ssi)", "('e', 'v', 0)"), ("StartTimer", "(s)", "('t',)"),
                                        ("SetCounter", "(su)", "('c', 1)")]:
            answer = self.run_client(UNTRUSTED_UID, method, signature, args)
            self.assertEqual(answer, "org.freedesktop.DBus.Error.AccessDenied", method)
        for method, signature, args in [("GetStatus", "(s)", "('a',)"), ("GetCounter", "(s)", "('c',)"),
                                        ("GetTimerElapsed", "(s)", "('t',)")]:
            answer = self.run_client(UNTRUSTED_UID, method, signature, args)
            self.assertNotEqual(answer, "org.freedesktop.DBus.Error.AccessDenied", method)


if __name__ == "__main__":
    unittest.main(verbosity=2)
