// A status store listener that records what reaches it, and on which thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "status/StatusManager.h"
#include "tolvane/EventThread.h"

namespace statusstore::test {

class RecordingListener : public IStatusUpdateListener {
 public:
  void notifyStatusChanged(StatusMap statuses) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mStatuses.push_back(std::move(statuses));
    mThreads.push_back(std::this_thread::get_id());
    mChanged.notify_all();
  }

  void notifyEventPosted(std::string name, std::string value) override {
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.emplace_back(std::move(name), std::move(value));
    mThreads.push_back(std::this_thread::get_id());
    mChanged.notify_all();
  }

  std::vector<StatusMap> statuses() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mStatuses;
  }
  std::vector<std::pair<std::string, std::string>> events() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
  }
  std::vector<std::thread::id> threads() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mThreads;
  }
  size_t callbackCount() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mStatuses.size() + mEvents.size();
  }

  // True once at least count callbacks arrived, false after timeoutMs of real time.
  bool waitForCallbacks(size_t count, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return mStatuses.size() + mEvents.size() >= count; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<StatusMap> mStatuses;
  std::vector<std::pair<std::string, std::string>> mEvents;
  std::vector<std::thread::id> mThreads;
};

// Returns once every agent queued on the dispatcher before the call has run.
inline void flush(Tolvane::EventDispatcher& dispatcher) {
  struct Noop {
    void run() {}
  } noop;
  dispatcher.send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&noop, &Noop::run)));
}

// The id of the dispatcher's own thread.
inline std::thread::id threadOf(Tolvane::EventDispatcher& dispatcher) {
  struct Probe {
    std::thread::id id;
    void run() { id = std::this_thread::get_id(); }
  } probe;
  dispatcher.send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&probe, &Probe::run)));
  return probe.id;
}

}  // namespace statusstore::test
