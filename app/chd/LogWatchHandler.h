// Regenerates the diagnostic log files by running the platform's collection scripts.
#pragma once

#include <string>

#include "BasicManagementListener.h"

class ManageableDevice;

class LogWatchHandler : public BasicManagementListener {
 public:
  explicit LogWatchHandler(ManageableDevice* device);
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
  // The status of system(command); tests replace it.
  virtual int runScript(const std::string& command);

 private:
  bool runCollectionScript(const std::string& script);

  // Kept for the owner's sake; the handler itself never needs its device.
  [[maybe_unused]] ManageableDevice* mDevice;
};
