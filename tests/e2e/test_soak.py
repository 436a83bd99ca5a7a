#!/usr/bin/python3
"""A one-minute soak of mixed load at eight clients (the long runner,
bench/reliability/soak.py, holds it for ten): no request fails, resident
memory stops growing after the warm-up, descriptors stay flat, and it is
still answering at the end."""

import os
import unittest

from chdtest import ChdEnv, main
from soakload import Soak
from wireload import platform_with_port

SECONDS = int(os.environ.get("CHD_SOAK_SECONDS", "60"))
CLIENTS = 8
SAMPLE_SECONDS = 10
# The first minute of a long run, the first twenty seconds of a short one.
WARM_UP_SAMPLES = 6 if SECONDS >= 300 else 2


class SoakTest(unittest.TestCase):
    def test_mixed_load_for_a_minute(self):
        with ChdEnv(platform=platform_with_port(), client_app=True, log_level=2) as env:
            with open(os.path.join(env.log_path, "messages"), "wb") as f:
                f.write(b"log line\n" * 20000)
            soak = Soak(env, CLIENTS, SECONDS, SAMPLE_SECONDS).run()
            figures = soak.figures(WARM_UP_SAMPLES)
            print(soak.report())
            print(figures)
            self.assertEqual(soak.errors, [])
            self.assertLess(figures["rss_growth_kib"], 2048)
            self.assertLessEqual(figures["fds_after"], figures["fds_before"])
            # Still answering in the last window. How much it answers there
            # against the first (throughput_ratio, printed above) is the long
            # runner's goal on a quiet machine: a shared test machine's own
            # load moved one ten-second window to a quarter of another.
            self.assertGreater(figures["last_window_operations"], 0)


if __name__ == "__main__":
    main()
