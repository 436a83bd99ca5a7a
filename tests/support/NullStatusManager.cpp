#include "NullStatusManager.h"

#include <utility>

namespace chdtest {

void NullStatusManager::postEvent(const std::string& name, const std::string& value, int /*option*/) {
  EventObserver observer;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    observer = mObserver;
  }
  if (observer) {
    observer(name, value);
  }
}

void NullStatusManager::watchEvents(EventObserver observer) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mObserver = std::move(observer);
}

}  // namespace chdtest
