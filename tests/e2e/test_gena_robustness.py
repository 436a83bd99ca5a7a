"""GENA subscriptions of the real daemon under hostile or broken subscribers:
subscribe/unsubscribe churn costs no memory, the number of subscriptions per
service is capped (renewals excepted), an unsubscribed callback gets no more
events, and subscribers whose callbacks fail are dropped."""

import time
import unittest

from chdtest import ChdEnv, iterate_until, main
from wireload import platform_with_port
from genaclient import CallbackServer, Publisher, closed_port_url, descriptors, event_urls, resident_kb

PLATFORM = platform_with_port({"manufacturer": "Acme", "model": "ABC", "manufacturer_id": "42"})
CAP = 32  # subscriptions per service (the stack's default)
BLOB_EVENT = "CHD Blob Updated Event"  # two BasicManagement events: true, then false


class GenaTest(unittest.TestCase):
    def setUp(self):
        self.env = ChdEnv(platform=PLATFORM, client_app=False)
        self.env.__enter__()
        self.addCleanup(self.env.__exit__, None, None, None)
        urls = event_urls(self.env, ["BasicManagement", "ConfigurationManagement"])
        self.bm = Publisher(urls["BasicManagement"])
        self.cm = Publisher(urls["ConfigurationManagement"])
        self.witness = CallbackServer()
        self.addCleanup(self.witness.close)
        status, self.witness_sid = self.bm.subscribe(self.witness.url)
        self.assertEqual(status, 200)
        self.wait_events(self.witness, self.witness_sid, 1)

    def wait_events(self, server, sid, count, timeout=10):
        iterate_until(lambda: len(server.notifies_for(sid)) >= count, timeout, "%d events for %s" % (count, sid))

    def post_blob_event(self):
        """Posts the event and waits until the witness has its two NOTIFYs."""
        seen = len(self.witness.notifies_for(self.witness_sid))
        self.env.post_event(BLOB_EVENT)
        self.wait_events(self.witness, self.witness_sid, seen + 2)

    def cycle(self, callback, expected):
        status, sid = self.bm.subscribe(callback)
        self.assertEqual(status, 200)
        self.assertIn(self.bm.unsubscribe(sid), expected)

    def test_subscribe_unsubscribe_churn_keeps_no_memory(self):
        accepting = CallbackServer()
        self.addCleanup(accepting.close)
        refused = closed_port_url()
        pid = self.env.chd.pid
        for _ in range(250):  # warm-up: allocator arenas, libsoup's caches
            self.cycle(accepting.url, (200,))
            self.cycle(refused, (200, 412))
        time.sleep(1)
        before, fds_before = resident_kb(pid), descriptors(pid)
        started = time.monotonic()
        for _ in range(1000):
            self.cycle(accepting.url, (200,))
            # Dropped when its first event fails, possibly before the UNSUBSCRIBE.
            self.cycle(refused, (200, 412))
        elapsed = time.monotonic() - started
        time.sleep(1)  # the last deliveries settle
        after, fds_after = resident_kb(pid), descriptors(pid)
        print("\n2,000 cycles in %.1f s: RSS %d -> %d kB, descriptors %d -> %d" %
              (elapsed, before, after, fds_before, fds_after))
        self.assertLess(after - before, 1024)
        self.assertLessEqual(fds_after, fds_before + 2)
        # None of them still counts against the cap.
        servers = []
        for _ in range(CAP - 1):
            servers.append(CallbackServer())
            self.addCleanup(servers[-1].close)
            self.assertEqual(self.bm.subscribe(servers[-1].url)[0], 200)

    def test_subscriptions_are_capped_and_renewals_still_pass(self):
        servers = [CallbackServer() for _ in range(CAP)]
        for server in servers:
            self.addCleanup(server.close)
        sids = [self.witness_sid]
        for server in servers[:CAP - 1]:
            status, sid = self.bm.subscribe(server.url)
            self.assertEqual(status, 200)
            sids.append(sid)
        for _ in range(20):
            self.assertEqual(self.bm.subscribe(servers[-1].url)[0], 503)
        for sid in sids:
            self.assertEqual(self.bm.renew(sid), 200)
        # The cap is per service.
        status, cm_sid = self.cm.subscribe(servers[-1].url)
        self.assertEqual(status, 200)
        self.assertEqual(self.cm.unsubscribe(cm_sid), 200)
        # A place freed is a place taken.
        self.assertEqual(self.bm.unsubscribe(sids[-1]), 200)
        self.assertEqual(self.bm.subscribe(servers[-1].url)[0], 200)
        self.assertEqual(self.bm.subscribe(servers[-1].url)[0], 503)

    def test_no_event_reaches_an_unsubscribed_callback(self):
        gone = CallbackServer()
        self.addCleanup(gone.close)
        # Unsubscribed at once, before the first event has been answered.
        status, sid = self.bm.subscribe(gone.url)
        self.assertEqual(status, 200)
        self.assertEqual(self.bm.unsubscribe(sid), 200)
        # Its first event failed, then it unsubscribed.
        failing = CallbackServer(status=500)
        self.addCleanup(failing.close)
        status, failing_sid = self.bm.subscribe(failing.url)
        self.assertEqual(status, 200)
        self.wait_events(failing, failing_sid, 1)
        self.assertIn(self.bm.unsubscribe(failing_sid), (200, 412))
        failing.status = 200
        for _ in range(2):
            self.post_blob_event()
        time.sleep(0.5)
        self.assertLessEqual(gone.notifies_for(sid), [0])
        self.assertEqual(failing.notifies_for(failing_sid), [0])

    def test_a_subscriber_whose_callback_never_answers_is_dropped(self):
        status, sid = self.bm.subscribe(closed_port_url())
        self.assertEqual(status, 200)
        iterate_until(lambda: self.bm.renew(sid) == 412, 10, "the subscription dropped")

    def test_a_subscriber_whose_deliveries_keep_failing_is_dropped(self):
        flaky = CallbackServer()
        self.addCleanup(flaky.close)
        status, sid = self.bm.subscribe(flaky.url)
        self.assertEqual(status, 200)
        self.wait_events(flaky, sid, 1)
        flaky.status = 500
        self.post_blob_event()  # two failures: still subscribed
        self.assertEqual(self.bm.renew(sid), 200)
        self.post_blob_event()  # the third: dropped
        iterate_until(lambda: self.bm.renew(sid) == 412, 10, "the subscription dropped")
        flaky.status = 200
        seen = len(flaky.notifies_for(sid))
        self.post_blob_event()
        time.sleep(0.5)
        self.assertEqual(len(flaky.notifies_for(sid)), seen)


if __name__ == "__main__":
    main()
