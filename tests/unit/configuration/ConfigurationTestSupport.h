// Shared fixture of the configuration management tests: a service on a
// private status store, driven platform settings, a driven clock, captured
// log lines and a stand-in for the client application.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../framework/TempDir.h"
#include "ConfigurationManagement.h"
#include "LogRecorder.h"
#include "status/StatusManager.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "tolvane_host/ManualClock.h"
#include "zuna_upnp/LocalDevice.h"

namespace cmtest {

// Host platform settings read from a file, with the three values the data
// model depends on driven by the test.
class FakePlatformSettings : public Tolvane::host::HostPlatformSettings {
 public:
  explicit FakePlatformSettings(const std::string& configPath) : HostPlatformSettings(configPath) {}
  int getLocale() override { return locale.load(); }
  bool hasWifi() override { return wifi.load(); }
  bool hasAmazonEchoSupport() override { return echo.load(); }

  std::atomic<int> locale{0};
  std::atomic<bool> wifi{false};
  std::atomic<bool> echo{false};
};

using framework_test::TempDir;

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// Records what reaches the store, in the store's order.
class StoreRecorder : public statusstore::StoreObserver {
 public:
  struct Entry {
    bool isEvent;
    StatusMap statuses;
    std::string name;
    std::string value;
  };
  void onStatusesChanged(const StatusMap& statuses) override;
  void onEventPosted(const std::string& name, const std::string& value) override;
  std::vector<Entry> entries() const;
  std::vector<std::string> eventNames() const;
  void clear();
  // Called inside onStatusesChanged (store locked: must not call the store).
  std::function<void(const StatusMap&)> onStatuses;

 private:
  mutable std::mutex mMutex;
  std::vector<Entry> mEntries;
};

// Plays the client application: answers "Settings Refresh Apply Event".
class FakeClientApp : public IStatusUpdateListener {
 public:
  enum Mode { COMPLETE, ERROR_THEN_COMPLETE, ERROR_ONLY, SILENT };
  explicit FakeClientApp(StatusManager* store);
  ~FakeClientApp() override;
  void notifyEventPosted(std::string name, std::string value) override;
  void setMode(Mode mode, const std::string& errorText = "");
  int applyCount() const { return mApplyCount.load(); }
  // Waits (real time, bounded) until at least count Apply events arrived.
  bool waitForApply(int count);

 private:
  StatusManager* mStore;
  Tolvane::EventThread mThread;
  std::mutex mMutex;
  std::condition_variable mApplied;
  Mode mMode = COMPLETE;
  std::string mErrorText;
  std::atomic<int> mApplyCount{0};
};

// Runs fn on the dispatcher and returns when it has run.
void runOn(Tolvane::EventDispatcher* dispatcher, const std::function<void()>& fn);

struct ActionResult {
  zuna_upnp::UPnPReturn result;
  std::string out;
};

// A failure answer that left an out argument passed in as "untouched" alone.
void expectFailure(const ActionResult& r, int code, const std::string& description);

class ConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Builds the service with the platform values set so far.
  void createService();
  void destroyService();
  ConfigurationManagementService& service() { return *mService; }
  Tolvane::EventDispatcher* dispatcher() { return mService->getDispatcher(); }

  // Lets status changes reach the data model: the status thread, then the dispatcher.
  void flush();
  // Sets statuses in the store and waits until the service has applied them.
  void setStatuses(const StatusMap& statuses);

  // Action handlers, called on the service dispatcher like the UPnP stack does.
  ActionResult getValues(const std::string& xml, const std::string& initialOut = "");
  ActionResult setValues(const std::string& xml, const std::string& initialOut = "");
  ActionResult getAttributes(const std::string& xml, const std::string& initialOut = "");
  ActionResult getSupportedParameters(const std::string& node, unsigned depth, const std::string& initialOut = "");
  // The StructurePath texts of a GetSupportedParameters answer, in order.
  std::vector<std::string> supportedParameters(const std::string& node, unsigned depth);
  // The value of one path through GetValues ("<703>" when it is unknown).
  std::string valueOf(const std::string& path);
  // A 702 "Invalid XML Argument" failure (see expectFailure) whose reason was logged as an error.
  void expectInvalidXml(const ActionResult& r, const std::string& reason);

  std::unique_ptr<TempDir> mDir;
  std::string mSettingsFile;
  std::unique_ptr<FakePlatformSettings> mPlatform;
  std::unique_ptr<Tolvane::host::ManualClock> mClock;
  std::unique_ptr<statusstore::LocalStatusManager> mStore;
  StoreRecorder mRecorder;
  std::unique_ptr<chdtest::LogRecorder> mLog;
  std::unique_ptr<zuna_upnp::RootDevice> mDevice;
  ConfigurationManagementService* mService = nullptr;
};

// The GetValues request for the given paths.
std::string contentPathList(const std::vector<std::string>& paths);
// One SetValues Parameter element.
std::string parameter(const std::string& path, const std::string& value);
std::string parameterValueList(const std::vector<std::pair<std::string, std::string>>& values);

}  // namespace cmtest
