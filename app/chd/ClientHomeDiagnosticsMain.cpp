// Process entry of the Client Home Diagnostics daemon.
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ClientHomeDiagnostics.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace {
// Read by the SIGTERM handler; atomic so that a signal arriving on another
// thread while main stores it sees either null or the finished object.
std::atomic<ClientHomeDiagnosticsControl*> gControl{nullptr};
// Set by the SIGTERM handler before it stops the control object.
std::atomic<bool> gTerminating{false};

sigset_t terminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  return signals;
}

// SIGTERM runs the whole stop sequence from its handler. It is taken on a thread
// that does nothing else, so that the handler never interrupts a thread in the
// middle of logging or while it holds a lock that stop() needs: every other
// thread (this one and all that it creates later) blocks it.
void routeTerminationToIdleThread() {
  const sigset_t signals = terminationSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread([] {
    const sigset_t taken = terminationSignals();
    pthread_sigmask(SIG_UNBLOCK, &taken, nullptr);
    for (;;) {
      pause();
    }
  }).detach();
}
// An orderly stop by SIGTERM ends with status 1. The stack's and the
// services' threads are still running when stop() returns (requests in
// flight finish on them), so the process ends without running the
// destructors of static objects those threads may still be using.
[[noreturn]] void exitStopped() {
  fflush(nullptr);  // NOLINT(cert-err33-c): nothing is left to report a failure to
  _exit(1);
}

// A stop that hangs (a peer that never lets go, a library that blocks) must
// not keep the box from restarting the daemon: past the deadline the process
// ends all the same, with the same status.
constexpr std::chrono::milliseconds kStopDeadline{1700};

void armStopDeadline() {
  std::thread([] {
    std::this_thread::sleep_for(kStopDeadline);
    TL_LOG(kLogError, "Stopping took longer than %lld ms; exiting now", static_cast<long long>(kStopDeadline.count()));
    exitStopped();
  }).detach();
}
}  // namespace

void handleSignal(int sig) {
  TL_TRACE();
  if (sig == SIGABRT) {
    TL_LOG(kLogError, "CHD exiting on SIGABRT");
  } else if (sig == SIGSEGV) {
    TL_LOG(kLogError, "CHD exiting on SIGSEGV");
  }
  // Re-raise with the default action so the process ends by this signal (and dumps core where enabled).
  signal(sig, SIG_DFL);
  kill(getpid(), sig);
}

void cleanup(int sig) {
  TL_TRACE();
  TL_LOG(kLogError, "Received signal [%d] for the CHD applicaiton, stopping CHD", sig);
  gTerminating.store(true);
  armStopDeadline();
  ClientHomeDiagnosticsControl* control = gControl.load();
  if (control != nullptr) {
    control->stop();
  }
  exitStopped();
}

int main(int /*argc*/, char** /*argv*/) {
  TL_TRACE();
  logging_enable_syslog(1);
  if (!Tolvane::PlatformSettings::getInstance()->hasChdSupport()) {
    TL_LOG(kLogWarning, "This platform does not support CHD");
    return 0;
  }
  signal(SIGTERM, cleanup);
  signal(SIGABRT, handleSignal);
  signal(SIGSEGV, handleSignal);
  routeTerminationToIdleThread();

  auto* control = new ClientHomeDiagnosticsControl();  // NOLINT(cppcoreguidelines-owning-memory): lives until exit
  gControl.store(control);

  // Lowered before start() so that every thread it creates inherits the weaker priority.
  const pid_t pid = getpid();
  const int prio = getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
  TL_LOG(kLogWarning, "chd process %d prio %d", static_cast<int>(pid), prio);
  setpriority(PRIO_PROCESS, static_cast<id_t>(pid), prio + 5);
  const int adjusted = getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
  TL_LOG(kLogWarning, "chd process %d adjusted prio %d", static_cast<int>(pid), adjusted);

  TL_LOG(kLogError, "Starting CHD Control");
  control->start();
  // A stop by SIGTERM wakes start() before its handler ends the process with
  // status 1; returning here would race that exit with status 0.
  while (gTerminating.load()) {
    pause();
  }
  return 0;
}
