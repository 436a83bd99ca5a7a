// The box's process-wide status store: statuses, events, timers and counters.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <string>

namespace Tolvane {
class EventDispatcher;
}

typedef std::map<std::string, std::string> StatusMap;
typedef std::deque<std::string> StatusNameList;

// Both callbacks run on the dispatcher the listener gave addListener: the
// daemon's configuration management service gets them on its
// "CM_StatusThread", the basic management service on its service dispatcher,
// the blob writer on its "CHDBlobWriter" thread.
class IStatusUpdateListener {
 public:
  virtual void notifyStatusChanged(StatusMap /*statuses*/) {}
  virtual void notifyEventPosted(std::string /*name*/, std::string /*value*/) {}
  virtual ~IStatusUpdateListener() = default;
};

// Contract of the store:
// - Every operation is safe from any thread and never reports an error:
//   unknown statuses read as "", unknown timers and counters as 0.
// - A listener is called back only through the dispatcher given to
//   addListener, by agents whose receiver is the IStatusUpdateListener
//   pointer itself (remove them with removeAgentsByReceiver on exactly that
//   pointer). Callbacks never run on the thread that made the change.
// - Every setStatus/setStatuses is a change report, also when the value is
//   the same as before. A listener that registered at least one key of a
//   setStatuses call gets the whole map in one callback.
// - Events are not stored: a listener gets an event only if it had
//   registered the name before the event was posted.
// - After removeListener returns, no new callback is queued for it.
// - No listener is called from inside the store, so a callback may call the
//   store again.
// - Which threads call it in the daemon: the main thread adds the listeners,
//   registers their names and starts the uptime timer (in the constructors);
//   the services' dispatchers read statuses, timers and counters (actions),
//   set statuses and post events (SetValues); the blob writer's thread
//   follows timers and counters, sets its history statuses and posts the
//   blob; the SIGTERM thread removes the blob writer's listener. On the host,
//   the store's D-Bus export calls it on a thread of its own for other
//   processes.
// - Timers: elapsed time in whole seconds. startTimer restarts from zero and
//   runs; stopTimer halts and clears to zero; pauseTimer halts keeping the
//   accumulated time; resumeTimer runs again from the accumulated time (it
//   also starts a timer that never ran). getTimerStartTime is the wall-clock
//   time of the last startTimer (or first resume), 0 if never started.
class StatusManager {
 public:
  // The process's one store, created on first use (in the daemon: on the
  // main thread, by the blob writer's constructor). The flag is reserved by
  // the platform; pass false.
  static StatusManager* getInstance(bool create = false);

  virtual ~StatusManager() = default;

  virtual std::string getStatus(const std::string& key) = 0;
  virtual void resumeTimer(const std::string& name) = 0;
  virtual void pauseTimer(const std::string& name) = 0;
  virtual void stopTimer(const std::string& name) = 0;
  virtual void startTimer(const std::string& name) = 0;
  virtual uint64_t getTimerElapsed(const std::string& name) = 0;
  virtual time_t getTimerStartTime(const std::string& name) = 0;
  virtual unsigned getCounter(const std::string& name) = 0;
  virtual void setCounter(const std::string& name, unsigned value) = 0;
  virtual void addListener(IStatusUpdateListener* listener, Tolvane::EventDispatcher* dispatcher) = 0;
  virtual void removeListener(IStatusUpdateListener* listener) = 0;
  virtual void registerStatusKeys(IStatusUpdateListener* listener, StatusNameList keys) = 0;
  virtual void setStatus(const std::string& key, const std::string& value) = 0;
  virtual void setStatuses(StatusMap statuses) = 0;
  virtual void registerEventNames(IStatusUpdateListener* listener, StatusNameList names) = 0;
  // option: 0 is the plain post; other values are reserved by the platform.
  virtual void postEvent(const std::string& name, const std::string& value, int option) = 0;
};
