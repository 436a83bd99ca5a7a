// The BasicManagement service: device status, log URIs, blob announcements and
// the HTTP delivery of the box's log files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "BasicManagementListener.h"
#include "status/StatusManager.h"
#include "tolvane/File.h"
#include "tolvane/Mutex.h"
#include "zuna_http/WebServer.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

// The one read of a log file while it is sent.
class LogChunkReader {
 public:
  virtual ~LogChunkReader() = default;
  // Bytes read (0 at the end of the file), or negative on error.
  virtual int64_t read(Tolvane::File* file, void* buffer, size_t length) = 0;
};

// Hands a service's changed state variables to its subscribers as one event.
class ChangedVarsPublisher {
 public:
  virtual ~ChangedVarsPublisher() = default;
  // False when nothing had changed.
  virtual bool publish(zuna_upnp::LocalService* service) = 0;
};

// Reads straight from the file.
class FileChunkReader final : public LogChunkReader {
 public:
  int64_t read(Tolvane::File* file, void* buffer, size_t length) override;
};

// Sends the changes through the UPnP stack's eventing.
class StackVarsPublisher final : public ChangedVarsPublisher {
 public:
  bool publish(zuna_upnp::LocalService* service) override;
};

class BasicManagementService : public zuna_upnp::LocalService, public IStatusUpdateListener {
 public:
  // The reader and the publisher are not owned and must outlive the service; null stands for the
  // production ones (FileChunkReader, StackVarsPublisher).
  BasicManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root, LogChunkReader* reader = nullptr,
                         ChangedVarsPublisher* publisher = nullptr);
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

 private:
  void addActions();
  void registerWebProviders();
  void registerWithStatusStore();
  bool isOwnServicePath(const std::string& path) const;
  void waitForRunningRefreshes();
  int refreshWithListener(const std::string& path);
  int refreshBeforeSending(BasicManagementListener* listener, const std::string& path);
  int serveLogFile(const std::string& path, zuna_http::WebSocket* socket);
  int64_t sendChunked(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length);
  int64_t sendWhole(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length);
  std::string formatUptimeStart();
  void setLogURIsVar(const std::string& uris);

  // Fixed at start: every served file lies below it.
  const std::string mLogPath;
  // The production reader and publisher, used unless others were given.
  FileChunkReader mFileReader;
  StackVarsPublisher mStackPublisher;
  LogChunkReader* const mChunkReader;
  ChangedVarsPublisher* const mVarsPublisher;

  // The strings below are written by status-store callbacks and read by actions on other threads.
  mutable Tolvane::Mutex mStringsLock;
  std::string mLogURIs;
  std::string mSyslogUris;
  std::string mChdBlobUris;
  std::string mEedidDumpFilePath;
  std::string mDeviceStatus;

  // Keeps each update and the events it sends in one piece when the constructor and a callback overlap.
  Tolvane::Mutex mPublishLock;

  std::unique_ptr<Tolvane::ServerSocket> mServerSocket;

  // Requests count themselves in while they use the listener, so that replacing it can wait for them.
  Tolvane::Mutex mListenerLock;
  Tolvane::Condition mListenerIdle;
  BasicManagementListener* mBasicManagementListener = nullptr;
  int mRefreshesRunning = 0;
};
