// A test suite's own stack on loopback publishing the integration device, and
// a control point in the same process to look at it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ControlPoint.h"
#include "TestDevice.h"
#include "zuna_upnp_host/UpnpStack.h"

namespace upnp_it {

// Scheme, host and port of a URL: what the stack's relative URLs hang off.
inline std::string baseOf(const std::string& location) {
  const size_t slash = location.find('/', location.find("//") + 2);
  return location.substr(0, slash);
}

class LoopbackStackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    startStack([] {});
  }
  static void TearDownTestSuite() { stopStack(); }

  // What registerMore registers goes in before init, so the stack keeps it
  // and publishes it when it starts.
  static void startStack(const std::function<void()>& registerMore) {
    zuna_upnp::host::StackOptions options;
    options.httpPort = 0;
    controller = new zuna_upnp::host::HostController(options);
    device = new IntegrationDevice();
    ASSERT_TRUE(controller->addRootDevice(device));
    ASSERT_NO_FATAL_FAILURE(registerMore());
    ASSERT_TRUE(controller->init(nullptr, {"lo"}, {"RVUServer"}));
    location = controller->getDescriptionLocation("lo", device);
    base = baseOf(location);
    controlPoint = new ControlPoint("lo", kDeviceType);
  }

  static void stopStack() {
    delete controlPoint;
    controller->shutdown();
    delete controller;
    delete device;
  }

  inline static zuna_upnp::host::HostController* controller = nullptr;
  inline static IntegrationDevice* device = nullptr;
  inline static ControlPoint* controlPoint = nullptr;
  inline static std::string location;
  inline static std::string base;
};

}  // namespace upnp_it
