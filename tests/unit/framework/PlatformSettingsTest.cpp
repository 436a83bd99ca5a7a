#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
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

// Every value as read back, under the name of the key that sets it.
using ReadBack = std::map<std::string, std::string>;

std::string text(bool value) { return value ? "true" : "false"; }

ReadBack readBack(HostPlatformSettings& settings) {
  return {{"chd_support", text(settings.hasChdSupport())},
          {"model", settings.getModel()},
          {"manufacturer", settings.getManufacturer()},
          {"manufacturer_id", settings.getManufacturerId()},
          {"locale", std::to_string(settings.getLocale())},
          {"wifi", text(settings.hasWifi())},
          {"log_chunking", text(settings.hasLogChunking())},
          {"dump_eedid", text(settings.supportsDumpingEEDID())},
          {"echo_support", text(settings.hasAmazonEchoSupport())},
          {"log_path", settings.getLogPath()},
          {"autoip_interface", settings.getAutoIPInterface()},
          {"ethernet_interface", settings.getEthernetInterface()},
          {"upnp_port", std::to_string(settings.getUpnpPort())},
          {"bus", settings.getStatusStoreBus()},
          {"file", settings.getSettingsFile()}};
}

TEST(PlatformSettingsTest, MissingFileGivesEveryDefault) {
  TempDir dir;
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
  HostPlatformSettings settings(dir.path() + "/absent.conf");
  ReadBack read = readBack(settings);
  // The default Ethernet interface is whichever this machine has.
  EXPECT_TRUE(isInterface(read["ethernet_interface"])) << read["ethernet_interface"];
  read.erase("ethernet_interface");
  EXPECT_EQ(read, (ReadBack{{"chd_support", "true"},
                            {"model", "HOST"},
                            {"manufacturer", "Generic"},
                            {"manufacturer_id", "0000"},
                            {"locale", "0"},
                            {"wifi", "false"},
                            {"log_chunking", "true"},
                            {"dump_eedid", "false"},
                            {"echo_support", "false"},
                            {"log_path", "/var/log/chd"},
                            {"autoip_interface", ""},
                            {"upnp_port", "0"},
                            {"bus", "session"},
                            {"file", "/var/lib/chd/settings.conf"}}));
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
  EXPECT_EQ(readBack(settings), (ReadBack{{"chd_support", "false"},
                                          {"model", "K47"},
                                          {"manufacturer", "Acme Boxes"},
                                          {"manufacturer_id", "1234"},
                                          {"locale", "2"},
                                          {"wifi", "true"},
                                          {"log_chunking", "false"},
                                          {"dump_eedid", "true"},
                                          {"echo_support", "true"},
                                          {"log_path", dir.path() + "/new/logs"},
                                          {"autoip_interface", "veth-auto"},
                                          {"ethernet_interface", "veth-eth"},
                                          {"upnp_port", "49152"},
                                          {"bus", "unix:path=/tmp/bus"},
                                          {"file", "/tmp/settings.conf"}}));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/new/logs"));
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
