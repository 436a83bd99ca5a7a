#include "FakePlatformSettings.h"

namespace chdtest {

bool FakePlatformSettings::hasChdSupport() { return get(&Values::chdSupport); }
std::string FakePlatformSettings::getModel() { return get(&Values::model); }
std::string FakePlatformSettings::getManufacturer() { return get(&Values::manufacturer); }
std::string FakePlatformSettings::getManufacturerId() { return get(&Values::manufacturerId); }
int FakePlatformSettings::getLocale() { return get(&Values::locale); }
bool FakePlatformSettings::hasWifi() { return get(&Values::wifi); }
bool FakePlatformSettings::hasLogChunking() { return get(&Values::logChunking); }
bool FakePlatformSettings::supportsDumpingEEDID() { return get(&Values::eedidDumps); }
bool FakePlatformSettings::hasAmazonEchoSupport() { return get(&Values::amazonEcho); }
std::string FakePlatformSettings::getLogPath() { return get(&Values::logPath); }
std::string FakePlatformSettings::getAutoIPInterface() { return get(&Values::autoIp); }
std::string FakePlatformSettings::getEthernetInterface() { return get(&Values::ethernet); }

void FakePlatformSettings::setChdSupport(bool supported) { set(&Values::chdSupport, supported); }

void FakePlatformSettings::setIdentity(const std::string& model, const std::string& manufacturer,
                                       const std::string& manufacturerId) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mValues.model = model;
  mValues.manufacturer = manufacturer;
  mValues.manufacturerId = manufacturerId;
}

void FakePlatformSettings::setLocale(int locale) { set(&Values::locale, locale); }
void FakePlatformSettings::setWifi(bool wifi) { set(&Values::wifi, wifi); }
void FakePlatformSettings::setLogChunking(bool chunking) { set(&Values::logChunking, chunking); }
void FakePlatformSettings::setEedidDumps(bool dumps) { set(&Values::eedidDumps, dumps); }
void FakePlatformSettings::setAmazonEcho(bool echo) { set(&Values::amazonEcho, echo); }
void FakePlatformSettings::setLogPath(const std::string& path) { set(&Values::logPath, path); }

void FakePlatformSettings::setInterfaces(const std::string& autoIp, const std::string& ethernet) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mValues.autoIp = autoIp;
  mValues.ethernet = ethernet;
}

}  // namespace chdtest
