"""BasicManagement end to end: the actions and events seen by a GUPnP control
point, and the log files fetched with curl on the stack's HTTP port and on
port 80.

The daemon reads /tmp/syslogUrisPath.txt and runs its collection scripts from
/etc/utils. So that neither touches the host, this file re-runs itself in a
private mount namespace where /tmp and /etc are overlaid by scratch layers (so
what the test writes stays private while the checkout and build remain
visible, wherever they are), /etc/utils holding this tree's collection scripts.
"""

import hashlib
import os
import socket
import subprocess
import time
import unittest

from privatemounts import COLLECTION_SCRIPTS, SYSLOG_URI_FILE, rerun_with_private_mounts

if __name__ == "__main__":
    rerun_with_private_mounts(__file__, scripts_dir=COLLECTION_SCRIPTS)

from chdtest import ChdEnv, ControlPoint, Subscription, http_port_of, main  # noqa: E402

SYSLOG_URIS = "http://127.0.0.1/syslog/a.log,http://127.0.0.1/syslog/b.log"
REFRESHED = ["procEntriesStatus.log", "processList.log", "fdStatus.log", "netstat.log"]
SECRET = b"SECRET-BYTES-FROM-OUTSIDE-THE-LOG-DIRECTORY"


def fetch(port, path, timeout=120, sink=None):
    """GET with curl (path sent as is): (status, head lines, body bytes or sha256 when sink is 'sha256')."""
    args = ["curl", "-s", "--max-time", str(timeout), "--path-as-is", "-D", "/dev/stderr", "-o", "-",
            "http://127.0.0.1:%d%s" % (port, path)]
    digest = hashlib.sha256()
    body = bytearray()
    length = 0
    with subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as proc:
        while True:
            block = proc.stdout.read(1 << 20)
            if not block:
                break
            length += len(block)
            if sink == "sha256":
                digest.update(block)
            else:
                body += block
        head = proc.stderr.read().decode("latin-1")
        proc.wait(timeout)
    lines = head.split("\r\n")
    status = int(lines[0].split(" ")[1]) if lines[0].startswith("HTTP/") else 0
    return status, [line for line in lines if line], (digest.hexdigest(), length) if sink == "sha256" else bytes(body)


def raw_get(port, target, timeout=10):
    """Sends exactly this request target (bytes) and returns the whole answer."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as conn:
        conn.sendall(b"GET " + target + b" HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n")
        answer = b""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            block = conn.recv(65536)
            if not block:
                break
            answer += block
    return answer


def expected_head(length, server):
    return ["HTTP/1.1 200 OK", "Connection: close", 'Content-Type: text/plain; charset="utf-8"', "Server: " + server,
            "Cache-control: no-cache", "Content-Length: %d" % length]


class BasicManagementTest(unittest.TestCase):
    def setUp(self):
        with open(SYSLOG_URI_FILE, "w") as f:
            f.write(SYSLOG_URIS + "\n")

    def start(self, env):
        self.cp = ControlPoint()
        self.device = self.cp.find_device()
        self.port = http_port_of(self.device)
        self.log_path = env.log_path
        self.assertNotEqual(self.port, 80)

    def call(self, action, output):
        return self.cp.call(self.device, "BasicManagement", action, [], [output])[output]

    def server_string(self):
        """The stack's Server header, as a log file answer carries it."""
        with open(os.path.join(self.log_path, "server-probe.log"), "wb") as f:
            f.write(b"probe")
        status, head, _ = fetch(self.port, self.log_path + "/server-probe.log")
        self.assertEqual(status, 200)
        return head[3][len("Server: "):]

    def file_list(self, wifi):
        files = ["messages"] + (["wifichip.tar"] if wifi else []) + \
            ["procEntriesStatus.log", "processList.log", "fdStatus.log", "netstat.log"]
        return ",".join(self.log_path + "/" + name for name in files)

    def test_actions_answer_status_and_log_uris(self):
        with ChdEnv(platform={"wifi": "true"}, client_app=False) as env:
            self.start(env)
            self.assertEqual(self.call("GetLogURIs", "LogURIs"), SYSLOG_URIS + ",," + self.file_list(True))
            status = self.call("GetDeviceStatus", "DeviceStatus")
            self.assertRegex(status, r"^OK,\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
            time.sleep(1.1)
            self.assertEqual(self.call("GetDeviceStatus", "DeviceStatus"), status)

    def test_uri_file_without_line_end_and_edid_dumping(self):
        with open(SYSLOG_URI_FILE, "w") as f:
            f.write(SYSLOG_URIS)
        with ChdEnv(platform={"dump_eedid": "true"}, client_app=False) as env:
            self.start(env)
            self.assertEqual(self.call("GetLogURIs", "LogURIs"), ",,," + self.file_list(False))
            env.set_status("EEDID Dump File Path", "/var/log/edid.bin")
            env.wait_log("EDID dump file path updated to [/var/log/edid.bin]")
            self.assertEqual(self.call("GetLogURIs", "LogURIs"), ",,/var/log/edid.bin," + self.file_list(False))

    def test_events_for_uris_and_blob_updates(self):
        with ChdEnv(client_app=False) as env:
            self.start(env)
            events = self.cp.subscribe(self.device, "BasicManagement", ["LogURIs", "ChdBlobUpdated"])
            self.assertEqual(events.wait_initial("LogURIs"), [SYSLOG_URIS + ","])
            self.assertEqual(events.wait_count("ChdBlobUpdated", 1), ["false"])

            env.set_status("CHD Blob Uris", "http://127.0.0.1/chd/blob.json")
            self.assertEqual(events.wait_count("LogURIs", 2)[1], SYSLOG_URIS + ",http://127.0.0.1/chd/blob.json")
            env.set_status("CHD Blob Uris", "http://127.0.0.1/chd/blob.json")
            env.wait_log("LogURIs [%s,http://127.0.0.1/chd/blob.json] have not changed" % SYSLOG_URIS)
            Subscription.settle(2)
            self.assertEqual(len(events.values["LogURIs"]), 2, events.values["LogURIs"])

            with open(SYSLOG_URI_FILE, "w") as f:
                f.write("http://127.0.0.1/syslog/new.log\n")
            env.post_event("Syslog Uris Updated Event")
            self.assertEqual(events.wait_count("LogURIs", 3)[2],
                             "http://127.0.0.1/syslog/new.log,http://127.0.0.1/chd/blob.json")

            env.post_event("CHD Blob Updated Event")
            self.assertEqual(events.wait_count("ChdBlobUpdated", 3), ["false", "true", "false"])
            Subscription.settle(1)
            self.assertEqual(len(events.values["LogURIs"]), 3, "the pulse carries only the flag")
            self.assertEqual(len(events.values["ChdBlobUpdated"]), 3)

    def test_log_files_on_both_ports_with_exact_heads(self):
        with ChdEnv(platform={"wifi": "true"}, client_app=False) as env:
            self.start(env)
            with open(os.path.join(self.log_path, "messages"), "wb") as f:
                f.write(b"Nov 21 06:00:00 box chd: hello\n")
            server = self.server_string()
            self.assertTrue(server)
            for port in (self.port, 80):
                for name in ["messages", "wifichip.tar"] + REFRESHED:
                    path = self.log_path + "/" + name
                    status, head, body = fetch(port, path)
                    with open(path, "rb") as f:
                        on_disk = f.read()
                    self.assertEqual(status, 200, (port, name))
                    self.assertEqual(head, expected_head(len(on_disk), server), (port, name))
                    self.assertEqual(body, on_disk, (port, name))
                    self.assertTrue(body, (port, name))
            # What the collection scripts left there is real, fresh content.
            self.assertIn(b"==== /proc/meminfo", fetch(80, self.log_path + "/procEntriesStatus.log")[2])
            self.assertIn(b"==== pid %d (" % env.chd.pid, fetch(80, self.log_path + "/fdStatus.log")[2])
            tar = subprocess.run(["tar", "-tf", os.path.join(self.log_path, "wifichip.tar")], check=False)
            self.assertEqual(tar.returncode, 0)

    def test_big_file_byte_for_byte_chunked_and_whole(self):
        size = 200 * 1000 * 1000 + 17
        for chunking in ("true", "false"):
            with ChdEnv(platform={"log_chunking": chunking}, client_app=False) as env:
                self.start(env)
                path = os.path.join(self.log_path, "big.log")
                digest = hashlib.sha256()
                block = os.urandom(1 << 20)
                with open(path, "wb") as f:
                    written = 0
                    while written < size:
                        piece = block[: min(len(block), size - written)]
                        # Each MiB differs, so a repeated or skipped chunk changes the digest.
                        piece = written.to_bytes(8, "little") + piece[8:] if len(piece) >= 8 else piece
                        f.write(piece)
                        digest.update(piece)
                        written += len(piece)
                server = self.server_string()
                for port in (self.port, 80):
                    status, head, (sha, length) = fetch(port, path, sink="sha256")
                    self.assertEqual(status, 200, (chunking, port))
                    self.assertEqual(head, expected_head(size, server), (chunking, port))
                    self.assertEqual(length, size, (chunking, port))
                    self.assertEqual(sha, digest.hexdigest(), (chunking, port))
                os.unlink(path)

    def test_not_found_cases(self):
        with ChdEnv(client_app=False) as env:
            self.start(env)
            for port in (self.port, 80):
                for path in [self.log_path + "/no-such.log", self.log_path[:-1], self.log_path + "/",
                             self.log_path]:
                    status, head, body = fetch(port, path)
                    self.assertEqual(status, 404, (port, path))
                    self.assertEqual(body, b"", (port, path))
            # Port 80 answers the provider's own bare 404 head.
            self.assertEqual(raw_get(80, (self.log_path + "/no-such.log").encode()), b"HTTP/1.1 404 Not Found\r\n\r\n")
            env.wait_log("Error[-3]: File[%s/no-such.log] could not be sent to the server, sending 404 error response"
                         % self.log_path)

    def test_traversal_attempts_refused_on_both_ports(self):
        with ChdEnv(client_app=False) as env:
            self.start(env)
            log = self.log_path
            parent, base = os.path.split(log)
            outside = os.path.join(parent, "outside")
            os.makedirs(outside, exist_ok=True)
            with open(os.path.join(outside, "secret.txt"), "wb") as f:
                f.write(SECRET)
            sibling = log + "-evil"
            os.makedirs(sibling, exist_ok=True)
            with open(os.path.join(sibling, "secret.txt"), "wb") as f:
                f.write(SECRET)
            os.makedirs(os.path.join(log, "sub"), exist_ok=True)
            os.symlink(os.path.join(outside, "secret.txt"), os.path.join(log, "link-out"))
            os.symlink(outside, os.path.join(log, "dir-out"))
            os.symlink("/", os.path.join(log, "root-out"))
            os.symlink("../../outside/secret.txt", os.path.join(log, "sub", "rel-out"))
            with open(os.path.join(log, "messages"), "wb") as f:
                f.write(b"inside")
            attempts = [
                log + "/../outside/secret.txt",
                log + "/%2e%2e/outside/secret.txt",
                log + "/%2E%2E/outside/secret.txt",
                log + "/..%2foutside%2fsecret.txt",
                log + "/%2e%2e%2foutside%2fsecret.txt",
                log + "/%252e%252e/outside/secret.txt",
                log + "/%c0%ae%c0%ae/outside/secret.txt",
                log + "/..%5coutside%5csecret.txt",
                log + "/..\\outside\\secret.txt",
                log + "//../outside/secret.txt",
                log + "/./../outside/secret.txt",
                log + "/sub/../../outside/secret.txt",
                log + "/messages%00/../../outside/secret.txt",
                log + "/link-out",
                log + "/dir-out/secret.txt",
                log + "/root-out" + outside + "/secret.txt",
                log + "/root-out/etc/passwd",
                log + "/sub/rel-out",
                sibling + "/secret.txt",
                log + "-evil/../outside/secret.txt",
                log + "/sub/../../../../../../../etc/passwd",
                outside + "/secret.txt",
                "/etc/passwd",
                log + "/..;/outside/secret.txt",
            ]
            self.assertGreaterEqual(len(attempts), 20)
            for port in (self.port, 80):
                for path in attempts:
                    status, _, body = fetch(port, path)
                    self.assertEqual(status, 404, (port, path))
                    self.assertNotIn(SECRET, body, (port, path))
                    self.assertNotIn(b"root:", body, (port, path))
                    answer = raw_get(port, path.encode("latin-1"))
                    self.assertTrue(answer.startswith(b"HTTP/1.1 404 "), (port, path, answer[:80]))
                    self.assertNotIn(SECRET, answer, (port, path))
                # The directory still serves its own files.
                self.assertEqual(fetch(port, log + "/messages")[2], b"inside")

    def test_client_leaving_mid_download_costs_only_that_request(self):
        with ChdEnv(client_app=False) as env:
            self.start(env)
            path = os.path.join(self.log_path, "big.log")
            with open(path, "wb") as f:
                f.write(os.urandom(64 << 20))
            for port in (self.port, 80):
                for _ in range(5):
                    with socket.create_connection(("127.0.0.1", port), timeout=10) as conn:
                        conn.sendall(b"GET " + path.encode() + b" HTTP/1.1\r\nHost: x\r\n\r\n")
                        conn.recv(1 << 20)
                        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
                status, _, (sha, length) = fetch(port, path, sink="sha256")
                self.assertEqual((status, length), (200, 64 << 20))
            self.assertIsNone(env.chd.poll())
            with open(path, "rb") as f:
                expected = hashlib.sha256(f.read()).hexdigest()
            self.assertEqual(fetch(80, path, sink="sha256")[2][0], expected)


if __name__ == "__main__":
    main()
