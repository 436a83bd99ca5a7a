#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "TempDir.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace {

using framework_test::TempDir;
using Tolvane::PlatformSettings;
using Tolvane::host::HostPlatformSettings;

bool isInterface(const std::string& name) { return std::filesystem::exists("/sys/class/net/" + name); }

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(PlatformSettingsTest, MissingFileGivesEveryDefault) {
  TempDir dir;
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  HostPlatformSettings settings(dir.path() + "/absent.conf");
  EXPECT_TRUE(settings.hasChdSupport());
  EXPECT_EQ(settings.getModel(), "HOST");
  EXPECT_EQ(settings.getManufacturer(), "Generic");
  EXPECT_EQ(settings.getManufacturerId(), "0000");
  EXPECT_EQ(settings.getLocale(), 0);
  EXPECT_FALSE(settings.hasWifi());
  EXPECT_TRUE(settings.hasLogChunking());
  EXPECT_FALSE(settings.supportsDumpingEEDID());
  EXPECT_FALSE(settings.hasAmazonEchoSupport());
  EXPECT_EQ(settings.getLogPath(), "/var/log/chd");
  EXPECT_EQ(settings.getAutoIPInterface(), "");
  EXPECT_TRUE(isInterface(settings.getEthernetInterface())) << settings.getEthernetInterface();
  EXPECT_EQ(settings.getUpnpPort(), 0);
  EXPECT_EQ(settings.getStatusStoreBus(), "session");
  EXPECT_EQ(settings.getSettingsFile(), "/var/lib/chd/settings.conf");
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  EXPECT_EQ(HostPlatformSettings(dir.path() + "/absent.conf").getStatusStoreBus(), "none");
}

TEST(PlatformSettingsTest, EveryKeyIsRead) {
  TempDir dir;
  const std::string conf = dir.write("platform.conf",
                                     "# a host box\n"
                                     "[platform]\n"
                                     "chd_support=false\n"
                                     "model=K47\n"
                                     "manufacturer=Acme Boxes\n"
                                     "manufacturer_id=1234\n"
                                     "locale=2\n"
                                     "wifi=true\n"
                                     "log_chunking=false\n"
                                     "dump_eedid=true\n"
                                     "echo_support=true\n"
                                     "log_path=" +
                                         dir.path() + "/new/logs//\n" +
                                         "autoip_interface=veth-auto\n"
                                         "ethernet_interface=veth-eth\n"
                                         "upnp_port=49152\n"
                                         "[statusstore]\n"
                                         "bus=unix:path=/tmp/bus\n"
                                         "[settings]\n"
                                         "file=/tmp/settings.conf\n");
  HostPlatformSettings settings(conf);
  EXPECT_FALSE(settings.hasChdSupport());
  EXPECT_EQ(settings.getModel(), "K47");
  EXPECT_EQ(settings.getManufacturer(), "Acme Boxes");
  EXPECT_EQ(settings.getManufacturerId(), "1234");
  EXPECT_EQ(settings.getLocale(), 2);
  EXPECT_TRUE(settings.hasWifi());
  EXPECT_FALSE(settings.hasLogChunking());
  EXPECT_TRUE(settings.supportsDumpingEEDID());
  EXPECT_TRUE(settings.hasAmazonEchoSupport());
  EXPECT_EQ(settings.getLogPath(), dir.path() + "/new/logs");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/new/logs"));
  EXPECT_EQ(settings.getAutoIPInterface(), "veth-auto");
  EXPECT_EQ(settings.getEthernetInterface(), "veth-eth");
  EXPECT_EQ(settings.getUpnpPort(), 49152);
  EXPECT_EQ(settings.getStatusStoreBus(), "unix:path=/tmp/bus");
  EXPECT_EQ(settings.getSettingsFile(), "/tmp/settings.conf");
  EXPECT_EQ(settings.getConfigPath(), conf);
}

TEST(PlatformSettingsTest, UnknownGroupsAndKeysAreWarnedByName) {
  TempDir dir;
  const std::string conf = dir.write("platform.conf", "[platform]\nmodel=K47\nmodle=typo\nlog_path=" + dir.path() +
                                                          "\n[statusstore]\nbus=none\nbuss=none\n[settngs]\nfile=x\n");
  chdtest::LogRecorder log;
  const HostPlatformSettings settings(conf);
  EXPECT_EQ(settings.getStatusStoreBus(), "none");
  const std::vector<std::string> warnings = log.messages(2);
  EXPECT_THAT(warnings, Contains(AllOf(HasSubstr("[modle]"), HasSubstr("[platform]"), HasSubstr("platform.conf"))));
  EXPECT_THAT(warnings, Contains(AllOf(HasSubstr("[buss]"), HasSubstr("[statusstore]"))));
  EXPECT_THAT(warnings, Contains(AllOf(HasSubstr("Unknown group [settngs]"), HasSubstr("platform.conf"))));
  EXPECT_EQ(warnings.size(), 3U);
}

TEST(PlatformSettingsTest, KnownKeysGiveNoWarning) {
  TempDir dir;
  const std::string conf =
      dir.write("platform.conf", "[platform]\nethernet_interface=lo\nmachine_id_file=" + dir.path() +
                                     "/id\nlog_path=" + dir.path() + "\n[statusstore]\nbus=none\n[settings]\nfile=x\n");
  chdtest::LogRecorder log;
  const HostPlatformSettings settings(conf);
  EXPECT_THAT(log.messages(2), IsEmpty());
}

TEST(PlatformSettingsTest, MissingInterfacesAreWarnedByName) {
  TempDir dir;
  const std::string conf = dir.write("platform.conf",
                                     "[platform]\nethernet_interface=chd-nosuch0\nautoip_interface=chd-nosuch1\n"
                                     "log_path=" +
                                         dir.path() + "\n");
  chdtest::LogRecorder log;
  HostPlatformSettings settings(conf);
  EXPECT_EQ(settings.getEthernetInterface(), "chd-nosuch0") << "kept: the interface may still appear";
  EXPECT_THAT(log.messages(2), Contains(AllOf(HasSubstr("[chd-nosuch0]"), HasSubstr("ethernet_interface"))));
  EXPECT_THAT(log.messages(2), Contains(AllOf(HasSubstr("[chd-nosuch1]"), HasSubstr("autoip_interface"))));
}

TEST(PlatformSettingsTest, NamedFileThatDoesNotExistExitsWithStatus2) {
  TempDir dir;
  EXPECT_EXIT(HostPlatformSettings(dir.path() + "/absent.conf", true), ::testing::ExitedWithCode(2),
              "absent\\.conf.*does not exist");
}

TEST(PlatformSettingsTest, InstanceWithANamedMissingFileExitsWithStatus2) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  setenv("CHD_PLATFORM_CONFIG", (dir.path() + "/absent.conf").c_str(), 1);
  EXPECT_EXIT(PlatformSettings::getInstance(), ::testing::ExitedWithCode(2), "absent\\.conf.*does not exist");
  unsetenv("CHD_PLATFORM_CONFIG");
}

TEST(PlatformSettingsTest, NamedBusesAreAccepted) {
  TempDir dir;
  for (const char* bus : {"none", "session", "system"}) {
    const std::string conf = dir.write("platform.conf", std::string("[statusstore]\nbus=") + bus + "\n");
    EXPECT_EQ(HostPlatformSettings(conf).getStatusStoreBus(), bus);
  }
}

// Each malformed file ends the process with status 2 and names the file and the problem.
struct Malformed {
  const char* name;
  const char* text;
  const char* problem;  // regular expression expected on standard error
};

class MalformedPlatformFileTest : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedPlatformFileTest, ExitsWithStatus2NamingFileAndProblem) {
  TempDir dir;
  const std::string conf = dir.write("platform.conf", GetParam().text);
  EXPECT_EXIT(HostPlatformSettings{conf}, ::testing::ExitedWithCode(2),
              std::string("platform\\.conf.*") + GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(PlatformSettingsTest, MalformedPlatformFileTest,
                         ::testing::Values(Malformed{"Syntax", "[platform\nmodel=x\n", ""},
                                           Malformed{"LineOutsideAnyGroup", "model=x\n", ""},
                                           Malformed{"BoolNotBool", "[platform]\nwifi=maybe\n", "wifi"},
                                           Malformed{"SupportNotBool", "[platform]\nchd_support=1x\n", "chd_support"},
                                           Malformed{"LocaleNotInt", "[platform]\nlocale=two\n", "locale"},
                                           Malformed{"PortNotInt", "[platform]\nupnp_port=http\n", "upnp_port"},
                                           Malformed{"PortOutOfRange", "[platform]\nupnp_port=70000\n", "upnp_port"},
                                           Malformed{"NegativePort", "[platform]\nupnp_port=-1\n", "upnp_port"},
                                           Malformed{"BusUnknown", "[statusstore]\nbus=sessions\n", "bus"}),
                         [](const ::testing::TestParamInfo<Malformed>& info) { return std::string(info.param.name); });

TEST(PlatformSettingsTest, UnreadableFileExitsWithStatus2) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() + "/platform.conf");
  EXPECT_EXIT(HostPlatformSettings{dir.path() + "/platform.conf"}, ::testing::ExitedWithCode(2), "platform\\.conf");
}

TEST(PlatformSettingsTest, InstanceIsLoadedFromTheFileNamedInTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string conf =
      dir.write("platform.conf", "[platform]\nmodel=FromEnvironment\nlog_path=" + dir.path() + "\n");
  setenv("CHD_PLATFORM_CONFIG", conf.c_str(), 1);
  EXPECT_EXIT(
      {
        const bool matches = PlatformSettings::getInstance()->getModel() == "FromEnvironment" &&
                             PlatformSettings::getInstance() == Tolvane::host::getHostPlatformSettings();
        std::exit(matches ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  unsetenv("CHD_PLATFORM_CONFIG");
}

TEST(PlatformSettingsTest, InstanceWithAMalformedFileExitsWithStatus2) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string conf = dir.write("platform.conf", "[platform]\nlocale=x\n");
  setenv("CHD_PLATFORM_CONFIG", conf.c_str(), 1);
  EXPECT_EXIT(PlatformSettings::getInstance(), ::testing::ExitedWithCode(2), "locale");
  unsetenv("CHD_PLATFORM_CONFIG");
}

TEST(PlatformSettingsTest, TestSettingsReplaceTheInstanceUntilRestored) {
  TempDir dir;
  HostPlatformSettings replacement(
      dir.write("platform.conf", "[platform]\nmodel=Replacement\nlog_path=" + dir.path() + "\n"));
  Tolvane::host::setPlatformSettingsForTest(&replacement);
  EXPECT_EQ(PlatformSettings::getInstance(), &replacement);
  EXPECT_EQ(PlatformSettings::getInstance()->getModel(), "Replacement");
  Tolvane::host::setPlatformSettingsForTest(nullptr);
  setenv("CHD_PLATFORM_CONFIG", dir.write("empty.conf", "").c_str(), 1);
  EXPECT_EQ(PlatformSettings::getInstance(), Tolvane::host::getHostPlatformSettings());
  unsetenv("CHD_PLATFORM_CONFIG");
}

}  // namespace
