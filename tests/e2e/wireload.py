"""Plain-socket clients for the hostile-peer and load tests of the real chd.

The GUPnP control point of chdtest finds the device; the load itself is sent
with http.client from threads, so that many clients can run at once and each
request can be timed. Every loop here is bounded in count and in time.
"""

import http.client
import http.server
import os
import socket
import threading
import time
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

from chdtest import BM_TYPE, CM_TYPE

SOAP_HEAD = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>')
SOAP_TAIL = "</s:Body></s:Envelope>"
WHOLE_TREE = "<ContentPathList><ContentPath>/vsp/</ContentPath></ContentPathList>"


def envelope(service_type, action, arguments):
    """A SOAP request body; argument values are escaped as text."""
    inner = "".join("<%s>%s</%s>" % (name, escape(value), name) for name, value in arguments)
    return (SOAP_HEAD + '<u:%s xmlns:u="%s">%s</u:%s>' % (action, service_type, inner, action) + SOAP_TAIL).encode()


def action_result(body, argument):
    """The text of one out argument of a SOAP answer, or None."""
    root = ElementTree.fromstring(body)
    for element in root.iter():
        if element.tag == argument or element.tag.endswith("}" + argument):
            return element.text or ""
    return None


STACK_PORT = 49152
DEVICE_NS = {"d": "urn:schemas-upnp-org:device-1-0"}
DESCRIPTION_PATH = "/ManageableDevice/description.xml"


def platform_with_port(extra=None):
    """Platform settings that put the stack's HTTP server on a known port, so
    the tests need no discovery to reach it."""
    platform = {"upnp_port": str(STACK_PORT)}
    platform.update(extra or {})
    return platform


class Box:
    """Where a running chd answers: its stack port, control and event URLs."""

    def __init__(self, env, timeout=15):
        self.env = env
        self.port = int(env.platform.get("upnp_port", STACK_PORT))
        self.pid = env.chd.pid
        description = self._description(timeout)
        self.control = {}
        self.event_url = {}
        for service in description.iter("{%s}service" % DEVICE_NS["d"]):
            service_type = service.find("d:serviceType", DEVICE_NS).text
            self.control[service_type] = service.find("d:controlURL", DEVICE_NS).text
            self.event_url[service_type] = service.find("d:eventSubURL", DEVICE_NS).text

    def _description(self, timeout):
        deadline = time.monotonic() + timeout
        while True:
            try:
                conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=2)
                conn.request("GET", DESCRIPTION_PATH)
                response = conn.getresponse()
                body = response.read()
                conn.close()
                if response.status == 200:
                    return ElementTree.fromstring(body)
            except OSError:
                pass
            if time.monotonic() > deadline:
                raise AssertionError("no device description on port %d" % self.port)
            time.sleep(0.1)

    def soap(self, service_type, action, arguments=(), timeout=10, connection=None):
        """(HTTP status, body) of one action on a connection of its own (or the one given)."""
        body = envelope(service_type, action, arguments)
        headers = {"Content-Type": 'text/xml; charset="utf-8"', "SOAPAction": '"%s#%s"' % (service_type, action)}
        own = connection is None
        conn = connection or http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        try:
            conn.request("POST", self.control[service_type], body, headers)
            response = conn.getresponse()
            return response.status, response.read()
        finally:
            if own:
                conn.close()

    def get_values(self, paths_xml=WHOLE_TREE, timeout=10, connection=None):
        return self.soap(CM_TYPE, "GetValues", [("Parameters", paths_xml)], timeout, connection)

    def get_log_uris(self, timeout=10):
        return self.soap(BM_TYPE, "GetLogURIs", [], timeout)

    def set_values(self, pairs, timeout=10):
        inner = "".join("<Parameter><ParameterPath>%s</ParameterPath><Value>%s</Value></Parameter>" % pair
                        for pair in pairs)
        return self.soap(CM_TYPE, "SetValues", [("ParameterValueList", "<ParameterValueList>%s</ParameterValueList>"
                                                 % inner)], timeout)

    def get_log(self, name, port=None, timeout=10):
        """(status, body length) of one log file GET."""
        conn = http.client.HTTPConnection("127.0.0.1", port or self.port, timeout=timeout)
        try:
            conn.request("GET", os.path.join(self.env.log_path, name))
            response = conn.getresponse()
            return response.status, len(response.read())
        finally:
            conn.close()

    def gena(self, method, service_type, headers, timeout=10):
        """(status, headers) of one SUBSCRIBE or UNSUBSCRIBE."""
        conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        try:
            conn.request(method, self.event_url[service_type], headers=headers)
            response = conn.getresponse()
            response.read()
            return response.status, dict(response.getheaders())
        finally:
            conn.close()


def timed(call):
    """(seconds, result) of one call."""
    start = time.monotonic()
    result = call()
    return time.monotonic() - start, result


class Workers:
    """Threads that each repeat one request until stopped, at most `limit` times
    each and never past `seconds`; they count answers and failures."""

    def __init__(self, requests, seconds, limit=1000000):
        self.deadline = time.monotonic() + seconds
        self.limit = limit
        self.stopping = threading.Event()
        self.lock = threading.Lock()
        self.ok = 0
        self.failed = 0
        self.errors = []
        self.threads = [threading.Thread(target=self._run, args=(request,), daemon=True) for request in requests]

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.stop()
        return False

    def _run(self, request):
        for _ in range(self.limit):
            if self.stopping.is_set() or time.monotonic() > self.deadline:
                return
            try:
                good = request()
                error = None
            except (OSError, http.client.HTTPException) as exc:
                good, error = False, repr(exc)
            with self.lock:
                if good:
                    self.ok += 1
                else:
                    self.failed += 1
                    if error and len(self.errors) < 20:
                        self.errors.append(error)

    def stop(self):
        self.stopping.set()
        for thread in self.threads:
            thread.join(30)

    def counts(self):
        with self.lock:
            return self.ok, self.failed


def status_kib(pid, field):
    """A size field of /proc/PID/status (VmRSS, VmHWM...) in kB."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise AssertionError("no %s for pid %d" % (field, pid))


def rss_kib(pid):
    return status_kib(pid, "VmRSS")


def fd_count(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def open_idle(port, count, deadline_s=30):
    """Opens up to `count` TCP connections that send nothing (a connection the
    listener's queue had no room for is tried again); returns the sockets."""
    sockets = []
    end = time.monotonic() + deadline_s
    while len(sockets) < count and time.monotonic() < end:
        sock = socket.socket()
        sock.settimeout(2)
        try:
            sock.connect(("127.0.0.1", port))
        except OSError:
            sock.close()
            continue
        sockets.append(sock)
    return sockets


def closed_by_peer(sock, wait_s):
    """True when the server closed the connection within wait_s seconds."""
    sock.settimeout(wait_s)
    try:
        return sock.recv(1) == b""
    except socket.timeout:
        return False
    except OSError:
        return True


class NotifySink:
    """An event subscriber's HTTP server on loopback: answers every NOTIFY with
    200 and counts them per path."""

    def __init__(self):
        counts = self.counts = {}
        lock = self.lock = threading.Lock()

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_NOTIFY(self):  # noqa: N802 (the method's name)
                self.rfile.read(int(self.headers.get("Content-Length", "0")))
                with lock:
                    counts[self.path] = counts.get(self.path, 0) + 1
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)
        self.thread.start()

    def url(self, path="/"):
        return "http://127.0.0.1:%d%s" % (self.server.server_address[1], path)

    def count(self, path="/"):
        with self.lock:
            return self.counts.get(path, 0)

    def close(self):
        self.server.shutdown()
        self.server.server_close()
