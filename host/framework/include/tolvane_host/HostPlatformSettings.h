// Platform settings of a host box, read from an INI file.
//
// The file is named by the environment variable CHD_PLATFORM_CONFIG (default
// /etc/chd/platform.conf) and read once, on first use of
// PlatformSettings::getInstance(). A missing file means every default; a file
// that cannot be read or parsed, or a value of the wrong type, is reported on
// standard error and ends the process with exit status 2.
//
//   [platform]   chd_support model manufacturer manufacturer_id locale wifi
//                log_chunking dump_eedid echo_support log_path
//                autoip_interface ethernet_interface upnp_port
//   [statusstore] bus = none | session | system | <D-Bus address>
//   [settings]   file = <path of the settings manager's file>
#pragma once

#include <string>

#include "tolvane/PlatformSettings.h"

namespace Tolvane::host {

class HostPlatformSettings : public Tolvane::PlatformSettings {
 public:
  // The file named by CHD_PLATFORM_CONFIG, or the default path.
  static std::string defaultConfigPath();

  // Loads the given file (see above for missing and malformed files).
  explicit HostPlatformSettings(const std::string& configPath);

  bool hasChdSupport() override { return mChdSupport; }
  std::string getModel() override { return mModel; }
  std::string getManufacturer() override { return mManufacturer; }
  std::string getManufacturerId() override { return mManufacturerId; }
  int getLocale() override { return mLocale; }
  bool hasWifi() override { return mWifi; }
  bool hasLogChunking() override { return mLogChunking; }
  bool supportsDumpingEEDID() override { return mDumpEedid; }
  bool hasAmazonEchoSupport() override { return mEchoSupport; }
  std::string getLogPath() override { return mLogPath; }
  std::string getAutoIPInterface() override { return mAutoIpInterface; }
  std::string getEthernetInterface() override { return mEthernetInterface; }

  // TCP port of the UPnP stack's web server; 0 takes any free port.
  int getUpnpPort() const { return mUpnpPort; }
  // "none", "session", "system" or a D-Bus address.
  std::string getStatusStoreBus() const { return mStatusStoreBus; }
  // File in which the settings manager keeps the file settings.
  std::string getSettingsFile() const { return mSettingsFile; }
  const std::string& getConfigPath() const { return mConfigPath; }

 private:
  class Loader;

  std::string mConfigPath;
  bool mChdSupport = true;
  std::string mModel = "HOST";
  std::string mManufacturer = "Generic";
  std::string mManufacturerId = "0000";
  int mLocale = 0;
  bool mWifi = false;
  bool mLogChunking = true;
  bool mDumpEedid = false;
  bool mEchoSupport = false;
  std::string mLogPath = "/var/log/chd";
  std::string mAutoIpInterface;
  std::string mEthernetInterface;
  int mUpnpPort = 0;
  std::string mStatusStoreBus;
  std::string mSettingsFile = "/var/lib/chd/settings.conf";
};

// The file-backed instance of this process, created on first use.
HostPlatformSettings* getHostPlatformSettings();

// Makes PlatformSettings::getInstance() return settings (not owned);
// nullptr restores the file-backed instance.
void setPlatformSettingsForTest(Tolvane::PlatformSettings* settings);

}  // namespace Tolvane::host
