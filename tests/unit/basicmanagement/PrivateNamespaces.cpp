#include "PrivateNamespaces.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace bmtest {

namespace {

// Runs before main, while the process still has a single thread, so every
// thread the tests start inherits the namespaces.
bool enterPrivateNamespaces() {
  if (geteuid() != 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    return false;
  }
  // Mounts made here must not propagate back to the host's mount table.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return false;
  }
  // /tmp gets a private writable layer over the host's: the test's files stay
  // private, while a checkout or build directory below /tmp stays visible.
  mkdir("/mnt", 0755);
  if (mount("chd-test-scratch", "/mnt", "tmpfs", MS_NOSUID | MS_NODEV, "size=512m") != 0) {
    return false;
  }
  mkdir("/mnt/tmp-upper", 01777);
  mkdir("/mnt/tmp-work", 0755);
  return mount("chd-test-tmp", "/tmp", "overlay", 0, "lowerdir=/tmp,upperdir=/mnt/tmp-upper,workdir=/mnt/tmp-work") ==
         0;
}

const bool gPrivate = enterPrivateNamespaces();

}  // namespace

bool hasPrivateNamespaces() { return gPrivate; }

}  // namespace bmtest
