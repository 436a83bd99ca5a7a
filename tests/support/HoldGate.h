// Where a test double stops until the test lets it go (at most its bound, 10 s
// unless given, so that a failing test cannot hang a thread for ever).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace chdtest {

class HoldGate {
 public:
  explicit HoldGate(std::chrono::seconds bound = std::chrono::seconds(10)) : mBound(bound) {}

  // Marks the gate entered and waits for release(). With rearm, the next
  // caller waits for another release().
  void hold(bool rearm) {
    std::unique_lock<std::mutex> lock(mMutex);
    entered = true;
    mChanged.notify_all();
    mChanged.wait_for(lock, mBound, [this] { return mRelease; });
    if (rearm) {
      mRelease = false;
    }
  }

  // Waits (at most 10 s) until a caller is in the gate; false when none came.
  bool waitUntilEntered() {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(10), [this] { return entered.load(); });
  }

  void release() {
    std::lock_guard<std::mutex> lock(mMutex);
    mRelease = true;
    mChanged.notify_all();
  }

  std::atomic<bool> entered{false};
  std::atomic<bool> finished{false};

 private:
  const std::chrono::seconds mBound;
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mRelease = false;
};

}  // namespace chdtest
