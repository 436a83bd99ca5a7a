// The UPnP root device that carries the configuration management and basic
// management services.
#pragma once

#include <string>

#include "BasicManagementListener.h"
#include "ConfigurationManagementListener.h"
#include "UPnPDeviceInfo.h"
#include "tolvane/RefCount.h"
#include "zuna_upnp/LocalDevice.h"

class BasicManagementService;
class ConfigurationManagementService;

class ManageableDevice : public zuna_upnp::RootDevice, public Tolvane::RefCount {
 public:
  explicit ManageableDevice(const UPnPDeviceInfo& info);
  ~ManageableDevice() override;

  void setBasicManagementListener(BasicManagementListener* listener);
  void setConfigurationManagementListener(ConfigurationManagementListener* listener);
  bool updateUPnPServiceParam(std::string service, std::string key, std::string value, bool flag);

  BasicManagementService* getBasicManagementService() const { return mBasicManagementService; }
  ConfigurationManagementService* getConfigurationManagementService() const { return mConfigurationManagementService; }

 private:
  BasicManagementService* mBasicManagementService = nullptr;
  ConfigurationManagementService* mConfigurationManagementService = nullptr;
};
