#include "ClientHomeDiagnostics.h"

#include <string>

#include "CHDBlobWriter.h"
#include "LogWatchHandler.h"
#include "ManageableDevice.h"
#include "UPnPDeviceInfo.h"
#include "tolvane/File.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "zuna_net/NetworkManager.h"
#include "zuna_upnp/Controller.h"

TL_REGISTER_LOGGING(true, kLogInfo);

ClientHomeDiagnosticsControl::ClientHomeDiagnosticsControl() : mController(zuna_upnp::Controller::getInstance()) {
  TL_TRACE();
}

ClientHomeDiagnosticsControl::~ClientHomeDiagnosticsControl() {
  TL_TRACE();
  mDevice = nullptr;
  mNetworkManager = nullptr;
}

bool ClientHomeDiagnosticsControl::start() {
  TL_TRACE();
  // Held until the wait releases it: a SIGTERM that arrives during start-up
  // waits in stop() until the objects it tears down exist.
  const Tolvane::ScopedLock lock(mLock);
  if (!initNetwork()) {
    TL_LOG(kLogError, "Failed to initialize the Network Monitor");
    return false;
  }
  if (!initManageableDevice()) {
    TL_LOG(kLogError, "Failed to initialize the ManageableDevice");
    return false;
  }
  if (!initLogWatch()) {
    TL_LOG(kLogError, "Failed to initialize LogWatch");
    return false;
  }
  mStopCondition.wait(mLock);
  return true;
}

bool ClientHomeDiagnosticsControl::stop() {
  TL_TRACE();
  const Tolvane::ScopedLock lock(mLock);
  if (mDevice) {
    mDevice->setBasicManagementListener(nullptr);
    mDevice->setConfigurationManagementListener(nullptr);
  }
  // The pointers stay set: stop() runs once, right before the process exits.
  delete mBlobWriter;       // NOLINT(cppcoreguidelines-owning-memory)
  delete mLogWatchHandler;  // NOLINT(cppcoreguidelines-owning-memory)
  mController->shutdown();
  if (mNetworkManager) {
    mNetworkManager->stop();
  }
  mStopCondition.signal();
  return true;
}

bool ClientHomeDiagnosticsControl::initNetwork() {
  TL_TRACE();
  mNetworkManager = Tolvane::SmartPtr<zuna::net::NetworkManager>(new zuna::net::NetworkManager());
  mNetworkManager->init();
  mNetworkManager->start();

  Tolvane::PlatformSettings* platform = Tolvane::PlatformSettings::getInstance();
  Tolvane::StringVector interfaces;
  interfaces.push_back(platform->getAutoIPInterface());
  interfaces.push_back(platform->getEthernetInterface());
  Tolvane::StringVector serverNames;
  serverNames.emplace_back("RVUServer");
  mController->init(mNetworkManager.get(), interfaces, serverNames);
  return true;
}

bool ClientHomeDiagnosticsControl::initManageableDevice() {
  TL_TRACE();
  Tolvane::PlatformSettings* platform = Tolvane::PlatformSettings::getInstance();
  UPnPDeviceInfo info;
  info.model = platform->getModel();
  info.clientId = "VESPARO " + platform->getModel() + "-" + platform->getManufacturerId();
  TL_LOG(kLogDetail, "Identifying client as [%s]", info.clientId.c_str());
  info.name = platform->getManufacturer() + " RVU Client";
  info.manufacturer = platform->getManufacturer();
  info.manufacturerId = platform->getManufacturerId();

  mBlobWriter = new CHDBlobWriter();  // NOLINT(cppcoreguidelines-owning-memory)
  mBlobWriter->start();

  mDevice = Tolvane::SmartPtr<ManageableDevice>(new ManageableDevice(info));
  mDevice->setConfigurationManagementListener(mBlobWriter);
  return true;
}

CHDBlobWriter* ClientHomeDiagnosticsControl::getBlobWriter() const {
  const Tolvane::ScopedLock lock(mLock);
  return mBlobWriter;
}

LogWatchHandler* ClientHomeDiagnosticsControl::getLogWatchHandler() const {
  const Tolvane::ScopedLock lock(mLock);
  return mLogWatchHandler;
}

ManageableDevice* ClientHomeDiagnosticsControl::getDevice() const {
  const Tolvane::ScopedLock lock(mLock);
  return mDevice.get();
}

bool ClientHomeDiagnosticsControl::initLogWatch() {
  TL_TRACE();
  if (!mDevice) {
    return false;
  }
  mLogWatchHandler = new LogWatchHandler(mDevice.get());  // NOLINT(cppcoreguidelines-owning-memory)
  mDevice->setBasicManagementListener(mLogWatchHandler);
  return true;
}
