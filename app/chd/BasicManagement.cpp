#include "BasicManagement.h"

BasicManagementService::BasicManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root)
    : zuna_upnp::LocalService(device, root) {
  setTypeID(zuna_upnp::TypeID("BasicManagement", "schemas-upnp-org", 1, zuna_upnp::TypeID::SERVICE));
  makeURLs();
  makeServiceID();
  genSCPDXML();
}
BasicManagementService::~BasicManagementService() = default;
void BasicManagementService::setBasicManagementListener(BasicManagementListener* listener) {
  mBasicManagementListener = listener;
}
