"""End to end: the diagnostics blob of the real chd, seen over the status store's D-Bus export.

Statuses and incidents set through the store show up in the next blob and in
the history statuses; GenCHDData over UPnP and a change of the reporting
interval each post a "Write CHD Blob Event". Every blob and history status
seen is validated against docs/chd-blob.schema.json.
"""

import json
import os
import re
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from chdtest import SOURCE_DIR, ChdEnv, ControlPoint, Subscription, iterate_until, main  # noqa: E402
from jsonschema import Draft202012Validator  # noqa: E402

BLOB_EVENT = "Write CHD Blob Event"
TRACKED_EVENT = "CHD Tracked Parameter Event"
TIMESTAMP = re.compile(r"^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}$")

with open(os.path.join(SOURCE_DIR, "docs", "chd-blob.schema.json")) as schema_file:
    SCHEMA = json.load(schema_file)
Draft202012Validator.check_schema(SCHEMA)
BLOB_VALIDATOR = Draft202012Validator(SCHEMA)


def definition_validator(name):
    return Draft202012Validator({"$ref": "#/$defs/" + name, "$defs": SCHEMA["$defs"]})


ORDINAL_HISTORY_VALIDATOR = definition_validator("ordinalHistory")
DATA_HISTORY_VALIDATOR = definition_validator("dataHistory")


class BlobTest(unittest.TestCase):
    def body_of(self, text):
        """Checks the text against the schema and the writing rules, and returns the body."""
        self.assertFalse(text.endswith("\n"), "a blob has no final line feed")
        self.assertNotIn("\n", text)
        document = json.loads(text)
        errors = [e.message for e in BLOB_VALIDATOR.iter_errors(document)]
        self.assertEqual([], errors, text)
        (key, body), = document.items()
        self.assertRegex(key, TIMESTAMP)
        return body

    def history_status(self, env, key, data=False):
        text = env.get_status(key)
        history = json.loads(text)
        validator = DATA_HISTORY_VALIDATOR if data else ORDINAL_HISTORY_VALIDATOR
        self.assertEqual([], [e.message for e in validator.iter_errors(history)], text)
        return history

    def request_blob(self, env, watch):
        cp = ControlPoint()
        device = cp.find_device()
        start = len(watch.events)
        cp.call(device, "ConfigurationManagement", "GenCHDData", [], [])
        return self.body_of(watch.wait_event(BLOB_EVENT, timeout=10, start=start))

    def test_statuses_and_incidents_show_in_the_next_blob_and_history_statuses(self):
        with ChdEnv(platform={"wifi": "true"}, client_app=False) as env:
            watch = env.watch()
            env.set_statuses({
                "Client Connection Status": "Common.Connected",
                "Client Connection Type": "Wireless",
                "Channel": "11",
                "SNR": "35",
                "Network Name": "e2e net",
                "HDTV.Video.HDMIControl": "HDTV.Video.HDMIControl.On",
                "CEC TV Active Source": "Yes",
                "HDTV.TVResolutions.CurrentResolution": "HDTV.TVResolutions.1080i",
                "HDTV.TVResolutions.1080p": "Common.On",
                "Last Remote Key": "KEY_MENU",
                "In Standby": "False",
            })
            for _ in range(3):
                env.post_event(TRACKED_EVENT, "Dropped Key")
            env.post_event(TRACKED_EVENT, "Zuna Abort")
            env.post_event("Media State Event", "Playing")
            env.set_status("Front Panel Status Color", "Red")

            iterate_until(lambda: len(json.loads(env.get_status("Dropped Key History") or "[]")) == 3, 10,
                          "three dropped keys in their history status")
            dropped = self.history_status(env, "Dropped Key History")
            self.assertEqual([1, 2, 3], [entry[0] for entry in dropped])
            iterate_until(lambda: env.get_status("Low RSSI History"), 10, "the low-signal history")
            self.assertEqual(1, len(self.history_status(env, "Zuna Abort History")))
            self.assertEqual([["Playing"]], [e[1:] for e in self.history_status(env, "Media State History", True)])
            self.assertEqual(1, len(self.history_status(env, "Low RSSI History")))

            body = self.request_blob(env, watch)
            client = body["C-ClientParameters"]
            self.assertEqual("On", client["connected"])
            self.assertEqual("Wireless", client["connection_wireless"])
            self.assertEqual(dropped, client["DroppedKeys"])
            self.assertEqual(1, len(client["abort_count"]))
            self.assertEqual("Playing", client["media_state"][0][1])
            self.assertEqual(1, len(client["Low_RSSI_count"]))
            self.assertEqual(900, client["Reporting_Interval"])
            wifi = body["Network"]["WiFi"]
            self.assertEqual((11, 35, "e2e net"), (wifi["channel"], wifi["SNR"], wifi["SSID"]))
            hdmi = body["Display"]["TV"]["HDMI"]
            self.assertTrue(hdmi["CEC"])
            self.assertEqual("Yes", hdmi["CEC_ActiveSource"])
            self.assertEqual(3, body["Display"]["TV"]["Resolution"]["Current"])
            self.assertEqual(16, body["Display"]["TV"]["Res"]["Supported"] & 16)
            self.assertEqual("KEY_MENU", body["Remote"]["LastCommand"])
            self.assertFalse(body["Other"]["In_Standby"])

            # The blob started a new period; the history statuses keep their text.
            env.post_event(TRACKED_EVENT, "Dropped Key")
            iterate_until(lambda: len(json.loads(env.get_status("Dropped Key History"))) == 1, 10,
                          "a new period's first dropped key")
            self.assertEqual(1, self.history_status(env, "Dropped Key History")[0][0])
            self.assertEqual(1, len(self.history_status(env, "Zuna Abort History")))
            next_body = self.request_blob(env, watch)
            self.assertEqual(1, len(next_body["C-ClientParameters"]["DroppedKeys"]))
            self.assertEqual([], next_body["C-ClientParameters"]["abort_count"])

    def test_gen_chd_data_posts_a_blob_on_the_bus(self):
        with ChdEnv(client_app=False) as env:
            watch = env.watch()
            body = self.request_blob(env, watch)
            # A box without Wi-Fi reports zeros.
            self.assertEqual(0, body["Network"]["WiFi"]["channel"])
            self.assertEqual(0, body["C-ClientParameters"]["wifi_errors"])
            self.assertEqual(1, len(watch.events_named(BLOB_EVENT)))

    def test_a_reporting_interval_change_posts_a_blob_at_once(self):
        with ChdEnv(client_app=False) as env:
            watch = env.watch()
            env.set_status("CHD Reporting Interval", "1200")
            body = self.body_of(watch.wait_event(BLOB_EVENT, timeout=10))
            self.assertEqual(1200, body["C-ClientParameters"]["Reporting_Interval"])
            env.wait_log("New reporting interval is 1200 minutes")
            # 60 is raised to 900, which differs from 1200: another blob.
            start = len(watch.events)
            env.set_status("CHD Reporting Interval", "60")
            body = self.body_of(watch.wait_event(BLOB_EVENT, timeout=10, start=start))
            self.assertEqual(900, body["C-ClientParameters"]["Reporting_Interval"])
            # Letters also mean 900, the interval in force: no blob.
            env.set_status("CHD Reporting Interval", "letters")
            env.set_status("Last Remote Key", "KEY_BACK")
            Subscription.settle(2)
            self.assertEqual(2, len(watch.events_named(BLOB_EVENT)))


if __name__ == "__main__":
    main()
