// The ConfigurationManagement service and its "/vsp/" data model.
// (Skeleton: filled in by the configuration management change.)
#pragma once

#include "ConfigurationManagementListener.h"
#include "status/StatusManager.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

class ConfigurationManagementService : public zuna_upnp::LocalService, public IStatusUpdateListener {
 public:
  ConfigurationManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root);
  ~ConfigurationManagementService() override;

  void setConfigurationManagementListener(ConfigurationManagementListener* listener);

 private:
  ConfigurationManagementListener* mListener = nullptr;
};
