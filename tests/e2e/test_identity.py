"""The device's UDN: one per box, the same after a restart.

Boxes made from one image share their host name; what tells them apart is the
machine id (or, without one, the first MAC address). Each box here gets its
machine id from a file named by machine_id_file in its platform settings."""

import subprocess
import unittest

from chdtest import ChdEnv, binary, main
from wireload import DEVICE_NS, Box, platform_with_port


def published_udn(env):
    """The UDN in the description that the running chd serves."""
    box = Box(env)
    description = box._description(15)  # pylint: disable=protected-access
    return description.find("d:device/d:UDN", DEVICE_NS).text


class BoxEnv(ChdEnv):
    """A box whose machine id file holds the given id."""

    def __init__(self, machine_id, **kwargs):
        super().__init__(platform=platform_with_port(), client_app=False, **kwargs)
        self.machine_id = machine_id

    def write_config(self):
        self.use_machine_id(self.machine_id)
        super().write_config()


class RenamedBoxEnv(BoxEnv):
    """A box whose chd runs under another host name."""

    def start_chd(self, wait=True):
        with open(self.chd_log_file, "ab") as log:
            self.chd = subprocess.Popen(
                ["unshare", "--uts", "--", "/bin/sh", "-c", 'hostname "$0" && exec "$1"', "renamed-box",
                 binary("chd")], env=self.env(), stdout=subprocess.DEVNULL, stderr=log)
        if wait:
            self.wait_log("Starting CHD Control", timeout=10)


MACHINE_A = "0f3c9b1e6a2d4e7f8a9b0c1d2e3f4a5b"
MACHINE_B = "9e8d7c6b5a4f4e3d2c1b0a9f8e7d6c5b"


class IdentityTest(unittest.TestCase):
    def test_different_machine_ids_publish_different_udns(self):
        with BoxEnv(MACHINE_A) as env:
            udn_a = published_udn(env)
        with BoxEnv(MACHINE_B) as env:
            udn_b = published_udn(env)
        self.assertRegex(udn_a, r"^uuid:[0-9a-f]{8}-[0-9a-f]{4}-5[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$")
        self.assertRegex(udn_b, r"^uuid:")
        self.assertNotEqual(udn_a, udn_b)

    def test_same_machine_id_gives_the_same_udn_across_a_restart(self):
        with BoxEnv(MACHINE_A) as env:
            first = published_udn(env)
            self.assertEqual(env.restart_chd(), 1)
            self.assertEqual(published_udn(env), first)
        with BoxEnv(MACHINE_A) as env:
            self.assertEqual(published_udn(env), first, "a new run with the same machine id")

    def test_host_name_does_not_change_the_udn(self):
        with BoxEnv(MACHINE_B) as env:
            udn = published_udn(env)
        with RenamedBoxEnv(MACHINE_B) as env:
            self.assertEqual(published_udn(env), udn)


if __name__ == "__main__":
    main()
