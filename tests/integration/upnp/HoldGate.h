// Where a test double stops until the test lets it go (at most 10 s, so
// that a failing test cannot hang a thread for ever).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace upnp_it {

class HoldGate {
 public:
  // Marks the gate entered and waits for release(). With rearm, the next
  // caller waits for another release().
  void hold(bool rearm) {
    entered = true;
    std::unique_lock<std::mutex> lock(mMutex);
    mReleased.wait_for(lock, std::chrono::seconds(10), [this] { return mRelease; });
    if (rearm) {
      mRelease = false;
    }
  }

  void release() {
    std::lock_guard<std::mutex> lock(mMutex);
    mRelease = true;
    mReleased.notify_all();
  }

  std::atomic<bool> entered{false};
  std::atomic<bool> finished{false};

 private:
  std::mutex mMutex;
  std::condition_variable mReleased;
  bool mRelease = false;
};

}  // namespace upnp_it
