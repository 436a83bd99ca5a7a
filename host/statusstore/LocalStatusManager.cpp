#include "statusstore_host/LocalStatusManager.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "StatusUpdateAgents.h"
#include "tolvane/EventThread.h"
#include "tolvane/Logging.h"
#include "tolvane_host/ManualClock.h"

TL_REGISTER_LOGGING(true, 5);

namespace statusstore {

using Lock = std::lock_guard<std::mutex>;

std::string LocalStatusManager::getStatus(const std::string& key) {
  Lock lock(mMutex);
  auto found = mStatuses.find(key);
  return found == mStatuses.end() ? std::string() : found->second;
}

void LocalStatusManager::resumeTimer(const std::string& name) {
  Lock lock(mMutex);
  mTimers.resume(name, Tolvane::host::nowMs(), time(nullptr));
}

void LocalStatusManager::pauseTimer(const std::string& name) {
  Lock lock(mMutex);
  mTimers.pause(name, Tolvane::host::nowMs());
}

void LocalStatusManager::stopTimer(const std::string& name) {
  Lock lock(mMutex);
  mTimers.stop(name, Tolvane::host::nowMs());
}

void LocalStatusManager::startTimer(const std::string& name) {
  Lock lock(mMutex);
  mTimers.start(name, Tolvane::host::nowMs(), time(nullptr));
}

uint64_t LocalStatusManager::getTimerElapsed(const std::string& name) {
  Lock lock(mMutex);
  return mTimers.elapsedSeconds(name, Tolvane::host::nowMs());
}

time_t LocalStatusManager::getTimerStartTime(const std::string& name) {
  Lock lock(mMutex);
  return mTimers.startTime(name);
}

unsigned LocalStatusManager::getCounter(const std::string& name) {
  Lock lock(mMutex);
  auto found = mCounters.find(name);
  return found == mCounters.end() ? 0U : found->second;
}

void LocalStatusManager::setCounter(const std::string& name, unsigned value) {
  Lock lock(mMutex);
  mCounters[name] = value;
}

void LocalStatusManager::addListener(IStatusUpdateListener* listener, Tolvane::EventDispatcher* dispatcher) {
  if (listener == nullptr || dispatcher == nullptr) {
    TL_LOG(2, "Ignoring listener [%p] with dispatcher [%p]", static_cast<void*>(listener),
           static_cast<void*>(dispatcher));
    return;
  }
  Lock lock(mMutex);
  // Adding a listener again only moves it to the new dispatcher; its names stay.
  mListeners[listener].dispatcher = dispatcher;
}

void LocalStatusManager::removeListener(IStatusUpdateListener* listener) {
  // Agents are queued only with the lock held, so once the entry is gone under
  // the lock nothing new can reach this listener.
  Lock lock(mMutex);
  mListeners.erase(listener);
}

void LocalStatusManager::registerStatusKeys(IStatusUpdateListener* listener, StatusNameList keys) {
  Lock lock(mMutex);
  auto found = mListeners.find(listener);
  if (found == mListeners.end()) {
    TL_LOG(2, "Status keys registered for listener [%p] that was never added", static_cast<void*>(listener));
    return;
  }
  found->second.statusKeys.insert(keys.begin(), keys.end());
}

void LocalStatusManager::registerEventNames(IStatusUpdateListener* listener, StatusNameList names) {
  Lock lock(mMutex);
  auto found = mListeners.find(listener);
  if (found == mListeners.end()) {
    TL_LOG(2, "Event names registered for listener [%p] that was never added", static_cast<void*>(listener));
    return;
  }
  found->second.eventNames.insert(names.begin(), names.end());
}

void LocalStatusManager::setStatus(const std::string& key, const std::string& value) {
  setStatuses(StatusMap{{key, value}});
}

void LocalStatusManager::setStatuses(StatusMap statuses) {
  if (statuses.empty()) {
    return;
  }
  Lock lock(mMutex);
  applyStatusesLocked(statuses);
}

void LocalStatusManager::applyStatusesLocked(const StatusMap& statuses) {
  for (const auto& [key, value] : statuses) {
    mStatuses[key] = value;
  }
  for (auto& [listener, entry] : mListeners) {
    if (wantsAnyOf(entry, statuses)) {
      entry.dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(new StatusChangedAgent(listener, statuses)));
    }
  }
  for (StoreObserver* observer : mObservers) {
    observer->onStatusesChanged(statuses);
  }
}

bool LocalStatusManager::wantsAnyOf(const Listener& listener, const StatusMap& statuses) const {
  return std::any_of(statuses.begin(), statuses.end(),
                     [&listener](const auto& entry) { return listener.statusKeys.count(entry.first) != 0; });
}

void LocalStatusManager::postEvent(const std::string& name, const std::string& value, int /*option*/) {
  Lock lock(mMutex);
  for (auto& [listener, entry] : mListeners) {
    if (entry.eventNames.count(name) != 0) {
      entry.dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(new EventPostedAgent(listener, name, value)));
    }
  }
  for (StoreObserver* observer : mObservers) {
    observer->onEventPosted(name, value);
  }
}

void LocalStatusManager::addObserver(StoreObserver* observer) {
  Lock lock(mMutex);
  mObservers.push_back(observer);
}

void LocalStatusManager::removeObserver(StoreObserver* observer) {
  Lock lock(mMutex);
  mObservers.erase(std::remove(mObservers.begin(), mObservers.end(), observer), mObservers.end());
}

}  // namespace statusstore
