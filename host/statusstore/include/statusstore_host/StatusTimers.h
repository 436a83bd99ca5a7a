// The named stopwatches of the status store. Not locked: the store that owns
// the table serialises every call, and passes the clocks in so that the
// arithmetic stays testable on its own.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

namespace statusstore {

class StatusTimers {
 public:
  // Restarts from zero and runs; the start time becomes wallTime.
  void start(const std::string& name, uint64_t nowMs, time_t wallTime);
  // Halts and clears the accumulated time; the start time is kept.
  void stop(const std::string& name, uint64_t nowMs);
  // Halts and keeps the accumulated time.
  void pause(const std::string& name, uint64_t nowMs);
  // Runs on from the accumulated time. A timer that never ran starts here,
  // and this first resume sets its start time.
  void resume(const std::string& name, uint64_t nowMs, time_t wallTime);

  // Whole seconds accumulated; 0 for a timer never started.
  uint64_t elapsedSeconds(const std::string& name, uint64_t nowMs) const;
  // Wall-clock time of the last start (or first resume); 0 if never started.
  time_t startTime(const std::string& name) const;

 private:
  struct Timer {
    bool running = false;
    uint64_t accumulatedMs = 0;
    uint64_t runningSinceMs = 0;
    time_t startTime = 0;
  };

  static uint64_t accumulatedAt(const Timer& timer, uint64_t nowMs);

  std::map<std::string, Timer> mTimers;
};

}  // namespace statusstore
