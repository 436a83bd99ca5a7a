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

  // For inspection by tests and tools.
  CHDBlobWriter* getBlobWriter() const { return mBlobWriter; }
  LogWatchHandler* getLogWatchHandler() const { return mLogWatchHandler; }
  ManageableDevice* getDevice() const { return mDevice.get(); }

 private:
  CHDBlobWriter* mBlobWriter = nullptr;
  LogWatchHandler* mLogWatchHandler = nullptr;
  zuna_upnp::Controller* mController = nullptr;
  Tolvane::SmartPtr<zuna::net::NetworkManager> mNetworkManager;
  Tolvane::SmartPtr<ManageableDevice> mDevice;
  Tolvane::Mutex mLock{true};
  Tolvane::Condition mStopCondition;
};
