#!/usr/bin/python3
"""Hostile HTTP peers on both of the daemon's ports: idle connections past the
descriptor limit, slow requests, oversized bodies, and answers too large to
keep. The daemon keeps answering, closes what it must, and its memory comes
back after each request."""

import http.client
import os
import socket
import threading
import time
import unittest

from chdtest import CM_TYPE, ChdEnv, main
from wireload import WHOLE_TREE, Box, closed_by_peer, cpu_seconds, envelope, fd_count, open_idle, platform_with_port, \
    rss_kib, timed

IDLE_CONNECTIONS = int(os.environ.get("CHD_IDLE_CONNECTIONS", "1100"))
SLOW_CONNECTIONS = int(os.environ.get("CHD_SLOW_CONNECTIONS", "100"))
REQUEST_TIMEOUT_S = 10  # the daemon's limit for a whole request
BIG_BODY = 50 << 20
KEPT_ALIVE_CYCLES = int(os.environ.get("CHD_KEPT_ALIVE_CYCLES", "3000"))


def send_body(port, path, size, headers, chunked=False):
    """Sends a POST of `size` bytes as fast as the daemon reads it; returns the status or None."""
    sock = socket.create_connection(("127.0.0.1", port), timeout=30)
    try:
        head = "POST %s HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % (path, port)
        head += "".join("%s: %s\r\n" % item for item in headers.items())
        head += "Transfer-Encoding: chunked\r\n" if chunked else "Content-Length: %d\r\n" % size
        sock.sendall((head + "\r\n").encode())
        block = b"<" * (1 << 16)
        sent = 0
        try:
            while sent < size:
                piece = block[:min(len(block), size - sent)]
                sock.sendall(b"%x\r\n%s\r\n" % (len(piece), piece) if chunked else piece)
                sent += len(piece)
            if chunked:
                sock.sendall(b"0\r\n\r\n")
        except OSError:
            pass  # the daemon may close once it has answered
        reply = sock.recv(4096)
        return int(reply.split(b" ", 2)[1]) if reply.startswith(b"HTTP/") else None
    finally:
        sock.close()


class HttpLimitsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.env = ChdEnv(platform=platform_with_port(), client_app=True, log_level=2, nofile=1024)
        cls.env.__enter__()
        with open(os.path.join(cls.env.log_path, "messages"), "wb") as f:
            f.write(b"log line\n" * 1000)
        cls.box = Box(cls.env)

    @classmethod
    def tearDownClass(cls):
        cls.env.__exit__(None, None, None)

    def settle(self, predicate, seconds):
        deadline = time.monotonic() + seconds
        while not predicate() and time.monotonic() < deadline:
            time.sleep(0.1)
        return predicate()

    def assert_still_answering(self):
        """Returns the slowest of a GetValues and a log GET on each port."""
        seconds, (status, _body) = timed(lambda: self.box.get_values(timeout=5))
        self.assertEqual(status, 200)
        self.assertLess(seconds, 1.0, "GetValues took %.2f s" % seconds)
        slowest = seconds
        for port in (self.box.port, 80):
            seconds, (status, length) = timed(lambda: self.box.get_log("messages", port=port, timeout=5))
            self.assertEqual((status, length), (200, 9000))
            self.assertLess(seconds, 1.0, "log GET on port %d took %.2f s" % (port, seconds))
            slowest = max(slowest, seconds)
        return slowest

    def test_idle_connections_past_the_descriptor_limit(self):
        fds_before = fd_count(self.box.pid)
        held = []
        try:
            held += open_idle(self.box.port, IDLE_CONNECTIONS, deadline_s=60)
            print("holding %d idle connections; chd has %d descriptors" % (len(held), fd_count(self.box.pid)))
            self.assertEqual(len(held), IDLE_CONNECTIONS)
            self.assertLess(fd_count(self.box.pid), 1024 - 64)
            slowest = max(self.assert_still_answering() for _ in range(3))
            print("slowest answer while holding them: %.3f s" % slowest)
            # No busy loop at the limit: chd sleeps while the connections are held.
            cpu_before = cpu_seconds(self.box.pid)
            time.sleep(2)
            cpu_used = cpu_seconds(self.box.pid) - cpu_before
            print("CPU while holding them: %.2f s in 2 s" % cpu_used)
            self.assertLess(cpu_used, 0.5)
        finally:
            for sock in held:
                sock.close()
        self.assertTrue(self.settle(lambda: fd_count(self.box.pid) <= fds_before + 2, 15),
                        "descriptors %d, before %d" % (fd_count(self.box.pid), fds_before))

    def test_a_connection_that_sends_nothing_is_closed_after_the_limit(self):
        sock = open_idle(self.box.port, 1)[0]
        try:
            start = time.monotonic()
            self.assertTrue(closed_by_peer(sock, REQUEST_TIMEOUT_S + 5))
            self.assertGreater(time.monotonic() - start, REQUEST_TIMEOUT_S - 1)
        finally:
            sock.close()

    def test_slow_requests_are_cut_and_others_still_answered(self):
        slow = []
        try:
            for port in (self.box.port, 80):
                for sock in open_idle(port, SLOW_CONNECTIONS // 2, deadline_s=60):
                    sock.sendall(b"GET /")
                    slow.append(sock)
            closed = []
            worst = [0.0]

            def dribble():
                # One byte a second, never a whole head.
                deadline = time.monotonic() + REQUEST_TIMEOUT_S + 5
                while time.monotonic() < deadline and len(closed) < len(slow):
                    for sock in slow:
                        if sock in closed:
                            continue
                        try:
                            sock.sendall(b"a")
                        except OSError:
                            closed.append(sock)
                    worst[0] = max(worst[0], self.assert_still_answering())
                    time.sleep(1)

            start = time.monotonic()
            dribble()
            print("%d slow connections closed after %.1f s; slowest answer meanwhile %.3f s"
                  % (len(closed), time.monotonic() - start, worst[0]))
            for sock in slow:
                if sock not in closed and closed_by_peer(sock, 2):
                    closed.append(sock)
            self.assertEqual(len(closed), len(slow))
        finally:
            for sock in slow:
                sock.close()

    def test_oversized_bodies_are_refused_without_being_kept(self):
        headers = {"Content-Type": 'text/xml; charset="utf-8"', "SOAPAction": '"%s#GetValues"' % CM_TYPE}
        path = self.box.control[CM_TYPE]
        self.box.get_values()
        before = rss_kib(self.box.pid)
        peak = [before]
        done = threading.Event()

        def sample():
            while not done.is_set():
                peak[0] = max(peak[0], rss_kib(self.box.pid))
                time.sleep(0.005)

        sampler = threading.Thread(target=sample)
        sampler.start()
        statuses = []
        senders = [threading.Thread(target=lambda c=chunked: statuses.append(
            send_body(self.box.port, path, BIG_BODY, headers, chunked=c))) for chunked in (False, False, True, True)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join(120)
        done.set()
        sampler.join()
        print("four 50 MB bodies: statuses %s, resident %d -> peak %d kB" % (statuses, before, peak[0]))
        self.assertEqual(statuses, [413] * 4)
        self.assertLess(peak[0] - before, 4096)
        self.assertEqual(self.box.get_values()[0], 200)

    def test_a_large_answer_is_not_kept(self):
        self.box.get_values()
        time.sleep(0.5)
        before = rss_kib(self.box.pid)
        paths = "<ContentPathList>" + "<ContentPath>/vsp/</ContentPath>" * 900 + "</ContentPathList>"
        status, body = self.box.get_values(paths, timeout=60)
        self.assertEqual(status, 200)
        self.assertGreater(len(body), 10 << 20)
        self.assertTrue(self.settle(lambda: rss_kib(self.box.pid) < before + 1024, 5),
                        "resident %d kB after, %d before" % (rss_kib(self.box.pid), before))

    def test_a_kept_alive_connection_serves_many_requests_then_idles_out(self):
        conn = http.client.HTTPConnection("127.0.0.1", self.box.port, timeout=10)
        try:
            for _ in range(50):
                status, _body = self.box.get_values(connection=conn)
                self.assertEqual(status, 200)
            conn.request("GET", "/ManageableDevice/description.xml")
            response = conn.getresponse()
            self.assertEqual((response.status, response.getheader("Connection")), (200, None))
            response.read()
            # Idle past the request time limit: the daemon closes it.
            self.assertTrue(closed_by_peer(conn.sock, REQUEST_TIMEOUT_S + 5))
        finally:
            conn.close()

    def test_kept_alive_connections_closed_while_idle_cost_nothing(self):
        def one_connection():
            conn = http.client.HTTPConnection("127.0.0.1", self.box.port, timeout=10)
            conn.request("GET", "/ManageableDevice/description.xml")
            conn.getresponse().read()
            conn.close()  # while the daemon waits for its next request

        for _ in range(500):
            one_connection()
        time.sleep(0.5)
        before, fds_before = rss_kib(self.box.pid), fd_count(self.box.pid)
        for _ in range(KEPT_ALIVE_CYCLES):
            one_connection()
        self.assertTrue(self.settle(lambda: fd_count(self.box.pid) <= fds_before, 5))
        growth = rss_kib(self.box.pid) - before
        print("%d kept-alive connections closed while idle: resident %+d kB" % (KEPT_ALIVE_CYCLES, growth))
        self.assertLess(growth, 1024)

    def test_a_normal_request_still_fits(self):
        body = envelope(CM_TYPE, "GetValues", [("Parameters", WHOLE_TREE)])
        self.assertLess(len(body), 4096)
        status, _ = self.box.get_values()
        self.assertEqual(status, 200)
        conn = http.client.HTTPConnection("127.0.0.1", self.box.port, timeout=10)
        conn.request("POST", self.box.control[CM_TYPE], body + b" " * (200 * 1024),
                     {"Content-Type": 'text/xml; charset="utf-8"', "SOAPAction": '"%s#GetValues"' % CM_TYPE})
        self.assertEqual(conn.getresponse().status, 200)
        conn.close()


if __name__ == "__main__":
    main()
