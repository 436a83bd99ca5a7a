"""Load on the status store of the real chd, shared by test_store_input.py and
bench/reliability/store_input.py: big values and storms of incidents over the
store's D-Bus export, the daemon's resident memory, and GetValues answered
from a separate process while the storm runs.

Run as a script ("poll URL"), this module is that separate process: it asks
for one data-model value every 100 ms until its standard input closes or
reaches end of file, then prints one JSON line with its count and worst time.
"""

import json
import os
import select
import subprocess
import sys
import time
from xml.etree import ElementTree

from chdtest import CM_TYPE
from wireload import envelope, status_kib

TRACKED_EVENT = "CHD Tracked Parameter Event"
DROPPED_KEY = "Dropped Key"
DROPPED_KEY_HISTORY = "Dropped Key History"
BLOB_EVENT = "Write CHD Blob Event"
# A small leaf, answered from the service's own table.
PROBED_PATH = "/vsp/CHD/REMOTE_LAST_COMMAND"


# -- the daemon's memory -------------------------------------------------------
def resident_kb(pid):
    return status_kib(pid, "VmRSS")


def peak_kb(pid):
    """Highest resident size since the last reset_peak()."""
    return status_kib(pid, "VmHWM")


def reset_peak(pid):
    with open("/proc/%d/clear_refs" % pid, "w") as clear:
        clear.write("5")


def settled_resident_kb(pid, seconds=2.0):
    """Resident size once it stopped falling (freed blocks go back in the background)."""
    deadline = time.monotonic() + seconds
    lowest = resident_kb(pid)
    while time.monotonic() < deadline:
        time.sleep(0.1)
        lowest = min(lowest, resident_kb(pid))
    return lowest


# -- the store over D-Bus ------------------------------------------------------
def post_incidents(env, count, seconds, window=128):
    """PostEvent of count "Dropped Key" incidents, with up to window calls in flight.

    Returns (incidents acknowledged, failures, time when the last answer came)."""
    from chdtest import STORE_IFACE, STORE_NAME, STORE_PATH
    from gi.repository import Gio, GLib

    context = GLib.MainContext.default()
    state = {"inflight": 0, "done": 0, "failed": 0, "last": time.monotonic()}
    parameters = GLib.Variant("(ssi)", (TRACKED_EVENT, DROPPED_KEY, 0))

    def answered(connection, result, _data):
        try:
            connection.call_finish(result)
            state["done"] += 1
        except Exception:  # noqa: BLE001 - any failed call counts as failed
            state["failed"] += 1
        state["inflight"] -= 1
        state["last"] = time.monotonic()

    deadline = time.monotonic() + seconds
    sent = 0
    while (sent < count or state["inflight"] > 0) and time.monotonic() < deadline:
        while sent < count and state["inflight"] < window:
            env.bus.call(STORE_NAME, STORE_PATH, STORE_IFACE, "PostEvent", parameters, None,
                         Gio.DBusCallFlags.NONE, 30000, None, answered, None)
            state["inflight"] += 1
            sent += 1
        context.iteration(True)
    return state["done"], state["failed"], state["last"]


def history_length(env, key=DROPPED_KEY_HISTORY):
    text = env.get_status(key)
    return len(json.loads(text)) if text else 0


def wait_history(env, expected, timeout, key=DROPPED_KEY_HISTORY):
    """Seconds until the history status holds expected entries; None after timeout."""
    start = time.monotonic()
    while time.monotonic() - start < timeout:
        if history_length(env, key) == expected:
            return time.monotonic() - start
        time.sleep(0.1)
    return None


# -- GetValues from another process --------------------------------------------
def control_url(device, service_type=CM_TYPE):
    for service in device.list_services():
        if service.get_service_type() == service_type:
            return service.get_control_url()
    raise AssertionError("device has no service " + service_type)


class GetValuesProbe:
    """A process that keeps asking for one value while the test loads the daemon."""

    def __init__(self, url):
        self.process = subprocess.Popen([sys.executable, os.path.abspath(__file__), "poll", url],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def stop(self, timeout=30):
        """Returns {"count", "failures", "worst_s"}."""
        out, _ = self.process.communicate("", timeout=timeout)
        return json.loads(out.strip().splitlines()[-1])


def _get_values_request():
    return envelope(CM_TYPE, "GetValues",
                    [("Parameters", "<ContentPathList><ContentPath>%s</ContentPath></ContentPathList>" % PROBED_PATH)])


def _answer_holds_the_value(body):
    result = ElementTree.fromstring(body).find(".//ParameterValueList")
    return result is not None and PROBED_PATH in (result.text or "")


def _poll(url):
    import http.client
    import urllib.parse

    parts = urllib.parse.urlsplit(url)
    request = _get_values_request()
    headers = {"Content-Type": 'text/xml; charset="utf-8"', "SOAPAction": '"%s#GetValues"' % CM_TYPE}
    count, failures, worst = 0, 0, 0.0
    while True:
        start = time.monotonic()
        try:
            connection = http.client.HTTPConnection(parts.hostname, parts.port, timeout=30)
            connection.request("POST", parts.path, request, headers)
            response = connection.getresponse()
            ok = response.status == 200 and _answer_holds_the_value(response.read())
            connection.close()
        except (OSError, http.client.HTTPException, ElementTree.ParseError):
            ok = False
        worst = max(worst, time.monotonic() - start)
        count += 1
        failures += 0 if ok else 1
        readable, _, _ = select.select([sys.stdin], [], [], 0.1)
        if readable:
            break
    print(json.dumps({"count": count, "failures": failures, "worst_s": worst}), flush=True)


if __name__ == "__main__" and len(sys.argv) == 3 and sys.argv[1] == "poll":
    _poll(sys.argv[2])
