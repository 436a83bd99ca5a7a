#include "zuna_upnp/LocalDevice.h"

#include <glib.h>

#include "DescriptionXml.h"

namespace zuna_upnp {

namespace {

// A name-based (version 5 style) UUID: the same host and device type always
// give the same UDN, so control points recognise the device after a restart.
std::string nameBasedUuid(const std::string& name) {
  GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA1);
  static const char kNamespace[] = "chd.upnp.device";
  g_checksum_update(checksum, reinterpret_cast<const guchar*>(kNamespace), sizeof kNamespace - 1);
  g_checksum_update(checksum, reinterpret_cast<const guchar*>(name.data()), static_cast<gssize>(name.size()));
  guint8 digest[20];
  gsize length = sizeof digest;
  g_checksum_get_digest(checksum, digest, &length);
  g_checksum_free(checksum);
  digest[6] = static_cast<guint8>((digest[6] & 0x0f) | 0x50);
  digest[8] = static_cast<guint8>((digest[8] & 0x3f) | 0x80);
  char text[37];
  g_snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", digest[0],
             digest[1], digest[2], digest[3], digest[4], digest[5], digest[6], digest[7], digest[8], digest[9],
             digest[10], digest[11], digest[12], digest[13], digest[14], digest[15]);
  return text;
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
  mImpl->udn = "uuid:" + nameBasedUuid(std::string(g_get_host_name()) + "/" + mImpl->typeId.toString());
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
