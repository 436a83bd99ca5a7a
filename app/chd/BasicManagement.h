// The BasicManagement service: device status, log URIs and log delivery.
// (Skeleton: filled in by the basic management change.)
#pragma once

#include "BasicManagementListener.h"
#include "status/StatusManager.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

class BasicManagementService : public zuna_upnp::LocalService, public IStatusUpdateListener {
 public:
  BasicManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root);
  ~BasicManagementService() override;

  void setBasicManagementListener(BasicManagementListener* listener);

 private:
  BasicManagementListener* mBasicManagementListener = nullptr;
};
