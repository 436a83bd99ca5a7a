#include "LogWatchHandler.h"

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace {
const char* const kProcEntriesScript = "/etc/utils/procEntriesStatus.sh";
const char* const kNetstatScript = "/etc/utils/getNetstat.sh";
const char* const kFdStatusScript = "/etc/utils/fdStatus.sh";
const char* const kProcessListScript = "/etc/utils/processList.sh";
const char* const kWifiChipLogScript = "/etc/utils/wifiChipLogGet.sh";
}  // namespace

Tolvane::CommandResult ShellScriptRunner::run(const std::string& command, std::chrono::milliseconds limit) {
  return Tolvane::runCommand(command, limit);
}

LogWatchHandler::LogWatchHandler(ManageableDevice* device, std::chrono::milliseconds scriptLimit, ScriptRunner* runner)
    : mDevice(device), mScriptLimit(scriptLimit), mRunner(runner != nullptr ? runner : &mShellRunner) {
  TL_TRACE();
}

LogWatchHandler::~LogWatchHandler() { TL_TRACE(); }

bool LogWatchHandler::updateProcEntries() {
  TL_TRACE();
  return runCollectionScript(kProcEntriesScript);
}

bool LogWatchHandler::updateNetstat() {
  TL_TRACE();
  return runCollectionScript(kNetstatScript);
}

bool LogWatchHandler::updateFdStatus() {
  TL_TRACE();
  return runCollectionScript(kFdStatusScript);
}

bool LogWatchHandler::updateProcessList() {
  TL_TRACE();
  return runCollectionScript(kProcessListScript);
}

bool LogWatchHandler::updateWifiChipLogFile() {
  TL_TRACE();
  return runCollectionScript(kWifiChipLogScript);
}

bool LogWatchHandler::runCollectionScript(const std::string& script) {
  const Tolvane::CommandResult result = mRunner->run(script, mScriptLimit);
  if (result.timedOut) {
    TL_LOG(kLogWarning, "Collection script [%s] ran longer than [%lld] ms and was killed", script.c_str(),
           static_cast<long long>(mScriptLimit.count()));
  } else if (result.aborted) {
    TL_LOG(kLogWarning, "Collection script [%s] was killed at shutdown", script.c_str());
  }
  // A script that ran and failed (127 for a missing one included), overran or was killed still counts:
  // the file is sent as it was left.
  if (result.status < 0) {
    TL_LOG(kLogError, "Failed to run command [%s].  Sending Return Code[%d]", script.c_str(), result.status);
    return false;
  }
  return true;
}
