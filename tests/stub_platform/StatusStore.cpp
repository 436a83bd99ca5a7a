// The status store of the stub platform: one in-memory store; listeners are
// called back through their dispatchers, as the store's contract requires.
#include <algorithm>
#include <map>
#include <mutex>
#include <set>

#include "status/StatusManager.h"
#include "tolvane/EventThread.h"

namespace {

class StubStatusManager : public StatusManager {
 public:
  std::string getStatus(const std::string& key) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    auto it = mStatuses.find(key);
    return it != mStatuses.end() ? it->second : std::string();
  }
  // Timers are not kept: the stub answers 0 as for an unknown timer.
  void resumeTimer(const std::string& /*name*/) override {}
  void pauseTimer(const std::string& /*name*/) override {}
  void stopTimer(const std::string& /*name*/) override {}
  void startTimer(const std::string& /*name*/) override {}
  uint64_t getTimerElapsed(const std::string& /*name*/) override { return 0; }
  time_t getTimerStartTime(const std::string& /*name*/) override { return 0; }
  unsigned getCounter(const std::string& name) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mCounters[name];
  }
  void setCounter(const std::string& name, unsigned value) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mCounters[name] = value;
  }
  void addListener(IStatusUpdateListener* listener, Tolvane::EventDispatcher* dispatcher) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mListeners[listener].dispatcher = dispatcher;
  }
  void removeListener(IStatusUpdateListener* listener) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mListeners.erase(listener);
  }
  void registerStatusKeys(IStatusUpdateListener* listener, StatusNameList keys) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mListeners[listener].keys.insert(keys.begin(), keys.end());
  }
  void setStatus(const std::string& key, const std::string& value) override { setStatuses({{key, value}}); }
  void setStatuses(StatusMap statuses) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    for (const auto& entry : statuses) {
      mStatuses[entry.first] = entry.second;
    }
    for (auto& entry : mListeners) {
      const bool wanted = std::any_of(statuses.begin(), statuses.end(),
                                      [&](const auto& status) { return entry.second.keys.count(status.first) > 0; });
      if (wanted && entry.second.dispatcher != nullptr) {
        entry.second.dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(
            new Tolvane::AsyncEventAgent(entry.first, &IStatusUpdateListener::notifyStatusChanged, statuses)));
      }
    }
  }
  void registerEventNames(IStatusUpdateListener* listener, StatusNameList names) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mListeners[listener].events.insert(names.begin(), names.end());
  }
  void postEvent(const std::string& name, const std::string& value, int /*option*/) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    for (auto& entry : mListeners) {
      if (entry.second.events.count(name) > 0 && entry.second.dispatcher != nullptr) {
        entry.second.dispatcher->post(
            Tolvane::SmartPtr<Tolvane::EventAgent>(new EventAgent2(entry.first, name, value)));
      }
    }
  }

 private:
  // notifyEventPosted takes two arguments; the framework's agents carry one.
  class EventAgent2 : public Tolvane::EventAgent {
   public:
    EventAgent2(IStatusUpdateListener* listener, std::string name, std::string value)
        : EventAgent(listener), mListener(listener), mName(std::move(name)), mValue(std::move(value)) {}
    void run() override { mListener->notifyEventPosted(mName, mValue); }

   private:
    IStatusUpdateListener* mListener;
    std::string mName;
    std::string mValue;
  };

  struct Listener {
    Tolvane::EventDispatcher* dispatcher = nullptr;
    std::set<std::string> keys;
    std::set<std::string> events;
  };

  std::mutex mMutex;
  std::map<std::string, std::string> mStatuses;
  std::map<std::string, unsigned> mCounters;
  std::map<IStatusUpdateListener*, Listener> mListeners;
};

}  // namespace

StatusManager* StatusManager::getInstance(bool /*create*/) {
  static StubStatusManager store;
  return &store;
}
