// Regenerates the diagnostic log files by running the platform's collection scripts.
#pragma once

#include <chrono>
#include <string>

#include "BasicManagementListener.h"
#include "tolvane/Process.h"

class ManageableDevice;

class LogWatchHandler : public BasicManagementListener {
 public:
  // A collection script normally ends within a second; one that is still running after this long
  // is stuck, and the control point waiting for the file gets it as the script left it instead.
  static constexpr std::chrono::milliseconds kDefaultScriptLimit{10000};

  explicit LogWatchHandler(ManageableDevice* device, std::chrono::milliseconds scriptLimit = kDefaultScriptLimit);
  ~LogWatchHandler() override;
  LogWatchHandler(const LogWatchHandler&) = delete;
  LogWatchHandler& operator=(const LogWatchHandler&) = delete;

  // Each runs its script under /etc/utils; only a shell that cannot be started makes it fail.
  bool updateProcEntries() override;
  bool updateNetstat() override;
  bool updateFdStatus() override;
  bool updateProcessList() override;
  bool updateWifiChipLogFile() override;

 protected:
  // Runs the command within the script limit (its process group killed when it overruns); tests replace it.
  virtual Tolvane::CommandResult runScript(const std::string& command);

 private:
  bool runCollectionScript(const std::string& script);

  // Kept for the owner's sake; the handler itself never needs its device.
  [[maybe_unused]] ManageableDevice* mDevice;
  const std::chrono::milliseconds mScriptLimit;
};
