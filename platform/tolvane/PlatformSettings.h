// Identity, capabilities and locations of the box.
#pragma once

#include <string>

namespace Tolvane {

class PlatformSettings {
 public:
  // The box's one instance, created on first use.
  static PlatformSettings* getInstance();

  virtual ~PlatformSettings() = default;

  virtual bool hasChdSupport() = 0;
  virtual std::string getModel() = 0;
  virtual std::string getManufacturer() = 0;
  virtual std::string getManufacturerId() = 0;
  virtual int getLocale() = 0;
  virtual bool hasWifi() = 0;
  virtual bool hasLogChunking() = 0;
  virtual bool supportsDumpingEEDID() = 0;
  virtual bool hasAmazonEchoSupport() = 0;
  // Directory of the box's log files, without a trailing "/".
  virtual std::string getLogPath() = 0;
  virtual std::string getAutoIPInterface() = 0;
  virtual std::string getEthernetInterface() = 0;
};

}  // namespace Tolvane
