"""Harness for end-to-end tests of the real chd binary.

Each test file runs inside its own network namespace (run_in_netns.sh), so the
daemon may take port 80, the SSDP port and any HTTP port without colliding
with anything else. The harness starts a private D-Bus daemon, optionally the
host client application, and chd with a platform settings file of the test's
choosing; it offers a GUPnP control point (a real third-party UPnP client) and
a D-Bus client of the status store.

Typical use:

    with ChdEnv(platform={"wifi": "true"}) as env:
        cp = ControlPoint()
        device = cp.find_device()
        out = cp.call(device, "ConfigurationManagement", "GetSupportedDataModels",
                      [], ["SupportedDataModels"])
"""

import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import gi

gi.require_version("GUPnP", "1.6")
gi.require_version("GSSDP", "1.6")
from gi.repository import Gio, GLib, GObject, GSSDP, GUPnP  # noqa: E402

DEVICE_TYPE = "urn:schemas-upnp-org:device:ManageableDevice:1"
CM_TYPE = "urn:schemas-upnp-org:service:ConfigurationManagement:1"
BM_TYPE = "urn:schemas-upnp-org:service:BasicManagement:1"
STORE_NAME = "org.tolvane.StatusStore1"
STORE_PATH = "/org/tolvane/StatusStore1"
STORE_IFACE = "org.tolvane.StatusStore1"

BUILD_DIR = os.environ.get("CHD_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))
SOURCE_DIR = os.environ.get("CHD_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))


def binary(name):
    path = os.path.join(BUILD_DIR, "bin", name)
    if not os.path.exists(path):
        raise unittest.SkipTest("%s is not built" % path)
    return path


def iterate_until(predicate, timeout, what="condition"):
    """Runs the default GLib main context until predicate() is true.

    Blocking iterations (woken at least every 20 ms) hand every message to its
    handler as soon as it arrives, so the order of network messages is kept:
    GUPnP's control point drops a first event that it reads before its
    subscription answer."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + timeout
    tick = GLib.timeout_add(20, lambda: True)
    try:
        while True:
            result = predicate()
            if result:
                return result
            if time.monotonic() > deadline:
                raise AssertionError("timed out after %.1f s waiting for %s" % (timeout, what))
            context.iteration(True)
    finally:
        GLib.source_remove(tick)


class ChdEnv:
    """A private bus, optionally the host client application, and chd."""

    def __init__(self, platform=None, settings=None, client_app=True, client_app_args=None, start=True,
                 log_level=6, extra_env=None, nofile=None, programs=None):
        self.tmp = tempfile.mkdtemp(prefix="chd-e2e-")
        self.log_path = os.path.join(self.tmp, "log")
        self.settings_file = os.path.join(self.tmp, "settings.conf")
        self.bus_address = "unix:path=" + os.path.join(self.tmp, "bus")
        self.platform_conf = os.path.join(self.tmp, "platform.conf")
        self.platform = {"log_path": self.log_path, "ethernet_interface": "lo", "autoip_interface": ""}
        self.platform.update(platform or {})
        self.settings = settings or {}
        self.client_app = client_app
        self.client_app_args = client_app_args or []
        self.log_level = log_level
        self.extra_env = extra_env or {}
        self.nofile = nofile  # chd's descriptor limit, when the test sets one
        # Installed executables by name ("chd", "chd-client-app") instead of the build's; they must
        # then find their libraries and components by themselves.
        self.programs = programs or {}
        self.bus = None
        self.chd = None
        self.client = None
        self.dbus_daemon = None
        self.chd_log_file = os.path.join(self.tmp, "chd.log")
        self.client_log_file = os.path.join(self.tmp, "client-app.log")
        self._autostart = start

    # -- lifecycle ---------------------------------------------------------
    def __enter__(self):
        self.write_config()
        self.start_bus()
        if self._autostart:
            # The store lives in chd; the client application publishes its settings once the store is there.
            self.start_chd()
            if self.client_app:
                self.start_client_app()
        return self

    def __exit__(self, exc_type, exc, tb):
        self.stop_all()
        if exc_type is not None:
            self.dump_logs()
        if os.environ.get("CHD_KEEP_TMP") != "1":
            shutil.rmtree(self.tmp, ignore_errors=True)
        return False

    def write_config(self):
        lines = ["[platform]"]
        lines += ["%s=%s" % (k, v) for k, v in self.platform.items() if not k.startswith("[")]
        lines += ["", "[statusstore]", "bus=" + self.bus_address, "", "[settings]", "file=" + self.settings_file, ""]
        with open(self.platform_conf, "w") as f:
            f.write("\n".join(lines))
        if self.settings and not os.path.exists(self.settings_file):
            with open(self.settings_file, "w") as f:
                f.write("[settings]\n")
                for k, v in self.settings.items():
                    f.write("%s=%s\n" % (k, v))

    def use_machine_id(self, machine_id):
        """Names a file holding machine_id in the platform settings: the box's UDN follows from it.
        Called before write_config."""
        path = os.path.join(self.tmp, "machine-id")
        with open(path, "w") as f:
            f.write(machine_id + "\n")
        self.platform["machine_id_file"] = path

    def env(self):
        env = dict(os.environ)
        env["CHD_PLATFORM_CONFIG"] = self.platform_conf
        env["CHD_LOG_STDERR"] = "1"
        env["CHD_LOG_LEVEL"] = str(self.log_level)
        env["DBUS_SESSION_BUS_ADDRESS"] = self.bus_address
        if not self.programs:
            env["TLCOM_COMPONENT_PATH"] = os.path.join(BUILD_DIR, "lib")
        env.update(self.extra_env)
        return env

    def start_bus(self):
        self.dbus_daemon = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + self.bus_address,
             "--print-address=1"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.dbus_daemon.stdout.readline()
        self.bus = Gio.DBusConnection.new_for_address_sync(
            self.bus_address,
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)

    def start_client_app(self, extra_args=None):
        args = [self.program("chd-client-app"), "--bus", self.bus_address] + self.client_app_args + (extra_args or [])
        start = len(self.client_log())
        with open(self.client_log_file, "ab") as log:
            self.client = subprocess.Popen(args, env=self.env(), stdout=log, stderr=subprocess.STDOUT)
        iterate_until(lambda: self._settings_published(start), 10, "the client application's settings")

    def _settings_published(self, start):
        return re.search(r"Published \d+ settings|No settings to publish", self.client_log()[start:])

    def start_chd(self, wait=True):
        with open(self.chd_log_file, "ab") as log:
            self.chd = subprocess.Popen([self.program("chd")], env=self.env(), stdout=subprocess.DEVNULL, stderr=log,
                                        preexec_fn=self._limit_descriptors)
        if wait:
            self.wait_log("Starting CHD Control", timeout=10)
            self.wait_for_name_owner(STORE_NAME, present=True, timeout=10)

    def program(self, name):
        return self.programs.get(name) or binary(name)

    def _limit_descriptors(self):
        if self.nofile is not None:
            resource.setrlimit(resource.RLIMIT_NOFILE, (self.nofile, self.nofile))

    def stop_chd(self, sig=signal.SIGTERM, timeout=10):
        if self.chd is None:
            return None
        if self.chd.poll() is None:
            self.chd.send_signal(sig)
        try:
            rc = self.chd.wait(timeout)
        except subprocess.TimeoutExpired:
            self.chd.kill()
            rc = self.chd.wait()
        self.chd = None
        return rc

    def stop_client_app(self):
        if self.client is not None:
            if self.client.poll() is None:
                self.client.terminate()
                try:
                    self.client.wait(5)
                except subprocess.TimeoutExpired:
                    self.client.kill()
                    self.client.wait()
            self.client = None

    def restart_chd(self):
        """Stops chd with SIGTERM and starts it again; the client application republishes."""
        rc = self.stop_chd()
        start = len(self.client_log())
        self.start_chd()
        if self.client is not None:
            iterate_until(lambda: self._settings_published(start), 10, "the settings republished")
        return rc

    def stop_all(self):
        self.stop_chd()
        self.stop_client_app()
        if self.dbus_daemon is not None:
            self.dbus_daemon.terminate()
            self.dbus_daemon.wait(5)
            self.dbus_daemon.stdout.close()
            self.dbus_daemon = None

    # -- logs --------------------------------------------------------------
    @staticmethod
    def _read_log(path):
        try:
            with open(path, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def chd_log(self):
        return self._read_log(self.chd_log_file)

    def client_log(self):
        return self._read_log(self.client_log_file)

    def wait_log(self, text, timeout=10, start=0):
        iterate_until(lambda: text in self.chd_log()[start:], timeout, "log line %r" % text)

    def dump_logs(self):
        sys.stderr.write("---- chd log (last 200 lines) ----\n")
        sys.stderr.write("\n".join(self.chd_log().splitlines()[-200:]) + "\n")
        if self.client_app:
            sys.stderr.write("---- client app log ----\n" + self.client_log()[-5000:] + "\n")

    # -- status store over D-Bus --------------------------------------------
    def wait_for_name_owner(self, name, present=True, timeout=10):
        if not present:
            return

        def owned():
            reply = self.bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                       "NameHasOwner", GLib.Variant("(s)", (name,)), GLib.VariantType("(b)"),
                                       Gio.DBusCallFlags.NONE, 2000, None)
            return reply.unpack()[0]

        iterate_until(owned, timeout, "D-Bus name %s" % name)

    def name_has_owner(self, name):
        reply = self.bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner", GLib.Variant("(s)", (name,)), GLib.VariantType("(b)"),
                                   Gio.DBusCallFlags.NONE, 2000, None)
        return reply.unpack()[0]

    def store_call(self, method, signature, args, reply_type=None):
        reply = self.bus.call_sync(STORE_NAME, STORE_PATH, STORE_IFACE, method,
                                   GLib.Variant(signature, args) if signature else None,
                                   GLib.VariantType(reply_type) if reply_type else None,
                                   Gio.DBusCallFlags.NONE, 5000, None)
        return reply.unpack() if reply is not None else None

    def set_status(self, key, value):
        self.store_call("SetStatus", "(ss)", (key, value))

    def set_statuses(self, statuses):
        self.store_call("SetStatuses", "(a{ss})", (statuses,))

    def get_status(self, key):
        return self.store_call("GetStatus", "(s)", (key,), "(s)")[0]

    def post_event(self, name, value="", option=0):
        self.store_call("PostEvent", "(ssi)", (name, value, option))

    def get_counter(self, name):
        return self.store_call("GetCounter", "(s)", (name,), "(u)")[0]

    def get_timer_elapsed(self, name):
        return self.store_call("GetTimerElapsed", "(s)", (name,), "(t)")[0]

    def watch(self):
        return BusWatcher(self.bus)


class BusWatcher:
    """Collects StatusesChanged and EventPosted signals of the status store."""

    def __init__(self, bus):
        self.bus = bus
        self.events = []  # (name, value)
        self.statuses = []  # dict per signal
        self._ids = [
            bus.signal_subscribe(None, STORE_IFACE, "EventPosted", STORE_PATH, None, Gio.DBusSignalFlags.NONE,
                                 self._on_event),
            bus.signal_subscribe(None, STORE_IFACE, "StatusesChanged", STORE_PATH, None, Gio.DBusSignalFlags.NONE,
                                 self._on_statuses),
        ]
        # A round trip makes sure the match rules are in place before the test acts.
        bus.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", None,
                      None, Gio.DBusCallFlags.NONE, 2000, None)

    def _on_event(self, _conn, _sender, _path, _iface, _signal, params):
        self.events.append(tuple(params.unpack()))

    def _on_statuses(self, _conn, _sender, _path, _iface, _signal, params):
        self.statuses.append(params.unpack()[0])

    def wait_event(self, name, timeout=10, start=0):
        """Returns the value of the first event of that name after index start."""
        found = iterate_until(lambda: [v for n, v in self.events[start:] if n == name], timeout, "event " + name)
        return found[0]

    def events_named(self, name):
        return [v for n, v in self.events if n == name]

    def wait_status(self, key, timeout=10):
        found = iterate_until(lambda: [s[key] for s in self.statuses if key in s], timeout, "status " + key)
        return found[-1]

    def close(self):
        for i in self._ids:
            self.bus.signal_unsubscribe(i)


class UPnPError(Exception):
    def __init__(self, code, description):
        super().__init__("UPnP error %d: %s" % (code, description))
        self.code = code
        self.description = description


class ControlPoint:
    """A GUPnP control point on one interface of the test's namespace."""

    def __init__(self, interface="lo", target=DEVICE_TYPE):
        self.context = GUPnP.Context.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
        self.control_point = GUPnP.ControlPoint.new(self.context, target)
        self.devices = []
        self.control_point.connect("device-proxy-available", lambda _cp, dev: self.devices.append(dev))
        self.control_point.connect("device-proxy-unavailable",
                                   lambda _cp, dev: self.devices.remove(dev) if dev in self.devices else None)
        self.control_point.set_active(True)

    def find_device(self, timeout=15):
        return iterate_until(lambda: self.devices[0] if self.devices else None, timeout, "the ManageableDevice")

    def rescan(self):
        self.control_point.rescan()

    @staticmethod
    def service(device, name):
        for svc in device.list_services():
            if svc.get_service_type().split(":")[3] == name:
                return svc
        raise AssertionError("device has no service %s" % name)

    def call(self, device, service_name, action, inputs, outputs, timeout=30):
        """inputs: list of (name, value) with str or int (ui4) values; outputs: names (returned as str)."""
        proxy = self.service(device, service_name) if isinstance(device, GUPnP.DeviceProxy) else device
        names = [n for n, _ in inputs]
        values = []
        for _, v in inputs:
            gv = GObject.Value()
            if isinstance(v, int):
                gv.init(GObject.TYPE_UINT)
                gv.set_uint(v)
            else:
                gv.init(GObject.TYPE_STRING)
                gv.set_string(v)
            values.append(gv)
        request = GUPnP.ServiceProxyAction.new_from_list(action, names, values)
        done = {}

        def finished(source, result):
            try:
                done["action"] = source.call_action_finish(result)
            except GLib.Error as error:  # transport-level failure
                done["error"] = error

        proxy.call_action_async(request, None, finished)
        iterate_until(lambda: done, timeout, "answer to " + action)
        if "error" in done:
            raise UPnPError(done["error"].code, done["error"].message)
        try:
            ok, result = request.get_result_list(outputs, [GObject.TYPE_STRING] * len(outputs))
        except GLib.Error as error:
            raise UPnPError(error.code, error.message)
        if not ok:
            raise UPnPError(-1, "no result")
        return dict(zip(outputs, [v for v in result]))

    def subscribe(self, device, service_name, variables):
        proxy = self.service(device, service_name)
        return Subscription(proxy, variables)


class Subscription:
    """Records the values each evented variable was notified with."""

    def __init__(self, proxy, variables):
        # The subscription lives as long as the proxy object.
        self.proxy = proxy
        self.values = {v: [] for v in variables}
        for var in variables:
            proxy.add_notify(var, GObject.TYPE_STRING, self._on_notify)
        proxy.set_subscribed(True)

    def _on_notify(self, _proxy, variable, value, *_):
        self.values[variable].append(value)

    def wait_initial(self, variable, timeout=10):
        """Waits for the first event, the one every new subscription gets.

        Even with blocking iterations the GUPnP control point can still read
        that NOTIFY before its SUBSCRIBE answer now and then, and drop it; one
        more subscription (which must bring the current values again) tells
        that apart from a device that sends none.
        """
        try:
            return self.wait_count(variable, 1, timeout / 2)
        except AssertionError:
            self.proxy.set_subscribed(False)
            self.proxy.set_subscribed(True)
            return self.wait_count(variable, 1, timeout)

    def wait_count(self, variable, count, timeout=10):
        """All values notified for variable, once there are at least count."""
        iterate_until(lambda: len(self.values[variable]) >= count, timeout, "%d events on %s" % (count, variable))
        return self.values[variable]

    def wait(self, variable, predicate=lambda v: True, timeout=10, start=0):
        def found():
            for value in self.values[variable][start:]:
                if predicate(value):
                    return [value]
            return None

        return iterate_until(found, timeout, "event on " + variable)[0]

    @staticmethod
    def settle(seconds):
        """Keeps receiving events for a while (to show that no further one comes)."""
        deadline = time.monotonic() + seconds
        iterate_until(lambda: time.monotonic() >= deadline, seconds + 5, "the settling time")


def http_port_of(device):
    """The port of the stack's own HTTP server, from the description URL."""
    url = device.get_location()
    return int(url.split("//", 1)[1].split("/", 1)[0].rsplit(":", 1)[1])


def curl(url, extra=None, timeout=60):
    """Raw HTTP with curl: returns (status, head text, body bytes)."""
    args = ["curl", "-s", "-S", "--max-time", str(timeout), "-D", "-", "--path-as-is", "-o", "-"]
    out = subprocess.run(args + (extra or []) + [url], capture_output=True, check=False).stdout
    head, _, body = out.partition(b"\r\n\r\n")
    status = int(head.split(b" ", 2)[1]) if head.startswith(b"HTTP/") else 0
    return status, head.decode("latin-1"), body


def main():
    unittest.main(verbosity=2)
