// The ConfigurationManagement service's frame: its state variables and
// actions, the settings manager, the status store's changes mirrored into the
// data model, the periodic eventing, the update and version actions and
// GenCHDData. The actions that read and change the data model have files of
// their own (Paths, GetValues, SetValues, Overrides, Attributes).
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane/TLCOM.h"
#include "zuna_upnp/Action.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using zuna_upnp::UPnPReturn;
using namespace cm_arguments;

namespace {

const char* const kInitialUpdate = "0,0001-01-01T00:00:00Z";
const unsigned kCheckChangedVarsPeriodMs = 3000;

const char* const kAspectRatioKey = "HDTV.TVRatio.AspectRatio";

// Runs updateServiceParam again on the service dispatcher.
class UpdateServiceParamAgent : public Tolvane::EventAgent {
 public:
  UpdateServiceParamAgent(ConfigurationManagementService* service, std::string key, std::string value, bool flag)
      : EventAgent(service), mService(service), mKey(std::move(key)), mValue(std::move(value)), mFlag(flag) {}
  // Runs once: the value, which may be large, moves on instead of being copied.
  void run() override { mService->updateServiceParam(mKey, std::move(mValue), mFlag); }

 private:
  ConfigurationManagementService* mService;
  std::string mKey;
  std::string mValue;
  bool mFlag;
};

std::string localTimeNow() {
  time_t now = time(nullptr);
  struct tm local = {};
  localtime_r(&now, &local);
  char buffer[100] = {};
  strftime(buffer, sizeof(buffer), "%Y-%m-%dT%T", &local);
  return buffer;
}

}  // namespace

ConfigurationManagementService::ConfigurationManagementService(zuna_upnp::LocalDevice* device,
                                                               zuna_upnp::RootDevice* root)
    : zuna_upnp::LocalService(device, root),
      mParameterUpdateCount(0),
      mSupportedParametersUpdate(kInitialUpdate),
      mConfigurationUpdate(std::string(kInitialUpdate) + ",,"),
      mCurrentConfigurationVersion(0),
      mListener(nullptr),
      mStatusThread("CM_StatusThread", 0),
      mHdmiPlugged(false),
      mHdcpOk(false),
      mInStandby(false),
      mDetached(false) {
  TL_TRACE();
  setTypeID(zuna_upnp::TypeID("ConfigurationManagement", "schemas-upnp-org", 1, zuna_upnp::TypeID::SERVICE));
  makeURLs();
  makeServiceID();
  setServiceSpec(1, 1);
  declareStateVariables();
  registerActions();
  loadSettingsManager();
  storeSettings();
  genSCPDXML();
  listenToStatusStore();
  mCheckChangedVarsAgent = Tolvane::SmartPtr<Tolvane::EventAgent>(
      new Tolvane::AsyncEventAgent(this, &ConfigurationManagementService::checkChangedVars));
  getDispatcher()->postDelayed(mCheckChangedVarsAgent, kCheckChangedVarsPeriodMs);
}

ConfigurationManagementService::~ConfigurationManagementService() {
  TL_TRACE();
  shutdown();
  if (!mDetached.load()) {
    // The dispatcher was stopped before us and could not run the detach.
    detach();
  }
  mStatusThread.shutdown();
}

void ConfigurationManagementService::declareStateVariables() {
  zuna_upnp::Vars& vars = getVars();
  vars.add(zuna_upnp::Var("A_ARG_TYPE_SupportedDataModels", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_StructurePath", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_SearchDepth", "ui4", "0", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_StructurePathList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_PartialPath", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_InstancePathList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_ContentPathList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_ParameterValueList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_NodeAttributePathList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_NodeAttributeValueList", "string", "", false));
  vars.add(zuna_upnp::Var("A_ARG_TYPE_ChangeStatus", "string", "", false));
  vars.add(zuna_upnp::Var("ConfigurationUpdate", "string", "", true));
  vars.add(zuna_upnp::Var("CurrentConfigurationVersion", "ui4", "0", false));
  vars.add(zuna_upnp::Var("SupportedDataModelsUpdate", "string", "", true));
  vars.add(zuna_upnp::Var("SupportedParametersUpdate", "string", "", true));
}

void ConfigurationManagementService::registerActions() {
  typedef ConfigurationManagementService Self;
  using zuna_upnp::ActionT0;
  using zuna_upnp::ActionT1;
  using zuna_upnp::ActionT2;
  using zuna_upnp::ActionT3;
  registerAction(new ActionT1<Self, std::string&>("GetSupportedDataModels", this, &Self::GetSupportedDataModels), "",
                 "SupportedDataModels:A_ARG_TYPE_SupportedDataModels", "string &");
  registerAction(new ActionT3<Self, std::string, unsigned, std::string&>("GetSupportedParameters", this,
                                                                         &Self::GetSupportedParameters),
                 "StartingNode:A_ARG_TYPE_StructurePath SearchDepth:A_ARG_TYPE_SearchDepth",
                 "Result:A_ARG_TYPE_StructurePathList", "string, ui4, string &");
  registerAction(new ActionT3<Self, std::string, unsigned, std::string&>("GetInstances", this, &Self::GetInstances),
                 "StartingNode:A_ARG_TYPE_PartialPath SearchDepth:A_ARG_TYPE_SearchDepth",
                 "Result:A_ARG_TYPE_InstancePathList", "string, ui4, string &");
  registerAction(new ActionT2<Self, std::string, std::string&>("GetValues", this, &Self::GetValues),
                 "Parameters:A_ARG_TYPE_ContentPathList", "ParameterValueList:A_ARG_TYPE_ParameterValueList",
                 "string, string &");
  registerAction(new ActionT2<Self, std::string, std::string&>("SetValues", this, &Self::SetValues),
                 "ParameterValueList:A_ARG_TYPE_ParameterValueList", "Status:A_ARG_TYPE_ChangeStatus",
                 "string, string &");
  registerAction(new ActionT2<Self, std::string, std::string&>("GetAttributes", this, &Self::GetAttributes),
                 "Parameters:A_ARG_TYPE_NodeAttributePathList",
                 "NodeAttributeValueList:A_ARG_TYPE_NodeAttributeValueList", "string, string &");
  registerAction(new ActionT1<Self, std::string&>("GetConfigurationUpdate", this, &Self::GetConfigurationUpdate), "",
                 "StateVariableValue:ConfigurationUpdate", "string &");
  registerAction(
      new ActionT1<Self, unsigned&>("GetCurrentConfigurationVersion", this, &Self::GetCurrentConfigurationVersion), "",
      "StateVariableValue:CurrentConfigurationVersion", "ui4 &");
  registerAction(
      new ActionT1<Self, std::string&>("GetSupportedDataModelsUpdate", this, &Self::GetSupportedDataModelsUpdate), "",
      "StateVariableValue:SupportedDataModelsUpdate", "string &");
  registerAction(
      new ActionT1<Self, std::string&>("GetSupportedParametersUpdate", this, &Self::GetSupportedParametersUpdate), "",
      "StateVariableValue:SupportedParametersUpdate", "string &");
  // A handler without parameters passes the type check whatever the signature says.
  registerAction(new ActionT0<Self>("GenCHDData", this, &Self::GenCHDData), "", "", "string");
}

void ConfigurationManagementService::registerAction(zuna_upnp::Action* action, const char* inArgs, const char* outArgs,
                                                    const char* signature) {
  action->setInArgs(inArgs);
  action->setOutArgs(outArgs);
  if (!action->checkTypes(signature)) {
    TL_LOG(kLogWarning, "invalid action types for action %s - discarding", action->getName().c_str());
    delete action;
    return;
  }
  addAction(action);
}

void ConfigurationManagementService::loadSettingsManager() {
  TL_TRACE();
  if (TLCOM::getComponentManager()->loadLibrary("libzunalui_settingsmanager.so") != 0) {
    TL_LOG(kLogError, "Failed to load SettingsManager library");
    exit(1);  // NOLINT(concurrency-mt-unsafe): the daemon cannot run without its settings manager
  }
  TLCOM::GetServiceHelper("SettingsManagerProxy", "localui::ISettingsManager", mSettingsManager);
  if (!mSettingsManager) {
    TL_LOG(kLogError, "Failed to get SettingsManager");
    exit(1);  // NOLINT(concurrency-mt-unsafe): as above
  }
}

void ConfigurationManagementService::listenToStatusStore() {
  StatusNameList eventNames;
  eventNames.push_back(kSettingsRefreshErrorEvent);
  eventNames.push_back(kSettingsRefreshCompletedEvent);
  // Only tracked for the HDCP gate of SetValues; it has no path of its own.
  mModel.statusKeys.push_back("HDCP Failure");
  StatusManager* store = statusStore();
  store->addListener(this, &mStatusThread);
  store->registerStatusKeys(this, mModel.statusKeys);
  store->registerEventNames(this, eventNames);
}

void ConfigurationManagementService::setConfigurationManagementListener(ConfigurationManagementListener* listener) {
  TL_TRACE();
  const Tolvane::ScopedLock lock(mListenerLock);
  mListener = listener;
}

void ConfigurationManagementService::checkChangedVars() {
  TL_TRACE();
  if (getVars().hasChanges()) {
    if (!hasSubscribers()) {
      TL_LOG(kLogDetail,
             "KTVRNA-67902: Server has not UPnP subscribed to handle ConfigurationManagement notifications");
    }
    sendChangedVars();
  }
  if (mCheckChangedVarsAgent) {
    getDispatcher()->postDelayed(mCheckChangedVarsAgent, kCheckChangedVarsPeriodMs);
  }
}

void ConfigurationManagementService::notifyStatusChanged(StatusMap statuses) {
  TL_TRACE();
  for (auto& status : statuses) {
    updateServiceParam(status.first, std::move(status.second), false);
  }
}

bool ConfigurationManagementService::updateServiceParam(std::string statusKey, std::string value, bool flag) {
  TL_TRACE();
  Tolvane::EventDispatcher* dispatcher = getDispatcher();
  if (!dispatcher->isCurrentThread()) {
    // The data model is only ever written on the service dispatcher.
    dispatcher->post(Tolvane::SmartPtr<Tolvane::EventAgent>(
        new UpdateServiceParamAgent(this, std::move(statusKey), std::move(value), flag)));
    return true;
  }
  return applyServiceParam(statusKey, std::move(value));
}

bool ConfigurationManagementService::applyServiceParam(const std::string& statusKey, std::string value) {
  if (statusKey == "HDMI Plug") {
    mHdmiPlugged = (value == "Common.True");
  } else if (statusKey == "HDCP Failure") {
    mHdcpOk = (value == "Common.False");
    return true;
  } else if (statusKey == "In Standby") {
    mInStandby = (value == "True");
  }
  auto mapped = mModel.statusKeyToUpnp.find(statusKey);
  if (mapped == mModel.statusKeyToUpnp.end()) {
    return false;
  }
  const std::string path = mapped->second;
  const bool widescreen = value == "HDTV.TVRatio.AspectRatio.Widescreen";
  const std::string* stored = storeTrackedValue(path, translateToUpnpValue(path, std::move(value)));
  if (stored == nullptr) {
    TL_LOG(kLogWarning, "UPnP key [%s] is not tracked as setting or status!", path.c_str());
    return false;
  }
  // TV_FORMAT is in no reference table: it is derived from the aspect ratio
  // on locale 2 boxes only.
  if (statusKey == kAspectRatioKey && Tolvane::PlatformSettings::getInstance()->getLocale() == 2) {
    mModel.statuses["/vsp/HDTV/TV_FORMAT"] = widescreen ? "Widescreen 16:9" : "Standard 4:3";
  }
  publishParameterUpdate(path, *stored);
  return true;
}

// The new value takes the old one's place whole, so a large value that is
// replaced by a small one leaves no large buffer behind.
const std::string* ConfigurationManagementService::storeTrackedValue(const std::string& path, std::string upnpValue) {
  for (StringMap* values : {&mModel.statuses, &mModel.fileSettings, &mModel.settings}) {
    auto entry = values->find(path);
    if (entry != values->end()) {
      entry->second = std::move(upnpValue);
      return &entry->second;
    }
  }
  return nullptr;
}

void ConfigurationManagementService::publishParameterUpdate(const std::string& path, const std::string& upnpValue) {
  ++mParameterUpdateCount;
  const std::string time = localTimeNow();
  mSupportedParametersUpdate = std::to_string(mParameterUpdateCount) + "," + time;
  getVars().setValue("SupportedParametersUpdate", mSupportedParametersUpdate);
  TL_LOG(kLogDetail, "Updated param[%s] with value[%s],  parameter update count[%d]  time[%s]", path.c_str(),
         upnpValue.c_str(), static_cast<int>(mParameterUpdateCount), time.c_str());
}

void ConfigurationManagementService::shutdown() {
  TL_TRACE();
  Tolvane::EventDispatcher* dispatcher = getDispatcher();
  if (!dispatcher->isCurrentThread()) {
    dispatcher->send(Tolvane::SmartPtr<Tolvane::EventAgent>(
        new Tolvane::SyncEventAgent(this, &ConfigurationManagementService::shutdown)));
    return;
  }
  detach();
}

void ConfigurationManagementService::detach() {
  statusStore()->removeListener(this);
  mCheckChangedVarsAgent = nullptr;
  // The store's callbacks are queued under the listener pointer, our own
  // agents under the service pointer.
  IStatusUpdateListener* listener = this;
  mStatusThread.removeAgentsByReceiver(listener);
  mStatusThread.removeAgentsByReceiver(this);
  getDispatcher()->removeAgentsByReceiver(listener);
  getDispatcher()->removeAgentsByReceiver(this);
  mDetached.store(true);
}

UPnPReturn ConfigurationManagementService::GetConfigurationUpdate(std::string& stateVariableValue) {
  TL_TRACE();
  // Answered from the member, not from the ConfigurationUpdate state variable.
  stateVariableValue = mConfigurationUpdate;
  return success();
}

UPnPReturn ConfigurationManagementService::GetCurrentConfigurationVersion(unsigned& stateVariableValue) {
  TL_TRACE();
  stateVariableValue = mCurrentConfigurationVersion;
  return success();
}

UPnPReturn ConfigurationManagementService::GetSupportedDataModelsUpdate(std::string& stateVariableValue) {
  TL_TRACE();
  stateVariableValue = kInitialUpdate;
  return success();
}

UPnPReturn ConfigurationManagementService::GetSupportedParametersUpdate(std::string& stateVariableValue) {
  TL_TRACE();
  stateVariableValue = mSupportedParametersUpdate;
  return success();
}

UPnPReturn ConfigurationManagementService::GenCHDData() {
  TL_TRACE();
  // The device is published before the blob writer is attached, and stop()
  // detaches it again: a request in either window must not crash the daemon.
  const Tolvane::ScopedLock lock(mListenerLock);
  if (mListener == nullptr) {
    TL_LOG(kLogWarning, "No configuration management listener to generate the CHD blob");
    return success();
  }
  mListener->genChdDataBlob();  // the result is not looked at
  return success();
}
