#!/usr/bin/python3
"""Client-side helpers of the over-the-wire benchmark (bench/wire/run.sh).

Loopback only: every URL must point at 127.0.0.1. Run with Debian's
/usr/bin/python3 (GSSDP through GObject introspection).

  wire.py locate DEVICE_TYPE PORT [TIMEOUT_S]
      description URL of a device of that type announced on lo whose
      location has that port (SSDP search through GSSDP)
  wire.py startup TSV RUNS PORT LOG -- COMMAND...
      RUNS times: exec COMMAND, time its first SSDP alive on lo, stop it
  wire.py services DESC_URL
      serviceType<TAB>absolute control URL for each service of the device
  wire.py body SERVICE_TYPE ACTION [NAME=VALUE ...]
      SOAP request body on stdout
  wire.py call CONTROL_URL SERVICE_TYPE ACTION BODY_FILE
      POST the body once; print status, size, Connection header and the
      output arguments; exit 1 unless HTTP 200 with an action response
  wire.py cploop DESC_URL SERVICE_TYPE ACTION SECONDS CONNECTIONS [NAME=VALUE ...]
      a GUPnP control point on lo (as server boxes are built) calls ACTION
      of that device's service in a loop for SECONDS, CONNECTIONS calls
      outstanding; prints one "WIRE_RESULT ..." line as the wrk script does
  wire.py container CONTROL_URL SERVICE_TYPE TITLE
      id of the first container titled TITLE (Browse, breadth first)
  wire.py idle TSV THREADS_TSV SECONDS LABEL=PID[+PID...] ...
      CPU, wake-ups and memory of process groups over a window
  wire.py cpu snap FILE PID[+PID...]  /  wire.py cpu delta FILE PID[+PID...]
      CPU % of those pids, and of everything outside this network namespace
      ("foreign" load of a shared machine), since the snapshot
"""

import json
import os
import subprocess
import sys
import time
import urllib.error
import urllib.parse
import urllib.request
import xml.etree.ElementTree as ET

SOAP_ENV = "http://schemas.xmlsoap.org/soap/envelope/"
SOAP_ENCODING = "http://schemas.xmlsoap.org/soap/encoding/"
DEVICE_NS = "urn:schemas-upnp-org:device-1-0"
DIDL_NS = "urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/"
DC_NS = "http://purl.org/dc/elements/1.1/"
HZ = os.sysconf("SC_CLK_TCK")


def loopback_only(url):
    if urllib.parse.urlparse(url).hostname != "127.0.0.1":
        sys.exit("refusing a URL off the loopback address: %s" % url)


# -- SSDP through GSSDP ------------------------------------------------------


def gssdp():
    import gi

    gi.require_version("GSSDP", "1.6")
    from gi.repository import GLib, GSSDP

    return GLib, GSSDP


class Browser:
    """Records resources announced on lo, with the time each was first seen."""

    def __init__(self, target):
        self.glib, ssdp = gssdp()
        self.client = ssdp.Client.new_full("lo", None, 0, ssdp.UDAVersion.VERSION_1_0)
        self.browser = ssdp.ResourceBrowser.new(self.client, target)
        self.seen = []  # (monotonic time, usn, location)
        self.browser.connect("resource-available", self._available)

    def _available(self, _browser, usn, locations):
        for location in locations:
            self.seen.append((time.monotonic(), usn, location))

    def start(self):
        self.browser.set_active(True)

    def stop(self):
        self.browser.set_active(False)

    def run_until(self, predicate, timeout):
        context = self.glib.MainContext.default()
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = predicate()
            if found:
                return found
            if not context.iteration(False):
                time.sleep(0.0005)
        return predicate()

    def first_on_port(self, port, nt_suffix=""):
        for when, usn, location in self.seen:
            if urllib.parse.urlparse(location).port == port and usn.endswith(nt_suffix):
                return when, usn, location
        return None


def locate(device_type, port, timeout=15.0):
    browser = Browser(device_type)
    browser.start()
    hit = browser.run_until(lambda: browser.first_on_port(port), timeout)
    browser.stop()
    if not hit:
        sys.exit("no %s announced on port %d within %.0f s" % (device_type, port, timeout))
    loopback_only(hit[2])
    print(hit[2])


def startup(tsv, runs, port, log, command):
    """Each run: a fresh browser sends its (unanswered) searches first, so
    that what it sees after the exec can only be the daemon's announcements."""
    new_file = not os.path.exists(tsv) or os.path.getsize(tsv) == 0
    with open(tsv, "a") as out:
        if new_file:
            out.write("run\tfirst_alive_ms\tdevice_alive_ms\texit_status\twhen\n")
        for run in range(1, runs + 1):
            browser = Browser("ssdp:all")
            browser.start()
            browser.run_until(lambda: None, 1.7)  # GSSDP searches 3 times, 500 ms apart
            with open(log, "ab") as err:
                t0 = time.monotonic()
                proc = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=err)
                first = browser.run_until(lambda: browser.first_on_port(port), 10.0)
                device = browser.run_until(lambda: browser.first_on_port(port, "ManageableDevice:1"), 2.0)
            status = stop_process(proc)
            browser.stop()
            first_ms = "%.1f" % ((first[0] - t0) * 1000) if first else "timeout"
            device_ms = "%.1f" % ((device[0] - t0) * 1000) if device else "timeout"
            out.write("%d\t%s\t%s\t%s\t%s\n" % (run, first_ms, device_ms, status, time.strftime("%FT%T")))
            out.flush()
            print("start %d: first alive %s ms, ManageableDevice alive %s ms" % (run, first_ms, device_ms))
            time.sleep(0.3)


def stop_process(proc, timeout=10):
    if proc.poll() is None:
        proc.terminate()
    try:
        return proc.wait(timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        return "killed(%s)" % proc.wait()


# -- description and SOAP ------------------------------------------------------


def services(desc_url):
    loopback_only(desc_url)
    with urllib.request.urlopen(desc_url, timeout=5) as reply:
        root = ET.fromstring(reply.read())
    base = root.findtext("{%s}URLBase" % DEVICE_NS) or desc_url
    for service in root.iter("{%s}service" % DEVICE_NS):
        service_type = service.findtext("{%s}serviceType" % DEVICE_NS).strip()
        control = service.findtext("{%s}controlURL" % DEVICE_NS).strip()
        print("%s\t%s" % (service_type, urllib.parse.urljoin(base, control)))


def envelope(service_type, action, arguments):
    ET.register_namespace("s", SOAP_ENV)
    ET.register_namespace("u", service_type)
    root = ET.Element("{%s}Envelope" % SOAP_ENV, {"{%s}encodingStyle" % SOAP_ENV: SOAP_ENCODING})
    body = ET.SubElement(root, "{%s}Body" % SOAP_ENV)
    request = ET.SubElement(body, "{%s}%s" % (service_type, action))
    for name, value in arguments:
        ET.SubElement(request, name).text = value
    return b'<?xml version="1.0" encoding="utf-8"?>\n' + ET.tostring(root)


def post(url, service_type, action, body):
    loopback_only(url)
    request = urllib.request.Request(
        url, data=body, method="POST",
        headers={"Content-Type": 'text/xml; charset="utf-8"', "SOAPACTION": '"%s#%s"' % (service_type, action)})
    try:
        with urllib.request.urlopen(request, timeout=5) as reply:
            return reply.status, reply.headers.get("Connection", ""), reply.read()
    except urllib.error.HTTPError as error:
        return error.code, error.headers.get("Connection", ""), error.read()


def action_outputs(service_type, action, text):
    root = ET.fromstring(text)
    response = root.find("{%s}Body/{%s}%sResponse" % (SOAP_ENV, service_type, action))
    if response is None:
        return None
    return [(child.tag, child.text or "") for child in response]


def call(url, service_type, action, body_file):
    with open(body_file, "rb") as f:
        status, connection, data = post(url, service_type, action, f.read())
    outputs = action_outputs(service_type, action, data) if status == 200 else None
    print("HTTP %d, %d bytes, Connection: %s" % (status, len(data), connection or "(none)"))
    for name, value in outputs or []:
        shown = value if len(value) <= 300 else value[:300] + "... (%d characters)" % len(value)
        print("%s = %s" % (name, shown))
    if outputs is None:
        print(data.decode("utf-8", "replace")[:2000])
        return 1
    return 0


def browse_children(url, service_type, object_id):
    body = envelope(service_type, "Browse", [
        ("ObjectID", object_id), ("BrowseFlag", "BrowseDirectChildren"), ("Filter", "*"),
        ("StartingIndex", "0"), ("RequestedCount", "0"), ("SortCriteria", "")])
    status, _, data = post(url, service_type, "Browse", body)
    if status != 200:
        return []
    result = dict(action_outputs(service_type, "Browse", data) or []).get("Result", "")
    if not result:
        return []
    didl = ET.fromstring(result)
    return [(c.get("id"), c.findtext("{%s}title" % DC_NS)) for c in didl.iter("{%s}container" % DIDL_NS)]


def container(url, service_type, title):
    loopback_only(url)
    frontier, seen = ["0"], set()
    for _ in range(6):
        following = []
        for object_id in frontier:
            for child, child_title in browse_children(url, service_type, object_id):
                if child_title == title:
                    print(child)
                    return 0
                if child not in seen:
                    seen.add(child)
                    following.append(child)
        frontier = following
    return 1


# -- a GUPnP control point in a loop ---------------------------------------------


def gupnp():
    import gi

    gi.require_version("GSSDP", "1.6")
    gi.require_version("GUPnP", "1.6")
    from gi.repository import GLib, GObject, GSSDP, GUPnP

    return GLib, GObject, GSSDP, GUPnP


def new_context(glib, ssdp, upnp, attempts=8):
    """GUPnP listens on the TCP port of the number GSSDP drew for its UDP
    socket; after a load, a connection of this namespace may hold it."""
    for attempt in range(attempts):
        try:
            return upnp.Context.new_full("lo", None, 0, ssdp.UDAVersion.VERSION_1_0)
        except glib.Error:
            if attempt == attempts - 1:
                raise
    return None


def find_service_proxy(glib, ssdp, upnp, desc_url, service_type, timeout=15.0):
    """The proxy of that service on the device described at desc_url: the
    control point discovers it as a server box does, then reuses the same
    session (and its kept-alive connections) for every call."""
    context = new_context(glib, ssdp, upnp)
    control_point = upnp.ControlPoint.new(context, service_type)
    wanted = urllib.parse.urlparse(desc_url).netloc
    found = []
    control_point.connect(
        "service-proxy-available",
        lambda _cp, proxy: found.append(proxy) if urllib.parse.urlparse(proxy.get_location()).netloc == wanted
        else None)
    control_point.set_active(True)
    main = glib.MainContext.default()
    deadline = time.monotonic() + timeout
    while not found and time.monotonic() < deadline:
        if not main.iteration(False):
            time.sleep(0.001)
    if not found:
        sys.exit("no %s at %s within %.0f s" % (service_type, desc_url, timeout))
    return context, control_point, found[0]


def percentile_us(ordered, fraction):
    if not ordered:
        return 0
    return int(ordered[min(len(ordered) - 1, int(fraction * len(ordered)))] * 1e6)


class CallLoop:
    """Keeps `connections` calls outstanding until the deadline."""

    def __init__(self, gobject, upnp, proxy, action, arguments):
        self.gobject, self.upnp, self.proxy, self.action = gobject, upnp, proxy, action
        self.names = [name for name, _ in arguments]
        self.values = [self.string_value(value) for _, value in arguments]
        self.latencies, self.failures, self.outstanding, self.deadline = [], 0, 0, 0.0

    def string_value(self, text):
        value = self.gobject.Value()
        value.init(self.gobject.TYPE_STRING)
        value.set_string(text)
        return value

    def issue(self):
        request = self.upnp.ServiceProxyAction.new_from_list(self.action, self.names, self.values)
        started = time.monotonic()
        self.outstanding += 1
        self.proxy.call_action_async(request, None, lambda source, result: self.finished(source, result, started))

    def finished(self, source, result, started):
        self.outstanding -= 1
        try:
            source.call_action_finish(result)
            self.latencies.append(time.monotonic() - started)
        except Exception:  # a transport failure or a SOAP fault: counted, the loop goes on
            self.failures += 1
        if time.monotonic() < self.deadline:
            self.issue()

    def run(self, glib, seconds, connections):
        self.deadline = time.monotonic() + seconds
        started = time.monotonic()
        for _ in range(connections):
            self.issue()
        main = glib.MainContext.default()
        hard_stop = self.deadline + 10.0
        while self.outstanding and time.monotonic() < hard_stop:
            main.iteration(True)
        return time.monotonic() - started


def cploop(desc_url, service_type, action, seconds, connections, arguments):
    loopback_only(desc_url)
    glib, gobject, ssdp, upnp = gupnp()
    _context, _control_point, proxy = find_service_proxy(glib, ssdp, upnp, desc_url, service_type)
    loop = CallLoop(gobject, upnp, proxy, action, arguments)
    elapsed = loop.run(glib, seconds, connections)
    ordered = sorted(loop.latencies)
    print("WIRE_RESULT requests=%d seconds=%.3f rps=%.1f bytes=0 p50_us=%d p90_us=%d p99_us=%d max_us=%d "
          "err_connect=0 err_read=0 err_write=0 err_status=%d err_timeout=%d" % (
              len(ordered), elapsed, len(ordered) / elapsed, percentile_us(ordered, 0.5),
              percentile_us(ordered, 0.9), percentile_us(ordered, 0.99), percentile_us(ordered, 1.0),
              loop.failures, loop.outstanding))


# -- /proc readers ---------------------------------------------------------------


def read(path):
    try:
        with open(path) as f:
            return f.read()
    except OSError:
        return ""


def stat_fields(pid):
    text = read("/proc/%s/stat" % pid)
    return text[text.rindex(")") + 2:].split() if text else None


def cpu_ticks(pid):
    fields = stat_fields(pid)
    return int(fields[11]) + int(fields[12]) if fields else 0


def status_kib(pid, key):
    for line in read("/proc/%s/status" % pid).splitlines():
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return 0


def rollup_kib(pid, keys):
    total = 0
    for line in read("/proc/%s/smaps_rollup" % pid).splitlines():
        parts = line.split()
        if parts and parts[0].rstrip(":") in keys:
            total += int(parts[1])
    return total


def thread_switches(pid):
    """{(tid, name): voluntary + involuntary context switches}"""
    result = {}
    for tid in os.listdir("/proc/%s/task" % pid) if os.path.isdir("/proc/%s/task" % pid) else []:
        name = read("/proc/%s/task/%s/comm" % (pid, tid)).strip()
        count = 0
        for line in read("/proc/%s/task/%s/status" % (pid, tid)).splitlines():
            if "ctxt_switches:" in line:
                count += int(line.split()[1])
        result[(tid, name)] = count
    return result


def group_sample(pids):
    switches = {}
    for pid in pids:
        switches.update({(pid,) + key: value for key, value in thread_switches(pid).items()})
    return sum(cpu_ticks(p) for p in pids), switches


def idle(tsv, threads_tsv, seconds, groups):
    parsed = [(label, pids.split("+")) for label, pids in (g.split("=", 1) for g in groups)]
    before = {label: group_sample(pids) for label, pids in parsed}
    t0 = time.monotonic()
    time.sleep(seconds)
    window = time.monotonic() - t0
    fresh = not os.path.exists(tsv) or os.path.getsize(tsv) == 0
    with open(tsv, "a") as out, open(threads_tsv, "a") as per_thread:
        if fresh:
            out.write("label\twindow_s\tcpu_pct\twakeups_per_s\tthreads\tfds\trss_kib\trss_anon_kib\trss_file_kib\tpss_kib\tuss_kib\thwm_kib\twhen\n")
            per_thread.write("label\tpid\ttid\tthread\twakeups_per_s\n")
        for label, pids in parsed:
            ticks0, switches0 = before[label]
            ticks1, switches1 = group_sample(pids)
            deltas = {k: v - switches0.get(k, 0) for k, v in switches1.items()}
            cpu = 100.0 * (ticks1 - ticks0) / HZ / window
            wakeups = sum(deltas.values()) / window
            rss = sum(status_kib(p, "VmRSS") for p in pids)
            anon = sum(status_kib(p, "RssAnon") for p in pids)
            mapped = sum(status_kib(p, "RssFile") + status_kib(p, "RssShmem") for p in pids)
            pss = sum(rollup_kib(p, ("Pss",)) for p in pids)
            uss = sum(rollup_kib(p, ("Private_Clean", "Private_Dirty")) for p in pids)
            hwm = sum(status_kib(p, "VmHWM") for p in pids)
            fds = sum(len(os.listdir("/proc/%s/fd" % p)) for p in pids if os.path.isdir("/proc/%s/fd" % p))
            out.write("%s\t%.0f\t%.3f\t%.2f\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%s\n" % (
                label, window, cpu, wakeups, len(switches1), fds, rss, anon, mapped, pss, uss, hwm,
                time.strftime("%FT%T")))
            for (pid, tid, name), delta in sorted(deltas.items(), key=lambda kv: -kv[1]):
                per_thread.write("%s\t%s\t%s\t%s\t%.2f\n" % (label, pid, tid, name, delta / window))
            print("%-22s cpu %6.3f %%  wake-ups %6.2f/s  threads %2d  fds %3d  RSS %6d KiB  PSS %6d KiB  USS %6d KiB" % (
                label, cpu, wakeups, len(switches1), fds, rss, pss, uss))


def foreign_ticks():
    """CPU ticks (children reaped included) of user processes outside this netns."""
    own_netns = os.stat("/proc/self/ns/net").st_ino
    skip, pid = set(), os.getpid()
    while pid > 0 and pid not in skip:  # our ancestors' child time is our own load
        skip.add(pid)
        fields = stat_fields(pid)
        pid = int(fields[1]) if fields else 0
    total = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) in skip:
            continue
        try:
            if os.stat("/proc/%s/ns/net" % entry).st_ino == own_netns:
                continue
        except OSError:
            continue
        fields = stat_fields(entry)
        if not fields or int(fields[6]) & 0x00200000:  # kernel thread
            continue
        total["%s:%s" % (entry, fields[19])] = sum(int(x) for x in fields[11:15])
    return total


def cpu(command, path, pids):
    pids = [p for p in pids.split("+") if p]
    if command == "snap":
        with open(path, "w") as f:
            json.dump({"t": time.monotonic(), "own": sum(cpu_ticks(p) for p in pids), "foreign": foreign_ticks()}, f)
        return
    with open(path) as f:
        before = json.load(f)
    window = time.monotonic() - before["t"]
    own = sum(cpu_ticks(p) for p in pids) - before["own"]
    foreign = sum(max(0, v - before["foreign"].get(k, 0)) for k, v in foreign_ticks().items())
    print("%.1f %.1f" % (100.0 * own / HZ / window, 100.0 * foreign / HZ / window))


def main(argv):
    command = argv[1] if len(argv) > 1 else ""
    if command == "locate":
        locate(argv[2], int(argv[3]), float(argv[4]) if len(argv) > 4 else 15.0)
    elif command == "startup":
        split = argv.index("--")
        startup(argv[2], int(argv[3]), int(argv[4]), argv[5], argv[split + 1:])
    elif command == "services":
        services(argv[2])
    elif command == "body":
        arguments = [a.split("=", 1) for a in argv[4:]]
        sys.stdout.buffer.write(envelope(argv[2], argv[3], arguments))
    elif command == "call":
        return call(argv[2], argv[3], argv[4], argv[5])
    elif command == "cploop":
        cploop(argv[2], argv[3], argv[4], float(argv[5]), int(argv[6]), [a.split("=", 1) for a in argv[7:]])
    elif command == "container":
        return container(argv[2], argv[3], argv[4])
    elif command == "idle":
        idle(argv[2], argv[3], float(argv[4]), argv[5:])
    elif command == "cpu":
        cpu(argv[2], argv[3], argv[4] if len(argv) > 4 else "")
    else:
        sys.exit(__doc__)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
