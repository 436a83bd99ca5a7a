// Regenerates the diagnostic log files by running the platform's collection scripts.
// (Skeleton: filled in by the log delivery change.)
#pragma once

#include "BasicManagementListener.h"

class ManageableDevice;

class LogWatchHandler : public BasicManagementListener {
 public:
  explicit LogWatchHandler(ManageableDevice* device);
  ~LogWatchHandler() override;
  LogWatchHandler(const LogWatchHandler&) = delete;
  LogWatchHandler& operator=(const LogWatchHandler&) = delete;

  bool updateProcEntries() override;
  bool updateNetstat() override;
  bool updateFdStatus() override;
  bool updateProcessList() override;
  bool updateWifiChipLogFile() override;

 private:
  ManageableDevice* mDevice;
};
