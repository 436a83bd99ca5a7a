#include <algorithm>
#include <chrono>
#include <mutex>
#include <vector>

#include "ClockWaiters.h"
#include "tolvane_host/ManualClock.h"

namespace Tolvane::host {

namespace {

class SteadyClock : public Clock {
 public:
  uint64_t nowMs() override {
    const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count());
  }
};

// A clock other than the real one gives no promise about how fast it moves, so
// its sleepers look at it again at least this often (a ManualClock also wakes
// them at once on advance()).
constexpr std::chrono::milliseconds kForeignClockPoll(50);

// Never destroyed: event threads may still ask for the time while the process exits.
Clock* realClock() {
  static Clock* const clock = new SteadyClock;
  return clock;
}

std::atomic<Clock*> gInstalledClock{nullptr};

struct WaiterRegistry {
  std::mutex mutex;
  std::vector<detail::ClockWaiter*> waiters;
};

WaiterRegistry& registry() {
  static WaiterRegistry* const instance = new WaiterRegistry;
  return *instance;
}

void wakeAllWaiters() {
  WaiterRegistry& reg = registry();
  const std::lock_guard<std::mutex> guard(reg.mutex);
  for (detail::ClockWaiter* waiter : reg.waiters) {
    waiter->onClockChanged();
  }
}

}  // namespace

Clock::~Clock() = default;

ManualClock::ManualClock(uint64_t startMs) : mNowMs(startMs) {}

uint64_t ManualClock::nowMs() { return mNowMs.load(std::memory_order_acquire); }

void ManualClock::advance(uint64_t ms) {
  mNowMs.fetch_add(ms, std::memory_order_acq_rel);
  wakeAllWaiters();
}

void setClock(Clock* clock) {
  gInstalledClock.store(clock, std::memory_order_release);
  wakeAllWaiters();
}

Clock* getClock() {
  Clock* installed = gInstalledClock.load(std::memory_order_acquire);
  return installed != nullptr ? installed : realClock();
}

uint64_t nowMs() { return getClock()->nowMs(); }

namespace detail {

void addClockWaiter(ClockWaiter* waiter) {
  WaiterRegistry& reg = registry();
  const std::lock_guard<std::mutex> guard(reg.mutex);
  reg.waiters.push_back(waiter);
}

void removeClockWaiter(ClockWaiter* waiter) {
  WaiterRegistry& reg = registry();
  const std::lock_guard<std::mutex> guard(reg.mutex);
  reg.waiters.erase(std::remove(reg.waiters.begin(), reg.waiters.end(), waiter), reg.waiters.end());
}

void sleepUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, uint64_t dueMs) {
  Clock* clock = getClock();
  const uint64_t now = clock->nowMs();
  if (now >= dueMs) {
    return;
  }
  auto remaining = std::chrono::milliseconds(dueMs - now);
  if (clock != realClock()) {
    remaining = std::min(remaining, kForeignClockPoll);
  }
  condition.wait_for(lock, remaining);
}

}  // namespace detail

}  // namespace Tolvane::host
