#!/usr/bin/python3
"""SIGTERM while clients keep the daemon busy: every stop ends with status 1
within 2 s, never by a signal, whatever is in flight (GetValues, SetValues,
GetLogURIs, log downloads on both ports, subscriptions)."""

import os
import signal
import time
import unittest

from chdtest import CM_TYPE, ChdEnv, main
from wireload import Box, Workers, platform_with_port

ROUNDS = int(os.environ.get("CHD_SIGTERM_ROUNDS", "3"))
CLIENTS_PER_KIND = 2


def load_of(box):
    def get_values():
        return box.get_values()[0] == 200

    def set_values():
        return box.set_values([("/vsp/HDTV/NATIVE", "Off")])[0] in (200, 500)

    def log_uris():
        return box.get_log_uris()[0] == 200

    def log_on_stack_port():
        return box.get_log("messages")[0] == 200

    def log_on_port_80():
        return box.get_log("messages", port=80)[0] == 200

    def subscribe():
        status, headers = box.gena("SUBSCRIBE", CM_TYPE, {"CALLBACK": "<http://127.0.0.1:9/>", "NT": "upnp:event",
                                                          "TIMEOUT": "Second-300"})
        if status == 200:
            box.gena("UNSUBSCRIBE", CM_TYPE, {"SID": headers.get("SID", "")})
        return status == 200

    kinds = [get_values, set_values, log_uris, log_on_stack_port, log_on_port_80, subscribe]
    return [kind for kind in kinds for _ in range(CLIENTS_PER_KIND)]


class ShutdownUnderLoadTest(unittest.TestCase):
    def test_sigterm_under_load_exits_with_status_1_within_2_s(self):
        for round_number in range(ROUNDS):
            with ChdEnv(platform=platform_with_port(), client_app=True) as env:
                with open(os.path.join(env.log_path, "messages"), "wb") as f:
                    f.write(os.urandom(4 << 20))
                box = Box(env)
                with Workers(load_of(box), seconds=30) as workers:
                    # Wait until every kind of request has been answered at least once.
                    deadline = time.monotonic() + 10
                    while workers.counts()[0] < 4 * len(workers.threads) and time.monotonic() < deadline:
                        time.sleep(0.05)
                    start = time.monotonic()
                    rc = env.stop_chd(signal.SIGTERM, timeout=10)
                    elapsed = time.monotonic() - start
                answered = workers.counts()[0]
                log = env.chd_log()
                print("round %d: %d answers before SIGTERM, status %s after %.2f s" % (round_number, answered, rc,
                                                                                      elapsed))
                self.assertEqual(rc, 1, log[-3000:])
                self.assertLess(elapsed, 2.0)
                self.assertNotIn("SIGSEGV", log)
                self.assertNotIn("SIGABRT", log)

    def test_sigterm_while_a_handler_is_held_up_still_exits_in_time(self):
        # A client application that never answers keeps SetValues waiting
        # for its 5000 ms handshake on the service's dispatcher.
        with ChdEnv(platform=platform_with_port(), client_app=True, client_app_args=["--silent"]) as env:
            box = Box(env)
            with Workers([lambda: box.set_values([("/vsp/HDTV/NATIVE", "On")])[0] > 0],
                         seconds=20) as workers:
                time.sleep(1.0)
                start = time.monotonic()
                rc = env.stop_chd(signal.SIGTERM, timeout=10)
                elapsed = time.monotonic() - start
                workers.stop()
            self.assertEqual(rc, 1, env.chd_log()[-3000:])
            self.assertLess(elapsed, 2.0)
            self.assertNotIn("SIGSEGV", env.chd_log())


if __name__ == "__main__":
    main()
