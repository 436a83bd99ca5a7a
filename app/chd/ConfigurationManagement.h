// The ConfigurationManagement service of the manageable device: the "/vsp/"
// data model, its eleven actions and the settings-refresh handshake with the
// client application.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ConfigurationDataModel.h"
#include "ConfigurationManagementListener.h"
#include "status/StatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane/Mutex.h"
#include "tolvane/RefCount.h"
#include "zuna_localui/ISettingsManager.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"
#include "zuna_upnp/Types.h"

class TiXmlElement;

class ConfigurationManagementService : public zuna_upnp::LocalService, public IStatusUpdateListener {
 public:
  typedef ConfigurationDataModel::StringMap StringMap;
  typedef ConfigurationDataModel::StringList StringList;
  typedef ConfigurationDataModel::ValueListMap ValueListMap;

  ConfigurationManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root);
  ~ConfigurationManagementService() override;

  void setConfigurationManagementListener(ConfigurationManagementListener* listener);

  // The data model as loaded; its values change on the service dispatcher.
  const ConfigurationDataModel& dataModel() const { return mModel; }
  // The thread on which the status store's changes reach the service, before
  // they are handed on to the service dispatcher.
  Tolvane::EventDispatcher& statusDispatcher() { return mStatusThread; }

  // Mirrors one status-store change into the data model, always on the
  // service dispatcher. True when the key belongs to the data model (or the
  // change was handed on to the dispatcher).
  bool updateServiceParam(std::string statusKey, std::string value, bool flag) override;
  void checkChangedVars();
  void notifyStatusChanged(StatusMap statuses) override;
  void notifyEventPosted(std::string name, std::string value) override;
  // Detaches from the status store and ends the periodic eventing; must run
  // before the service is destroyed (the destructor runs it otherwise).
  void shutdown();

  // The actions, in registration order.
  zuna_upnp::UPnPReturn GetSupportedDataModels(std::string& supportedDataModels);
  zuna_upnp::UPnPReturn GetSupportedParameters(std::string startingNode, unsigned searchDepth, std::string& result);
  zuna_upnp::UPnPReturn GetInstances(std::string startingNode, unsigned searchDepth, std::string& result);
  zuna_upnp::UPnPReturn GetValues(std::string contentPathList, std::string& parameterValueList);
  zuna_upnp::UPnPReturn SetValues(std::string parameterValueList, std::string& status);
  zuna_upnp::UPnPReturn GetAttributes(std::string parameters, std::string& nodeAttributeValueList);
  zuna_upnp::UPnPReturn GetConfigurationUpdate(std::string& stateVariableValue);
  zuna_upnp::UPnPReturn GetCurrentConfigurationVersion(unsigned& stateVariableValue);
  zuna_upnp::UPnPReturn GetSupportedDataModelsUpdate(std::string& stateVariableValue);
  zuna_upnp::UPnPReturn GetSupportedParametersUpdate(std::string& stateVariableValue);
  zuna_upnp::UPnPReturn GenCHDData();

  // Path tree helpers.
  int countDepth(std::string path);
  bool getValidPaths(std::string path, std::vector<std::string>& paths, int depthLimit);
  bool isValidSettingPath(const std::string& path);
  bool isValidFileSettingPath(const std::string& path);
  bool isValidUpnpValue(const std::string& path, const std::string& value);

  // Value translation between the UPnP and the settings/status spelling.
  std::string translateToUpnpValue(std::string path, std::string statusValue);
  std::string translateToStatusValue(std::string statusKey, std::string upnpValue);

  void handleOverrideRequests(StatusMap& updates);

 private:
  // The client application's answers in the settings-refresh handshake.
  static constexpr const char* kSettingsRefreshErrorEvent = "Settings Refresh Error Event";
  static constexpr const char* kSettingsRefreshCompletedEvent = "Settings Refresh Completed Event";

  void declareStateVariables();
  void registerActions();
  void registerAction(zuna_upnp::Action* action, const char* inArgs, const char* outArgs, const char* signature);
  void loadSettingsManager();
  void listenToStatusStore();
  void detach();
  bool applyServiceParam(const std::string& statusKey, std::string value);
  const std::string* storeTrackedValue(const std::string& path, std::string upnpValue);
  void publishParameterUpdate(const std::string& path, const std::string& upnpValue);
  std::string readValue(const std::string& path);
  void acceptAttributePath(const std::string& path, std::vector<std::string>& accepted) const;
  zuna_upnp::UPnPReturn collectSetRequest(TiXmlElement* element, StatusMap& statusUpdates, StatusMap& fileUpdates);
  zuna_upnp::UPnPReturn checkSetParameter(TiXmlElement* parameter, std::string& path, std::string& value,
                                          bool& isFileSetting);
  zuna_upnp::UPnPReturn applySettings(StatusMap& statusUpdates, const StatusMap& fileUpdates, std::string& status);
  zuna_upnp::UPnPReturn waitForSettingsRefresh();
  void storeFileSettings(const StatusMap& fileUpdates);

  // Data model loading (the tables).
  void storeSettings();
  void populateUpnpValueMap();
  void populateStatusValueMap();
  void populateSpecialTranslationMap();
  void addTrackedKeyMapping(const std::string& path, const std::string& key, bool recordEmptyKey, StringMap& values);
  void addFileSettingKeyMapping(std::string path, std::string key);
  void addSettingKeyMapping(std::string path, std::string key);
  void addStatusKeyMapping(std::string path, std::string key);
  void addQueryKeyMapping(std::string path, std::string key);
  void addTimerKeyMapping(std::string path, std::string name);
  void addCounterKeyMapping(std::string path, std::string name);
  void calculateMaxDepth();

  uint32_t mParameterUpdateCount;
  std::string mSupportedParametersUpdate;
  std::string mConfigurationUpdate;
  uint32_t mCurrentConfigurationVersion;
  // Set on the main or signal thread, used by GenCHDData on the dispatcher.
  // mListenerLock makes a detach wait for a GenCHDData that is calling the
  // listener, so the listener may be deleted once it is detached.
  ConfigurationManagementListener* mListener;
  Tolvane::Mutex mListenerLock;
  std::string mRefreshError;
  Tolvane::EventThread mStatusThread;
  Tolvane::Mutex mLock;
  Tolvane::Condition mRefreshCondition;
  ConfigurationDataModel mModel;
  Tolvane::SmartPtr<zuna_localui::ISettingsManager> mSettingsManager;
  Tolvane::SmartPtr<Tolvane::EventAgent> mCheckChangedVarsAgent;
  bool mHdmiPlugged;
  bool mHdcpOk;
  bool mInStandby;
  // Set once the service no longer listens to the store nor runs agents.
  std::atomic<bool> mDetached;
};
