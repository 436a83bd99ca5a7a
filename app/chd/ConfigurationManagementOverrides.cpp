// The display and standby overrides a SetValues request brings with it.
#include <string>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using namespace cm_arguments;

namespace {

const char* const kResolutionKeyPrefix = "HDTV.TVResolutions.";
const char* const kEdidOverrideKeyPrefix = "EDID Override ";
const char* const kEdidOverrideEnabled = "EDID Override Enabled";
const char* const kEdidOverrideDisabled = "EDID Override Disabled";
// The resolutions the display's EDID can be overridden for.
const char* const kOverriddenResolutions[] = {"1080p", "2160p"};

// Switching a resolution on or off switches its EDID override with it.
void followResolutionSwitch(StatusManager* store, const StatusMap& updates, const std::string& resolution) {
  auto request = updates.find(kResolutionKeyPrefix + resolution);
  if (request == updates.end()) {
    return;
  }
  const char* name = resolution.c_str();
  if (request->second == "Common.On") {
    TL_LOG(kLogInfo, "Request to enable %s detected, enabling %s EEDID override", name, name);
    store->setStatus(kEdidOverrideKeyPrefix + resolution, kEdidOverrideEnabled);
  } else if (request->second == "Common.Off") {
    TL_LOG(kLogInfo, "Request to disable %s detected, disabling %s EEDID override", name, name);
    store->setStatus(kEdidOverrideKeyPrefix + resolution, kEdidOverrideDisabled);
  }
}

// Selecting a resolution switches it on, with its EDID override.
void followResolutionSelection(StatusManager* store, StatusMap& updates) {
  auto request = updates.find("HDTV.TVResolutions.SelectedResolution");
  if (request == updates.end()) {
    return;
  }
  for (const std::string resolution : kOverriddenResolutions) {
    if (request->second == kResolutionKeyPrefix + resolution) {
      const char* name = resolution.c_str();
      TL_LOG(kLogInfo, "Request to set selected resolution to %s detected, enabling %s EEDID override", name, name);
      updates[kResolutionKeyPrefix + resolution] = "Common.On";
      store->setStatus(kEdidOverrideKeyPrefix + resolution, kEdidOverrideEnabled);
    }
  }
}

}  // namespace

void ConfigurationManagementService::handleOverrideRequests(StatusMap& updates) {
  TL_TRACE();
  StatusManager* store = statusStore();
  for (const char* resolution : kOverriddenResolutions) {
    followResolutionSwitch(store, updates, resolution);
  }
  // After the switches on purpose: selecting a resolution wins over
  // disabling it in the same request.
  followResolutionSelection(store, updates);
  auto request = updates.find("In Standby");
  if (request != updates.end()) {
    if (request->second == "True") {
      TL_LOG(kLogInfo, "Received UPnP request to enter standby");
      store->postEvent("Enter Standby Event", "", 0);
    } else if (request->second == "False") {
      TL_LOG(kLogInfo, "Received UPnP request to exit standby");
      store->postEvent("Exit Standby Event", "", 0);
    } else {
      TL_LOG(kLogInfo, "Received invalid UPnP request [%s] for standby", request->second.c_str());
    }
  }
}
