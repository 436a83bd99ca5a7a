// What the tests of the stub platform can see and set.
#pragma once

#include <string>
#include <vector>

namespace zuna_upnp {
class RootDevice;
}

namespace stub {

// The values PlatformSettings::getInstance() answers with.
struct Settings {
  std::string model = "STUB";
  std::string manufacturer = "Stub";
  std::string manufacturerId = "0000";
  std::string logPath = "/tmp";
};
Settings& settings();

// The root devices published through Controller::addRootDevice, in order.
std::vector<zuna_upnp::RootDevice*> publishedDevices();
// True once Controller::shutdown has run.
bool controllerShutDown();

}  // namespace stub
