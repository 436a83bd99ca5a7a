#include "LogWatchHandler.h"

LogWatchHandler::LogWatchHandler(ManageableDevice* device) : mDevice(device) {}
LogWatchHandler::~LogWatchHandler() = default;
bool LogWatchHandler::updateProcEntries() { return true; }
bool LogWatchHandler::updateNetstat() { return true; }
bool LogWatchHandler::updateFdStatus() { return true; }
bool LogWatchHandler::updateProcessList() { return true; }
bool LogWatchHandler::updateWifiChipLogFile() { return true; }
