"""A mixed load of a real server box and the box's own applications, held for a
while against a running chd, with the daemon's resident memory, descriptors
and throughput sampled at fixed intervals.

Each client repeats one round: GetValues of the whole tree, SetValues of a
file setting, GetLogURIs, a log GET on each HTTP port, a SUBSCRIBE followed by
its UNSUBSCRIBE, a status change and a "Dropped Key" incident on the status
store's bus. Bounded by time and by a round count per client.
"""

import threading
import time
from statistics import median

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from chdtest import CM_TYPE, STORE_IFACE, STORE_NAME, STORE_PATH  # noqa: E402
from wireload import Box, NotifySink, fd_count, rss_kib  # noqa: E402

MAX_ROUNDS_PER_CLIENT = 1000000


class StoreClient:
    """A bus connection of its own, for one client thread."""

    def __init__(self, address):
        self.bus = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)

    def call(self, method, signature, args):
        self.bus.call_sync(STORE_NAME, STORE_PATH, STORE_IFACE, method, GLib.Variant(signature, args), None,
                           Gio.DBusCallFlags.NONE, 5000, None)

    def close(self):
        self.bus.close_sync(None)


class Soak:
    def __init__(self, env, clients, seconds, sample_seconds, kinds=None):
        self.env = env
        self.kinds = kinds  # names of the operations to run, all when None
        self.box = Box(env)
        self.clients = clients
        self.seconds = seconds
        self.sample_seconds = sample_seconds
        self.lock = threading.Lock()
        self.done = 0
        self.errors = []
        self.samples = []  # (seconds since start, rss kB, descriptors, operations in the window)
        self.sink = None
        self.fds_before = self.fds_after = 0

    def operations(self, store, client, round_number):
        box = self.box
        native = "On" if round_number % 2 else "Off"
        yield "GetValues", lambda: box.get_values()[0] == 200
        yield "SetValues", lambda: box.set_values([("/vsp/HDTV/NATIVE", native)])[0] == 200
        yield "GetLogURIs", lambda: box.get_log_uris()[0] == 200
        yield "log GET", lambda: box.get_log("messages")[0] == 200
        yield "log GET :80", lambda: box.get_log("messages", port=80)[0] == 200

        def subscribe_and_leave():
            status, headers = box.gena("SUBSCRIBE", CM_TYPE, {"CALLBACK": "<%s>" % self.sink.url("/soak"),
                                                              "NT": "upnp:event", "TIMEOUT": "Second-300"})
            if status != 200:
                return False
            return box.gena("UNSUBSCRIBE", CM_TYPE, {"SID": headers.get("SID", "")})[0] == 200

        yield "SUBSCRIBE", subscribe_and_leave

        def store_traffic():
            store.call("SetStatus", "(ss)", ("Client Connection Status",
                                              "Common.Connected" if round_number % 2 else "Common.Disconnected"))
            store.call("PostEvent", "(ssi)", ("CHD Tracked Parameter Event", "Dropped Key", 0))
            return True

        yield "status store", store_traffic

    def client(self, client, deadline):
        store = StoreClient(self.env.bus_address)
        try:
            for round_number in range(MAX_ROUNDS_PER_CLIENT):
                for name, operation in self.operations(store, client, round_number):
                    if self.kinds is not None and name not in self.kinds:
                        continue
                    if time.monotonic() > deadline:
                        return
                    try:
                        good = operation()
                    except (OSError, GLib.Error) as error:  # noqa: PERF203
                        good = False
                        name += " (%r)" % error
                    with self.lock:
                        self.done += 1
                        if not good and len(self.errors) < 50:
                            self.errors.append(name)
        finally:
            store.close()

    def run(self):
        self.sink = NotifySink()
        try:
            return self._run()
        finally:
            self.sink.close()

    def _run(self):
        self.fds_before = fd_count(self.box.pid)
        start = time.monotonic()
        deadline = start + self.seconds
        threads = [threading.Thread(target=self.client, args=(i, deadline), daemon=True) for i in range(self.clients)]
        for thread in threads:
            thread.start()
        last_done = 0
        next_sample = start + self.sample_seconds
        while time.monotonic() < deadline:
            time.sleep(max(0.0, min(next_sample, deadline) - time.monotonic()))
            # The server asks for a blob each window: a blob ends the period of
            # the histories, which otherwise hold every incident of the run
            # (the shortest reporting period a box allows is 90 s).
            self.box.soap(CM_TYPE, "GenCHDData", [], timeout=10)
            with self.lock:
                done = self.done
            self.samples.append((round(time.monotonic() - start), rss_kib(self.box.pid), fd_count(self.box.pid),
                                 done - last_done))
            last_done = done
            next_sample += self.sample_seconds
        for thread in threads:
            thread.join(30)
        # Descriptors are compared with the load gone: connections in flight
        # at a sampling moment are not a leak.
        settle_until = time.monotonic() + 15
        while fd_count(self.box.pid) > self.fds_before and time.monotonic() < settle_until:
            time.sleep(0.2)
        self.fds_after = fd_count(self.box.pid)
        return self

    def figures(self, warm_up_samples=1):
        """Resident growth after the warm-up (the middle of the last three
        samples against the middle of the first three: a request in flight at
        a sampling moment is not growth), descriptors before the load and
        after it, and the throughput of the last window against the first
        full one."""
        settled = self.samples[warm_up_samples:]
        rss = [s[1] for s in settled]
        first = self.samples[warm_up_samples][3] if len(self.samples) > warm_up_samples else 0
        last = self.samples[-1][3] if self.samples else 0
        return {
            "operations": self.done,
            "errors": len(self.errors),
            "rss_growth_kib": (median(rss[-3:]) - median(rss[:3])) if rss else 0,
            "rss_max_kib": max(rss) if rss else 0,
            "fds_before": self.fds_before,
            "fds_after": self.fds_after,
            "throughput_ratio": (last / first) if first else 0.0,
            "last_window_operations": last,
        }

    def report(self):
        lines = ["  t(s)  rss(kB)  fds  ops"]
        lines += ["%6d %8d %4d %5d" % sample for sample in self.samples]
        return "\n".join(lines)
