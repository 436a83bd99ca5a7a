// The host's status store: statuses, events, timers and counters kept in this
// process, with listeners called back through their own dispatchers.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "status/StatusManager.h"
#include "statusstore_host/StatusTimers.h"

namespace statusstore {

// A status value as the store keeps it: immutable, and shared by the store's
// table, the callbacks still queued and the bus signals, so that a big value
// exists once however many parties carry it.
class StatusValue {
 public:
  virtual ~StatusValue() = default;
  // The value's bytes; text().data() is followed by a terminating nul.
  virtual std::string_view text() const = 0;
};

using SharedStatusValue = std::shared_ptr<const StatusValue>;
// Changed keys with their values, shared the same way.
using SharedStatusMap = std::map<std::string, SharedStatusValue>;

SharedStatusValue makeStatusValue(std::string text);
StatusMap toStatusMap(const SharedStatusMap& statuses);

// Sees every status change and every posted event of a store, whoever made
// it, in the store's own order. Called on the thread that made the change
// while the store is locked: an observer must not call back into the store.
class StoreObserver {
 public:
  virtual ~StoreObserver() = default;
  // The values as the store shares them; by default a copy goes to onStatusesChanged.
  virtual void onSharedStatusesChanged(const SharedStatusMap& statuses);
  virtual void onStatusesChanged(const StatusMap& /*statuses*/) {}
  virtual void onEventPosted(const std::string& name, const std::string& value) = 0;
};

class LocalStatusManager : public StatusManager {
 public:
  LocalStatusManager() = default;
  LocalStatusManager(const LocalStatusManager&) = delete;
  LocalStatusManager& operator=(const LocalStatusManager&) = delete;

  std::string getStatus(const std::string& key) override;
  void resumeTimer(const std::string& name) override;
  void pauseTimer(const std::string& name) override;
  void stopTimer(const std::string& name) override;
  void startTimer(const std::string& name) override;
  uint64_t getTimerElapsed(const std::string& name) override;
  time_t getTimerStartTime(const std::string& name) override;
  unsigned getCounter(const std::string& name) override;
  void setCounter(const std::string& name, unsigned value) override;
  void addListener(IStatusUpdateListener* listener, Tolvane::EventDispatcher* dispatcher) override;
  void removeListener(IStatusUpdateListener* listener) override;
  void registerStatusKeys(IStatusUpdateListener* listener, StatusNameList keys) override;
  void setStatus(const std::string& key, const std::string& value) override;
  void setStatuses(StatusMap statuses) override;
  void registerEventNames(IStatusUpdateListener* listener, StatusNameList names) override;
  void postEvent(const std::string& name, const std::string& value, int option) override;

  // Stores the given values themselves, without copying them (the bus hands
  // over the values that it received).
  void setSharedStatuses(SharedStatusMap statuses);
  // The stored value itself; an empty value when the key was never set.
  SharedStatusValue getSharedStatus(const std::string& key);

  // After removeObserver returns the observer is not called any more.
  void addObserver(StoreObserver* observer);
  void removeObserver(StoreObserver* observer);

 private:
  struct Listener {
    Tolvane::EventDispatcher* dispatcher = nullptr;
    std::set<std::string> statusKeys;
    std::set<std::string> eventNames;
  };

  bool wantsAnyOf(const Listener& listener, const SharedStatusMap& statuses) const;

  std::mutex mMutex;
  std::map<std::string, SharedStatusValue> mStatuses;
  std::map<std::string, unsigned> mCounters;
  StatusTimers mTimers;
  std::map<IStatusUpdateListener*, Listener> mListeners;
  std::vector<StoreObserver*> mObservers;
};

// Makes StatusManager::getInstance() return the given store; nullptr restores
// the process store.
void setInstanceForTest(StatusManager* store);

}  // namespace statusstore
