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

namespace {

class StringStatusValue : public StatusValue {
 public:
  explicit StringStatusValue(std::string text) : mText(std::move(text)) {}
  std::string_view text() const override { return mText; }

 private:
  const std::string mText;
};

const SharedStatusValue& emptyValue() {
  // Never destroyed: the store is used until the very end of the process.
  static const auto* const empty = new SharedStatusValue(makeStatusValue(std::string()));
  return *empty;
}

}  // namespace

SharedStatusValue makeStatusValue(std::string text) { return std::make_shared<StringStatusValue>(std::move(text)); }

StatusMap toStatusMap(const SharedStatusMap& statuses) {
  StatusMap copy;
  for (const auto& [key, value] : statuses) {
    copy.emplace_hint(copy.end(), key, std::string(value->text()));
  }
  return copy;
}

void StoreObserver::onSharedStatusesChanged(const SharedStatusMap& statuses) {
  onStatusesChanged(toStatusMap(statuses));
}

std::string LocalStatusManager::getStatus(const std::string& key) {
  // The copy for the caller is made outside the lock: a big value does not
  // hold up the other users of the store while it is copied.
  return std::string(getSharedStatus(key)->text());
}

SharedStatusValue LocalStatusManager::getSharedStatus(const std::string& key) {
  Lock lock(mMutex);
  auto found = mStatuses.find(key);
  return found == mStatuses.end() ? emptyValue() : found->second;
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
  SharedStatusMap statuses;
  statuses.emplace(key, makeStatusValue(value));
  setSharedStatuses(std::move(statuses));
}

void LocalStatusManager::setStatuses(StatusMap statuses) {
  SharedStatusMap shared;
  for (auto& [key, value] : statuses) {
    shared.emplace_hint(shared.end(), key, makeStatusValue(std::move(value)));
  }
  setSharedStatuses(std::move(shared));
}

// The table, every queued callback and the observers all refer to the same
// values: a listener's own copy is made only when its callback runs.
void LocalStatusManager::setSharedStatuses(SharedStatusMap statuses) {
  if (statuses.empty()) {
    return;
  }
  auto change = std::make_shared<const SharedStatusMap>(std::move(statuses));
  Lock lock(mMutex);
  for (const auto& [key, value] : *change) {
    mStatuses[key] = value;
  }
  for (auto& [listener, entry] : mListeners) {
    if (wantsAnyOf(entry, *change)) {
      entry.dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(new StatusChangedAgent(listener, change)));
    }
  }
  for (StoreObserver* observer : mObservers) {
    observer->onSharedStatusesChanged(*change);
  }
}

bool LocalStatusManager::wantsAnyOf(const Listener& listener, const SharedStatusMap& statuses) const {
  return std::any_of(statuses.begin(), statuses.end(),
                     [&listener](const auto& entry) { return listener.statusKeys.count(entry.first) != 0; });
}

void LocalStatusManager::postEvent(const std::string& name, const std::string& value, int /*option*/) {
  Lock lock(mMutex);
  std::shared_ptr<const PostedEvent> event;
  for (auto& [listener, entry] : mListeners) {
    if (entry.eventNames.count(name) != 0) {
      if (!event) {
        event = std::make_shared<const PostedEvent>(PostedEvent{name, value});
      }
      entry.dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(new EventPostedAgent(listener, event)));
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
