// The control object, the manageable device and its services on the host platform.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp, setenv
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ClientHomeDiagnostics.h"
#include "FakePlatformSettings.h"
#include "LogRecorder.h"
#include "ManageableDevice.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace {

class SpineTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/chd-spine-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    sTmp = dir;
    const std::string conf = sTmp + "/platform.conf";
    std::ofstream(conf) << "[platform]\nlog_path=" << sTmp << "/log\nethernet_interface=lo\n"
                        << "[statusstore]\nbus=none\n[settings]\nfile=" << sTmp << "/settings.conf\n";
    setenv("CHD_PLATFORM_CONFIG", conf.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): before any thread
    sPlatform = new chdtest::FakePlatformSettings();
    sPlatform->setIdentity("ABC", "Acme", "42");
    sPlatform->setLogPath(sTmp + "/log");
    sPlatform->setInterfaces("", "lo");
    Tolvane::host::setPlatformSettingsForTest(sPlatform);
  }

  static std::string sTmp;
  static chdtest::FakePlatformSettings* sPlatform;
};

std::string SpineTest::sTmp;
chdtest::FakePlatformSettings* SpineTest::sPlatform = nullptr;

// Runs the whole start sequence on a thread, checks the device, then stops.
TEST_F(SpineTest, StartBuildsTheDeviceAndStopWakesTheMainThread) {
  chdtest::LogRecorder log;
  auto* control = new ClientHomeDiagnosticsControl();
  std::future<bool> started = std::async(std::launch::async, [control] { return control->start(); });

  for (int i = 0; i < 500 && control->getLogWatchHandler() == nullptr; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ManageableDevice* device = control->getDevice();
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->getFriendlyName(), "Acme RVU Client ManageableDevice");
  EXPECT_EQ(device->getManufacturer(), "Acme");
  EXPECT_EQ(device->getModelDescription(), "VESPARO ABC-42");
  EXPECT_EQ(device->getModelName(), "ABC");
  EXPECT_EQ(device->getModelNumber(), "42");
  EXPECT_EQ(device->getTypeID().toString(), "urn:schemas-upnp-org:device:ManageableDevice:1");
  ASSERT_EQ(device->getServiceCount(), 2U);
  EXPECT_EQ(device->getService(0)->getName(), "ConfigurationManagement");
  EXPECT_EQ(device->getService(1)->getName(), "BasicManagement");
  EXPECT_TRUE(log.contains("Identifying client as [VESPARO ABC-42]"));
  EXPECT_TRUE(log.contains("Using strings [Acme RVU Client ManageableDevice] [Acme] [42] [VESPARO ABC-42]"));

  EXPECT_FALSE(device->updateUPnPServiceParam("", "key", "value", false));
  EXPECT_TRUE(log.contains("service index [0] service [ConfigurationManagement]"));
  EXPECT_TRUE(log.contains("service index [1] service [BasicManagement]"));
  EXPECT_TRUE(log.contains("Couldn't find service[]"));
  EXPECT_FALSE(device->updateUPnPServiceParam("configurationmanagement", "key", "value", false));
  EXPECT_TRUE(log.contains("Couldn't find service[configurationmanagement]"));
  EXPECT_TRUE(device->updateUPnPServiceParam("BasicManagement", "LogURIs", "x", false));

  // start() holds the control object's lock until it waits, so once the
  // getters above answered, stop() reaches a waiting start().
  EXPECT_TRUE(control->stop());
  ASSERT_EQ(started.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(started.get());
  delete control;  // releases the device and the network monitor
}

}  // namespace
