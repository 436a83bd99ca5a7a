"""End to end: input to the status store of the real chd stays bounded.

A 10 MB status value set over D-Bus costs the daemon a small multiple of its
size and goes again when a small value replaces it; a storm of 20,000
"Dropped Key" incidents is recorded whole, in bounded memory, with the
history status current seconds after the last incident and GetValues
answered throughout. bench/reliability/store_input.py runs the full-size
variants and prints the figures.
"""

import json
import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from chdtest import ChdEnv, ControlPoint, main  # noqa: E402
from storeload import (BLOB_EVENT, DROPPED_KEY_HISTORY, GetValuesProbe, control_url, peak_kb,  # noqa: E402
                       post_incidents, reset_peak, settled_resident_kb, wait_history)

MB = 1024  # kB
VALUE_BYTES = 10 << 20
INCIDENTS = 20000


class StoreInputTest(unittest.TestCase):
    def test_a_big_value_costs_a_small_multiple_and_goes_when_replaced(self):
        with ChdEnv(client_app=False, log_level=5) as env:
            pid = env.chd.pid
            env.set_status("E2E Big Value", "idle")
            idle = settled_resident_kb(pid)
            reset_peak(pid)
            big = "v" * VALUE_BYTES
            env.set_status("E2E Big Value", big)
            held = settled_resident_kb(pid)
            peak = peak_kb(pid)
            self.assertEqual(big, env.get_status("E2E Big Value"))
            env.set_status("E2E Big Value", "small")
            after = settled_resident_kb(pid)
            print("10 MB value: idle %d kB, peak %+d, held %+d, after a small value %+d" %
                  (idle, peak - idle, held - idle, after - idle))
            # The value is kept once; GLib's D-Bus connection also keeps a read
            # buffer as big as the largest message it received, and writes the
            # signal that carries the value into a buffer rounded up to 16 MB.
            self.assertLess(peak - idle, 40 * MB)
            self.assertLess(held - idle, 21 * MB)
            self.assertLess(after - idle, 11 * MB)
            self.assertEqual("small", env.get_status("E2E Big Value"))

    def test_a_storm_of_incidents_is_recorded_whole_in_bounded_memory(self):
        with ChdEnv(client_app=False, log_level=5) as env:
            pid = env.chd.pid
            cp = ControlPoint()
            device = cp.find_device()
            env.get_status("Dropped Key History")
            idle = settled_resident_kb(pid)
            probe = GetValuesProbe(control_url(device))
            try:
                reset_peak(pid)
                done, failed, _ = post_incidents(env, INCIDENTS, 240)
                self.assertEqual((INCIDENTS, 0), (done, failed))
                shown = wait_history(env, INCIDENTS, 10)
            finally:
                gets = probe.stop()
            peak = peak_kb(pid)
            print("%d incidents: peak %+d kB, history complete %s s after the last answer, GetValues %s" %
                  (INCIDENTS, peak - idle, shown, gets))
            self.assertIsNotNone(shown, "the history status never showed every incident")
            self.assertLess(peak - idle, 32 * MB)
            self.assertGreater(gets["count"], 0)
            self.assertEqual(0, gets["failures"])
            self.assertLess(gets["worst_s"], 1.0)

            history = json.loads(env.get_status(DROPPED_KEY_HISTORY))
            self.assertEqual(list(range(1, INCIDENTS + 1)), [entry[0] for entry in history])
            watch = env.watch()
            cp.call(device, "ConfigurationManagement", "GenCHDData", [], [])
            (body,) = json.loads(watch.wait_event(BLOB_EVENT, timeout=30)).values()
            self.assertEqual(history, body["C-ClientParameters"]["DroppedKeys"])
            watch.close()


if __name__ == "__main__":
    main()
