"""A bare GENA subscriber for tests and long runners: SUBSCRIBE, renewal and
UNSUBSCRIBE requests with http.client, and a callback server that records the
NOTIFY requests it gets and answers them with a status of the test's choice.

Python's HTTP modules do the HTTP; this only sets the GENA headers."""

import http.client
import http.server
import threading
import urllib.parse

from wireload import Box, fd_count as descriptors, rss_kib as resident_kb  # noqa: F401 (used by the tests)


def event_urls(env, service_names, timeout=15):
    """The event subscription URLs of the daemon's services, by name, read
    from its description on the stack's known port (the platform settings
    of wireload.platform_with_port): no GUPnP context in the test process,
    whose HTTP port a later one would try to take again."""
    box = Box(env, timeout)
    urls = {}
    for service_type, path in box.event_url.items():
        urls[service_type.split(":")[3]] = "http://127.0.0.1:%d%s" % (box.port, path)
    return {name: urls[name] for name in service_names}


class Publisher:
    """One service's event URL."""

    def __init__(self, url, timeout=15):
        parts = urllib.parse.urlsplit(url)
        self.host = parts.hostname
        self.port = parts.port
        self.path = parts.path
        self.timeout = timeout

    def request(self, method, headers):
        """(status, lower-case response headers)"""
        conn = http.client.HTTPConnection(self.host, self.port, timeout=self.timeout)
        try:
            conn.request(method, self.path, headers=headers)
            response = conn.getresponse()
            response.read()
            return response.status, {name.lower(): value for name, value in response.getheaders()}
        finally:
            conn.close()

    def subscribe(self, callback):
        """(status, SID or None)"""
        status, headers = self.request("SUBSCRIBE", {"CALLBACK": "<%s>" % callback, "NT": "upnp:event",
                                                     "TIMEOUT": "Second-300"})
        return status, headers.get("sid")

    def renew(self, sid):
        return self.request("SUBSCRIBE", {"SID": sid, "TIMEOUT": "Second-300"})[0]

    def unsubscribe(self, sid):
        return self.request("UNSUBSCRIBE", {"SID": sid})[0]


class CallbackServer(http.server.ThreadingHTTPServer):
    """A subscriber's callback on 127.0.0.1: records (SID, SEQ) of each NOTIFY
    and answers with self.status."""

    daemon_threads = True

    def __init__(self, status=200):
        self.status = status
        self.notifies = []
        self.lock = threading.Lock()
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_NOTIFY(self):  # noqa: N802 (the method's name is the HTTP method)
                length = int(self.headers.get("Content-Length", "0"))
                self.rfile.read(length)
                with server.lock:
                    server.notifies.append((self.headers.get("SID"), int(self.headers.get("SEQ", "-1"))))
                self.send_response(server.status)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_args):
                pass

        super().__init__(("127.0.0.1", 0), Handler)
        self.url = "http://127.0.0.1:%d/events" % self.server_address[1]
        self.thread = threading.Thread(target=self.serve_forever, daemon=True)
        self.thread.start()

    def notifies_for(self, sid):
        with self.lock:
            return [seq for got, seq in self.notifies if got == sid]

    def close(self):
        self.shutdown()
        self.server_close()


def closed_port_url():
    """A callback URL on a port nobody listens on (connections are refused)."""
    server = http.server.HTTPServer(("127.0.0.1", 0), http.server.BaseHTTPRequestHandler)
    port = server.server_address[1]
    server.server_close()
    return "http://127.0.0.1:%d/events" % port
