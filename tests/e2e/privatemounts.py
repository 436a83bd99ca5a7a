"""Private mounts for end-to-end tests that need the daemon's fixed paths.

The daemon runs its collection scripts from /etc/utils and reads the syslog
URI file in /tmp; a test that sets those up re-runs itself, before anything
else, in a private mount namespace where those directories are overlaid by
scratch layers, so the host's own stay untouched. Only os and sys are used
here: the re-run happens before the test imports GObject introspection.
"""

import os
import sys

SOURCE_DIR = os.environ.get("CHD_SOURCE_DIR", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
# What a test puts in /etc/utils for the daemon to collect logs with: this tree's scripts.
COLLECTION_SCRIPTS = os.path.join(SOURCE_DIR, "host", "scripts", "utils")
# The daemon reads the syslog URIs it reports from this file.
SYSLOG_URI_FILE = "/tmp/syslogUrisPath.txt"

MARK = "CHD_E2E_PRIVATE_MOUNTS"

SETUP = r"""
set -e
mkdir -p /mnt
mount -t tmpfs chd-e2e-scratch /mnt
for dir in $CHD_E2E_OVERLAID; do
  mkdir -p "/mnt$dir-upper" "/mnt$dir-work"
  mount -t overlay chd-e2e-overlay -o "lowerdir=$dir,upperdir=/mnt$dir-upper,workdir=/mnt$dir-work" "$dir"
done
rm -rf /etc/utils /etc/chd
[ "$CHD_E2E_UTILS" = 0 ] || mkdir -p /etc/utils
if [ -n "$CHD_E2E_SCRIPTS" ]; then
  cp "$CHD_E2E_SCRIPTS"/* /etc/utils/
  chmod 0755 /etc/utils/*.sh
fi
exec "$@"
"""


def rerun_with_private_mounts(test_file, overlaid=("/etc", "/tmp"), scripts_dir="", utils=True):
    """Re-runs test_file (with this process's arguments) where `overlaid` are
    scratch overlays, /etc/chd is gone and /etc/utils holds the scripts of
    scripts_dir (or nothing; or is gone too, without utils); returns at once
    when already there."""
    if os.environ.get(MARK) == "1":
        return
    os.environ[MARK] = "1"
    os.environ["CHD_E2E_OVERLAID"] = " ".join(overlaid)
    os.environ["CHD_E2E_SCRIPTS"] = scripts_dir
    os.environ["CHD_E2E_UTILS"] = "1" if utils else "0"
    os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", "--", "/bin/sh", "-c", SETUP, "sh",
                          sys.executable, os.path.abspath(test_file)] + sys.argv[1:])
