#include "ConfigurationManagement.h"

ConfigurationManagementService::ConfigurationManagementService(zuna_upnp::LocalDevice* device,
                                                               zuna_upnp::RootDevice* root)
    : zuna_upnp::LocalService(device, root) {
  setTypeID(zuna_upnp::TypeID("ConfigurationManagement", "schemas-upnp-org", 1, zuna_upnp::TypeID::SERVICE));
  makeURLs();
  makeServiceID();
  genSCPDXML();
}
ConfigurationManagementService::~ConfigurationManagementService() = default;
void ConfigurationManagementService::setConfigurationManagementListener(ConfigurationManagementListener* listener) {
  mListener = listener;
}
