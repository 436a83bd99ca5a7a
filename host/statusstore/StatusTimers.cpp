#include "statusstore_host/StatusTimers.h"

namespace statusstore {

uint64_t StatusTimers::accumulatedAt(const Timer& timer, uint64_t nowMs) {
  if (!timer.running) {
    return timer.accumulatedMs;
  }
  // A clock that was set back (a test installing another clock) must not make
  // the running part negative.
  uint64_t runningMs = nowMs > timer.runningSinceMs ? nowMs - timer.runningSinceMs : 0;
  return timer.accumulatedMs + runningMs;
}

void StatusTimers::start(const std::string& name, uint64_t nowMs, time_t wallTime) {
  Timer& timer = mTimers[name];
  timer.running = true;
  timer.accumulatedMs = 0;
  timer.runningSinceMs = nowMs;
  timer.startTime = wallTime;
}

void StatusTimers::stop(const std::string& name, uint64_t /*nowMs*/) {
  auto found = mTimers.find(name);
  if (found == mTimers.end()) {
    return;
  }
  found->second.running = false;
  found->second.accumulatedMs = 0;
}

void StatusTimers::pause(const std::string& name, uint64_t nowMs) {
  auto found = mTimers.find(name);
  if (found == mTimers.end() || !found->second.running) {
    return;
  }
  found->second.accumulatedMs = accumulatedAt(found->second, nowMs);
  found->second.running = false;
}

void StatusTimers::resume(const std::string& name, uint64_t nowMs, time_t wallTime) {
  auto [found, isNew] = mTimers.try_emplace(name);
  Timer& timer = found->second;
  if (timer.running) {
    return;
  }
  if (isNew || timer.startTime == 0) {
    timer.startTime = wallTime;
  }
  timer.running = true;
  timer.runningSinceMs = nowMs;
}

uint64_t StatusTimers::elapsedSeconds(const std::string& name, uint64_t nowMs) const {
  auto found = mTimers.find(name);
  if (found == mTimers.end()) {
    return 0;
  }
  return accumulatedAt(found->second, nowMs) / 1000;
}

time_t StatusTimers::startTime(const std::string& name) const {
  auto found = mTimers.find(name);
  return found == mTimers.end() ? 0 : found->second.startTime;
}

}  // namespace statusstore
