// The daemon's control, device and services running on the stub platform.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "ClientHomeDiagnostics.h"
#include "StubPlatform.h"
#include "status/StatusManager.h"
#include "zuna_upnp/LocalDevice.h"

namespace {

using ::testing::HasSubstr;

zuna_upnp::LocalService* serviceNamed(zuna_upnp::RootDevice* device, const std::string& name) {
  for (size_t i = 0; i < device->getServiceCount(); ++i) {
    if (device->getService(i)->getName() == name) {
      return device->getService(i);
    }
  }
  return nullptr;
}

// One daemon for the whole suite: the stub's controller, like the host's,
// publishes a process's device once.
class StubPlatformTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    stub::settings().model = "ABC";
    stub::settings().manufacturer = "Acme";
    stub::settings().manufacturerId = "42";
    sControl = new ClientHomeDiagnosticsControl;
    sMain = std::thread([] { sStarted = sControl->start(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (stub::publishedDevices().empty() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  static void TearDownTestSuite() {
    sControl->stop();
    sMain.join();
  }

  static zuna_upnp::RootDevice* device() {
    const auto devices = stub::publishedDevices();
    return devices.empty() ? nullptr : devices.front();
  }

  static ClientHomeDiagnosticsControl* sControl;
  static std::thread sMain;
  static bool sStarted;
};

ClientHomeDiagnosticsControl* StubPlatformTest::sControl = nullptr;
std::thread StubPlatformTest::sMain;
bool StubPlatformTest::sStarted = false;

TEST_F(StubPlatformTest, ControlPublishesOneManageableDeviceNamedAfterTheBox) {
  ASSERT_EQ(stub::publishedDevices().size(), 1U);
  EXPECT_EQ(device()->getTypeID().toString(), "urn:schemas-upnp-org:device:ManageableDevice:1");
  EXPECT_EQ(device()->getFriendlyName(), "Acme RVU Client ManageableDevice");
  EXPECT_EQ(device()->getModelDescription(), "VESPARO ABC-42");
  EXPECT_TRUE(device()->getIsRoot());
}

TEST_F(StubPlatformTest, DeviceCarriesConfigurationThenBasicManagement) {
  ASSERT_NE(device(), nullptr);
  ASSERT_EQ(device()->getServiceCount(), 2U);
  EXPECT_EQ(device()->getService(0)->getName(), "ConfigurationManagement");
  EXPECT_EQ(device()->getService(1)->getName(), "BasicManagement");
}

TEST_F(StubPlatformTest, GetValuesReadsTheStatusStoreOfThePlatform) {
  ASSERT_NE(device(), nullptr);
  StatusManager::getInstance()->setStatus("Language", "Language.French");
  zuna_upnp::LocalService* cm = serviceNamed(device(), "ConfigurationManagement");
  ASSERT_NE(cm, nullptr);
  zuna_upnp::Action* getValues = cm->findAction("GetValues");
  ASSERT_NE(getValues, nullptr);
  const std::string paths = "<ContentPathList><ContentPath>/vsp/Preferences/LANGUAGE</ContentPath></ContentPathList>";
  // The status reaches the service on its own thread: ask until it is there.
  std::string answer;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (answer.find("French") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    std::vector<std::string> outputs;
    const zuna_upnp::UPnPReturn result = getValues->invoke({paths}, outputs);
    ASSERT_TRUE(result.isSuccess()) << result.code << " " << result.description;
    answer = outputs.empty() ? std::string() : outputs[0];
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(answer, HasSubstr("/vsp/Preferences/LANGUAGE"));
  EXPECT_THAT(answer, HasSubstr("French"));
}

TEST_F(StubPlatformTest, GetDeviceStatusAnswersThroughTheStubStack) {
  ASSERT_NE(device(), nullptr);
  zuna_upnp::LocalService* bm = serviceNamed(device(), "BasicManagement");
  ASSERT_NE(bm, nullptr);
  zuna_upnp::Action* status = bm->findAction("GetDeviceStatus");
  ASSERT_NE(status, nullptr);
  std::vector<std::string> outputs;
  EXPECT_TRUE(status->invoke({}, outputs).isSuccess());
  ASSERT_EQ(outputs.size(), 1U);
  EXPECT_FALSE(outputs[0].empty());
}

}  // namespace
