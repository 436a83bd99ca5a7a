// A process that uses the process store the way the daemon does: created on
// first use from the platform settings, and ended by exit() from a SIGTERM
// handler.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "status/StatusManager.h"

namespace {
void exitOnTerm(int /*signal*/) { exit(1); }  // NOLINT(concurrency-mt-unsafe): as the daemon ends
}  // namespace

int main() {
  signal(SIGTERM, exitOnTerm);
  StatusManager::getInstance(false)->setStatus("Helper", "ready");
  printf("ready\n");
  fflush(stdout);
  for (;;) {
    pause();
  }
}
