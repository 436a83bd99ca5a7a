// Internal to the framework library: how sleepers on the framework clock are
// woken when a test moves or replaces the clock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Tolvane::host::detail {

// Anything that sleeps until a framework-clock time. onClockChanged() must
// take the sleeper's own lock before notifying, so that a sleeper between its
// time check and its wait cannot miss the change.
class ClockWaiter {
 public:
  virtual void onClockChanged() = 0;

 protected:
  ~ClockWaiter() = default;
};

void addClockWaiter(ClockWaiter* waiter);
void removeClockWaiter(ClockWaiter* waiter);

// Sleeps on condition (lock held) until notified or until the framework clock
// may have reached dueMs. May return early; callers re-check what they wait for.
void sleepUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, uint64_t dueMs);

}  // namespace Tolvane::host::detail
