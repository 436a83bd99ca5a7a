"""The Debian package: `cpack -G DEB` of this build into a temporary directory,
its contents and control data (dpkg-deb), the extracted tree running its own
libraries, and lintian (errors fail the test, warnings are printed)."""

import glob
import os
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import unittest

BUILD_DIR = os.environ.get("CHD_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..", "build"))

EXPECTED = {
    # path: mode
    "usr/sbin/chd": 0o755,
    "usr/bin/chd-client-app": 0o755,
    "usr/bin/chd-status": 0o755,
    "usr/bin/chd-cp": 0o755,
    "usr/lib/chd/libtolvane.so": 0o644,
    "usr/lib/chd/libzunalui_settingsmanager.so": 0o644,
    "etc/utils/procEntriesStatus.sh": 0o755,
    "etc/utils/getNetstat.sh": 0o755,
    "etc/utils/fdStatus.sh": 0o755,
    "etc/utils/processList.sh": 0o755,
    "etc/utils/wifiChipLogGet.sh": 0o755,
    "etc/utils/chd_log_dir.sh": 0o644,
    "etc/chd/platform.conf": 0o644,
    "lib/systemd/system/chd.service": 0o644,
    "lib/systemd/system/chd-client-app.service": 0o644,
    "usr/share/dbus-1/system.d/org.tolvane.StatusStore1.conf": 0o644,
    "usr/share/doc/chd/copyright": 0o644,
    "usr/share/doc/chd/changelog.Debian.gz": 0o644,
    "usr/share/doc/chd/examples/settings.conf": 0o644,
    "usr/share/doc/chd/examples/statuses.conf": 0o644,
    "usr/share/doc/chd/examples/events.conf": 0o644,
}
# Libraries the programs link against, by package.
RUNTIME_DEPENDS = ["libgupnp-1.6-0", "libgssdp-1.6-0", "libsoup-3.0-0", "libglib2.0-0", "libjsoncpp25",
                   "libtinyxml2.6.2v5", "libc6", "dbus", "adduser"]


def run(args, **kwargs):
    done = subprocess.run(args, capture_output=True, text=True, timeout=kwargs.pop("timeout", 600), check=False,
                          **kwargs)
    if done.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s%s" % (" ".join(args), done.returncode, done.stdout, done.stderr))
    return done.stdout


class DebianPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for tool in ("cpack", "dpkg-deb", "dpkg-shlibdeps"):
            if shutil.which(tool) is None:
                raise unittest.SkipTest("%s is not installed" % tool)
        cls.tmp = tempfile.mkdtemp(prefix="chd-deb-")
        run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"), "-B", cls.tmp],
            cwd=BUILD_DIR)
        debs = glob.glob(os.path.join(cls.tmp, "*.deb"))
        if len(debs) != 1:
            raise AssertionError("expected one package in %s: %s" % (cls.tmp, debs))
        cls.deb = debs[0]
        cls.root = os.path.join(cls.tmp, "root")
        run(["dpkg-deb", "-x", cls.deb, cls.root])
        cls.control = os.path.join(cls.tmp, "control")
        run(["dpkg-deb", "-e", cls.deb, cls.control])

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def contents(self):
        """Path (without the leading ./) to mode, for every file in the package."""
        listing = {}
        for line in run(["dpkg-deb", "-c", self.deb]).splitlines():
            fields = line.split()
            mode, path = fields[0], fields[5]
            if mode.startswith("-"):
                bits = 0
                for i, char in enumerate(mode[1:]):
                    if char != "-":
                        bits |= 1 << (8 - i)
                listing[path[2:]] = bits
        return listing

    def field(self, name):
        return run(["dpkg-deb", "-f", self.deb, name]).strip()

    def test_package_holds_every_file_with_its_mode(self):
        listing = self.contents()
        for path, mode in EXPECTED.items():
            self.assertIn(path, listing)
            self.assertEqual(oct(listing[path]), oct(mode), path)
        # Nothing of the build tree or of a /usr/local prefix ends up in the package.
        self.assertEqual([p for p in listing if p.startswith("usr/local") or "build" in p], [])

    def test_control_names_the_package_its_version_and_runtime_dependencies(self):
        info = run(["dpkg-deb", "-I", self.deb])
        sys.stderr.write(info)
        self.assertEqual(self.field("Package"), "chd")
        self.assertRegex(self.field("Version"), r"^\d+\.\d+\.\d+-\d+$")
        depends = [d.split()[0] for d in self.field("Depends").split(", ")]
        for package in RUNTIME_DEPENDS:
            self.assertIn(package, depends)
        self.assertNotIn("tolvane", self.field("Depends"))

    def test_every_file_in_etc_is_a_conffile(self):
        with open(os.path.join(self.control, "conffiles")) as f:
            conffiles = sorted(f.read().split())
        in_etc = sorted("/" + p for p in self.contents() if p.startswith("etc/"))
        self.assertEqual(conffiles, in_etc)

    def test_maintainer_scripts_create_the_user_and_are_valid_shell(self):
        for script in ("postinst", "prerm", "postrm"):
            path = os.path.join(self.control, script)
            self.assertTrue(os.stat(path).st_mode & stat.S_IXUSR, script)
            run(["sh", "-n", path])
        with open(os.path.join(self.control, "postinst")) as f:
            postinst = f.read()
        self.assertIn("adduser --system", postinst)
        self.assertIn("/var/lib/chd/settings.conf", postinst)

    def test_extracted_programs_find_their_libraries_in_the_package(self):
        for program in ("usr/sbin/chd", "usr/bin/chd-client-app", "usr/bin/chd-status"):
            out = run(["ldd", os.path.join(self.root, program)])
            self.assertNotIn("not found", out)
            found = re.search(r"libtolvane\.so => (\S+)", out)
            self.assertTrue(found, out)
            self.assertEqual(os.path.realpath(found.group(1)),
                             os.path.realpath(os.path.join(self.root, "usr/lib/chd/libtolvane.so")))

    def test_lintian_finds_no_error(self):
        if shutil.which("lintian") is None:
            self.skipTest("lintian is not installed (scripts/setup.sh installs it)")
        done = subprocess.run(["lintian", "--allow-root", self.deb], capture_output=True, text=True, timeout=600,
                              check=False)
        tags = [line for line in (done.stdout + done.stderr).splitlines() if re.match(r"^[EWIPX]: ", line)]
        sys.stderr.write("lintian:\n" + "".join("  %s\n" % tag for tag in tags))
        errors = [tag for tag in tags if tag.startswith("E: ")]
        self.assertEqual(errors, [])
        # lintian exits 2 when it could not check the package at all.
        self.assertIn(done.returncode, (0, 1), done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
