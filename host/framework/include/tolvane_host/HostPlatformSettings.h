// Platform settings of a host box, read from an INI file.
//
// The file is named by the environment variable CHD_PLATFORM_CONFIG (default
// /etc/chd/platform.conf) and read once, on first use of
// PlatformSettings::getInstance(). A missing default file means every
// default; a file named by CHD_PLATFORM_CONFIG that does not exist, a file that
// cannot be read or parsed, or a value of the wrong type, is reported on
// standard error and ends the process with exit status 2. An unknown group or
// key, and an interface that does not exist (yet), are logged as warnings.
//
//   [platform]   chd_support model manufacturer manufacturer_id locale wifi
//                log_chunking dump_eedid echo_support log_path
//                autoip_interface ethernet_interface upnp_port
//                machine_id_file
//   [statusstore] bus = none | session | system | <D-Bus address>
//   [settings]   file = <path of the settings manager's file>
#pragma once

#include <string>
#include <vector>

#include "tolvane/PlatformSettings.h"

namespace Tolvane::host {

class HostPlatformSettings : public Tolvane::PlatformSettings {
 public:
  // The file named by CHD_PLATFORM_CONFIG, or the default path.
  static std::string defaultConfigPath();

  // Loads the given file (see above for missing and malformed files). When
  // mustExist is set, a missing file is a configuration error too.
  explicit HostPlatformSettings(const std::string& configPath, bool mustExist = false);

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
  // What makes this box unique among boxes made from one image (see
  // readBoxIdentity); read once, when the settings are loaded.
  const std::string& getBoxIdentity() const { return mBoxIdentity; }

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
  std::string mBoxIdentity;
};

// The machine id files tried when the configuration names none, in order.
std::vector<std::string> defaultMachineIdFiles();

// The box's identity: "machine-id:" and the content of the first of
// machineIdFiles that holds one, else "mac:" and the address of the first
// interface (by name) under netClassDir that has a non-zero hardware address
// and is not a loopback, else "" when the box has neither.
std::string readBoxIdentity(const std::vector<std::string>& machineIdFiles, const std::string& netClassDir);

// A name-based UUID (SHA-1, RFC 4122 version 5 layout) of the box identity and
// the device type: the same box and type give the same UUID after every
// restart, two boxes with different identities give different UUIDs.
std::string deviceUuid(const std::string& boxIdentity, const std::string& deviceType);

// The file-backed instance of this process, created on first use.
HostPlatformSettings* getHostPlatformSettings();

// Makes PlatformSettings::getInstance() return settings (not owned);
// nullptr restores the file-backed instance.
void setPlatformSettingsForTest(Tolvane::PlatformSettings* settings);

}  // namespace Tolvane::host
