// The framework clock of the host platform, and a clock that tests drive.
//
// Every framework time-out (EventThread::postDelayed, Condition::wait with a
// time-out, the status store's timers) is measured on the installed clock.
// The real one is std::chrono::steady_clock; a test installs a ManualClock so
// that long schedules run in no real time.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tolvane::host {

class Clock {
 public:
  virtual ~Clock();
  // Monotonic milliseconds.
  virtual uint64_t nowMs() = 0;
};

class ManualClock : public Clock {
 public:
  explicit ManualClock(uint64_t startMs = 0);
  uint64_t nowMs() override;
  // Moves the time on and wakes every waiting event thread and condition, so
  // that whatever fell due is looked at again.
  void advance(uint64_t ms);

 private:
  std::atomic<uint64_t> mNowMs;
};

// Installs the framework clock; nullptr restores the real steady clock. The
// clock must stay alive until it is replaced. Install it before the event
// threads and conditions that should use it begin to wait.
void setClock(Clock* clock);

// The installed clock (never null).
Clock* getClock();
// The installed clock's time in milliseconds.
uint64_t nowMs();

}  // namespace Tolvane::host
