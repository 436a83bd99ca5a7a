#include "FakePlatformSettings.h"

#include <gtest/gtest.h>

#include <thread>

namespace chdtest {
namespace {

TEST(FakePlatformSettings, StartsAsAWiredBoxThatChunksItsLogs) {
  FakePlatformSettings settings;
  EXPECT_TRUE(settings.hasChdSupport());
  EXPECT_EQ("TESTBOX", settings.getModel());
  EXPECT_EQ("Tester", settings.getManufacturer());
  EXPECT_EQ("0042", settings.getManufacturerId());
  EXPECT_EQ(0, settings.getLocale());
  EXPECT_FALSE(settings.hasWifi());
  EXPECT_TRUE(settings.hasLogChunking());
  EXPECT_FALSE(settings.supportsDumpingEEDID());
  EXPECT_FALSE(settings.hasAmazonEchoSupport());
  EXPECT_EQ("/tmp", settings.getLogPath());
  EXPECT_EQ("", settings.getAutoIPInterface());
  EXPECT_EQ("lo", settings.getEthernetInterface());
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
  EXPECT_FALSE(settings.hasChdSupport());
  EXPECT_EQ("ABC", settings.getModel());
  EXPECT_EQ("Acme", settings.getManufacturer());
  EXPECT_EQ("42", settings.getManufacturerId());
  EXPECT_EQ(7, settings.getLocale());
  EXPECT_TRUE(settings.hasWifi());
  EXPECT_FALSE(settings.hasLogChunking());
  EXPECT_TRUE(settings.supportsDumpingEEDID());
  EXPECT_TRUE(settings.hasAmazonEchoSupport());
  EXPECT_EQ("/var/log/box", settings.getLogPath());
  EXPECT_EQ("eth0:avahi", settings.getAutoIPInterface());
  EXPECT_EQ("eth7", settings.getEthernetInterface());
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
