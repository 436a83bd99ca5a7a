#include "zuna_upnp/LocalDevice.h"

#include <glib.h>

#include "DescriptionXml.h"
#include "tolvane/Logging.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace zuna_upnp {

namespace {

// The box's identity (machine id, else MAC address) rather than its host name:
// boxes made from one image share the host name but must not share a UDN.
std::string boxIdentity() {
  auto* settings = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  std::string identity = settings != nullptr
                             ? settings->getBoxIdentity()
                             : Tolvane::host::readBoxIdentity(Tolvane::host::defaultMachineIdFiles(), "/sys/class/net");
  if (identity.empty()) {
    identity = std::string("host:") + g_get_host_name();
    TL_LOG(2, "No machine id and no MAC address; the UDN follows the host name [%s]", g_get_host_name());
  }
  return identity;
}

}  // namespace

struct LocalDevice::Impl {
  TypeID typeId{std::string(), std::string(), 1, TypeID::DEVICE};
  std::string descriptionPath;
  std::string udn;
  std::string friendlyName;
  std::string manufacturer;
  std::string modelDescription;
  std::string modelName;
  std::string modelNumber;
  bool advertise = true;
  bool presentation = false;
  std::vector<LocalService*> services;
  std::string xml;
};

LocalDevice::LocalDevice() : mImpl(std::make_unique<Impl>()) {}

LocalDevice::~LocalDevice() {
  for (LocalService* service : mImpl->services) {
    delete service;
  }
}

void LocalDevice::setTypeID(const TypeID& typeId) { mImpl->typeId = typeId; }

const TypeID& LocalDevice::getTypeID() const { return mImpl->typeId; }

void LocalDevice::makeURLs() { mImpl->descriptionPath = "/" + mImpl->typeId.getName() + "/description.xml"; }

void LocalDevice::makeUDN() {
  mImpl->udn = "uuid:" + Tolvane::host::deviceUuid(boxIdentity(), mImpl->typeId.toString());
}

const std::string& LocalDevice::getUDN() const { return mImpl->udn; }

std::string LocalDevice::getDescriptionURL() const { return mImpl->descriptionPath; }

void LocalDevice::setStrings(const std::string& friendlyName, const std::string& manufacturer,
                             const std::string& modelDescription, const std::string& modelName,
                             const std::string& modelNumber) {
  mImpl->friendlyName = friendlyName;
  mImpl->manufacturer = manufacturer;
  mImpl->modelDescription = modelDescription;
  mImpl->modelName = modelName;
  mImpl->modelNumber = modelNumber;
}

const std::string& LocalDevice::getFriendlyName() const { return mImpl->friendlyName; }
const std::string& LocalDevice::getManufacturer() const { return mImpl->manufacturer; }
const std::string& LocalDevice::getModelDescription() const { return mImpl->modelDescription; }
const std::string& LocalDevice::getModelName() const { return mImpl->modelName; }
const std::string& LocalDevice::getModelNumber() const { return mImpl->modelNumber; }

void LocalDevice::setFlags(bool advertise, bool presentation) {
  mImpl->advertise = advertise;
  mImpl->presentation = presentation;
}

bool LocalDevice::getAdvertise() const { return mImpl->advertise; }

bool LocalDevice::getPresentation() const { return mImpl->presentation; }

void LocalDevice::addService(LocalService* service) {
  if (service != nullptr) {
    mImpl->services.push_back(service);
  }
}

size_t LocalDevice::getServiceCount() const { return mImpl->services.size(); }

LocalService* LocalDevice::getService(size_t index) const {
  return index < mImpl->services.size() ? mImpl->services[index] : nullptr;
}

void LocalDevice::genXMLDefinition() { mImpl->xml = buildDeviceDescription(*this); }

const std::string& LocalDevice::getXML() const { return mImpl->xml; }

bool LocalDevice::getIsRoot() const { return false; }

bool RootDevice::getIsRoot() const { return true; }

}  // namespace zuna_upnp
