// The control object's network set-up and stop sequence, against a fake controller.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ClientHomeDiagnostics.h"
#include "FakeController.h"
#include "FakePlatformSettings.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_upnp_host/HostController.h"

namespace {

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform.setInterfaces("", "eth7");
    Tolvane::host::setPlatformSettingsForTest(&platform);
    zuna_upnp::host::setControllerForTest(&controller);
  }
  void TearDown() override {
    zuna_upnp::host::setControllerForTest(nullptr);
    Tolvane::host::setPlatformSettingsForTest(nullptr);
  }

  chdtest::FakePlatformSettings platform;
  chdtest::FakeController controller;
};

TEST_F(ControlTest, InterfaceListHasAutoIpFirstThenEthernet) {
  platform.setInterfaces("eth0:avahi", "eth7");
  ClientHomeDiagnosticsControl control;
  EXPECT_TRUE(control.initNetwork());
  const std::vector<chdtest::FakeController::InitCall> inits = controller.initCalls();
  ASSERT_EQ(inits.size(), 1u);
  EXPECT_THAT(inits[0].interfaces, ::testing::ElementsAre("eth0:avahi", "eth7"));
  EXPECT_THAT(inits[0].serverNames, ::testing::ElementsAre("RVUServer"));
  EXPECT_NE(inits[0].monitor, nullptr);
  control.stop();
}

TEST_F(ControlTest, InterfaceListKeepsTwoEntriesWhenOneNameIsEmpty) {
  platform.setInterfaces("", "eth7");
  ClientHomeDiagnosticsControl control;
  control.initNetwork();
  ASSERT_EQ(controller.initCalls().size(), 1u);
  EXPECT_THAT(controller.initCalls()[0].interfaces, ::testing::ElementsAre("", "eth7"));
  control.stop();
}

TEST_F(ControlTest, StopWithoutCreatedObjectsStillShutsTheControllerDown) {
  ClientHomeDiagnosticsControl control;
  EXPECT_TRUE(control.stop());
  EXPECT_EQ(controller.shutdownCalls(), 1);
  EXPECT_EQ(control.getBlobWriter(), nullptr);
  EXPECT_EQ(control.getLogWatchHandler(), nullptr);
}

TEST_F(ControlTest, LogWatchFailsWithoutDevice) {
  ClientHomeDiagnosticsControl control;
  EXPECT_FALSE(control.initLogWatch());
  EXPECT_EQ(control.getLogWatchHandler(), nullptr);
}

}  // namespace
