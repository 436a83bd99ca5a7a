#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "TempDir.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace {

using framework_test::TempDir;
using Tolvane::host::deviceUuid;
using Tolvane::host::HostPlatformSettings;
using Tolvane::host::readBoxIdentity;

constexpr const char* kDeviceType = "urn:schemas-upnp-org:device:ManageableDevice:1";

// A stand-in for /sys/class/net: one directory per interface with its
// hardware address and its ARPHRD type.
class FakeNetClass {
 public:
  explicit FakeNetClass(const TempDir& dir) : mDir(dir), mPath(dir.path() + "/net") {
    std::filesystem::create_directories(mPath);
  }
  void add(const std::string& name, const std::string& address, const std::string& type = "1") const {
    std::filesystem::create_directories(mPath + "/" + name);
    mDir.write("net/" + name + "/address", address + "\n");
    mDir.write("net/" + name + "/type", type + "\n");
  }
  const std::string& path() const { return mPath; }

 private:
  const TempDir& mDir;
  std::string mPath;
};

TEST(BoxIdentityTest, SameIdentityAndTypeGiveTheSameUuid) {
  EXPECT_EQ(deviceUuid("machine-id:0123", kDeviceType), deviceUuid("machine-id:0123", kDeviceType));
}

TEST(BoxIdentityTest, UuidHasTheVersion5Layout) {
  EXPECT_THAT(deviceUuid("machine-id:0123", kDeviceType),
              ::testing::MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-5[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
}

TEST(BoxIdentityTest, DifferentMachineIdsOrTypesGiveDifferentUuids) {
  EXPECT_NE(deviceUuid("machine-id:0123", kDeviceType), deviceUuid("machine-id:0124", kDeviceType));
  EXPECT_NE(deviceUuid("machine-id:0123", kDeviceType),
            deviceUuid("machine-id:0123", "urn:schemas-upnp-org:device:Basic:1"));
}

TEST(BoxIdentityTest, MachineIdFileWinsOverTheMacAddress) {
  TempDir dir;
  FakeNetClass net(dir);
  net.add("eth0", "02:00:00:00:00:01");
  const std::string id = dir.write("machine-id", "5f0c2a8e9b1d4c7fa3e6b2d1c0f9e8a7\n");
  EXPECT_EQ(readBoxIdentity({id}, net.path()), "machine-id:5f0c2a8e9b1d4c7fa3e6b2d1c0f9e8a7");
}

TEST(BoxIdentityTest, SecondMachineIdFileIsReadWhenTheFirstIsMissingOrEmpty) {
  TempDir dir;
  FakeNetClass net(dir);
  const std::string empty = dir.write("empty-id", "\n");
  const std::string second = dir.write("dbus-id", "abc\n");
  EXPECT_EQ(readBoxIdentity({dir.path() + "/absent", empty, second}, net.path()), "machine-id:abc");
}

TEST(BoxIdentityTest, WithoutMachineIdTheFirstNonLoopbackMacIsUsed) {
  TempDir dir;
  FakeNetClass net(dir);
  net.add("lo", "00:00:00:00:00:00", "772");
  net.add("dummy0", "00:00:00:00:00:00");
  net.add("wlan0", "02:00:00:00:00:0b");
  net.add("eth0", "02:00:00:00:00:0a");
  EXPECT_EQ(readBoxIdentity({dir.path() + "/absent"}, net.path()), "mac:02:00:00:00:00:0a");
}

TEST(BoxIdentityTest, LoopbackWithAnAddressIsNotUsed) {
  TempDir dir;
  FakeNetClass net(dir);
  net.add("a-loop", "02:00:00:00:00:99", "772");
  net.add("eth1", "02:00:00:00:00:01");
  EXPECT_EQ(readBoxIdentity({}, net.path()), "mac:02:00:00:00:00:01");
}

TEST(BoxIdentityTest, NeitherMachineIdNorMacGivesNoIdentity) {
  TempDir dir;
  FakeNetClass net(dir);
  net.add("lo", "00:00:00:00:00:00", "772");
  EXPECT_EQ(readBoxIdentity({dir.path() + "/absent"}, net.path()), "");
  EXPECT_EQ(readBoxIdentity({}, dir.path() + "/no-sysfs"), "");
}

TEST(BoxIdentityTest, SettingsReadTheConfiguredMachineIdFile) {
  TempDir dir;
  const std::string id = dir.write("machine-id", "box-one\n");
  const std::string conf =
      dir.write("platform.conf", "[platform]\nmachine_id_file=" + id + "\nlog_path=" + dir.path() + "\n");
  EXPECT_EQ(HostPlatformSettings(conf).getBoxIdentity(), "machine-id:box-one");
  dir.write("machine-id", "box-two\n");
  EXPECT_EQ(HostPlatformSettings(conf).getBoxIdentity(), "machine-id:box-two");
}

TEST(BoxIdentityTest, SettingsWithoutAConfiguredFileUseTheSystemMachineId) {
  TempDir dir;
  const std::string conf = dir.write("platform.conf", "[platform]\nlog_path=" + dir.path() + "\n");
  EXPECT_EQ(HostPlatformSettings(conf).getBoxIdentity(),
            readBoxIdentity(Tolvane::host::defaultMachineIdFiles(), "/sys/class/net"));
}

}  // namespace
