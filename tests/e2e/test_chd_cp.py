"""chd-cp, the command-line control point, against the real chd.

Every subcommand and exit status, two boxes on one network, and the
diagnostics blob from GenCHDData to the file a server downloads: the host
client application writes each blob below the log path and announces it, as
the box's delivery component does.

The daemon reads /tmp/syslogUrisPath.txt and runs its collection scripts from
/etc/utils (for `logs`). So that neither touches the host, this file re-runs
itself in a private mount namespace where /tmp and /etc are overlaid by
scratch layers, /etc/utils holding this tree's collection scripts. The second
box has a machine id of its own, and so a UDN that differs from the first
one's.
"""

import hashlib
import json
import os
import re
import signal
import subprocess
import threading
import time
import unittest

from privatemounts import COLLECTION_SCRIPTS, SOURCE_DIR, SYSLOG_URI_FILE, rerun_with_private_mounts

if __name__ == "__main__":
    rerun_with_private_mounts(__file__, scripts_dir=COLLECTION_SCRIPTS)

import jsonschema  # noqa: E402

from chdtest import ChdEnv, binary, main  # noqa: E402

SYSLOG_URI = "http://192.0.2.1/syslog/box.log"
SCHEMA_FILE = os.path.join(SOURCE_DIR, "docs", "chd-blob.schema.json")
BIG_LOG_BYTES = 200 * 1024 * 1024
BLOB_FILE_NAME = "chd-blob.json"
GUIDE_FILE = os.path.join(SOURCE_DIR, "docs", "server-guide.md")


def chd_cp(*args, timeout=60):
    """Runs chd-cp to its end: (exit status, stdout, stderr)."""
    done = subprocess.run([binary("chd-cp")] + [str(a) for a in args], capture_output=True, text=True,
                          timeout=timeout, check=False)
    return done.returncode, done.stdout, done.stderr


class SecondBoxEnv(ChdEnv):
    """A second box made from the same image: a machine id of its own gives it
    a UDN of its own.

    It shares the network namespace with the first box: port 80 is the first
    box's, this one serves its logs on the stack's port alone."""

    MACHINE_ID = "5ec0d0b0c5ec0d0b0c5ec0d0b0c5ec0d"

    def write_config(self):
        self.use_machine_id(self.MACHINE_ID)
        super().write_config()


class LineReader:
    """Collects the lines a running chd-cp prints, on a thread of its own."""

    def __init__(self, args):
        self.proc = subprocess.Popen([binary("chd-cp")] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True)
        self.lines = []
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.append(line.rstrip("\n"))

    def wait_for(self, predicate, timeout, what):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            found = [line for line in list(self.lines) if predicate(line)]
            if found:
                return found
            if self.proc.poll() is not None:
                time.sleep(0.2)
                found = [line for line in list(self.lines) if predicate(line)]
                if found:
                    return found
                raise AssertionError("chd-cp ended (%d) before %s: %s" % (self.proc.returncode, what,
                                                                          self.proc.stderr.read()))
            time.sleep(0.05)
        raise AssertionError("timed out waiting for %s; lines: %s" % (what, self.lines))

    def finish(self, timeout=30):
        rc = self.proc.wait(timeout)
        self._thread.join(5)
        err = self.proc.stderr.read()
        self.proc.stdout.close()
        self.proc.stderr.close()
        return rc, err


def guide_examples(text):
    """The console examples of a document: [command, expected output lines], in order.

    A command is a line "$ ..." (continued on the next lines while it ends in a
    backslash); the lines up to the next command are its output."""
    examples = []
    in_block = False
    for line in text.splitlines():
        if line.startswith("```"):
            in_block = line.startswith("```console")
        elif in_block and line.startswith("$ "):
            examples.append([line[2:], []])
        elif in_block and examples[-1][0].endswith("\\") and not examples[-1][1]:
            examples[-1][0] += "\n" + line
        elif in_block:
            examples[-1][1].append(line)
    return examples


def output_pattern(lines):
    """A shown output as a regular expression: [...] is any text within a line, a line ... any lines."""
    parts = []
    for line in lines:
        if line == "...":
            parts.append(r"(?:[^\n]*\n)*?")
        else:
            parts.append(".*".join(re.escape(piece) for piece in line.rstrip().split("[...]")) + r"[ \t]*\n")
    return "".join(parts)


def one_error_line(test, stderr):
    test.assertEqual(len(stderr.splitlines()), 1, stderr)
    test.assertTrue(stderr.startswith("chd-cp: "), stderr)


class ChdCpTest(unittest.TestCase):
    def setUp(self):
        with open(SYSLOG_URI_FILE, "w") as f:
            f.write(SYSLOG_URI + "\n")

    def info(self, box="127.0.0.1", *extra):
        rc, out, err = chd_cp("info", box, "--json", *extra)
        self.assertEqual(rc, 0, err)
        return json.loads(out)

    # -- the blob, end to end -------------------------------------------------
    def test_blob_is_delivered_listed_and_validates(self):
        with ChdEnv() as env:
            env.post_event("CHD Tracked Parameter Event", "Dropped Key")
            env.post_event("CHD Tracked Parameter Event", "Dropped Key")
            watcher = env.watch()
            rc, out, err = chd_cp("blob", "127.0.0.1", "--json")
            self.assertEqual(rc, 0, err)
            blob = json.loads(out)
            with open(SCHEMA_FILE) as f:
                jsonschema.validate(blob, json.load(f))
            body = next(iter(blob.values()))
            self.assertEqual([entry[0] for entry in body["C-ClientParameters"]["DroppedKeys"]], [1, 2])

            # The file is the blob the daemon posted, its path the status and a LogURIs entry.
            path = os.path.join(env.log_path, BLOB_FILE_NAME)
            posted = watcher.wait_event("Write CHD Blob Event")
            with open(path) as f:
                self.assertEqual(f.read(), posted)
            self.assertEqual(json.loads(posted), blob)
            self.assertEqual(env.get_status("CHD Blob Uris"), path)
            self.assertIn(path, self.info()["logUris"])
            self.assertEqual(self.info()["logUris"][:2], [SYSLOG_URI, path])

            # The summary shows the histories with their entries.
            rc, out, err = chd_cp("blob", "127.0.0.1")
            self.assertEqual(rc, 0, err)
            self.assertIn("Blob: " + path, out)
            self.assertRegex(out, r"Diagnostics blob generated \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d \(UTC\)")
            self.assertIn("  C-ClientParameters\n", out)
            self.assertIn("    DroppedKeys: 0 entries\n", out)  # the first blob reset the histories
            self.assertIn("    Reporting_Interval: 900\n", out)
            self.assertIn("    connection_duration: 0 s\n", out)
            self.assertIn("      DolbyDigital: no\n", out)


    def test_blob_summary_lists_history_entries(self):
        with ChdEnv() as env:
            env.post_event("CHD Tracked Parameter Event", "Dropped Key")
            rc, out, err = chd_cp("blob", "127.0.0.1")
            self.assertEqual(rc, 0, err)
            self.assertRegex(out, r"\n    DroppedKeys: 1 entry\n      1  \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\n")

    def test_blob_without_delivery_is_an_error(self):
        with ChdEnv(client_app=False):
            rc, out, err = chd_cp("blob", "127.0.0.1", "--timeout", "3")
            self.assertEqual(rc, 1, err)
            self.assertEqual(out, "")
            one_error_line(self, err)
            self.assertIn("no ChdBlobUpdated event", err)

    # -- discovery and BOX -----------------------------------------------------
    def test_discover_lists_both_boxes_and_box_selects_one(self):
        second = {"manufacturer": "Acme", "model": "B2", "manufacturer_id": "0042"}
        with ChdEnv() as first_env, SecondBoxEnv(platform=second) as second_env:
            rc, out, err = chd_cp("discover", "--wait", "3", "--json", "--interface", "lo")
            self.assertEqual(rc, 0, err)
            boxes = {box["clientId"]: box for box in json.loads(out)}
            self.assertEqual(sorted(boxes), ["VESPARO B2-0042", "VESPARO HOST-0000"])
            one, two = boxes["VESPARO HOST-0000"], boxes["VESPARO B2-0042"]
            self.assertNotEqual(one["udn"], two["udn"])
            self.assertEqual(two["friendlyName"], "Acme RVU Client ManageableDevice")
            self.assertEqual(two["manufacturer"], "Acme")
            self.assertEqual(two["model"], "B2")
            self.assertRegex(two["descriptionUrl"], r"^http://127\.0\.0\.1:\d+/")

            rc, out, err = chd_cp("discover", "--wait", "3")
            self.assertEqual(rc, 0, err)
            self.assertIn(two["udn"] + "\n  friendly name: Acme RVU Client ManageableDevice\n", out)
            self.assertIn("  client id:     VESPARO HOST-0000\n", out)

            # Each name picks its box: the second box's store tells which one answered.
            second_env.set_status("Language", "Language.French")
            first_env.set_status("Language", "Language.English")
            for name in (two["udn"], two["udn"][len("uuid:"):], two["friendlyName"], two["clientId"]):
                self.assertEqual(self.info(name)["udn"], two["udn"])
                rc, out, err = chd_cp("get", name, "/vsp/Preferences/LANGUAGE")
                self.assertEqual((rc, out), (0, "/vsp/Preferences/LANGUAGE = French\n"), err)
            rc, out, err = chd_cp("get", one["clientId"], "/vsp/Preferences/LANGUAGE")
            self.assertEqual((rc, out), (0, "/vsp/Preferences/LANGUAGE = English\n"), err)

            # Both answer on 127.0.0.1: the address alone is ambiguous.
            rc, out, err = chd_cp("info", "127.0.0.1")
            self.assertEqual(rc, 2)
            one_error_line(self, err)
            self.assertIn("names 2 boxes", err)
            self.assertIn(one["udn"], err)

    def test_box_not_found_and_box_gone(self):
        with ChdEnv() as env:
            udn = self.info()["udn"]
            rc, out, err = chd_cp("get", "no-such-box", "--timeout", "2")
            self.assertEqual((rc, out), (3, ""))
            self.assertEqual(err, "chd-cp: no box named 'no-such-box' answered within 2 s\n")

            watch = LineReader(["watch", udn, "--timeout", "10"])
            watch.wait_for(lambda line: " ConfigurationManagement " in line, 20, "the initial events")
            env.stop_chd()
            rc, err = watch.finish(30)
            self.assertEqual(rc, 3, err)
            one_error_line(self, err)
            self.assertIn("box %s went away" % udn, err)

            rc, out, err = chd_cp("get", udn, "--timeout", "2")
            self.assertEqual((rc, out), (3, ""))
            self.assertEqual(err, "chd-cp: no box named '%s' answered within 2 s\n" % udn)
            rc, out, err = chd_cp("discover", "--wait", "1")
            self.assertEqual((rc, out), (3, ""))
            self.assertEqual(err, "chd-cp: no ManageableDevice answered within 1 s\n")

    # -- usage -----------------------------------------------------------------
    def test_bad_usage_exits_2_with_one_line(self):
        cases = [
            ([], "no command given"),
            (["frobnicate"], "unknown command 'frobnicate'"),
            (["get"], "get needs a BOX"),
            (["attrs", "box"], "attrs needs a PATH"),
            (["set", "box"], "set needs PATH=VALUE"),
            (["get", "box", "--depth", "2"], "--depth does not apply to get"),
            (["discover", "extra"], "discover takes no argument"),
            (["watch", "box", "--for", "0"], "--for take"),
            (["get", "box", "--timeout", "-1"], "--timeout"),
            (["info", "box", "extra"], "info takes no argument after BOX"),
            (["get", "--bogus"], "Unknown option --bogus"),
            (["discover", "--interface", "no-such-if0", "--wait", "0"], "cannot use interface no-such-if0"),
        ]
        for args, text in cases:
            rc, out, err = chd_cp(*args)
            self.assertEqual(rc, 2, (args, err))
            self.assertEqual(out, "")
            one_error_line(self, err)
            self.assertIn(text, err)
        with ChdEnv():
            rc, out, err = chd_cp("set", "127.0.0.1", "novalue")
            self.assertEqual(rc, 2)
            self.assertEqual(err, "chd-cp: 'novalue' is not PATH=VALUE\n")
        rc, out, err = chd_cp("--help")
        self.assertEqual(rc, 0)
        self.assertIn("Exit status: 0 success", out)

    # -- reading -----------------------------------------------------------------
    def test_info_get_params_attrs(self):
        with ChdEnv(settings={"Audio.Dolby.DolbyDigital": "Audio.Dolby.DolbyDigital.On"}) as env:
            env.set_status("Client Connection Type", "Wireless")
            info = self.info("127.0.0.1", "--interface", "lo")
            self.assertEqual(info["clientId"], "VESPARO HOST-0000")
            self.assertEqual(info["friendlyName"], "Generic RVU Client ManageableDevice")
            self.assertEqual([s["serviceType"] for s in info["services"]],
                             ["urn:schemas-upnp-org:service:BasicManagement:1",
                              "urn:schemas-upnp-org:service:ConfigurationManagement:1"])
            self.assertRegex(info["deviceStatus"], r"^OK,\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
            self.assertEqual(info["logUris"][0], SYSLOG_URI)
            self.assertEqual(info["logUris"][1], env.log_path + "/messages")
            self.assertEqual(info["configurationVersion"], "0")
            self.assertEqual(info["configurationUpdate"], "0,0001-01-01T00:00:00Z,,")
            self.assertEqual(info["dataModels"],
                             [{"uri": "urn:schemas-upnp-org:device:ManageableDevice:1", "location": "/vsp/"}])
            rc, out, err = chd_cp("info", "127.0.0.1")
            self.assertEqual(rc, 0, err)
            self.assertIn("deviceStatus: OK,", out)
            self.assertIn("\nlogUris:\n  " + SYSLOG_URI + "\n", out)

            # The whole tree: every parameter that GetSupportedParameters lists, in its order.
            rc, out, err = chd_cp("params", "127.0.0.1", "--json")
            self.assertEqual(rc, 0, err)
            every_path = json.loads(out)
            self.assertGreater(len(every_path), 80)
            rc, out, err = chd_cp("get", "127.0.0.1", "--json")
            self.assertEqual(rc, 0, err)
            values = json.loads(out)
            self.assertEqual([v["path"] for v in values], every_path)
            by_path = {v["path"]: v["value"] for v in values}
            self.assertEqual(by_path["/vsp/Audio/DOLBYDIGITAL"], "On")
            rc, out, err = chd_cp("get", "127.0.0.1", "/vsp/Audio/DOLBYDIGITAL", "/vsp/HDTV/TV_RESOLUTION/")
            self.assertEqual(rc, 0, err)
            lines = out.splitlines()
            self.assertEqual(lines[0], "/vsp/Audio/DOLBYDIGITAL = On")
            self.assertEqual(len(lines), 8)
            self.assertTrue(all(" = " in line for line in lines))

            rc, out, err = chd_cp("params", "127.0.0.1", "/vsp/", "--depth", "1")
            self.assertEqual(rc, 0, err)
            self.assertEqual(out.splitlines()[:4], ["/vsp/Audio/", "/vsp/PowerSaving/", "/vsp/HDTV/", "/vsp/CHD/"])
            self.assertEqual(len(out.splitlines()), 18)
            rc, out, err = chd_cp("params", "127.0.0.1", "/vsp/RCS/", "--depth", "1")
            self.assertIn("/vsp/RCS/TV/\n/vsp/RCS/AV1/\n/vsp/RCS/AV2/\n", out)

            rc, out, err = chd_cp("attrs", "127.0.0.1", "/vsp/HDTV/NATIVE", "/vsp/CC/CAPTIONING")
            self.assertEqual(rc, 0, err)
            self.assertEqual(out, "/vsp/HDTV/NATIVE  string(32)  readOnly  eventOnChange=0\n"
                                  "/vsp/CC/CAPTIONING  string(32)  readOnly  eventOnChange=0\n")
            rc, out, err = chd_cp("attrs", "127.0.0.1", "/vsp/HDTV/NATIVE", "--json")
            self.assertEqual(json.loads(out), [{"path": "/vsp/HDTV/NATIVE", "type": "string(32)",
                                                "access": "readOnly", "eventOnChange": "0"}])

            # Errors of the box: exit 1 with its code and description.
            rc, out, err = chd_cp("attrs", "127.0.0.1", "/vsp/")
            self.assertEqual((rc, out, err), (1, "", "chd-cp: GetAttributes failed: UPnP error 703: No Such Name\n"))
            rc, out, err = chd_cp("get", "127.0.0.1", "/vsp/NoSuchNode/")
            self.assertEqual((rc, out, err), (1, "", "chd-cp: GetValues failed: UPnP error 703: No Such Name\n"))
            rc, out, err = chd_cp("params", "127.0.0.1", "/vsp/CC")
            self.assertEqual(rc, 1)
            self.assertEqual(err, "chd-cp: GetSupportedParameters failed: UPnP error 703: No Such Name\n")

    # -- writing -----------------------------------------------------------------
    def test_set_and_its_errors(self):
        with ChdEnv() as env:
            rc, out, err = chd_cp("set", "127.0.0.1", "/vsp/HDTV/NATIVE=On", "/vsp/HDTV/BAR_COLOR=Gray")
            self.assertEqual((rc, out), (0, "ChangesApplied\n"), err)
            rc, out, err = chd_cp("get", "127.0.0.1", "/vsp/HDTV/NATIVE", "/vsp/HDTV/BAR_COLOR")
            self.assertEqual(out, "/vsp/HDTV/NATIVE = On\n/vsp/HDTV/BAR_COLOR = Gray\n")
            self.assertEqual(env.get_status("HDTV.Video.BarColor"), "HDTV.Video.BarColor.Gray")
            rc, out, err = chd_cp("set", "127.0.0.1", "/vsp/HDTV/NATIVE=Off", "--json")
            self.assertEqual((rc, json.loads(out)), (0, {"status": "ChangesApplied"}), err)

            cases = [
                (["/vsp/HDTV/NATIVE=Sideways"], "UPnP error 705: Invalid Value"),
                (["/vsp/HDTV/HDMI_CONNECTED=True"], "UPnP error 703: No Such Name"),
                (["/vsp/HDTV/NATIVE="], "UPnP error 704: Invalid Value Type"),
            ]
            for pairs, text in cases:
                rc, out, err = chd_cp("set", "127.0.0.1", *pairs)
                self.assertEqual((rc, out, err), (1, "", "chd-cp: SetValues failed: %s\n" % text))

            env.stop_client_app()
            env.client_app_args = ["--error", "Resolution not supported by the TV"]
            env.start_client_app()
            rc, out, err = chd_cp("set", "127.0.0.1", "/vsp/HDTV/NATIVE=On")
            self.assertEqual((rc, out), (1, ""))
            self.assertEqual(err, "chd-cp: SetValues failed: UPnP error 802: Resolution not supported by the TV\n")

            env.stop_client_app()
            env.client_app_args = ["--silent"]
            env.start_client_app()
            rc, out, err = chd_cp("set", "127.0.0.1", "/vsp/HDTV/NATIVE=Off", "--timeout", "20")
            self.assertEqual((rc, out), (1, ""))
            self.assertEqual(err, "chd-cp: SetValues failed: UPnP error 801: Settings Refresh Timed Out\n")

            # An answer that takes longer than --timeout: the box did not answer.
            rc, out, err = chd_cp("set", "127.0.0.1", "/vsp/HDTV/NATIVE=On", "--timeout", "2")
            self.assertEqual((rc, out), (3, ""))
            self.assertEqual(err, "chd-cp: SetValues: the box did not answer within 2 s\n")

    # -- events ------------------------------------------------------------------
    def test_watch_sees_initial_events_log_uris_and_blob_pulse(self):
        with ChdEnv() as env:
            watch = LineReader(["watch", "127.0.0.1", "--for", "60"])
            initial = watch.wait_for(lambda line: " ConfigurationManagement ConfigurationUpdate = " in line, 20,
                                     "the initial event of ConfigurationManagement")
            self.assertRegex(initial[0], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} ConfigurationManagement ")
            self.assertIn("BasicManagement LogURIs = %s," % SYSLOG_URI, "\n".join(watch.lines))
            self.assertIn("BasicManagement ChdBlobUpdated = false", "\n".join(watch.lines))

            rc, out, err = chd_cp("blob", "127.0.0.1")
            self.assertEqual(rc, 0, err)
            path = os.path.join(env.log_path, BLOB_FILE_NAME)
            watch.wait_for(lambda line: line.endswith("BasicManagement LogURIs = %s,%s" % (SYSLOG_URI, path)), 10,
                           "the new LogURIs")
            watch.wait_for(lambda line: line.endswith("ChdBlobUpdated = true"), 10, "ChdBlobUpdated true")
            pulse = [line.split(" = ")[1] for line in watch.lines if " ChdBlobUpdated = " in line]
            deadline = time.monotonic() + 10
            while pulse[-1] != "false" and time.monotonic() < deadline:
                time.sleep(0.1)
                pulse = [line.split(" = ")[1] for line in watch.lines if " ChdBlobUpdated = " in line]
            self.assertEqual(pulse, ["false", "true", "false"])

            # A data-model change reaches the evented SupportedParametersUpdate within its 3000 ms cycle.
            env.set_status("Language", "Language.French")
            watch.wait_for(lambda line: " SupportedParametersUpdate = 1," in line, 10, "SupportedParametersUpdate")

            watch.proc.send_signal(signal.SIGINT)
            rc, err = watch.finish()
            self.assertEqual((rc, err), (0, ""))

            watch = LineReader(["watch", "127.0.0.1", "--for", "4", "--json"])
            rc, err = watch.finish(30)
            self.assertEqual(rc, 0, err)
            events = [json.loads(line) for line in watch.lines]
            self.assertIn({"service": "BasicManagement", "variable": "ChdBlobUpdated", "value": "false"},
                          [{k: e[k] for k in ("service", "variable", "value")} for e in events])
            self.assertEqual({e["service"] for e in events}, {"BasicManagement", "ConfigurationManagement"})

    # -- logs --------------------------------------------------------------------
    def test_logs_download_byte_for_byte(self):
        with ChdEnv() as env:
            messages = os.path.join(env.log_path, "messages")
            digest = hashlib.sha256()
            with open(messages, "wb") as f:
                for _ in range(BIG_LOG_BYTES // (1 << 20)):
                    block = os.urandom(1 << 20)
                    digest.update(block)
                    f.write(block)
            out_dir = os.path.join(env.tmp, "downloads")
            # Writing the 200 MB file loads the machine: the box gets longer than the default to answer the search.
            rc, out, err = chd_cp("logs", "127.0.0.1", "messages", "-o", out_dir, "--timeout", "30", timeout=300)
            self.assertEqual(rc, 0, err)
            saved = os.path.join(out_dir, "messages")
            self.assertEqual(out, "%s -> %s (%d bytes)\n" % (messages, saved, BIG_LOG_BYTES))
            with open(saved, "rb") as f:
                self.assertEqual(hashlib.sha256(f.read()).hexdigest(), digest.hexdigest())

            # On a terminal a large file shows its progress (on stderr), up to 100 %.
            tty = subprocess.run(["script", "-qec", "%s logs 127.0.0.1 messages -o %s --timeout 30" % (binary("chd-cp"), out_dir),
                                  "/dev/null"], capture_output=True, text=True, timeout=300, check=False)
            self.assertEqual(tty.returncode, 0, tty.stdout)
            self.assertIn("messages: 100% 200.0/200.0 MiB", tty.stdout)
            with open(saved, "rb") as f:
                self.assertEqual(hashlib.sha256(f.read()).hexdigest(), digest.hexdigest())

            # All files the box lists as paths; the refreshed ones are generated on request.
            every_dir = os.path.join(env.tmp, "every")
            rc, out, err = chd_cp("logs", "127.0.0.1", "-o", every_dir, "--json", timeout=300)
            self.assertEqual(rc, 0, err)
            got = json.loads(out)
            names = ["messages", "procEntriesStatus.log", "processList.log", "fdStatus.log", "netstat.log"]
            self.assertEqual([os.path.basename(item["file"]) for item in got], names)
            for item in got:
                self.assertEqual(os.path.getsize(item["file"]), item["bytes"])
                with open(os.path.join(env.log_path, os.path.basename(item["file"])), "rb") as original:
                    with open(item["file"], "rb") as copy:
                        self.assertEqual(copy.read(), original.read())

            rc, out, err = chd_cp("logs", "127.0.0.1", "no-such.log")
            self.assertEqual((rc, out), (1, ""))
            self.assertEqual(err, "chd-cp: the box lists no log named 'no-such.log'\n")
            os.remove(messages)
            rc, out, err = chd_cp("logs", "127.0.0.1", "messages", "-o", out_dir)
            self.assertEqual((rc, out), (1, ""))
            one_error_line(self, err)
            self.assertIn("the box answered 404 Not Found for http://127.0.0.1:", err)


    # -- the guide's examples ------------------------------------------------------
    def test_server_guide_examples_run_as_shown(self):
        with open(GUIDE_FILE) as f:
            examples = guide_examples(f.read())
        self.assertGreater(len(examples), 30)
        env_vars = dict(os.environ, BOX="127.0.0.1",
                        PATH=os.path.dirname(binary("chd-cp")) + os.pathsep + os.environ["PATH"])
        with ChdEnv():
            for command, expected in examples:
                if not expected and (command.startswith("export ") or "() {" in command):
                    # What the command exports (functions included) is there for the following ones.
                    done = subprocess.run(["bash", "-c", command + "\nenv -0"], capture_output=True, env=env_vars,
                                          timeout=120, check=True)
                    env_vars = dict(item.decode().split("=", 1) for item in done.stdout.split(b"\0") if item)
                    continue
                done = subprocess.run(["bash", "-c", command], stdout=subprocess.PIPE,
                                      stderr=subprocess.STDOUT, text=True, env=env_vars, timeout=120, check=False)
                output = done.stdout if done.stdout.endswith("\n") or not done.stdout else done.stdout + "\n"
                self.assertRegex(output, "^" + output_pattern(expected) + "$",
                                 "the guide's example\n$ %s\nprinted\n%s" % (command, output))


if __name__ == "__main__":
    main()
