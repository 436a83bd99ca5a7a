#include "PrivateNamespaces.h"

#include <sched.h>
#include <sys/mount.h>
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
  return mount("chd-test-tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "size=512m,mode=1777") == 0;
}

const bool gPrivate = enterPrivateNamespaces();

}  // namespace

bool hasPrivateNamespaces() { return gPrivate; }

}  // namespace bmtest
