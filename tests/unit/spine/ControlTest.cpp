// The control object's network set-up and stop sequence, against a recording controller.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ClientHomeDiagnostics.h"
#include "FixedPlatformSettings.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_upnp/Controller.h"
#include "zuna_upnp_host/HostController.h"

namespace {

class RecordingController : public zuna_upnp::Controller {
 public:
  bool init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
            Tolvane::StringVector serverNames) override {
    ++initCalls;
    lastMonitor = monitor;
    lastInterfaces = interfaces;
    lastServerNames = serverNames;
    return true;
  }
  bool addRootDevice(zuna_upnp::RootDevice* /*device*/) override { return true; }
  bool registerWebProvider(zuna_http::WebServiceProvider* /*provider*/, const std::string& /*method*/,
                           const std::string& /*path*/) override {
    return true;
  }
  void unregisterWebProvider(zuna_http::WebServiceProvider* /*provider*/) override {}
  std::string getServerString() override { return "test"; }
  void shutdown() override { ++shutdownCalls; }

  int initCalls = 0;
  int shutdownCalls = 0;
  zuna::net::NetworkManager* lastMonitor = nullptr;
  Tolvane::StringVector lastInterfaces;
  Tolvane::StringVector lastServerNames;
};

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Tolvane::host::setPlatformSettingsForTest(&platform);
    zuna_upnp::host::setControllerForTest(&controller);
  }
  void TearDown() override {
    zuna_upnp::host::setControllerForTest(nullptr);
    Tolvane::host::setPlatformSettingsForTest(nullptr);
  }

  FixedPlatformSettings platform;
  RecordingController controller;
};

TEST_F(ControlTest, InterfaceListHasAutoIpFirstThenEthernet) {
  platform.autoIp = "eth0:avahi";
  ClientHomeDiagnosticsControl control;
  EXPECT_TRUE(control.initNetwork());
  ASSERT_EQ(controller.initCalls, 1);
  EXPECT_THAT(controller.lastInterfaces, ::testing::ElementsAre("eth0:avahi", "eth7"));
  EXPECT_THAT(controller.lastServerNames, ::testing::ElementsAre("RVUServer"));
  EXPECT_NE(controller.lastMonitor, nullptr);
  control.stop();
}

TEST_F(ControlTest, InterfaceListKeepsTwoEntriesWhenOneNameIsEmpty) {
  platform.autoIp = "";
  ClientHomeDiagnosticsControl control;
  control.initNetwork();
  EXPECT_THAT(controller.lastInterfaces, ::testing::ElementsAre("", "eth7"));
  control.stop();
}

TEST_F(ControlTest, StopWithoutCreatedObjectsStillShutsTheControllerDown) {
  ClientHomeDiagnosticsControl control;
  EXPECT_TRUE(control.stop());
  EXPECT_EQ(controller.shutdownCalls, 1);
  EXPECT_EQ(control.getBlobWriter(), nullptr);
  EXPECT_EQ(control.getLogWatchHandler(), nullptr);
}

TEST_F(ControlTest, LogWatchFailsWithoutDevice) {
  ClientHomeDiagnosticsControl control;
  EXPECT_FALSE(control.initLogWatch());
  EXPECT_EQ(control.getLogWatchHandler(), nullptr);
}

}  // namespace
