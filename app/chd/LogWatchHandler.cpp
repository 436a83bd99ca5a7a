#include "LogWatchHandler.h"

#include <cstdlib>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

namespace {
const char* const kProcEntriesScript = "/etc/utils/procEntriesStatus.sh";
const char* const kNetstatScript = "/etc/utils/getNetstat.sh";
const char* const kFdStatusScript = "/etc/utils/fdStatus.sh";
const char* const kProcessListScript = "/etc/utils/processList.sh";
const char* const kWifiChipLogScript = "/etc/utils/wifiChipLogGet.sh";
}  // namespace

LogWatchHandler::LogWatchHandler(ManageableDevice* device) : mDevice(device) { TL_TRACE(); }

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

int LogWatchHandler::runScript(const std::string& command) {
  // The platform's own script, without arguments; system() is what the box provides for it.
  return system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
}

bool LogWatchHandler::runCollectionScript(const std::string& script) {
  const int status = runScript(script);
  // A script that ran and failed (127 for a missing one included) still counts: the file is sent as it was left.
  if (status < 0) {
    TL_LOG(0, "Failed to run command [%s].  Sending Return Code[%d]", script.c_str(), status);
    return false;
  }
  return true;
}
