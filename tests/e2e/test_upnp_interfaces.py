"""The device on the interfaces the platform names, and only there: two
listed interfaces and an unlisted third, all veth pairs this test makes in
its own network namespace; the listed one goes down and comes back."""

import os
import subprocess
import unittest

from chdtest import DEVICE_TYPE, ChdEnv, curl, main
from test_upnp_device import Browser

ETHERNET = ("chdeth0", "10.61.0.1", 24)
AUTO_IP = ("chdaip0", "169.254.61.1", 16)
UNLISTED = ("chdoth0", "10.63.0.1", 24)


def run(command):
    subprocess.run(command, shell=True, check=True)


def in_private_network_namespace():
    """run_in_netns.sh starts the test in a namespace of its own; its parent stays outside."""
    own = os.stat("/proc/self/ns/net").st_ino
    parent = os.stat("/proc/%d/ns/net" % os.getppid()).st_ino
    return own != parent


def add_interface(name, address, prefix):
    peer = name + "p"
    peer_address = address.rsplit(".", 1)[0] + ".254"
    run("ip link add %s type veth peer name %s" % (name, peer))
    run("ip addr add %s/%d dev %s && ip addr add %s/%d dev %s" % (address, prefix, name, peer_address, prefix, peer))
    run("ip link set %s up && ip link set %s up" % (peer, name))


def hex_address(address):
    """An IPv4 address as /proc/net/tcp prints it on this (little-endian) machine."""
    return "".join("%02X" % int(part) for part in reversed(address.split(".")))


def socket_inodes(pid):
    inodes = set()
    for fd in os.listdir("/proc/%d/fd" % pid):
        try:
            target = os.readlink("/proc/%d/fd/%s" % (pid, fd))
        except OSError:
            continue
        if target.startswith("socket:["):
            inodes.add(target[len("socket:["):-1])
    return inodes


def local_endpoints(table, pid):
    """(address, port) in hex of the process's sockets in /proc/net/<table>."""
    inodes = socket_inodes(pid)
    with open("/proc/net/" + table) as f:
        rows = [line.split() for line in f.readlines()[1:]]
    return {tuple(row[1].split(":")) for row in rows if row[9] in inodes}


def local_addresses(table, pid):
    return {address for address, _port in local_endpoints(table, pid)}


class InterfacesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not in_private_network_namespace():
            raise AssertionError("run through tests/e2e/run_in_netns.sh: this test makes network interfaces")
        for name, address, prefix in (ETHERNET, AUTO_IP, UNLISTED):
            add_interface(name, address, prefix)

    @classmethod
    def tearDownClass(cls):
        if in_private_network_namespace():
            for name, _address, _prefix in (ETHERNET, AUTO_IP, UNLISTED):
                subprocess.run(["ip", "link", "del", name], check=False)

    def platform(self):
        return {"ethernet_interface": ETHERNET[0], "autoip_interface": AUTO_IP[0]}

    def test_announced_on_both_listed_interfaces(self):
        with ChdEnv(platform=self.platform(), client_app=False):
            for name, address, _prefix in (ETHERNET, AUTO_IP):
                _usn, locations = Browser(name, DEVICE_TYPE).wait_for_device()
                self.assertTrue(locations[0].startswith("http://%s:" % address), locations)
                status, _head, _body = curl(locations[0])
                self.assertEqual(status, 200, locations[0])

    def test_nothing_on_the_unlisted_interface(self):
        with ChdEnv(platform=self.platform(), client_app=False) as env:
            _usn, locations = Browser(ETHERNET[0], DEVICE_TYPE).wait_for_device()
            port = locations[0].split("//", 1)[1].split("/", 1)[0].rsplit(":", 1)[1]
            unlisted = Browser(UNLISTED[0], DEVICE_TYPE)
            with self.assertRaises(AssertionError):
                unlisted.wait_for_device(timeout=3)
            for table in ("tcp", "udp"):
                local = local_addresses(table, env.chd.pid)
                self.assertIn(hex_address(ETHERNET[1]), local, table)
                self.assertNotIn(hex_address(UNLISTED[1]), local, table)
            # The basic management service's own port-80 listener takes the any-address by design.
            wildcard = {port for address, port in local_endpoints("tcp", env.chd.pid) if address == "00000000"}
            self.assertLessEqual(wildcard, {"0050"}, "a stack listener on every interface")
            status, _head, _body = curl("http://%s:%s/" % (UNLISTED[1], port), ["--max-time", "3"])
            self.assertEqual(status, 0, "something answers on the unlisted interface")
            self.assertNotIn("[%s]" % UNLISTED[0], env.chd_log())

    def test_back_after_the_interface_went_down_and_up(self):
        name, address, _prefix = ETHERNET
        with ChdEnv(platform=self.platform(), client_app=False) as env:
            Browser(name, DEVICE_TYPE).wait_for_device()
            run("ip link set %s down" % name)
            env.wait_log("UPnP stack on [%s] stopped" % name)
            start = len(env.chd_log())
            run("ip link set %s up" % name)
            env.wait_log("UPnP stack on [%s] [%s]" % (name, address), start=start)
            _usn, locations = Browser(name, DEVICE_TYPE).wait_for_device()
            self.assertTrue(locations[0].startswith("http://%s:" % address), locations)
            status, _head, _body = curl(locations[0])
            self.assertEqual(status, 200)


if __name__ == "__main__":
    main()
