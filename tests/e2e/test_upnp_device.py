"""The manageable device on the network, seen from outside the daemon: SSDP
discovery with a GSSDP browser, the description and SCPDs fetched over HTTP,
raw SOAP requests with curl, path escapes, and the goodbye on SIGTERM."""

import http.server
import signal
import threading
import unittest
import xml.etree.ElementTree as ElementTree

from chdtest import BM_TYPE, CM_TYPE, DEVICE_TYPE, ChdEnv, GSSDP, curl, iterate_until, main

DEVICE_NS = {"d": "urn:schemas-upnp-org:device-1-0"}
SERVICE_NS = {"s": "urn:schemas-upnp-org:service-1-0"}
PLATFORM = {"manufacturer": "Acme", "model": "ABC", "manufacturer_id": "42"}


class Browser:
    """A GSSDP resource browser: what the network sees announced."""

    def __init__(self, interface, target):
        self.client = GSSDP.Client.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
        self.browser = GSSDP.ResourceBrowser.new(self.client, target)
        self.available = {}  # usn -> locations
        self.gone = []
        self.browser.connect("resource-available", self._on_available)
        self.browser.connect("resource-unavailable", self._on_unavailable)
        self.browser.set_active(True)

    def _on_available(self, _browser, usn, locations):
        self.available[usn] = list(locations)

    def _on_unavailable(self, _browser, usn):
        self.available.pop(usn, None)
        self.gone.append(usn)

    def wait_for_device(self, timeout=15):
        return iterate_until(lambda: next(iter(self.available.items()), None), timeout, "an SSDP announcement")


def soap(url, service_type, action, arguments):
    """POSTs a SOAP request as it stands: (HTTP status, response body)."""
    args = "".join("<%s>%s</%s>" % (name, value, name) for name, value in arguments)
    envelope = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
                's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
                '<u:%s xmlns:u="%s">%s</u:%s></s:Body></s:Envelope>' % (action, service_type, args, action))
    status, _head, body = curl(url, ["-X", "POST", "-H", 'Content-Type: text/xml; charset="utf-8"',
                                     "-H", 'SOAPAction: "%s#%s"' % (service_type, action), "--data-binary",
                                     envelope])
    return status, body.decode("utf-8", "replace")


def upnp_error(body):
    fault = ElementTree.fromstring(body)
    ns = {"c": "urn:schemas-upnp-org:control-1-0"}
    code = fault.find(".//c:UPnPError/c:errorCode", ns).text
    description = fault.find(".//c:UPnPError/c:errorDescription", ns).text
    return int(code), description


class DeviceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.env = ChdEnv(platform=PLATFORM, client_app=False)
        cls.env.__enter__()
        cls.browser = Browser("lo", DEVICE_TYPE)
        cls.usn, locations = cls.browser.wait_for_device()
        cls.location = locations[0]
        cls.base = cls.location.split("/", 3)
        cls.base = "%s//%s" % (cls.base[0], cls.base[2])
        status, _head, body = curl(cls.location)
        assert status == 200, status
        cls.description = ElementTree.fromstring(body)

    @classmethod
    def tearDownClass(cls):
        cls.env.__exit__(None, None, None)

    def device_text(self, name):
        return self.description.find("d:device/d:" + name, DEVICE_NS).text

    def services(self):
        return self.description.findall("d:device/d:serviceList/d:service", DEVICE_NS)

    def control_url(self, service_type):
        for service in self.services():
            if service.find("d:serviceType", DEVICE_NS).text == service_type:
                return self.base + service.find("d:controlURL", DEVICE_NS).text
        self.fail("no service " + service_type)

    def test_announced_with_its_udn(self):
        udn = self.device_text("UDN")
        self.assertTrue(udn.startswith("uuid:"))
        self.assertEqual(self.usn, "%s::%s" % (udn, DEVICE_TYPE))
        self.assertTrue(self.location.startswith("http://127.0.0.1:"), self.location)

    def test_description_strings(self):
        self.assertEqual(self.device_text("deviceType"), DEVICE_TYPE)
        self.assertEqual(self.device_text("friendlyName"), "Acme RVU Client ManageableDevice")
        self.assertEqual(self.device_text("manufacturer"), "Acme")
        self.assertEqual(self.device_text("modelDescription"), "VESPARO ABC-42")
        self.assertEqual(self.device_text("modelName"), "ABC")
        self.assertEqual(self.device_text("modelNumber"), "42")

    def test_configuration_management_first_then_basic_management(self):
        types = [s.find("d:serviceType", DEVICE_NS).text for s in self.services()]
        self.assertEqual(types, [CM_TYPE, BM_TYPE])
        ids = [s.find("d:serviceId", DEVICE_NS).text for s in self.services()]
        self.assertEqual(ids, ["urn:upnp-org:serviceId:ConfigurationManagement",
                               "urn:upnp-org:serviceId:BasicManagement"])

    def test_scpds_are_consistent(self):
        for service in self.services():
            status, _head, body = curl(self.base + service.find("d:SCPDURL", DEVICE_NS).text)
            self.assertEqual(status, 200)
            scpd = ElementTree.fromstring(body)
            variables = {v.find("s:name", SERVICE_NS).text: v
                         for v in scpd.findall("s:serviceStateTable/s:stateVariable", SERVICE_NS)}
            self.assertTrue(variables)
            for variable in variables.values():
                self.assertIn(variable.get("sendEvents"), ("yes", "no"))
                self.assertIn(variable.find("s:dataType", SERVICE_NS).text, ("string", "ui4", "i4", "boolean"))
            for argument in scpd.findall("s:actionList/s:action/s:argumentList/s:argument", SERVICE_NS):
                self.assertIn(argument.find("s:direction", SERVICE_NS).text, ("in", "out"))
                self.assertIn(argument.find("s:relatedStateVariable", SERVICE_NS).text, variables)

    def test_basic_management_variables_are_evented(self):
        bm = [s for s in self.services() if s.find("d:serviceType", DEVICE_NS).text == BM_TYPE][0]
        status, _head, body = curl(self.base + bm.find("d:SCPDURL", DEVICE_NS).text)
        self.assertEqual(status, 200)
        scpd = ElementTree.fromstring(body)
        evented = {v.find("s:name", SERVICE_NS).text: v.find("s:dataType", SERVICE_NS).text
                   for v in scpd.findall("s:serviceStateTable/s:stateVariable", SERVICE_NS)
                   if v.get("sendEvents") == "yes"}
        self.assertEqual(evented, {"LogURIs": "string", "DeviceStatus": "string", "ChdBlobUpdated": "boolean"})

    def test_unknown_action_is_a_soap_fault_401(self):
        status, body = soap(self.control_url(CM_TYPE), CM_TYPE, "NoSuchAction", [])
        self.assertEqual(status, 500)
        self.assertEqual(upnp_error(body), (401, "Invalid Action"))

    def test_bad_and_missing_arguments_are_a_soap_fault_402(self):
        url = self.control_url(CM_TYPE)
        for arguments in ([("StartingNode", "/vsp/"), ("SearchDepth", "abc")],
                          [("StartingNode", "/vsp/"), ("SearchDepth", "-1")],
                          [("StartingNode", "/vsp/"), ("SearchDepth", "4294967296")],
                          [("StartingNode", "/vsp/")],
                          [("StartingNode", "/vsp/"), ("SearchDepth", "1"), ("Extra", "x")]):
            status, body = soap(url, CM_TYPE, "GetSupportedParameters", arguments)
            self.assertEqual(status, 500, arguments)
            self.assertEqual(upnp_error(body), (402, "Invalid Args"), arguments)

    def test_an_action_answers(self):
        status, body = soap(self.control_url(CM_TYPE), CM_TYPE, "GetSupportedDataModelsUpdate", [])
        self.assertEqual(status, 200, body)
        self.assertIn("<StateVariableValue>0,0001-01-01T00:00:00Z</StateVariableValue>", body)

    def test_host_header_must_name_the_server(self):
        status, _body = curl(self.control_url(CM_TYPE), ["-X", "POST", "-H", "Host: localhost",
                                                         "-H", 'SOAPAction: "%s#GetConfigurationUpdate"' % CM_TYPE,
                                                         "--data-binary", "<x/>"])[:2]
        self.assertEqual(status, 412)

    def test_paths_leaving_the_root_are_not_found(self):
        log_path = self.env.log_path
        for path in ("%s/../../../etc/passwd" % log_path, "%s/%%2e%%2e/%%2e%%2e/etc/passwd" % log_path,
                     "%s/..%%2f..%%2fetc%%2fpasswd" % log_path, "%s//etc/passwd" % log_path,
                     "%s/%%00" % log_path, "/%2e%2e/etc/passwd", "/../etc/passwd"):
            status, _head, _body = curl(self.base + path)
            self.assertEqual(status, 404, path)

    def test_server_header(self):
        status, head, _body = curl(self.location)
        self.assertEqual(status, 200)
        server = [line for line in head.splitlines() if line.lower().startswith("server:")]
        self.assertEqual(len(server), 1, head)
        self.assertRegex(server[0], r"^Server: Linux/\S+ UPnP/1\.0 CHD/0\.1$")


class GoodbyeTest(unittest.TestCase):
    def test_sigterm_says_goodbye_and_exits_with_status_one(self):
        """Stopped while its first announcements are still going out, the
        device takes back every resource it announced: the root device, its
        UDN, its type and both service types."""
        with ChdEnv(platform=PLATFORM, client_app=False) as env:
            browser = Browser("lo", "ssdp:all")
            browser.wait_for_device()
            rc = env.stop_chd(signal.SIGTERM, timeout=10)
            self.assertEqual(rc, 1)
            iterate_until(lambda: len(set(browser.gone)) >= 5 and not browser.available, 5,
                          "a byebye for every resource announced")
            self.assertTrue(any(usn.endswith("::" + DEVICE_TYPE) for usn in browser.gone), browser.gone)


class EventSink(http.server.ThreadingHTTPServer):
    """A GENA subscriber's callback on 127.0.0.1: records each NOTIFY."""

    def __init__(self):
        self.notifies = []
        sink = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_NOTIFY(self):  # noqa: N802 (the method's name is the HTTP method)
                length = int(self.headers.get("Content-Length", "0"))
                sink.notifies.append(self.rfile.read(length))
                self.send_response(200)
                self.send_header("Content-Length", "0")
                self.end_headers()

            def log_message(self, *_args):
                pass

        super().__init__(("127.0.0.1", 0), Handler)
        self.thread = threading.Thread(target=self.serve_forever, daemon=True)
        self.thread.start()

    def close(self):
        self.shutdown()
        self.server_close()


class ProxyEnvironmentTest(unittest.TestCase):
    """The daemon's own HTTP client (GUPnP fetching each service's description
    from its own server, and event notifications to subscribers) talks to the
    local network directly, whatever proxy its environment names."""

    PROXY = {"http_proxy": "http://127.0.0.1:9/", "HTTP_PROXY": "http://127.0.0.1:9/", "no_proxy": "",
             "NO_PROXY": ""}

    def test_events_reach_a_subscriber_without_the_environment_proxy(self):
        with ChdEnv(platform=PLATFORM, client_app=False, extra_env=self.PROXY) as env:
            _usn, locations = Browser("lo", DEVICE_TYPE).wait_for_device()
            base = "/".join(locations[0].split("/", 3)[:3])
            status, _head, body = curl(locations[0])
            self.assertEqual(status, 200)
            event_path = None
            for service in ElementTree.fromstring(body).findall("d:device/d:serviceList/d:service", DEVICE_NS):
                if service.find("d:serviceType", DEVICE_NS).text == BM_TYPE:
                    event_path = service.find("d:eventSubURL", DEVICE_NS).text
            self.assertIsNotNone(event_path)
            sink = EventSink()
            try:
                callback = "<http://127.0.0.1:%d/events>" % sink.server_address[1]
                status, head, _body = curl(base + event_path, ["-X", "SUBSCRIBE", "-H", "CALLBACK: " + callback,
                                                               "-H", "NT: upnp:event", "-H", "TIMEOUT: Second-300"])
                self.assertEqual(status, 200, head)
                iterate_until(lambda: sink.notifies, 10, "the initial NOTIFY")
                self.assertIn(b"propertyset", sink.notifies[0])
            finally:
                sink.close()
            # The desktop's proxy settings were not even read (GSettings through dconf).
            with open("/proc/%d/maps" % env.chd.pid) as maps:
                self.assertFalse([line for line in maps if "dconf" in line])


if __name__ == "__main__":
    main()
