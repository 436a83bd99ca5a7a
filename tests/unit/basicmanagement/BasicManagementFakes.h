// Test doubles around the basic management service: platform settings, the
// UPnP controller and web server, a connection that records every byte, a
// log-collection listener and a log recorder.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BasicManagementListener.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "zuna_http/WebServer.h"
#include "zuna_upnp/Controller.h"

namespace bmtest {

class FakePlatformSettings : public Tolvane::PlatformSettings {
 public:
  explicit FakePlatformSettings(std::string logPath) : mLogPath(std::move(logPath)) {}

  bool hasChdSupport() override { return true; }
  std::string getModel() override { return "TESTBOX"; }
  std::string getManufacturer() override { return "Tester"; }
  std::string getManufacturerId() override { return "0042"; }
  int getLocale() override { return 0; }
  bool hasWifi() override { return wifi.load(); }
  bool hasLogChunking() override { return chunking.load(); }
  bool supportsDumpingEEDID() override { return eedid.load(); }
  bool hasAmazonEchoSupport() override { return false; }
  std::string getLogPath() override { return mLogPath; }
  std::string getAutoIPInterface() override { return ""; }
  std::string getEthernetInterface() override { return "lo"; }

  std::atomic<bool> wifi{false};
  std::atomic<bool> chunking{true};
  std::atomic<bool> eedid{false};

 private:
  const std::string mLogPath;
};

// Records registrations in the order they happen.
class FakeController : public zuna_upnp::Controller {
 public:
  bool init(zuna::net::NetworkManager* /*monitor*/, Tolvane::StringVector /*interfaces*/,
            Tolvane::StringVector /*serverNames*/) override {
    return true;
  }
  bool addRootDevice(zuna_upnp::RootDevice* /*device*/) override { return true; }
  bool registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                           const std::string& path) override {
    record("registerWebProvider " + method + " " + path, provider);
    return true;
  }
  void unregisterWebProvider(zuna_http::WebServiceProvider* provider) override {
    record("unregisterWebProvider", provider);
  }
  std::string getServerString() override { return "Linux/6.1 UPnP/1.0 TestStack/2.3"; }
  void shutdown() override {}

  void record(const std::string& what, const void* who) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.emplace_back(what, who);
  }

  std::mutex mutex;
  std::vector<std::pair<std::string, const void*>> calls;
};

class FakeWebServer : public zuna_http::WebServer {
 public:
  ~FakeWebServer() override = default;

  bool registerProvider(zuna_http::WebServiceProvider* provider, Tolvane::ServerSocket* socket, Method method,
                        const std::string& path) override {
    controller->record("registerProvider " + std::to_string(method) + " [" + path + "]", provider);
    registeredSocket = socket;
    return true;
  }
  void unregisterSocket(Tolvane::ServerSocket* socket) override { controller->record("unregisterSocket", socket); }
  void unregisterProvider(zuna_http::WebServiceProvider* provider) override {
    controller->record("unregisterProvider", provider);
  }

  // Shares the controller's journal so the order across both is visible.
  FakeController* controller = nullptr;
  Tolvane::ServerSocket* registeredSocket = nullptr;
};

// One connection: keeps the head and body bytes as the client would receive them.
class FakeWebSocket : public zuna_http::WebSocket {
 public:
  class Stream : public zuna_http::ReaderWriter {
   public:
    explicit Stream(FakeWebSocket* owner) : mOwner(owner) {}
    int64_t write(const void* data, size_t length) override { return mOwner->append(data, length); }
    int64_t read(void* /*buffer*/, size_t /*length*/) override { return 0; }

   private:
    FakeWebSocket* mOwner;
  };

  bool send(const zuna_http::WebHeaderBase& head) override {
    ++sendCalls;
    return head.send(&mStream);
  }
  // Body writes; the head goes through the stream.
  int64_t write(const void* data, size_t length) override {
    ++writeCalls;
    if (failWrites) {
      return -1;
    }
    return append(data, length);
  }
  int64_t append(const void* data, size_t length) {
    size_t accepted = length;
    if (acceptLimit >= 0) {
      // The peer goes away once acceptLimit bytes have reached it.
      const size_t room = static_cast<size_t>(acceptLimit) > bytes.size() ? acceptLimit - bytes.size() : 0;
      accepted = std::min(length, room);
    }
    bytes.append(static_cast<const char*>(data), accepted);
    return static_cast<int64_t>(accepted);
  }
  zuna_http::ReaderWriter* getReaderWriter() override { return &mStream; }
  void close() override { ++closeCalls; }

  std::string bytes;
  int sendCalls = 0;
  int writeCalls = 0;
  int closeCalls = 0;
  bool failWrites = false;
  int64_t acceptLimit = -1;

 private:
  Stream mStream{this};
};

// Answers each refresh with its configured result and counts the calls.
class FakeListener : public BasicManagementListener {
 public:
  bool updateProcEntries() override { return answer(procEntries, procEntriesOk); }
  bool updateNetstat() override { return answer(netstat, netstatOk); }
  bool updateFdStatus() override { return answer(fdStatus, fdStatusOk); }
  bool updateProcessList() override { return answer(processList, processListOk); }
  bool updateWifiChipLogFile() override { return answer(wifiChip, wifiChipOk); }

  int totalCalls() const { return procEntries + netstat + fdStatus + processList + wifiChip; }

  std::atomic<int> procEntries{0}, netstat{0}, fdStatus{0}, processList{0}, wifiChip{0};
  std::atomic<bool> procEntriesOk{true}, netstatOk{true}, fdStatusOk{true}, processListOk{true}, wifiChipOk{true};

 private:
  static bool answer(std::atomic<int>& calls, const std::atomic<bool>& ok) {
    ++calls;
    return ok.load();
  }
};

// Collects every log message of the process while it exists.
class LogRecorder {
 public:
  LogRecorder() {
    mId = logging_add_observer([this](int level, const std::string& /*file*/, const std::string& message) {
      std::lock_guard<std::mutex> lock(mMutex);
      mLines.emplace_back(level, message);
    });
  }
  ~LogRecorder() { logging_remove_observer(mId); }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  // How many messages at that level contain the text.
  int count(int level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(mMutex);
    int found = 0;
    for (const auto& line : mLines) {
      if (line.first == level && line.second.find(text) != std::string::npos) {
        ++found;
      }
    }
    return found;
  }
  // How many messages at that level are exactly the text.
  int exact(int level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(mMutex);
    int found = 0;
    for (const auto& line : mLines) {
      found += line.first == level && line.second == text ? 1 : 0;
    }
    return found;
  }
  int countAnyLevel(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mMutex);
    int found = 0;
    for (const auto& line : mLines) {
      found += line.second.find(text) != std::string::npos ? 1 : 0;
    }
    return found;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
  }

 private:
  int mId = 0;
  mutable std::mutex mMutex;
  std::vector<std::pair<int, std::string>> mLines;
};

}  // namespace bmtest
