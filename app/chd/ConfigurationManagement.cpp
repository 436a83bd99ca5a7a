#include "ConfigurationManagement.h"

#include <tinyxml.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane/TLCOM.h"
#include "zuna_upnp/Action.h"

TL_REGISTER_LOGGING(true, 5);

using zuna_upnp::UPnPReturn;

namespace {

const char* const INITIAL_UPDATE = "0,0001-01-01T00:00:00Z";
const unsigned CHECK_CHANGED_VARS_PERIOD_MS = 3000;
const unsigned SETTINGS_REFRESH_TIMEOUT_MS = 5000;

// XML element names of the action arguments and results.
const char* const CONTENT_PATH_LIST = "ContentPathList";
const char* const CONTENT_PATH = "ContentPath";
const char* const NODE_ATTRIBUTE_PATH_LIST = "NodeAttributePathList";
const char* const NODE_ATTRIBUTE_PATH = "NodeAttributePath";
const char* const PARAMETER_PATH = "ParameterPath";
const char* const PARAMETER_VALUE_LIST = "ParameterValueList";
const char* const PARAMETER = "Parameter";
const char* const VALUE = "Value";
const char* const STRUCTURE_PATH = "StructurePath";
const char* const NODE = "Node";
const char* const TYPE = "Type";
const char* const ACCESS = "Access";
const char* const EVENT_ON_CHANGE = "EventOnChange";
const char* const SUB_TREE = "SubTree";
const char* const URI = "URI";
const char* const LOCATION = "Location";
const char* const DATA_MODEL_ROOT = "/vsp/";
const char* const DATA_MODEL_URI = "urn:schemas-upnp-org:device:ManageableDevice:1";

const char* const CHANGES_APPLIED = "ChangesApplied";

const char* const SETTINGS_REFRESH_ERROR_EVENT = "Settings Refresh Error Event";
const char* const SETTINGS_REFRESH_COMPLETED_EVENT = "Settings Refresh Completed Event";
const char* const ASPECT_RATIO_KEY = "HDTV.TVRatio.AspectRatio";
const char* const STANDBY_PATH = "/vsp/Standby/IN_STANDBY";
const char* const CEC_ACTIVE_SOURCE_PATH = "/vsp/CHD/CEC_ACTIVE_SOURCE";

// Arguments are parsed by TinyXML's recursive descent on the service's
// thread: the cap keeps the deepest possible nesting far from the stack limit
// while leaving room for any list this data model can produce.
const size_t MAX_XML_ARGUMENT_LENGTH = 32768;

UPnPReturn success() { return UPnPReturn(0, "", 0); }
UPnPReturn invalidArgumentSyntax() { return UPnPReturn(1, "Invalid Argument Syntax", 701); }
UPnPReturn invalidXmlArgument() { return UPnPReturn(1, "Invalid XML Argument", 702); }
UPnPReturn noSuchName() { return UPnPReturn(1, "No Such Name", 703); }
UPnPReturn invalidValueType() { return UPnPReturn(1, "Invalid Value Type", 704); }
UPnPReturn invalidValue() { return UPnPReturn(1, "Invalid Value", 705); }

StatusManager* statusStore() { return StatusManager::getInstance(false); }

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

// The first element of the argument, or null when the text is not a well
// formed document with at least one element.
TiXmlElement* parseFirstElement(TiXmlDocument& document, const std::string& text) {
  if (text.size() > MAX_XML_ARGUMENT_LENGTH) {
    return nullptr;
  }
  document.Parse(text.c_str());
  if (document.Error()) {
    return nullptr;
  }
  return document.FirstChildElement();
}

TiXmlElement* addTextElement(TiXmlNode* parent, const char* name, const std::string& text) {
  TiXmlElement* element = new TiXmlElement(name);
  // Always a text child, so that an empty value prints as an open and a close tag.
  element->LinkEndChild(new TiXmlText(text));
  parent->LinkEndChild(element);
  return element;
}

std::string printDocument(const TiXmlDocument& document) {
  TiXmlPrinter printer;
  document.Accept(&printer);
  return printer.Str();
}

bool hasName(const TiXmlElement* element, const char* name) { return element->ValueStr() == name; }

// The text of a path element; null when the element is empty. Any content
// counts as text here, so that a list element under another name (such as a
// namespaced cms:ContentPathList) is refused for its name, not as empty.
const char* pathText(const TiXmlElement* element) {
  if (element->FirstChild() == nullptr) {
    return nullptr;
  }
  const char* text = element->GetText();
  return text != nullptr ? text : "";
}

// Enumeration values are stored as dotted keys; the data model shows only
// their last component.
std::string lastComponent(const std::string& value) {
  size_t dot = value.rfind('.');
  return dot == std::string::npos ? value : value.substr(dot + 1);
}

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
      mMaxDepth(0),
      mParameterUpdateCount(0),
      mSupportedParametersUpdate(INITIAL_UPDATE),
      mConfigurationUpdate(std::string(INITIAL_UPDATE) + ",,"),
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
  getDispatcher()->postDelayed(mCheckChangedVarsAgent, CHECK_CHANGED_VARS_PERIOD_MS);
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
    TL_LOG(2, "invalid action types for action %s - discarding", action->getName().c_str());
    delete action;
    return;
  }
  addAction(action);
}

void ConfigurationManagementService::loadSettingsManager() {
  TL_TRACE();
  if (TLCOM::getComponentManager()->loadLibrary("libzunalui_settingsmanager.so") != 0) {
    TL_LOG(0, "Failed to load SettingsManager library");
    exit(1);  // NOLINT(concurrency-mt-unsafe): the daemon cannot run without its settings manager
  }
  TLCOM::GetServiceHelper("SettingsManagerProxy", "localui::ISettingsManager", mSettingsManager);
  if (!mSettingsManager) {
    TL_LOG(0, "Failed to get SettingsManager");
    exit(1);  // NOLINT(concurrency-mt-unsafe): as above
  }
}

void ConfigurationManagementService::listenToStatusStore() {
  StatusNameList eventNames;
  eventNames.push_back(SETTINGS_REFRESH_ERROR_EVENT);
  eventNames.push_back(SETTINGS_REFRESH_COMPLETED_EVENT);
  // Only tracked for the HDCP gate of SetValues; it has no path of its own.
  mStatusKeys.push_back("HDCP Failure");
  StatusManager* store = statusStore();
  store->addListener(this, &mStatusThread);
  store->registerStatusKeys(this, mStatusKeys);
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
      TL_LOG(6, "KTVRNA-67902: Server has not UPnP subscribed to handle ConfigurationManagement notifications");
    }
    sendChangedVars();
  }
  if (mCheckChangedVarsAgent) {
    getDispatcher()->postDelayed(mCheckChangedVarsAgent, CHECK_CHANGED_VARS_PERIOD_MS);
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
  auto mapped = mStatusKeyToUpnpMap.find(statusKey);
  if (mapped == mStatusKeyToUpnpMap.end()) {
    return false;
  }
  const std::string path = mapped->second;
  const bool widescreen = value == "HDTV.TVRatio.AspectRatio.Widescreen";
  const std::string* stored = storeTrackedValue(path, translateToUpnpValue(path, std::move(value)));
  if (stored == nullptr) {
    TL_LOG(2, "UPnP key [%s] is not tracked as setting or status!", path.c_str());
    return false;
  }
  // TV_FORMAT is in no reference table: it is derived from the aspect ratio
  // on locale 2 boxes only.
  if (statusKey == ASPECT_RATIO_KEY && Tolvane::PlatformSettings::getInstance()->getLocale() == 2) {
    mStatuses["/vsp/HDTV/TV_FORMAT"] = widescreen ? "Widescreen 16:9" : "Standard 4:3";
  }
  publishParameterUpdate(path, *stored);
  return true;
}

// The new value takes the old one's place whole, so a large value that is
// replaced by a small one leaves no large buffer behind.
const std::string* ConfigurationManagementService::storeTrackedValue(const std::string& path, std::string upnpValue) {
  for (StringMap* values : {&mStatuses, &mFileSettings, &mSettings}) {
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
  TL_LOG(6, "Updated param[%s] with value[%s],  parameter update count[%d]  time[%s]", path.c_str(), upnpValue.c_str(),
         static_cast<int>(mParameterUpdateCount), time.c_str());
}

void ConfigurationManagementService::notifyEventPosted(std::string name, std::string value) {
  TL_TRACE();
  Tolvane::ScopedLock lock(mLock);
  if (name == SETTINGS_REFRESH_ERROR_EVENT) {
    // Only recorded: the waiting SetValues still waits for the completion
    // event (or its time-out) before it looks at the text.
    TL_LOG(2, "Settings refresh error reported: [%s]", value.c_str());
    mRefreshError = value;
  } else if (name == SETTINGS_REFRESH_COMPLETED_EVENT) {
    TL_LOG(5, "Settings refresh completed");
    mRefreshCondition.signal();
  }
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

// ---------------------------------------------------------------------------
// Path tree queries

int ConfigurationManagementService::countDepth(std::string path) {
  if (path.empty()) {
    TL_LOG(2, "Path was empty returning with a count of -1");
    return -1;
  }
  int count = 0;
  for (size_t slash = path.rfind('/'); slash != std::string::npos; slash = path.rfind('/')) {
    ++count;
    path.resize(slash);
  }
  return count;
}

bool ConfigurationManagementService::getValidPaths(std::string path, std::vector<std::string>& paths, int depthLimit) {
  TL_TRACE();
  if (path.empty() || path.back() != '/') {
    TL_LOG(5, "PATH IS LEAF");
    const std::pair<const StringMap*, const char*> sources[] = {
        {&mFileSettings, "mFileSettings"},
        {&mSettings, "mSettings"},
        {&mStatuses, "mStatuses"},
        {&mUpnpToQueryStatusMap, "mUpnpToQueryStatusMap"},
        {&mUpnpToTimerNameMap, "mUpnpToTimerNameMap"},
        {&mUpnpToCounterNameMap, "mUpnpToCounterNameMap"},
    };
    for (const auto& source : sources) {
      if (source.first->find(path) != source.first->end()) {
        TL_LOG(5, "Path [%s] is a valid key for %s", path.c_str(), source.second);
        paths.push_back(path);
        return true;
      }
    }
    TL_LOG(2, "Path [%s] is NOT a valid UPnP path key", path.c_str());
    return false;
  }

  bool found = false;
  const int nodeDepth = countDepth(path);
  for (const std::string& key : mUpnpKeys) {
    if (key.compare(0, path.size(), path) != 0) {
      continue;
    }
    if (countDepth(key) <= depthLimit) {
      paths.push_back(key);
      found = true;
      continue;
    }
    // Deeper than the limit: report the key's ancestor that sits at the limit.
    size_t pos = key.rfind('/');
    std::string parent = key.substr(0, pos);
    while (pos != std::string::npos && countDepth(parent) >= nodeDepth) {
      std::string candidate = key.substr(0, pos + 1);
      parent = key.substr(0, pos);
      if (countDepth(parent) <= depthLimit && candidate != path) {
        paths.push_back(candidate);
        found = true;
        break;
      }
      pos = parent.rfind('/');
    }
  }
  return found;
}

UPnPReturn ConfigurationManagementService::GetSupportedDataModels(std::string& supportedDataModels) {
  TL_TRACE();
  TiXmlDocument document;
  TiXmlElement* subTree = new TiXmlElement(SUB_TREE);
  document.LinkEndChild(subTree);
  addTextElement(subTree, URI, DATA_MODEL_URI);
  addTextElement(subTree, LOCATION, DATA_MODEL_ROOT);
  supportedDataModels = printDocument(document);
  return success();
}

UPnPReturn ConfigurationManagementService::GetSupportedParameters(std::string startingNode, unsigned searchDepth,
                                                                  std::string& result) {
  TL_TRACE();
  // Wide enough not to overflow: a depth just below 2^31 on a deep node still
  // answers, and a limit beyond any path depth is simply no limit.
  int64_t limit = static_cast<int64_t>(searchDepth) - 1 + countDepth(startingNode);
  if (searchDepth == 0) {
    if (limit < 0) {
      return invalidArgumentSyntax();
    }
    limit = mMaxDepth;
  }
  // Depths of 2^31 and more are negative to a signed 32-bit reader. An empty
  // node would reach the tree walk without a last character.
  if (static_cast<int32_t>(searchDepth) < 0 || limit < 0 || startingNode.empty()) {
    return invalidArgumentSyntax();
  }
  std::vector<std::string> paths;
  if (!getValidPaths(startingNode, paths, static_cast<int>(std::min<int64_t>(limit, INT32_MAX)))) {
    return noSuchName();
  }
  TiXmlDocument document;
  std::string lastEmitted;
  for (const std::string& path : paths) {
    // Only runs of equal neighbours collapse: a node met again later in load order is listed again.
    if (path != lastEmitted) {
      addTextElement(&document, STRUCTURE_PATH, path);
      lastEmitted = path;
    }
  }
  result = printDocument(document);
  return success();
}

UPnPReturn ConfigurationManagementService::GetInstances(std::string /*startingNode*/, unsigned /*searchDepth*/,
                                                        std::string& result) {
  TL_TRACE();
  // The data model has no multi-instance nodes.
  result = "";
  return success();
}

// ---------------------------------------------------------------------------
// GetValues

UPnPReturn ConfigurationManagementService::GetValues(std::string contentPathList, std::string& parameterValueList) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element = parseFirstElement(request, contentPathList);
  if (element == nullptr) {
    TL_LOG(0, "Server did not provide us with a proper xml string");
    return invalidXmlArgument();
  }
  if (hasName(element, CONTENT_PATH_LIST)) {
    element = element->FirstChildElement(CONTENT_PATH);
  }
  std::vector<std::string> paths;
  for (; element != nullptr; element = element->NextSiblingElement()) {
    const char* text = pathText(element);
    if (text == nullptr) {
      TL_LOG(0, "No text was given in XML element");
      return invalidXmlArgument();
    }
    if (!hasName(element, CONTENT_PATH)) {
      TL_LOG(0, "Element value should be ContentPath not [%s]", element->Value());
      return invalidXmlArgument();
    }
    if (!getValidPaths(text, paths, mMaxDepth)) {
      TL_LOG(0, "Path[%s] does not exists in our data model", text);
      return noSuchName();
    }
  }

  // Built afresh for every request and gone with it: an answer can be large
  // (paths may repeat), and nothing of it is worth keeping on a small box.
  TiXmlDocument answer;
  TiXmlElement* root = new TiXmlElement(PARAMETER_VALUE_LIST);
  answer.LinkEndChild(root);
  for (const std::string& path : paths) {
    TiXmlElement* parameter = new TiXmlElement(PARAMETER);
    root->LinkEndChild(parameter);
    addTextElement(parameter, PARAMETER_PATH, path);
    addTextElement(parameter, VALUE, readValue(path));
  }
  parameterValueList = printDocument(answer);
  return success();
}

std::string ConfigurationManagementService::readValue(const std::string& path) {
  TL_LOG(6, "Value of UPnP Path [%s] queried", path.c_str());
  for (const StringMap* values : {&mFileSettings, &mSettings, &mStatuses}) {
    auto entry = values->find(path);
    if (entry != values->end()) {
      // The CEC active source is a dotted address and is shown whole.
      const bool whole = (values == &mStatuses && path == CEC_ACTIVE_SOURCE_PATH);
      std::string value = whole ? entry->second : lastComponent(entry->second);
      TL_LOG(6, "Current value is [%s]", value.c_str());
      return value;
    }
  }
  auto query = mUpnpToQueryStatusMap.find(path);
  if (query != mUpnpToQueryStatusMap.end()) {
    std::string value = statusStore()->getStatus(query->second);
    TL_LOG(6, "Queried status [%s] and got value [%s]", query->second.c_str(), value.c_str());
    return value;
  }
  auto timer = mUpnpToTimerNameMap.find(path);
  if (timer != mUpnpToTimerNameMap.end()) {
    uint64_t elapsed = statusStore()->getTimerElapsed(timer->second);
    TL_LOG(6, "Timer [%s] has elapsed time [%llu]", timer->second.c_str(), static_cast<unsigned long long>(elapsed));
    return std::to_string(elapsed);
  }
  auto counter = mUpnpToCounterNameMap.find(path);
  if (counter != mUpnpToCounterNameMap.end()) {
    unsigned count = statusStore()->getCounter(counter->second);
    TL_LOG(6, "Counter [%s] has count value [%u]", counter->second.c_str(), count);
    return std::to_string(count);
  }
  TL_LOG(2, "Unable to find value for UPnP path [%s]", path.c_str());
  return "";
}

// ---------------------------------------------------------------------------
// SetValues and the settings refresh

UPnPReturn ConfigurationManagementService::SetValues(std::string parameterValueList, std::string& status) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element = parseFirstElement(request, parameterValueList);
  if (element == nullptr) {
    TL_LOG(0, "Server did not provide us with a proper xml string");
    return invalidXmlArgument();
  }
  TL_LOG(6, "parameterValueList [%s]", parameterValueList.c_str());
  if (hasName(element, PARAMETER_VALUE_LIST)) {
    element = element->FirstChildElement(PARAMETER);
  }
  StatusMap statusUpdates;
  StatusMap fileUpdates;
  UPnPReturn checked = collectSetRequest(element, statusUpdates, fileUpdates);
  if (!checked.isSuccess()) {
    return checked;
  }
  if (mHdmiPlugged && !mHdcpOk) {
    return UPnPReturn(4, "HDCP Failure", 802);
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
    TL_LOG(5, "Received request to set UPnP path [%s] to UPnP value [%s]", path.c_str(), value.c_str());
    const std::string statusKey = mUpnpToStatusKeyMap.at(path);  // every setting path has its entry
    const std::string statusValue = translateToStatusValue(statusKey, value);
    TL_LOG(5, "Mapped UPnP key:value [%s]:[%s] to status key:value [%s]:[%s]", path.c_str(), value.c_str(),
           statusKey.c_str(), statusValue.c_str());
    if (statusKey.empty() || statusValue.empty()) {
      continue;
    }
    TL_LOG(5, "Adding new status update! Key[%s] Value[%s]", statusKey.c_str(), statusValue.c_str());
    statusUpdates[statusKey] = statusValue;
    if (isFileSetting) {
      fileUpdates[statusKey] = statusValue;
    }
  }
  return success();
}

UPnPReturn ConfigurationManagementService::checkSetParameter(TiXmlElement* parameter, std::string& path,
                                                             std::string& value, bool& isFileSetting) {
  if (!hasName(parameter, PARAMETER)) {
    TL_LOG(0, "Element value should be Parameter not [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  TiXmlElement* pathElement = parameter->FirstChildElement(PARAMETER_PATH);
  if (pathElement == nullptr) {
    TL_LOG(0, "Server did not provide us with a ParameterPath for Parameter [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  TiXmlElement* valueElement = parameter->FirstChildElement(VALUE);
  if (valueElement == nullptr) {
    TL_LOG(0, "Server did not provide us with a Value for Parameter [%s]", parameter->Value());
    return invalidXmlArgument();
  }
  if (pathElement->GetText() == nullptr) {
    TL_LOG(0, "No text was given in ParameterPath XML element");
    return invalidXmlArgument();
  }
  if (valueElement->GetText() == nullptr) {
    TL_LOG(0, "No text was given in Value XML element");
    return invalidValueType();
  }
  path = pathElement->GetText();
  value = valueElement->GetText();
  if (path == STANDBY_PATH && !Tolvane::PlatformSettings::getInstance()->hasAmazonEchoSupport()) {
    return noSuchName();
  }
  if (isValidSettingPath(path)) {
    TL_LOG(6, "Path[%s] is not a file setting", path.c_str());
    isFileSetting = false;
  } else if (isValidFileSettingPath(path)) {
    TL_LOG(6, "Path[%s] is a file setting", path.c_str());
    isFileSetting = true;
  } else {
    TL_LOG(0, "Setting Path[%s] does not exists in our data model", path.c_str());
    return noSuchName();
  }
  if (!isValidUpnpValue(path, value)) {
    TL_LOG(0, "[%s] is not a valid Value for path [%s]", value.c_str(), path.c_str());
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
    return UPnPReturn(0, "No settings to apply", 0);
  }
  StatusManager* store = statusStore();
  store->postEvent("Settings Refresh Started Event", "", 0);
  handleOverrideRequests(statusUpdates);
  TL_LOG(5, "Posting %d SetValues status updates", static_cast<int>(statusUpdates.size()));
  for (const auto& update : statusUpdates) {
    TL_LOG(5, "Storing setting: Key[%s] Value[%s]", update.first.c_str(), update.second.c_str());
  }
  storeFileSettings(fileUpdates);
  store->setStatuses(statusUpdates);
  UPnPReturn outcome = success();
  if (mInStandby) {
    TL_LOG(2, "Zuna is currently in standby, not waiting for setting refresh response");
  } else {
    outcome = waitForSettingsRefresh();
  }
  status = CHANGES_APPLIED;
  return outcome;
}

void ConfigurationManagementService::storeFileSettings(const StatusMap& fileUpdates) {
  if (fileUpdates.empty()) {
    return;
  }
  for (const auto& update : fileUpdates) {
    TL_LOG(5, "Storing file setting: Key[%s] Value[%s]", update.first.c_str(), update.second.c_str());
    mSettingsManager->storeFileSetting(update.first, update.second);
  }
  TL_LOG(5, "Saving new settings file updates");
  mSettingsManager->saveFileSettings();
}

UPnPReturn ConfigurationManagementService::waitForSettingsRefresh() {
  statusStore()->postEvent("Settings Refresh Apply Event", "", 0);
  TL_LOG(5, "Waiting for Zuna to apply setting refresh");
  if (!mRefreshCondition.wait(mLock, SETTINGS_REFRESH_TIMEOUT_MS)) {
    TL_LOG(2, "Timed out waiting for settings refresh to complete");
    return UPnPReturn(3, "Settings Refresh Timed Out", 801);
  }
  TL_LOG(5, "Received setting refresh completed response");
  // An error event without a completion event ends as the time-out above.
  if (!mRefreshError.empty()) {
    TL_LOG(2, "Encountered settings refresh error: [%s]", mRefreshError.c_str());
    return UPnPReturn(4, mRefreshError, 802);
  }
  return success();
}

// ---------------------------------------------------------------------------
// Display and standby overrides

void ConfigurationManagementService::handleOverrideRequests(StatusMap& updates) {
  TL_TRACE();
  StatusManager* store = statusStore();
  auto request = updates.find("HDTV.TVResolutions.1080p");
  if (request != updates.end()) {
    if (request->second == "Common.On") {
      TL_LOG(5, "Request to enable 1080p detected, enabling 1080p EEDID override");
      store->setStatus("EDID Override 1080p", "EDID Override Enabled");
    } else if (request->second == "Common.Off") {
      TL_LOG(5, "Request to disable 1080p detected, disabling 1080p EEDID override");
      store->setStatus("EDID Override 1080p", "EDID Override Disabled");
    }
  }
  request = updates.find("HDTV.TVResolutions.2160p");
  if (request != updates.end()) {
    if (request->second == "Common.On") {
      TL_LOG(5, "Request to enable 2160p detected, enabling 2160p EEDID override");
      store->setStatus("EDID Override 2160p", "EDID Override Enabled");
    } else if (request->second == "Common.Off") {
      TL_LOG(5, "Request to disable 2160p detected, disabling 2160p EEDID override");
      store->setStatus("EDID Override 2160p", "EDID Override Disabled");
    }
  }
  // After the two rules above on purpose: selecting a resolution wins over
  // disabling it in the same request.
  request = updates.find("HDTV.TVResolutions.SelectedResolution");
  if (request != updates.end()) {
    if (request->second == "HDTV.TVResolutions.1080p") {
      TL_LOG(5, "Request to set selected resolution to 1080p detected, enabling 1080p EEDID override");
      updates["HDTV.TVResolutions.1080p"] = "Common.On";
      store->setStatus("EDID Override 1080p", "EDID Override Enabled");
    } else if (request->second == "HDTV.TVResolutions.2160p") {
      TL_LOG(5, "Request to set selected resolution to 2160p detected, enabling 2160p EEDID override");
      updates["HDTV.TVResolutions.2160p"] = "Common.On";
      store->setStatus("EDID Override 2160p", "EDID Override Enabled");
    }
  }
  request = updates.find("In Standby");
  if (request != updates.end()) {
    if (request->second == "True") {
      TL_LOG(5, "Received UPnP request to enter standby");
      store->postEvent("Enter Standby Event", "", 0);
    } else if (request->second == "False") {
      TL_LOG(5, "Received UPnP request to exit standby");
      store->postEvent("Exit Standby Event", "", 0);
    } else {
      TL_LOG(5, "Received invalid UPnP request [%s] for standby", request->second.c_str());
    }
  }
}

// ---------------------------------------------------------------------------
// GetAttributes

UPnPReturn ConfigurationManagementService::GetAttributes(std::string parameters, std::string& nodeAttributeValueList) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element = parseFirstElement(request, parameters);
  if (element == nullptr) {
    TL_LOG(0, "Server didn't provide us with a proper xml string");
    return invalidXmlArgument();
  }
  if (hasName(element, NODE_ATTRIBUTE_PATH_LIST)) {
    element = element->FirstChildElement(NODE_ATTRIBUTE_PATH);
  }
  std::vector<std::string> accepted;
  for (; element != nullptr; element = element->NextSiblingElement()) {
    const char* text = pathText(element);
    if (text == nullptr) {
      TL_LOG(0, "No text was given in XML element");
      return invalidXmlArgument();
    }
    if (!hasName(element, NODE_ATTRIBUTE_PATH)) {
      TL_LOG(0, "Element value should be NodeAttributePath not [%s]", element->Value());
      return invalidXmlArgument();
    }
    const std::string path = text;
    // A prefix test on purpose: any text that starts with a loaded key is
    // answered, echoed with its extra characters.
    for (const std::string& key : mUpnpKeys) {
      if (path.compare(0, key.size(), key) == 0) {
        accepted.push_back(path);
      }
    }
  }
  if (accepted.empty()) {
    return noSuchName();
  }
  TiXmlDocument answer;
  for (const std::string& path : accepted) {
    TiXmlElement* node = new TiXmlElement(NODE);
    answer.LinkEndChild(node);
    addTextElement(node, NODE_ATTRIBUTE_PATH, path);
    addTextElement(node, TYPE, "string(32)");
    addTextElement(node, ACCESS, "readOnly");
    addTextElement(node, EVENT_ON_CHANGE, "0");
  }
  nodeAttributeValueList = printDocument(answer);
  return success();
}

// ---------------------------------------------------------------------------
// Update and version actions, GenCHDData

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
  stateVariableValue = INITIAL_UPDATE;
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
    TL_LOG(2, "No configuration management listener to generate the CHD blob");
    return success();
  }
  mListener->genChdDataBlob();  // the result is not looked at
  return success();
}
