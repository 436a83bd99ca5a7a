"""With no port configured, the stack's HTTP port is one the kernel gives
free for TCP. GUPnP would otherwise listen on the number GSSDP drew for its
UDP search socket, which any client connection may hold for TCP: the stack
then never came up on that interface. The test narrows this namespace's
ephemeral range to ten ports and holds eight of them for TCP."""

import socket
import unittest
import urllib.parse

from chdtest import ChdEnv, ControlPoint, main

RANGE = "/proc/sys/net/ipv4/ip_local_port_range"
FIRST, LAST = 40000, 40009
HELD = range(FIRST, LAST - 1)  # 40008 and 40009 stay free


class StackPortTest(unittest.TestCase):
    def setUp(self):
        with open(RANGE) as f:
            self.saved_range = f.read().strip()
        self.held = []

    def tearDown(self):
        for held in self.held:
            held.close()
        with open(RANGE, "w") as f:
            f.write(self.saved_range)

    def hold_tcp_ports(self):
        for port in HELD:
            listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            listener.bind(("127.0.0.1", port))
            listener.listen(1)
            self.held.append(listener)

    def test_the_stack_comes_up_when_most_ephemeral_tcp_ports_are_taken(self):
        self.hold_tcp_ports()
        with open(RANGE, "w") as f:
            f.write("%d %d" % (FIRST, LAST))
        with ChdEnv(client_app=False) as env:
            env.wait_log("UPnP stack on [lo]", timeout=15)
            # The test's own clients need ephemeral ports again.
            with open(RANGE, "w") as f:
                f.write(self.saved_range)
            with open(env.chd_log_file) as f:
                given_up = [line for line in f if "No UPnP stack on [lo]" in line
                            and not line.rstrip().endswith("trying another port")]
            self.assertEqual(given_up, [])
            device = ControlPoint().find_device(timeout=15)
            port = urllib.parse.urlparse(device.get_location()).port
            self.assertIn(port, (LAST - 1, LAST))


if __name__ == "__main__":
    main()
