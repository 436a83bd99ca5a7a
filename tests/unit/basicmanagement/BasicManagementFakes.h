// Test doubles around the basic management service that no other area needs:
// a log-collection listener and collection script runners (the platform's
// doubles and the log recorder are in tests/support).
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BasicManagementListener.h"
#include "LogRecorder.h"
#include "LogWatchHandler.h"
#include "tolvane/Process.h"

namespace bmtest {

// Answers each refresh with its configured result and counts the calls.
class FakeListener : public BasicManagementListener {
 public:
  bool updateProcEntries() override { return answer(procEntries, procEntriesOk); }
  bool updateNetstat() override { return answer(netstat, netstatOk); }
  bool updateFdStatus() override { return answer(fdStatus, fdStatusOk); }
  bool updateProcessList() override { return answer(processList, processListOk); }
  bool updateWifiChipLogFile() override { return answer(wifiChip, wifiChipOk); }

  int totalCalls() const { return procEntries + netstat + fdStatus + processList + wifiChip; }

  std::atomic<int> procEntries{0}, netstat{0}, fdStatus{0}, processList{0}, wifiChip{0};
  std::atomic<bool> procEntriesOk{true}, netstatOk{true}, fdStatusOk{true}, processListOk{true}, wifiChipOk{true};

 private:
  static bool answer(std::atomic<int>& calls, const std::atomic<bool>& ok) {
    ++calls;
    return ok.load();
  }
};

// Answers every script with a chosen result instead of running it.
class ScriptedRunner : public ScriptRunner {
 public:
  explicit ScriptedRunner(int status) { mResult.status = status; }
  explicit ScriptedRunner(const Tolvane::CommandResult& result) : mResult(result) {}
  Tolvane::CommandResult run(const std::string& command, std::chrono::milliseconds /*limit*/) override {
    commands.push_back(command);
    return mResult;
  }

  std::vector<std::string> commands;

 private:
  Tolvane::CommandResult mResult;
};

// Runs the shell runner, on a stand-in command instead of the platform's script when one is given, and keeps
// every result.
class ShellWithStandIn : public ScriptRunner {
 public:
  explicit ShellWithStandIn(std::string standIn = "") : mStandIn(std::move(standIn)) {}
  Tolvane::CommandResult run(const std::string& command, std::chrono::milliseconds limit) override {
    const Tolvane::CommandResult result = mShell.run(mStandIn.empty() ? command : mStandIn, limit);
    std::lock_guard<std::mutex> lock(mMutex);
    mResults.push_back(result);
    return result;
  }
  std::vector<Tolvane::CommandResult> results() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mResults;
  }

 private:
  const std::string mStandIn;
  ShellScriptRunner mShell;
  std::mutex mMutex;
  std::vector<Tolvane::CommandResult> mResults;
};

using chdtest::LogRecorder;

}  // namespace bmtest
