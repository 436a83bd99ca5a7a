// Refreshes the log files that the basic management service delivers.
#pragma once

class BasicManagementListener {
 public:
  // Each returns true when the file is ready to be sent.
  virtual bool updateProcEntries() = 0;
  virtual bool updateNetstat() = 0;
  virtual bool updateFdStatus() = 0;
  virtual bool updateProcessList() = 0;
  virtual bool updateWifiChipLogFile() = 0;
  virtual ~BasicManagementListener() = default;
};
