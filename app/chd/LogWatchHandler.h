// Regenerates the diagnostic log files by running the platform's collection scripts.
#pragma once

#include <chrono>
#include <string>

#include "BasicManagementListener.h"
#include "tolvane/Process.h"

class ManageableDevice;

// Runs one collection script.
class ScriptRunner {
 public:
  virtual ~ScriptRunner() = default;
  // Runs the command within the limit (its process group killed when it overruns).
  virtual Tolvane::CommandResult run(const std::string& command, std::chrono::milliseconds limit) = 0;
};

// Runs the script through the platform's shell.
class ShellScriptRunner final : public ScriptRunner {
 public:
  Tolvane::CommandResult run(const std::string& command, std::chrono::milliseconds limit) override;
};

class LogWatchHandler : public BasicManagementListener {
 public:
  // A collection script normally ends within a second; one that is still running after this long
  // is stuck, and the control point waiting for the file gets it as the script left it instead.
  static constexpr std::chrono::milliseconds kDefaultScriptLimit{10000};

  // The runner is not owned and must outlive the handler; null stands for a ShellScriptRunner.
  explicit LogWatchHandler(ManageableDevice* device, std::chrono::milliseconds scriptLimit = kDefaultScriptLimit,
                           ScriptRunner* runner = nullptr);
  ~LogWatchHandler() override;
  LogWatchHandler(const LogWatchHandler&) = delete;
  LogWatchHandler& operator=(const LogWatchHandler&) = delete;

  // Each runs its script under /etc/utils; only a shell that cannot be started makes it fail.
  bool updateProcEntries() override;
  bool updateNetstat() override;
  bool updateFdStatus() override;
  bool updateProcessList() override;
  bool updateWifiChipLogFile() override;

 private:
  bool runCollectionScript(const std::string& script);

  // Kept for the owner's sake; the handler itself never needs its device.
  [[maybe_unused]] ManageableDevice* mDevice;
  const std::chrono::milliseconds mScriptLimit;
  ShellScriptRunner mShellRunner;
  ScriptRunner* const mRunner;
};
