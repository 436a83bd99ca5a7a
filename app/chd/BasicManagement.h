// The BasicManagement service: device status, log URIs, blob announcements and
// the HTTP delivery of the box's log files.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "BasicManagementListener.h"
#include "status/StatusManager.h"
#include "tolvane/File.h"
#include "zuna_http/WebServer.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

class BasicManagementService : public zuna_upnp::LocalService, public IStatusUpdateListener {
 public:
  BasicManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root);
  ~BasicManagementService() override;

  // Actions; both always succeed.
  zuna_upnp::UPnPReturn GetDeviceStatus(std::string& DeviceStatus);  // NOLINT(readability-identifier-naming)
  zuna_upnp::UPnPReturn GetLogURIs(std::string& LogURIs);            // NOLINT(readability-identifier-naming)

  // Null detaches. Collection commands still running are killed, and the call returns once no request still
  // uses the previous listener, so that the caller may delete it, or after a bounded wait (a second) at most.
  void setBasicManagementListener(BasicManagementListener* listener);

  void notifyStatusChanged(StatusMap statuses) override;
  void notifyEventPosted(std::string name, std::string value) override;

  // Web provider entry: log files below the log path, everything else to the stack.
  void handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) override;
  void sendResponse(bool ok, zuna_http::WebSocket* socket, int64_t contentLength);
  // The file's length once all of it is written, or a negative error.
  int64_t sendLogs(Tolvane::File* file, zuna_http::WebSocket* socket);

  void updateSyslogURIs();
  void updateLogURIs();
  void handleChdBlobUpdated();

 protected:
  // Seams for tests: the one read of a log file, and the event send of changed state variables.
  virtual int64_t readLogChunk(Tolvane::File* file, void* buffer, size_t length);
  virtual bool publishChangedVars();

 private:
  void addActions();
  void registerWebProviders();
  void registerWithStatusStore();
  bool isOwnServicePath(const std::string& path) const;
  void waitForRunningRefreshes(std::unique_lock<std::mutex>& lock);
  int refreshWithListener(const std::string& path);
  int refreshBeforeSending(BasicManagementListener* listener, const std::string& path);
  int serveLogFile(const std::string& path, zuna_http::WebSocket* socket);
  int64_t sendChunked(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length);
  int64_t sendWhole(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length);
  std::string formatUptimeStart();
  void setLogURIsVar(const std::string& uris);

  // Fixed at start: every served file lies below it.
  const std::string mLogPath;

  // The strings below are written by status-store callbacks and read by actions on other threads.
  mutable std::mutex mStringsLock;
  std::string mLogURIs;
  std::string mSyslogUris;
  std::string mChdBlobUris;
  std::string mEedidDumpFilePath;
  std::string mDeviceStatus;

  // Keeps each update and the events it sends in one piece when the constructor and a callback overlap.
  std::mutex mPublishLock;

  std::unique_ptr<Tolvane::ServerSocket> mServerSocket;

  // Requests count themselves in while they use the listener, so that replacing it can wait for them.
  std::mutex mListenerLock;
  std::condition_variable mListenerIdle;
  BasicManagementListener* mBasicManagementListener = nullptr;
  int mRefreshesRunning = 0;
};
