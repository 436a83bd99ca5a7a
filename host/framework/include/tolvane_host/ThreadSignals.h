// Threads of the host's services (the UPnP stack, the web server, the
// network monitor) leave process signals to the daemon's own threads.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <csignal>

namespace Tolvane::host {

// Blocks every signal but those a fault raises in the thread itself. The
// daemon stops from a SIGTERM handler; run on a thread that is inside GLib or
// libsoup, the handler's shutdown would wait for that very thread. Threads
// that this one creates (GLib's helpers among them) inherit the mask.
inline void blockProcessSignals(sigset_t* previous = nullptr) {
  sigset_t signals;
  sigfillset(&signals);
  for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
    sigdelset(&signals, fault);
  }
  pthread_sigmask(SIG_BLOCK, &signals, previous);
}

// The stack's own threads (the GLib thread and the services' dispatchers)
// run SCHED_BATCH. A request that wakes one of them then does not preempt the
// thread that is running: the box's interactive work goes on, and on a busy
// core the hand-overs between the GLib thread and a dispatcher are taken in
// batches instead of costing a context switch each. Their share of the CPU
// (nice) is unchanged. Returns whether the policy could be set.
inline bool runInBackground() {
  sched_param param{};
  param.sched_priority = 0;
  return pthread_setschedparam(pthread_self(), SCHED_BATCH, &param) == 0;
}

// Threads started inside the scope (a framework event thread, say) begin
// with process signals blocked; the calling thread's mask comes back after.
class ProcessSignalsBlockedForNewThreads {
 public:
  ProcessSignalsBlockedForNewThreads() { blockProcessSignals(&mPrevious); }
  ~ProcessSignalsBlockedForNewThreads() { pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr); }
  ProcessSignalsBlockedForNewThreads(const ProcessSignalsBlockedForNewThreads&) = delete;
  ProcessSignalsBlockedForNewThreads& operator=(const ProcessSignalsBlockedForNewThreads&) = delete;

 private:
  sigset_t mPrevious;
};

}  // namespace Tolvane::host
