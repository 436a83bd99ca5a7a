// SetValues: checks every parameter of the request, stores the changes and
// waits for the client application to apply them (the settings-refresh
// handshake, answered through notifyEventPosted).
#include <string>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using zuna_upnp::UPnPReturn;
using namespace cm_arguments;

namespace {

const unsigned kSettingsRefreshTimeoutMs = 5000;
const char* const kChangesApplied = "ChangesApplied";
const char* const kStandbyPath = "/vsp/Standby/IN_STANDBY";

}  // namespace

UPnPReturn ConfigurationManagementService::SetValues(std::string parameterValueList, std::string& status) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element =
      parseFirstElement(request, parameterValueList, "Server did not provide us with a proper xml string");
  if (element == nullptr) {
    return invalidXmlArgument();
  }
  TL_LOG(kLogDetail, "parameterValueList [%s]", parameterValueList.c_str());
  if (hasName(element, kParameterValueList)) {
    element = element->FirstChildElement(kParameter);
  }
  StatusMap statusUpdates;
  StatusMap fileUpdates;
  UPnPReturn checked = collectSetRequest(element, statusUpdates, fileUpdates);
  if (!checked.isSuccess()) {
    return checked;
  }
  if (mHdmiPlugged && !mHdcpOk) {
    return UPnPReturn(kResultKindRefreshFailed, "HDCP Failure", kUpnpSettingsRefreshFailed);
  }
  return applySettings(statusUpdates, fileUpdates, status);
}

UPnPReturn ConfigurationManagementService::collectSetRequest(TiXmlElement* element, StatusMap& statusUpdates,
                                                             StatusMap& fileUpdates) {
  for (; element != nullptr; element = element->NextSiblingElement()) {
    std::string path;
    std::string value;
    bool isFileSetting = false;
    UPnPReturn checked = checkSetParameter(element, path, value, isFileSetting);
    if (!checked.isSuccess()) {
      return checked;
    }
    TL_LOG(kLogInfo, "Received request to set UPnP path [%s] to UPnP value [%s]", path.c_str(), value.c_str());
    const std::string statusKey = mModel.upnpToStatusKey.at(path);  // every setting path has its entry
    const std::string statusValue = translateToStatusValue(statusKey, value);
    TL_LOG(kLogInfo, "Mapped UPnP key:value [%s]:[%s] to status key:value [%s]:[%s]", path.c_str(), value.c_str(),
           statusKey.c_str(), statusValue.c_str());
    if (statusKey.empty() || statusValue.empty()) {
      continue;
    }
    TL_LOG(kLogInfo, "Adding new status update! Key[%s] Value[%s]", statusKey.c_str(), statusValue.c_str());
    statusUpdates[statusKey] = statusValue;
    if (isFileSetting) {
      fileUpdates[statusKey] = statusValue;
    }
  }
  return success();
}

UPnPReturn ConfigurationManagementService::checkSetParameter(TiXmlElement* parameter, std::string& path,
                                                             std::string& value, bool& isFileSetting) {
  if (!hasName(parameter, kParameter)) {
    TL_LOG(kLogError, "Element value should be Parameter not [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  TiXmlElement* pathElement = parameter->FirstChildElement(kParameterPath);
  if (pathElement == nullptr) {
    TL_LOG(kLogError, "Server did not provide us with a ParameterPath for Parameter [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  TiXmlElement* valueElement = parameter->FirstChildElement(kValue);
  if (valueElement == nullptr) {
    TL_LOG(kLogError, "Server did not provide us with a Value for Parameter [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  if (pathElement->GetText() == nullptr) {
    TL_LOG(kLogError, "No text was given in ParameterPath XML element");
    return invalidXmlArgument();
  }
  if (valueElement->GetText() == nullptr) {
    TL_LOG(kLogError, "No text was given in Value XML element");
    return invalidValueType();
  }
  path = pathElement->GetText();
  value = valueElement->GetText();
  if (path == kStandbyPath && !Tolvane::PlatformSettings::getInstance()->hasAmazonEchoSupport()) {
    return noSuchName();
  }
  if (isValidSettingPath(path)) {
    TL_LOG(kLogDetail, "Path[%s] is not a file setting", path.c_str());
    isFileSetting = false;
  } else if (isValidFileSettingPath(path)) {
    TL_LOG(kLogDetail, "Path[%s] is a file setting", path.c_str());
    isFileSetting = true;
  } else {
    TL_LOG(kLogError, "Setting Path[%s] does not exists in our data model", path.c_str());
    return noSuchName();
  }
  if (!isValidUpnpValue(path, value)) {
    TL_LOG(kLogError, "[%s] is not a valid Value for path [%s]", value.c_str(), path.c_str());
    return invalidValue();
  }
  return success();
}

UPnPReturn ConfigurationManagementService::applySettings(StatusMap& statusUpdates, const StatusMap& fileUpdates,
                                                         std::string& status) {
  // Held until the answer is ready, so that a completion event delivered
  // right after the Apply event waits for the wait to begin.
  Tolvane::ScopedLock lock(mLock);
  mRefreshError = "";
  if (statusUpdates.empty()) {
    return UPnPReturn(kResultKindSuccess, "No settings to apply", kUpnpNoError);
  }
  StatusManager* store = statusStore();
  store->postEvent("Settings Refresh Started Event", "", 0);
  handleOverrideRequests(statusUpdates);
  TL_LOG(kLogInfo, "Posting %d SetValues status updates", static_cast<int>(statusUpdates.size()));
  for (const auto& update : statusUpdates) {
    TL_LOG(kLogInfo, "Storing setting: Key[%s] Value[%s]", update.first.c_str(), update.second.c_str());
  }
  storeFileSettings(fileUpdates);
  store->setStatuses(statusUpdates);
  UPnPReturn outcome = success();
  if (mInStandby) {
    TL_LOG(kLogWarning, "Zuna is currently in standby, not waiting for setting refresh response");
  } else {
    outcome = waitForSettingsRefresh();
  }
  status = kChangesApplied;
  return outcome;
}

void ConfigurationManagementService::storeFileSettings(const StatusMap& fileUpdates) {
  if (fileUpdates.empty()) {
    return;
  }
  for (const auto& update : fileUpdates) {
    TL_LOG(kLogInfo, "Storing file setting: Key[%s] Value[%s]", update.first.c_str(), update.second.c_str());
    mSettingsManager->storeFileSetting(update.first, update.second);
  }
  TL_LOG(kLogInfo, "Saving new settings file updates");
  mSettingsManager->saveFileSettings();
}

UPnPReturn ConfigurationManagementService::waitForSettingsRefresh() {
  statusStore()->postEvent("Settings Refresh Apply Event", "", 0);
  TL_LOG(kLogInfo, "Waiting for Zuna to apply setting refresh");
  if (!mRefreshCondition.wait(mLock, kSettingsRefreshTimeoutMs)) {
    TL_LOG(kLogWarning, "Timed out waiting for settings refresh to complete");
    return UPnPReturn(kResultKindRefreshTimedOut, "Settings Refresh Timed Out", kUpnpSettingsRefreshTimedOut);
  }
  TL_LOG(kLogInfo, "Received setting refresh completed response");
  // An error event without a completion event ends as the time-out above.
  if (!mRefreshError.empty()) {
    TL_LOG(kLogWarning, "Encountered settings refresh error: [%s]", mRefreshError.c_str());
    return UPnPReturn(kResultKindRefreshFailed, mRefreshError, kUpnpSettingsRefreshFailed);
  }
  return success();
}

void ConfigurationManagementService::notifyEventPosted(std::string name, std::string value) {
  TL_TRACE();
  Tolvane::ScopedLock lock(mLock);
  if (name == kSettingsRefreshErrorEvent) {
    // Only recorded: the waiting SetValues still waits for the completion
    // event (or its time-out) before it looks at the text.
    TL_LOG(kLogWarning, "Settings refresh error reported: [%s]", value.c_str());
    mRefreshError = value;
  } else if (name == kSettingsRefreshCompletedEvent) {
    TL_LOG(kLogInfo, "Settings refresh completed");
    mRefreshCondition.signal();
  }
}
