// Platform settings with fixed, test-chosen values (Acme, model ABC, id 42).
#pragma once

#include <string>

#include "tolvane/PlatformSettings.h"

class FixedPlatformSettings : public Tolvane::PlatformSettings {
 public:
  bool hasChdSupport() override { return true; }
  std::string getModel() override { return "ABC"; }
  std::string getManufacturer() override { return "Acme"; }
  std::string getManufacturerId() override { return "42"; }
  int getLocale() override { return 0; }
  bool hasWifi() override { return false; }
  bool hasLogChunking() override { return true; }
  bool supportsDumpingEEDID() override { return false; }
  bool hasAmazonEchoSupport() override { return false; }
  std::string getLogPath() override { return logPath; }
  std::string getAutoIPInterface() override { return autoIp; }
  std::string getEthernetInterface() override { return ethernet; }

  std::string logPath = "/tmp";
  std::string autoIp;
  std::string ethernet = "eth7";
};
