#!/usr/bin/env python3
"""Input to the status store of the real chd: one big value, then a storm of incidents.

1. One STORE_VALUE_MB (10) MB status value set over D-Bus, on a key nobody
   listens to and on "Last Remote Key", which the blob writer and the
   configuration management service keep; then replaced by a small value.
   Prints chd's resident memory idle, at its peak and after each step.
2. STORE_INCIDENTS (100,000) "Dropped Key" incidents posted over D-Bus as fast
   as the bus takes them, while another process asks GetValues every 100 ms.
   Samples chd's resident memory during the storm, and prints the peak, the
   time from the last answered post until the "Dropped Key History" status
   holds every incident, the worst GetValues time, and the number of entries
   in the next blob.

usage (as root): CHD_BUILD_DIR=build tests/e2e/run_in_netns.sh python3 bench/reliability/store_input.py
env:  STORE_VALUE_MB=10 (at most 64), STORE_INCIDENTS=100000 (at most 200,000);
      the storm stops after STORE_STORM_SECONDS=300 whatever its count.
"""

import json
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tests", "e2e"))

from chdtest import ChdEnv, ControlPoint, iterate_until  # noqa: E402
from storeload import (BLOB_EVENT, DROPPED_KEY_HISTORY, GetValuesProbe, control_url, peak_kb,  # noqa: E402
                       post_incidents, reset_peak, resident_kb, settled_resident_kb, wait_history)


def bounded(name, default, limit):
    return max(1, min(limit, int(os.environ.get(name, default))))


VALUE_MB = bounded("STORE_VALUE_MB", 10, 64)
INCIDENTS = bounded("STORE_INCIDENTS", 100000, 200000)
STORM_SECONDS = float(os.environ.get("STORE_STORM_SECONDS", "300"))


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def mb(kb):
    return kb / 1024.0


def big_value(env, key):
    pid = env.chd.pid
    env.set_status(key, "idle")
    idle = settled_resident_kb(pid)
    reset_peak(pid)
    start = time.monotonic()
    env.set_status(key, "v" * (VALUE_MB << 20))
    took = time.monotonic() - start
    held = settled_resident_kb(pid)
    peak = peak_kb(pid)
    env.set_status(key, "small")
    after = settled_resident_kb(pid)
    print("%d MB value on %-26r idle %6.1f MB  peak %+6.1f MB (%.1fx)  held %+6.1f MB  after small %+6.1f MB  "
          "set took %.2f s" % (VALUE_MB, key, mb(idle), mb(peak - idle), (peak - idle) / (VALUE_MB * 1024.0),
                               mb(held - idle), mb(after - idle), took), flush=True)


class Sampler:
    """Resident memory every 50 ms, from a thread of its own."""

    def __init__(self, pid):
        self.pid = pid
        self.highest = resident_kb(pid)
        self.samples = 0
        self.done = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.done.wait(0.05):
            self.highest = max(self.highest, resident_kb(self.pid))
            self.samples += 1

    def stop(self):
        self.done.set()
        self.thread.join()
        return self.highest


def storm(env):
    pid = env.chd.pid
    cp = ControlPoint()
    device = cp.find_device()
    watch = env.watch()
    cp.call(device, "ConfigurationManagement", "GenCHDData", [], [])  # an empty period to start from
    watch.wait_event(BLOB_EVENT, timeout=30)
    watch.close()
    idle = settled_resident_kb(pid)
    probe = GetValuesProbe(control_url(device))
    sampler = Sampler(pid)
    reset_peak(pid)
    cpu_before = cpu_seconds(pid)
    start = time.monotonic()
    done, failed, last_answer = post_incidents(env, INCIDENTS, STORM_SECONDS)
    posting = last_answer - start
    shown = wait_history(env, done, 60)
    shown_after = None if shown is None else time.monotonic() - last_answer
    cpu_used = cpu_seconds(pid) - cpu_before
    gets = probe.stop()
    highest = max(sampler.stop(), peak_kb(pid))
    watch = env.watch()
    cp.call(device, "ConfigurationManagement", "GenCHDData", [], [])
    blob = json.loads(watch.wait_event(BLOB_EVENT, timeout=60))
    (body,) = blob.values()
    entries = len(body["C-ClientParameters"]["DroppedKeys"])
    watch.close()
    after = settled_resident_kb(pid)
    print("%d incidents: %d answered, %d failed in %.1f s (%.0f/s); chd used %.1f s of CPU" %
          (INCIDENTS, done, failed, posting, done / max(posting, 1e-6), cpu_used))
    print("  RSS idle %.1f MB  peak %+.1f MB  after %+.1f MB (%d samples)" %
          (mb(idle), mb(highest - idle), mb(after - idle), sampler.samples))
    print("  %s shows all %d %s after the last answered post" %
          (DROPPED_KEY_HISTORY, done, "never" if shown_after is None else "%.2f s" % shown_after))
    print("  GetValues during the storm: %d asked, %d failed, worst %.3f s" %
          (gets["count"], gets["failures"], gets["worst_s"]))
    print("  next blob holds %d DroppedKeys entries" % entries, flush=True)


def main():
    with ChdEnv(client_app=False, log_level=5) as env:
        iterate_until(lambda: env.get_status("x") == "", 10, "the store")
        big_value(env, "Store Input Big Value")
        big_value(env, "Last Remote Key")
        storm(env)


if __name__ == "__main__":
    main()
