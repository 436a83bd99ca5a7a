#include "FakePlatformSettings.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>

namespace chdtest {
namespace {

// Every answer, in the order of the interface.
std::string describe(FakePlatformSettings& settings) {
  std::ostringstream text;
  text << settings.hasChdSupport() << " " << settings.getModel() << " " << settings.getManufacturer() << " "
       << settings.getManufacturerId() << " " << settings.getLocale() << " " << settings.hasWifi()
       << settings.hasLogChunking() << settings.supportsDumpingEEDID() << settings.hasAmazonEchoSupport() << " "
       << settings.getLogPath() << " [" << settings.getAutoIPInterface() << "] [" << settings.getEthernetInterface()
       << "]";
  return text.str();
}

TEST(FakePlatformSettings, StartsAsAWiredBoxThatChunksItsLogs) {
  FakePlatformSettings settings;
  EXPECT_EQ("1 TESTBOX Tester 0042 0 0100 /tmp [] [lo]", describe(settings));
}

TEST(FakePlatformSettings, AnswersWhatWasSet) {
  FakePlatformSettings settings;
  settings.setChdSupport(false);
  settings.setIdentity("ABC", "Acme", "42");
  settings.setLocale(7);
  settings.setWifi(true);
  settings.setLogChunking(false);
  settings.setEedidDumps(true);
  settings.setAmazonEcho(true);
  settings.setLogPath("/var/log/box");
  settings.setInterfaces("eth0:avahi", "eth7");
  EXPECT_EQ("0 ABC Acme 42 7 1011 /var/log/box [eth0:avahi] [eth7]", describe(settings));
}

TEST(FakePlatformSettings, ServesReadersWhileTheTestChangesIt) {
  FakePlatformSettings settings;
  std::thread reader([&settings] {
    for (int i = 0; i < 1000; ++i) {
      const std::string path = settings.getLogPath();
      EXPECT_TRUE(path == "/tmp" || path == "/a" || path == "/b") << path;
      settings.hasWifi();
    }
  });
  for (int i = 0; i < 1000; ++i) {
    settings.setLogPath(i % 2 == 0 ? "/a" : "/b");
    settings.setWifi(i % 2 == 0);
  }
  reader.join();
  EXPECT_EQ("/b", settings.getLogPath());
  EXPECT_FALSE(settings.hasWifi());
}

}  // namespace
}  // namespace chdtest
