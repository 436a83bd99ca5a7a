// Owns everything the daemon runs and parks the main thread until stopped.
#pragma once

#include "tolvane/Mutex.h"
#include "tolvane/RefCount.h"

class CHDBlobWriter;
class LogWatchHandler;
class ManageableDevice;

namespace zuna_upnp {
class Controller;
}
namespace zuna {
namespace net {
class NetworkManager;
}
}  // namespace zuna

class ClientHomeDiagnosticsControl {
 public:
  ClientHomeDiagnosticsControl();
  virtual ~ClientHomeDiagnosticsControl();
  ClientHomeDiagnosticsControl(const ClientHomeDiagnosticsControl&) = delete;
  ClientHomeDiagnosticsControl& operator=(const ClientHomeDiagnosticsControl&) = delete;

  bool start();
  bool stop();
  bool initNetwork();
  bool initManageableDevice();
  bool initLogWatch();

  // For inspection by tests and tools; they wait while start() initialises.
  CHDBlobWriter* getBlobWriter() const;
  LogWatchHandler* getLogWatchHandler() const;
  ManageableDevice* getDevice() const;

 private:
  CHDBlobWriter* mBlobWriter = nullptr;
  LogWatchHandler* mLogWatchHandler = nullptr;
  zuna_upnp::Controller* mController = nullptr;
  Tolvane::SmartPtr<zuna::net::NetworkManager> mNetworkManager;
  Tolvane::SmartPtr<ManageableDevice> mDevice;
  // Guards the members between start() (until its wait), stop() and the getters.
  mutable Tolvane::Mutex mLock{true};
  Tolvane::Condition mStopCondition;
};
