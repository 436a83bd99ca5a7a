#include "BasicManagement.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <new>

#include "UPnPResultCodes.h"
#include "tolvane/EventThread.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane/Process.h"
#include "zuna_upnp/Action.h"
#include "zuna_upnp/Controller.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace {

const char* const kSyslogUrisFile = "/tmp/syslogUrisPath.txt";
const char* const kStatusPrefix = "OK,";
const char* const kDefaultDeviceStatus = "OK,0001-01-01T00:00:00";
const char* const kUptimeTimer = "Uptime Timer";

const char* const kLogURIsVar = "LogURIs";
const char* const kDeviceStatusVar = "DeviceStatus";
const char* const kChdBlobUpdatedVar = "ChdBlobUpdated";

const char* const kChdBlobUrisKey = "CHD Blob Uris";
const char* const kEedidDumpFilePathKey = "EEDID Dump File Path";
const char* const kSyslogUrisUpdatedEvent = "Syslog Uris Updated Event";
const char* const kUsbHotplugDetectedEvent = "USB Hotplug Detected Event";
const char* const kChdBlobUpdatedEvent = "CHD Blob Updated Event";

const char* const kMessagesFile = "/messages";
const char* const kWifiChipFile = "/wifichip.tar";
const char* const kProcEntriesFile = "/procEntriesStatus.log";
const char* const kProcessListFile = "/processList.log";
const char* const kFdStatusFile = "/fdStatus.log";
const char* const kNetstatFile = "/netstat.log";

// The private listener that serves the log files on the standard HTTP port as well.
const uint16_t kPrivateHttpPort = 80;
const int kPrivateHttpBacklog = 5;
// Chunked sending holds at most this much of a file in memory per request.
const size_t kLogChunkSize = size_t{1024} * 1024;

// Set while this thread runs a refresh of the listener.
thread_local bool tInsideRefresh = false;
// Replacing the listener waits at most this long for the requests that still use the old one:
// the daemon's shutdown must end within two seconds whatever a request is doing.
constexpr std::chrono::milliseconds kListenerDetachBound{1000};
constexpr std::chrono::milliseconds kAbortRetryInterval{50};

Tolvane::PlatformSettings* platform() { return Tolvane::PlatformSettings::getInstance(); }

void addCheckedAction(zuna_upnp::LocalService* service, zuna_upnp::Action* action, const std::string& outArgs,
                      const std::string& signature) {
  std::unique_ptr<zuna_upnp::Action> owned(action);
  owned->setOutArgs(outArgs);
  if (!owned->checkTypes(signature)) {
    TL_LOG(kLogWarning, "invalid action types for action %s - discarding", owned->getName().c_str());
    return;
  }
  service->addAction(owned.release());
}

// The text of the URI file, read as the C string it was written as.
bool readWholeFile(const char* path, std::string& text) {
  Tolvane::File file;
  if (!file.open(path)) {
    return false;
  }
  const int64_t length = file.getLength();
  text.assign(static_cast<size_t>(std::max<int64_t>(length, 0)), '\0');
  size_t filled = 0;
  while (filled < text.size()) {
    const int64_t got = file.read(&text[filled], text.size() - filled);
    if (got <= 0) {
      break;
    }
    filled += static_cast<size_t>(got);
  }
  text.resize(filled);
  const size_t end = text.find('\0');
  if (end != std::string::npos) {
    text.resize(end);
  }
  return true;
}

}  // namespace

int64_t FileChunkReader::read(Tolvane::File* file, void* buffer, size_t length) { return file->read(buffer, length); }

bool StackVarsPublisher::publish(zuna_upnp::LocalService* service) { return service->sendChangedVars(); }

BasicManagementService::BasicManagementService(zuna_upnp::LocalDevice* device, zuna_upnp::RootDevice* root,
                                               LogChunkReader* reader, ChangedVarsPublisher* publisher)
    : zuna_upnp::LocalService(device, root),
      mLogPath(platform()->getLogPath()),
      mChunkReader(reader != nullptr ? reader : &mFileReader),
      mVarsPublisher(publisher != nullptr ? publisher : &mStackPublisher),
      mDeviceStatus(kDefaultDeviceStatus) {
  TL_TRACE();
  setTypeID(zuna_upnp::TypeID("BasicManagement", "schemas-upnp-org", 1, zuna_upnp::TypeID::SERVICE));
  makeURLs();
  makeServiceID();

  getVars().add(zuna_upnp::Var(kLogURIsVar, "string", "", true));
  getVars().add(zuna_upnp::Var(kDeviceStatusVar, "string", "", true));
  getVars().add(zuna_upnp::Var(kChdBlobUpdatedVar, "boolean", "false", true));

  addActions();
  genSCPDXML();
  registerWebProviders();
  registerWithStatusStore();

  // The list is in place before any control point can ask for it.
  updateSyslogURIs();
  updateLogURIs();
}

BasicManagementService::~BasicManagementService() {
  TL_TRACE();
  zuna_upnp::Controller::getInstance()->unregisterWebProvider(this);
  zuna_http::WebServer* server = zuna_http::WebServer::getSingleton();
  server->unregisterSocket(mServerSocket.get());
  server->unregisterProvider(this);
  setBasicManagementListener(nullptr);
  mServerSocket.reset();
  StatusManager::getInstance()->removeListener(this);
  getDispatcher()->removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(this));
  getDispatcher()->removeAgentsByReceiver(this);
}

void BasicManagementService::addActions() {
  TL_TRACE();
  addCheckedAction(this,
                   new zuna_upnp::ActionT1<BasicManagementService, std::string&>("GetLogURIs", this,
                                                                                 &BasicManagementService::GetLogURIs),
                   "LogURIs:LogURIs", "string &");
  addCheckedAction(this,
                   new zuna_upnp::ActionT1<BasicManagementService, std::string&>(
                       "GetDeviceStatus", this, &BasicManagementService::GetDeviceStatus),
                   "DeviceStatus:DeviceStatus", "string &");
}

void BasicManagementService::registerWebProviders() {
  TL_TRACE();
  zuna_upnp::Controller::getInstance()->registerWebProvider(this, "GET", mLogPath);

  mServerSocket = std::make_unique<Tolvane::ServerSocket>();
  if (!mServerSocket->bind("0.0.0.0", kPrivateHttpPort)) {
    // The stack's own HTTP port still serves the logs.
    TL_LOG(kLogError, "Bind was not successful on port[%d]", kPrivateHttpPort);
    return;
  }
  mServerSocket->listen(kPrivateHttpBacklog);
  zuna_http::WebServer::getSingleton()->registerProvider(this, mServerSocket.get(),
                                                         zuna_http::WebServer::getMethod("GET"), "");
}

void BasicManagementService::registerWithStatusStore() {
  TL_TRACE();
  StatusManager* store = StatusManager::getInstance();
  store->addListener(this, getDispatcher());
  store->registerEventNames(this, {kSyslogUrisUpdatedEvent, kUsbHotplugDetectedEvent, kChdBlobUpdatedEvent});
  StatusNameList keys{kChdBlobUrisKey};
  if (platform()->supportsDumpingEEDID()) {
    keys.emplace_back(kEedidDumpFilePathKey);
  }
  store->registerStatusKeys(this, keys);
}

void BasicManagementService::setBasicManagementListener(BasicManagementListener* listener) {
  TL_TRACE();
  Tolvane::ScopedLock lock(mListenerLock);
  mBasicManagementListener = listener;
  // A request that started with the old listener finishes with it first; a thread that is itself
  // inside a refresh (a signal handler, say) cannot wait for itself.
  if (mRefreshesRunning > 0 && !tInsideRefresh) {
    waitForRunningRefreshes();
  } else if (mRefreshesRunning > 0) {
    Tolvane::abortRunningCommands();
  }
}

void BasicManagementService::waitForRunningRefreshes() {
  // The old listener is about to be deleted, at shutdown in the daemon: a collection script that it is
  // running could keep the caller waiting for its whole time limit, so running scripts are killed (their
  // files are then sent as they were left), again for one that started just after. Called with
  // mListenerLock held; a refresh can only end inside the wait, which releases it.
  const auto deadline = std::chrono::steady_clock::now() + kListenerDetachBound;
  do {
    Tolvane::abortRunningCommands();
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    mListenerIdle.wait(mListenerLock, static_cast<unsigned>(std::max<std::int64_t>(
                                          1, std::min<std::int64_t>(left.count(), kAbortRetryInterval.count()))));
    if (mRefreshesRunning == 0) {
      return;
    }
  } while (std::chrono::steady_clock::now() < deadline);
  TL_LOG(kLogWarning, "Detached the log collection handler with [%d] refreshes still running", mRefreshesRunning);
}

zuna_upnp::UPnPReturn BasicManagementService::GetDeviceStatus(std::string& DeviceStatus) {
  TL_TRACE();
  {
    Tolvane::ScopedLock lock(mStringsLock);
    if (mDeviceStatus != kDefaultDeviceStatus) {
      DeviceStatus = mDeviceStatus;
      return zuna_upnp::UPnPReturn();
    }
  }
  // Computed once: later restarts of the uptime timer do not change the answer.
  const std::string status = kStatusPrefix + formatUptimeStart();
  Tolvane::ScopedLock lock(mStringsLock);
  if (mDeviceStatus == kDefaultDeviceStatus) {
    mDeviceStatus = status;
  }
  DeviceStatus = mDeviceStatus;
  return zuna_upnp::UPnPReturn();
}

std::string BasicManagementService::formatUptimeStart() {
  const time_t start = StatusManager::getInstance()->getTimerStartTime(kUptimeTimer);
  struct tm local {};
  localtime_r(&start, &local);
  char text[100] = {};
  strftime(text, sizeof(text), "%Y-%m-%dT%T", &local);
  return text;
}

zuna_upnp::UPnPReturn BasicManagementService::GetLogURIs(std::string& LogURIs) {
  TL_TRACE();
  {
    Tolvane::ScopedLock lock(mStringsLock);
    LogURIs = mLogURIs;
  }
  LogURIs += "," + mLogPath + kMessagesFile;
  if (platform()->hasWifi()) {
    LogURIs += "," + mLogPath + kWifiChipFile;
  }
  for (const char* suffix : {kProcEntriesFile, kProcessListFile, kFdStatusFile, kNetstatFile}) {
    LogURIs += "," + mLogPath + suffix;
  }
  return zuna_upnp::UPnPReturn();
}

void BasicManagementService::updateSyslogURIs() {
  TL_TRACE();
  std::string uris;
  std::string text;
  if (!readWholeFile(kSyslogUrisFile, text)) {
    TL_LOG(kLogWarning, "logFile[%s] open failed", kSyslogUrisFile);
  } else {
    // Only a terminated first line counts: a single line without its line end gives nothing.
    const size_t end = text.find_first_of("\n\r\t");
    if (end != std::string::npos) {
      uris = text.substr(0, end);
    }
    TL_LOG(kLogDetail, "Read from /tmp/syslogUrisPath.txt is %s", uris.c_str());
  }
  Tolvane::ScopedLock lock(mStringsLock);
  mSyslogUris = uris;
}

void BasicManagementService::updateLogURIs() {
  TL_TRACE();
  const bool withEedid = platform()->supportsDumpingEEDID();
  Tolvane::ScopedLock publish(mPublishLock);
  std::string uris;
  bool changed = false;
  {
    Tolvane::ScopedLock lock(mStringsLock);
    // Empty parts stay, so the list may start with "," or hold ",,".
    uris = mSyslogUris + "," + mChdBlobUris;
    if (withEedid) {
      uris += "," + mEedidDumpFilePath;
    }
    changed = uris != mLogURIs;
    if (changed) {
      mLogURIs = uris;
    }
  }
  if (changed) {
    // Only a new value is assigned: the stack marks a variable changed on every assignment, and an
    // unchanged list would otherwise ride along with the next event of another variable.
    setLogURIsVar(uris);
    TL_LOG(kLogDetail, "New LogURIs is [%s]", uris.c_str());
    mVarsPublisher->publish(this);
  } else {
    TL_LOG(kLogDetail, "LogURIs [%s] have not changed", uris.c_str());
  }
}

void BasicManagementService::setLogURIsVar(const std::string& uris) { getVars().setValue(kLogURIsVar, uris); }

void BasicManagementService::notifyStatusChanged(StatusMap statuses) {
  TL_TRACE();
  auto blobUris = statuses.find(kChdBlobUrisKey);
  if (blobUris != statuses.end()) {
    {
      Tolvane::ScopedLock lock(mStringsLock);
      mChdBlobUris = blobUris->second;
    }
    TL_LOG(kLogInfo, "CHD Blob URIs updated to [%s]", blobUris->second.c_str());
    updateLogURIs();
  }
  auto dumpPath = statuses.find(kEedidDumpFilePathKey);
  if (dumpPath != statuses.end()) {
    {
      Tolvane::ScopedLock lock(mStringsLock);
      mEedidDumpFilePath = dumpPath->second;
    }
    TL_LOG(kLogInfo, "EDID dump file path updated to [%s]", dumpPath->second.c_str());
    updateLogURIs();
  }
}

void BasicManagementService::notifyEventPosted(std::string name, std::string /*value*/) {
  TL_TRACE();
  if (name == kSyslogUrisUpdatedEvent || name == kUsbHotplugDetectedEvent) {
    updateSyslogURIs();
    updateLogURIs();
  }
  if (name == kChdBlobUpdatedEvent) {
    handleChdBlobUpdated();
  }
}

void BasicManagementService::handleChdBlobUpdated() {
  TL_TRACE();
  Tolvane::ScopedLock publish(mPublishLock);
  TL_LOG(kLogInfo, "Notifying server of CHD blob update");
  // A pulse: subscribers see true, then false.
  getVars().setValue(kChdBlobUpdatedVar, "true");
  mVarsPublisher->publish(this);
  getVars().setValue(kChdBlobUpdatedVar, "false");
  mVarsPublisher->publish(this);
}

bool BasicManagementService::isOwnServicePath(const std::string& path) const {
  return path == getControlURL() || path == getEventURL() || path == getSCPDURL();
}

void BasicManagementService::handleRequest(zuna_http::WebSocket* socket, zuna_http::WebRequest* request) {
  TL_TRACE();
  const std::string& path = request->getPath();
  if (isOwnServicePath(path)) {
    zuna_upnp::LocalService::handleRequest(socket, request);
  } else {
    int code = refreshWithListener(path);
    if (code == 0) {
      code = serveLogFile(path, socket);
    }
    if (code != 0) {
      TL_LOG(kLogError, "Error[%d]: File[%s] could not be sent to the server, sending 404 error response", code,
             path.c_str());
      sendResponse(false, socket, 0);
    }
  }
  socket->close();
}

int BasicManagementService::refreshWithListener(const std::string& path) {
  BasicManagementListener* listener = nullptr;
  {
    Tolvane::ScopedLock lock(mListenerLock);
    listener = mBasicManagementListener;
    if (listener == nullptr) {
      return kLogDeliveryNoListener;
    }
    ++mRefreshesRunning;
  }
  tInsideRefresh = true;
  const int code = refreshBeforeSending(listener, path);
  tInsideRefresh = false;
  Tolvane::ScopedLock lock(mListenerLock);
  if (--mRefreshesRunning == 0) {
    mListenerIdle.broadcast();
  }
  return code;
}

int BasicManagementService::refreshBeforeSending(BasicManagementListener* listener, const std::string& path) {
  // Without wifi the archive is sent as it stands; its failed refresh is not logged on its own.
  if (path == mLogPath + kWifiChipFile && platform()->hasWifi() && !listener->updateWifiChipLogFile()) {
    return kLogDeliveryWifiChipFailed;
  }
  struct Refresh {
    const char* suffix;
    bool (BasicManagementListener::*update)();
    int failure;
  };
  static const Refresh kRefreshes[] = {
      {kProcEntriesFile, &BasicManagementListener::updateProcEntries, kLogDeliveryProcEntriesFailed},
      {kProcessListFile, &BasicManagementListener::updateProcessList, kLogDeliveryProcessListFailed},
      {kFdStatusFile, &BasicManagementListener::updateFdStatus, kLogDeliveryFdStatusFailed},
      {kNetstatFile, &BasicManagementListener::updateNetstat, kLogDeliveryNetstatFailed},
  };
  for (const Refresh& refresh : kRefreshes) {
    if (path == mLogPath + refresh.suffix && !(listener->*refresh.update)()) {
      TL_LOG(kLogError, "Handler for [%s] returned FALSE", path.c_str());
      return refresh.failure;
    }
  }
  return 0;
}

int BasicManagementService::serveLogFile(const std::string& path, zuna_http::WebSocket* socket) {
  const bool belowLogPath = path.size() >= mLogPath.size() && path.compare(0, mLogPath.size(), mLogPath) == 0;
  Tolvane::File file;
  // The prefix alone would admit "..", sibling directories sharing the prefix and links pointing out;
  // the file must resolve to a regular file inside the log directory.
  if (!belowLogPath || path.find('\0') != std::string::npos || !file.openBeneath(mLogPath, path)) {
    TL_LOG(kLogError, "Requested path [%s] problem.", path.c_str());
    return kLogDeliveryPathProblem;
  }
  sendResponse(true, socket, file.getLength());
  if (sendLogs(&file, socket) == -1) {
    TL_LOG(kLogError, "Failed to send log file[%s] to the socket", path.c_str());
  }
  file.close();
  return 0;
}

void BasicManagementService::sendResponse(bool ok, zuna_http::WebSocket* socket, int64_t contentLength) {
  TL_TRACE();
  if (!ok) {
    const zuna_http::WebResponse notFound(kHttpNotFound);
    notFound.send(socket->getReaderWriter());
    return;
  }
  zuna_http::WebResponse head(kHttpOk);
  head.addField("Connection", "close");
  head.addField("Content-Type", "text/plain; charset=\"utf-8\"");
  head.addField("Server", zuna_upnp::Controller::getInstance()->getServerString());
  head.addField("Cache-control", "no-cache");
  head.addField("Content-Length", std::to_string(contentLength));
  socket->send(head);
}

int64_t BasicManagementService::sendLogs(Tolvane::File* file, zuna_http::WebSocket* socket) {
  TL_TRACE();
  const int64_t length = file->getLength();
  if (length < 0) {
    TL_LOG(kLogError, "Can not get file length");
    return length;
  }
  if (platform()->hasLogChunking()) {
    return sendChunked(file, socket, length);
  }
  return sendWhole(file, socket, length);
}

int64_t BasicManagementService::sendChunked(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[kLogChunkSize]);
  if (!buffer) {
    TL_LOG(kLogWarning, "Can not allocate [%zu] bytes to send the log file", kLogChunkSize);
    return -1;
  }
  // Never more than the head announced, even if the file grows while it is sent.
  const int64_t chunk = std::min<int64_t>(length, kLogChunkSize);
  int64_t remaining = length;
  while (remaining != 0) {
    const int64_t got = mChunkReader->read(file, buffer.get(), static_cast<size_t>(std::min(chunk, remaining)));
    if (got < 0) {
      TL_LOG(kLogWarning, "Read Error");
      return got;
    }
    if (got == 0) {
      // The file shrank after its length was announced: the client gets a short body and a closed connection.
      TL_LOG(kLogWarning, "Read Error: log file ended [%lld] bytes early", static_cast<long long>(remaining));
      return -1;
    }
    const int64_t written = socket->write(buffer.get(), static_cast<size_t>(got));
    if (written < 0) {
      TL_LOG(kLogWarning, "Write Error");
      return written;
    }
    if (written < got) {
      // The peer went away; the rest would go nowhere.
      TL_LOG(kLogWarning, "Write Error");
      return -1;
    }
    remaining -= got;
  }
  return length;
}

int64_t BasicManagementService::sendWhole(Tolvane::File* file, zuna_http::WebSocket* socket, int64_t length) {
  if (length == 0) {
    return 0;
  }
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(length)]);
  if (!buffer) {
    TL_LOG(kLogError, "Can not allocate [%lld] bytes to send the log file", static_cast<long long>(length));
    return -1;
  }
  int64_t filled = 0;
  while (filled < length) {
    const int64_t got = mChunkReader->read(file, buffer.get() + filled, static_cast<size_t>(length - filled));
    if (got <= 0) {
      TL_LOG(kLogWarning, "Read Error");
      return -1;
    }
    filled += got;
  }
  return socket->write(buffer.get(), static_cast<size_t>(length));
}
