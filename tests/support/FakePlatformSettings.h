// Platform settings of the test's choosing. Every value may be changed at any
// time from any thread, also while the code under test reads it.
#pragma once

#include <mutex>
#include <string>

#include "tolvane/PlatformSettings.h"

namespace chdtest {

class FakePlatformSettings : public Tolvane::PlatformSettings {
 public:
  bool hasChdSupport() override;
  std::string getModel() override;
  std::string getManufacturer() override;
  std::string getManufacturerId() override;
  int getLocale() override;
  bool hasWifi() override;
  bool hasLogChunking() override;
  bool supportsDumpingEEDID() override;
  bool hasAmazonEchoSupport() override;
  std::string getLogPath() override;
  std::string getAutoIPInterface() override;
  std::string getEthernetInterface() override;

  void setChdSupport(bool supported);
  void setIdentity(const std::string& model, const std::string& manufacturer, const std::string& manufacturerId);
  void setLocale(int locale);
  void setWifi(bool wifi);
  void setLogChunking(bool chunking);
  void setEedidDumps(bool dumps);
  void setAmazonEcho(bool echo);
  void setLogPath(const std::string& path);
  void setInterfaces(const std::string& autoIp, const std::string& ethernet);

 private:
  // A box that runs the daemon, sends logs in chunks and has a wired interface only.
  struct Values {
    bool chdSupport = true;
    std::string model = "TESTBOX";
    std::string manufacturer = "Tester";
    std::string manufacturerId = "0042";
    int locale = 0;
    bool wifi = false;
    bool logChunking = true;
    bool eedidDumps = false;
    bool amazonEcho = false;
    std::string logPath = "/tmp";
    std::string autoIp;
    std::string ethernet = "lo";
  };

  template <typename T>
  T get(T Values::*field) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mValues.*field;
  }
  template <typename T>
  void set(T Values::*field, const T& value) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mValues.*field = value;
  }

  mutable std::mutex mMutex;
  Values mValues;
};

}  // namespace chdtest
