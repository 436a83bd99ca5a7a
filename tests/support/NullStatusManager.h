// A status store that keeps nothing: every status reads "", every timer and
// counter 0, and no listener is ever called. Posted events may be watched,
// so that a measurement sees the store's input without the store's own work.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "status/StatusManager.h"

namespace chdtest {

class NullStatusManager : public StatusManager {
 public:
  // Runs on the posting thread, for every event posted from then on.
  using EventObserver = std::function<void(const std::string& name, const std::string& value)>;

  std::string getStatus(const std::string& /*key*/) override { return ""; }
  void resumeTimer(const std::string& /*name*/) override {}
  void pauseTimer(const std::string& /*name*/) override {}
  void stopTimer(const std::string& /*name*/) override {}
  void startTimer(const std::string& /*name*/) override {}
  uint64_t getTimerElapsed(const std::string& /*name*/) override { return 0; }
  time_t getTimerStartTime(const std::string& /*name*/) override { return 0; }
  unsigned getCounter(const std::string& /*name*/) override { return 0; }
  void setCounter(const std::string& /*name*/, unsigned /*value*/) override {}
  void addListener(IStatusUpdateListener* /*listener*/, Tolvane::EventDispatcher* /*dispatcher*/) override {}
  void removeListener(IStatusUpdateListener* /*listener*/) override {}
  void registerStatusKeys(IStatusUpdateListener* /*listener*/, StatusNameList /*keys*/) override {}
  void setStatus(const std::string& /*key*/, const std::string& /*value*/) override {}
  void setStatuses(StatusMap /*statuses*/) override {}
  void registerEventNames(IStatusUpdateListener* /*listener*/, StatusNameList /*names*/) override {}
  void postEvent(const std::string& name, const std::string& value, int option) override;

  void watchEvents(EventObserver observer);

 private:
  std::mutex mMutex;
  EventObserver mObserver;
};

}  // namespace chdtest
