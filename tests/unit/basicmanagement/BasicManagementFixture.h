// A basic management service on the host UPnP stack's service frame, with the
// controller, web server, platform settings and status store replaced by
// test doubles, and a log directory on the test's private /tmp.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BasicManagement.h"
#include "BasicManagementFakes.h"
#include "CallJournal.h"
#include "FakeController.h"
#include "FakePlatformSettings.h"
#include "FakeWebServer.h"
#include "FakeWebSocket.h"
#include "PrivateNamespaces.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_http_host/HostWebServer.h"
#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp_host/HostController.h"

namespace bmtest {

const char* const kSyslogUrisFile = "/tmp/syslogUrisPath.txt";
const size_t kMiB = 1024 * 1024;

typedef std::vector<std::pair<std::string, std::string>> Changes;

// Records what the service would send as events.
class RecordingPublisher : public ChangedVarsPublisher {
 public:
  bool publish(zuna_upnp::LocalService* service) override {
    Changes changes = service->getVars().takeChanges();
    std::lock_guard<std::mutex> lock(mMutex);
    mPublished.push_back(changes);
    return !changes.empty();
  }
  std::vector<Changes> published() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mPublished;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mPublished.clear();
  }

 private:
  std::mutex mMutex;
  std::vector<Changes> mPublished;
};

// Watches the service's reads of log files, and can fail them.
class WatchedReader : public LogChunkReader {
 public:
  int64_t read(Tolvane::File* file, void* buffer, size_t length) override {
    const int index = reads++;
    if (length > largestRead) {
      largestRead = length;
    }
    if (beforeRead) {
      beforeRead(index);
    }
    if (failReadsWith != 0) {
      return failReadsWith;
    }
    return mFileReader.read(file, buffer, length);
  }

  std::atomic<int> reads{0};
  std::atomic<size_t> largestRead{0};
  // Runs before each read with its index (0 for the first).
  std::function<void(int)> beforeRead;
  // A non-zero value is returned by every read instead of reading.
  std::atomic<int64_t> failReadsWith{0};

 private:
  FileChunkReader mFileReader;
};

// A store whose uptime timer started whenever the test says.
class TimerStore : public statusstore::LocalStatusManager {
 public:
  time_t getTimerStartTime(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mMutex);
    askedTimers.push_back(name);
    return start;
  }
  void setStart(time_t when) {
    std::lock_guard<std::mutex> lock(mMutex);
    start = when;
  }
  std::vector<std::string> asked() {
    std::lock_guard<std::mutex> lock(mMutex);
    return askedTimers;
  }

 private:
  std::mutex mMutex;
  time_t start = 0;
  std::vector<std::string> askedTimers;
};

inline void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

inline std::string makeTempDir(const std::string& pattern) {
  std::string name = pattern;
  if (mkdtemp(&name[0]) == nullptr) {
    ADD_FAILURE() << "mkdtemp " << pattern;
  }
  return name;
}

// Content that differs at every offset, so misplaced chunks cannot go unnoticed.
inline std::string patternedContent(size_t length) {
  std::string content(length, '\0');
  uint32_t state = 2463534242u;
  for (size_t i = 0; i < length; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    content[i] = static_cast<char>(state & 0xff);
  }
  return content;
}

class BasicManagementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!hasPrivateNamespaces()) {
      GTEST_SKIP() << "needs root: the service binds port 80 and reads /tmp/syslogUrisPath.txt, which the test "
                      "keeps in a private network namespace and /tmp";
    }
    setenv("TZ", "UTC", 1);
    tzset();
    logDir = makeTempDir("/tmp/chdlogs.XXXXXX");
    unlink(kSyslogUrisFile);
    settings.setLogPath(logDir);
    Tolvane::host::setPlatformSettingsForTest(&settings);
    statusstore::setInstanceForTest(&store);
    zuna_upnp::host::setControllerForTest(&controller);
    zuna_http::host::setWebServerForTest(&webServer);
    device.setTypeID(zuna_upnp::TypeID("ManageableDevice", "schemas-upnp-org", 1, zuna_upnp::TypeID::DEVICE));
    device.makeURLs();
    mHooked = true;
  }

  void TearDown() override {
    service.reset();
    if (mHooked) {
      zuna_http::host::setWebServerForTest(nullptr);
      zuna_upnp::host::setControllerForTest(nullptr);
      statusstore::setInstanceForTest(nullptr);
      Tolvane::host::setPlatformSettingsForTest(nullptr);
    }
  }

  // The event that the construction sends is kept apart, so that published() holds only what came later.
  void start() {
    service = std::make_unique<BasicManagementService>(&device, &device, &reader, &publisher);
    constructionEvents = publisher.published();
    publisher.clear();
  }

  // Returns once every status callback queued so far has run.
  void flush() {
    struct Noop {
      void run() {}
    } noop;
    service->getDispatcher()->send(
        Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&noop, &Noop::run)));
  }

  std::string logURIsVar() { return service->getVars().getValue("LogURIs"); }

  std::unique_ptr<chdtest::FakeWebSocket> get(const std::string& path) {
    auto socket = std::make_unique<chdtest::FakeWebSocket>();
    zuna_http::WebRequest request("GET", path);
    service->handleRequest(socket.get(), &request);
    return socket;
  }

  std::string okHead(size_t length) {
    return "HTTP/1.1 200 OK\r\n"
           "Connection: close\r\n"
           "Content-Type: text/plain; charset=\"utf-8\"\r\n"
           "Server: Linux/6.1 UPnP/1.0 TestStack/2.3\r\n"
           "Cache-control: no-cache\r\n"
           "Content-Length: " +
           std::to_string(length) + "\r\n\r\n";
  }

  static std::string notFound() { return "HTTP/1.1 404 Not Found\r\n\r\n"; }

  std::string notSentLog(int code, const std::string& path) {
    return "Error[" + std::to_string(code) + "]: File[" + path +
           "] could not be sent to the server, sending 404 error response";
  }

  std::string logDir;
  chdtest::FakePlatformSettings settings;
  TimerStore store;
  // The controller and the web server share one journal, so the order across both is visible.
  chdtest::CallJournal journal;
  chdtest::FakeController controller{&journal};
  chdtest::FakeWebServer webServer{&journal};
  zuna_upnp::RootDevice device;
  LogRecorder logs;
  FakeListener listener;
  WatchedReader reader;
  RecordingPublisher publisher;
  std::vector<Changes> constructionEvents;
  std::unique_ptr<BasicManagementService> service;

 private:
  bool mHooked = false;
};

}  // namespace bmtest
