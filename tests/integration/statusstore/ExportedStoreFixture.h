// A store exported on a private bus, with an in-process listener beside it.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "BusFixture.h"
#include "RecordingListener.h"
#include "statusstore_host/LocalStatusManager.h"
#include "statusstore_host/StatusStoreExporter.h"
#include "tolvane/EventThread.h"

namespace statusstore::test {

class ExportedStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir.path().empty());
    ASSERT_FALSE(bus.address().empty()) << "dbus-daemon did not start";
    ASSERT_TRUE(exporter.start(bus.address()));
    client = std::make_unique<BusClient>(bus.address());
    ASSERT_TRUE(client->connected());
  }

  void TearDown() override {
    store.removeListener(&listener);
    dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&listener));
    client.reset();
    exporter.stop();
  }

  void listen(StatusNameList keys, StatusNameList events = {}) {
    store.addListener(&listener, &dispatcher);
    store.registerStatusKeys(&listener, std::move(keys));
    store.registerEventNames(&listener, std::move(events));
  }

  // Environment of a child process that finds this bus through the platform settings.
  std::map<std::string, std::string> platformEnvironment(const std::string& busSetting, const std::string& extra = "") {
    std::string config = "[platform]\nlog_path=" + dir.path() + "/log\n[statusstore]\nbus=" + busSetting + "\n" + extra;
    return {{"CHD_PLATFORM_CONFIG", dir.write("platform.conf", config)}, {"DBUS_SESSION_BUS_ADDRESS", ""}};
  }

  TempDir dir;
  PrivateBus bus{dir};
  LocalStatusManager store;
  StatusStoreExporter exporter{store};
  Tolvane::EventThread dispatcher{"BusTestListener"};
  RecordingListener listener;
  std::unique_ptr<BusClient> client;
};

}  // namespace statusstore::test
