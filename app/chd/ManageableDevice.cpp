#include "ManageableDevice.h"

#include "BasicManagement.h"
#include "ConfigurationManagement.h"
#include "tolvane/Logging.h"
#include "zuna_upnp/Controller.h"

TL_REGISTER_LOGGING(true, kLogInfo);

ManageableDevice::ManageableDevice(const UPnPDeviceInfo& info) {
  TL_TRACE();
  setTypeID(zuna_upnp::TypeID("ManageableDevice", "schemas-upnp-org", 1, zuna_upnp::TypeID::DEVICE));
  makeURLs();
  makeUDN();

  setStrings(info.name + " ManageableDevice", info.manufacturer, info.clientId, info.model, info.manufacturerId);
  TL_LOG(kLogInfo, "Using strings [%s] [%s] [%s] [%s]", getFriendlyName().c_str(), getManufacturer().c_str(),
         getModelNumber().c_str(), getModelDescription().c_str());
  setFlags(true, false);

  mBasicManagementService = new BasicManagementService(this, this);
  mConfigurationManagementService = new ConfigurationManagementService(this, this);
  // The description lists configuration management first; updateUPnPServiceParam searches in this order.
  addService(mConfigurationManagementService);
  addService(mBasicManagementService);

  genXMLDefinition();
  zuna_upnp::Controller::getInstance()->addRootDevice(this);
}

ManageableDevice::~ManageableDevice() { TL_TRACE(); }

void ManageableDevice::setBasicManagementListener(BasicManagementListener* listener) {
  TL_TRACE();
  if (mBasicManagementService == nullptr) {
    TL_LOG(kLogError, "BasicManagementService is NULL, can't set BasicManagementListener");
    return;
  }
  mBasicManagementService->setBasicManagementListener(listener);
}

void ManageableDevice::setConfigurationManagementListener(ConfigurationManagementListener* listener) {
  TL_TRACE();
  if (mConfigurationManagementService == nullptr) {
    TL_LOG(kLogError, "mConfigurationManagementService is NULL, can't set mConfigurationManagementListener");
    return;
  }
  mConfigurationManagementService->setConfigurationManagementListener(listener);
}

bool ManageableDevice::updateUPnPServiceParam(std::string service, std::string key, std::string value, bool flag) {
  TL_TRACE();
  for (size_t i = 0; i < getServiceCount(); ++i) {
    zuna_upnp::LocalService* candidate = getService(i);
    const std::string& name = candidate->getName();
    TL_LOG(kLogDetail, "service index [%d] service [%s]", static_cast<int>(i), name.c_str());
    if (name == service) {
      candidate->updateServiceParam(key, value, flag);
      return true;
    }
  }
  TL_LOG(kLogDetail, "Couldn't find service[%s]", service.c_str());
  return false;
}
