// What a blob holds: sections, keys, types, values, timestamps and the text.
#include <gtest/gtest.h>

#include <ostream>

#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "BlobWriterFixture.h"

namespace blobtest {
namespace {

const std::vector<std::string> kHistoryKeys = {"connection_failures",
                                               "demux_buffer_empty_count",
                                               "abort_count",
                                               "segfault_count",
                                               "rvu_command_failures",
                                               "DroppedKeys",
                                               "msearch_no_response",
                                               "upnp_failures",
                                               "server_disconnect_count",
                                               "socket_health_errors",
                                               "dtcp_failures",
                                               "hdcp_failures",
                                               "audio_decoder_errors",
                                               "video_decoder_errors",
                                               "media_stream_definitions",
                                               "media_state",
                                               "Low_RSSI_count"};

std::set<std::string> memberNames(const Json::Value& object) {
  const std::vector<std::string> names = object.getMemberNames();
  return std::set<std::string>(names.begin(), names.end());
}

time_t parseUtc(const std::string& timestamp) {
  struct tm broken = {};
  strptime(timestamp.c_str(), "%Y-%m-%dT%H:%M:%S", &broken);
  return timegm(&broken);
}

class BlobDocumentTest : public BlobWriterTest {};

TEST_F(BlobDocumentTest, DefaultsOnAWifiBoxBeforeAnyStatus) {
  const Json::Value blob = body(blobNow());
  const Json::Value& client = blob["C-ClientParameters"];
  EXPECT_EQ("", client["connected"].asString());
  EXPECT_EQ("", client["connection_wireless"].asString());
  EXPECT_EQ(900u, client["Reporting_Interval"].asUInt());
  EXPECT_EQ(0u, client["connection_duration"].asUInt64());
  EXPECT_EQ(0u, client["wifi_errors"].asUInt());
  for (const std::string& key : kHistoryKeys) {
    EXPECT_TRUE(client[key].isArray()) << key;
    EXPECT_EQ(0u, client[key].size()) << key;
  }
  const Json::Value& wifi = blob["Network"]["WiFi"];
  EXPECT_EQ(0u, wifi["channel"].asUInt());
  EXPECT_EQ(0u, wifi["SNR"].asUInt());
  EXPECT_EQ(0u, wifi["congestion_count"].asUInt());
  EXPECT_EQ("", wifi["ap_mac_address"].asString());
  EXPECT_EQ("", wifi["SSID"].asString());
  const Json::Value& tv = blob["Display"]["TV"];
  EXPECT_EQ(0u, tv["Res"]["Supported"].asUInt());
  EXPECT_FALSE(tv["Native"].asBool());
  EXPECT_FALSE(tv["HDMI"]["CEC"].asBool());
  EXPECT_FALSE(tv["HDMI"].isMember("CEC_ActiveSource"));
  EXPECT_FALSE(blob["Display"]["Audio"]["DolbyDigital"].asBool());
  EXPECT_FALSE(blob["Other"]["In_Standby"].asBool());
  EXPECT_EQ("", blob["Remote"]["LastCommand"].asString());
  EXPECT_EQ(0u, blob["Info"]["PowerMode"].asUInt());
}

TEST_F(BlobDocumentTest, SectionsKeysAndTypes) {
  const Json::Value blob = body(blobNow());
  EXPECT_EQ((std::set<std::string>{"C-ClientParameters", "Network", "Display", "Remote", "Info", "Other"}),
            memberNames(blob));
  std::set<std::string> clientKeys(kHistoryKeys.begin(), kHistoryKeys.end());
  clientKeys.insert({"connected", "connection_duration", "connection_wireless", "wifi_errors", "Reporting_Interval"});
  const Json::Value& client = blob["C-ClientParameters"];
  EXPECT_EQ(clientKeys, memberNames(client));
  EXPECT_TRUE(client["connected"].isString());
  EXPECT_TRUE(client["connection_duration"].isUInt64());
  EXPECT_TRUE(client["connection_wireless"].isString());
  EXPECT_TRUE(client["wifi_errors"].isUInt());
  EXPECT_TRUE(client["Reporting_Interval"].isUInt());
  EXPECT_EQ((std::set<std::string>{"WiFi"}), memberNames(blob["Network"]));
  EXPECT_EQ(
      (std::set<std::string>{"ap_mac_address", "channel", "SNR", "SSID", "Low_RSSI_duration", "congestion_count"}),
      memberNames(blob["Network"]["WiFi"]));
  EXPECT_EQ((std::set<std::string>{"Bar", "TV", "Audio"}), memberNames(blob["Display"]));
  EXPECT_EQ((std::set<std::string>{"Aspect", "Format", "Native", "Resolution", "Res", "HDMI"}),
            memberNames(blob["Display"]["TV"]));
  EXPECT_EQ((std::set<std::string>{"Current", "Selected"}), memberNames(blob["Display"]["TV"]["Resolution"]));
  EXPECT_EQ((std::set<std::string>{"Supported"}), memberNames(blob["Display"]["TV"]["Res"]));
  EXPECT_EQ((std::set<std::string>{"CEC", "CEC_Capability", "CEC_Version", "CEC_TV_On"}),
            memberNames(blob["Display"]["TV"]["HDMI"]));
  EXPECT_EQ((std::set<std::string>{"DolbyDigital"}), memberNames(blob["Display"]["Audio"]));
  EXPECT_EQ((std::set<std::string>{"LastCommand"}), memberNames(blob["Remote"]));
  EXPECT_EQ((std::set<std::string>{"PowerMode"}), memberNames(blob["Info"]));
  EXPECT_EQ((std::set<std::string>{"In_Standby"}), memberNames(blob["Other"]));
  EXPECT_TRUE(blob["Display"]["Bar"].isUInt());
  EXPECT_TRUE(blob["Display"]["TV"]["Native"].isBool());
  EXPECT_TRUE(blob["Display"]["TV"]["HDMI"]["CEC"].isBool());
  EXPECT_TRUE(blob["Display"]["TV"]["HDMI"]["CEC_Capability"].isString());
  EXPECT_TRUE(blob["Other"]["In_Standby"].isBool());
}

TEST_F(BlobDocumentTest, WrittenCompactlyOnOneLineWithoutFinalLineFeed) {
  track("Dropped Key", 2);
  postEvent("Media State Event", "Playing");
  setStatus("Client Connection Type", "Wired ethernet");
  const std::string blob = blobNow();
  ASSERT_FALSE(blob.empty());
  EXPECT_NE('\n', blob.back());
  EXPECT_EQ(std::string::npos, blob.find('\n'));
  EXPECT_EQ(compact(parse(blob)), blob);
  EXPECT_NE(std::string::npos, blob.find("\"connection_wireless\":\"Wired ethernet\""));
}

TEST_F(BlobDocumentTest, SectionsAreWrittenInByteOrderOfTheirNames) {
  const std::string blob = blobNow();
  const std::vector<std::string> order = {"C-ClientParameters", "Display", "Info", "Network", "Other", "Remote"};
  size_t previous = 0;
  for (const std::string& section : order) {
    const size_t position = blob.find("\"" + section + "\":{");
    ASSERT_NE(std::string::npos, position) << section;
    EXPECT_GT(position, previous) << section;
    previous = position;
  }
  EXPECT_LT(blob.find("\"DroppedKeys\""), blob.find("\"Low_RSSI_count\""));
  EXPECT_LT(blob.find("\"Reporting_Interval\""), blob.find("\"abort_count\""));
}

TEST_F(BlobDocumentTest, TopKeyIsTheUtcTimeWithoutZoneLetter) {
  const time_t before = time(nullptr);
  const std::string blob = blobNow();
  const time_t after = time(nullptr);
  const std::string key = topKey(blob);
  ASSERT_EQ(19u, key.size()) << key;
  EXPECT_TRUE(isTimestamp(key)) << key;
  const time_t stamped = parseUtc(key);
  EXPECT_LE(before, stamped);
  EXPECT_GE(after, stamped);
}

// Nineteen characters in UTC, without a zone letter.
TEST(BlobTimestampTest, FormatsTheMomentInUtcWithoutAZoneLetter) {
  EXPECT_EQ("1970-01-01T00:00:00", CHDBlobWriter::formatTimestamp(0));
  EXPECT_EQ("2023-11-14T22:13:20", CHDBlobWriter::formatTimestamp(1700000000));
  EXPECT_EQ("2038-01-19T03:14:08", CHDBlobWriter::formatTimestamp(time_t{2147483648}));
  EXPECT_EQ("9999-12-31T23:59:59", CHDBlobWriter::formatTimestamp(time_t{253402300799}));
}

TEST_F(BlobDocumentTest, TwoBlobsBuiltInTheSameSecondShareTheTopKey) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const time_t before = time(nullptr);
    const std::string first = blobNow();
    const std::string second = blobNow();
    if (time(nullptr) != before) {
      continue;  // a second boundary fell between them; try again
    }
    EXPECT_EQ(topKey(first), topKey(second));
    return;
  }
  FAIL() << "could not build two blobs within one second in five attempts";
}

TEST_F(BlobDocumentTest, NoWifiBoxReportsZerosWhateverArrived) {
  recreateWriter(false);
  setStatuses({{"AP MAC Address", "00:11:22:33:44:55"},
               {"Channel", "6"},
               {"SNR", "30"},
               {"Network Name", "home"},
               {"Wifi Congestion", "4"},
               {"Front Panel Status Color", "Red"},
               {"In Standby", "False"}});
  mStore.setCounter("Wifi Error Counter", 5);
  mStore.resumeTimer("Low RSSI Timer");
  advance(10000);
  const std::string text = blobNow();
  const Json::Value blob = body(text);
  const Json::Value& wifi = blob["Network"]["WiFi"];
  EXPECT_EQ("", wifi["ap_mac_address"].asString());
  EXPECT_EQ("", wifi["SSID"].asString());
  for (const char* key : {"channel", "SNR", "Low_RSSI_duration", "congestion_count"}) {
    EXPECT_TRUE(wifi[key].isIntegral()) << key;
    EXPECT_EQ(0, wifi[key].asInt()) << key;
  }
  EXPECT_EQ(0, blob["C-ClientParameters"]["wifi_errors"].asInt());
  EXPECT_EQ(0u, blob["C-ClientParameters"]["Low_RSSI_count"].size());
  EXPECT_NE(std::string::npos, text.find("\"WiFi\":{\"Low_RSSI_duration\":0,\"SNR\":0,\"SSID\":\"\","));
  // A box without Wi-Fi leaves the Wi-Fi error counter alone.
  EXPECT_EQ(5u, mStore.getCounter("Wifi Error Counter"));
}

TEST_F(BlobDocumentTest, WifiBoxReportsItsStatuses) {
  setStatuses({{"AP MAC Address", "00:11:22:33:44:55"},
               {"Channel", "11"},
               {"SNR", "42"},
               {"Network Name", "home net"},
               {"Wifi Congestion", "3"}});
  mStore.setCounter("Wifi Error Counter", 7);
  const Json::Value blob = body(blobNow());
  const Json::Value& wifi = blob["Network"]["WiFi"];
  EXPECT_EQ("00:11:22:33:44:55", wifi["ap_mac_address"].asString());
  EXPECT_EQ(11u, wifi["channel"].asUInt());
  EXPECT_EQ(42u, wifi["SNR"].asUInt());
  EXPECT_EQ("home net", wifi["SSID"].asString());
  EXPECT_EQ(3u, wifi["congestion_count"].asUInt());
  EXPECT_EQ(7u, blob["C-ClientParameters"]["wifi_errors"].asUInt());
  // Each period counts its own Wi-Fi errors.
  EXPECT_EQ(0u, mStore.getCounter("Wifi Error Counter"));
  EXPECT_EQ(0u, body(blobNow())["C-ClientParameters"]["wifi_errors"].asUInt());
}

struct ConnectionCase {
  const char* status;
  const char* connected;
};

void PrintTo(const ConnectionCase& c, std::ostream* os) { *os << '"' << c.status << '"'; }

class BlobConnectionTableTest : public BlobWriterTest, public ::testing::WithParamInterface<ConnectionCase> {};

TEST_P(BlobConnectionTableTest, TranslatesTheConnectionStatus) {
  setStatus("Client Connection Status", GetParam().status);
  EXPECT_EQ(GetParam().connected, body(blobNow())["C-ClientParameters"]["connected"].asString());
}

INSTANTIATE_TEST_SUITE_P(Statuses, BlobConnectionTableTest,
                         ::testing::Values(ConnectionCase{"Common.Connected", "On"},
                                           ConnectionCase{"Common.NotConnected", "Off"},
                                           ConnectionCase{"Common.Connecting", ""},
                                           ConnectionCase{"common.connected", ""}, ConnectionCase{"", ""}));

TEST_F(BlobDocumentTest, ConnectionDurationCountsTheConnectedTimeOfEachPeriod) {
  setStatus("Client Connection Status", "Common.Connected");
  advance(7000);
  EXPECT_EQ(7u, body(blobNow())["C-ClientParameters"]["connection_duration"].asUInt64());
  advance(3000);
  setStatus("Client Connection Status", "Common.NotConnected");
  advance(5000);
  EXPECT_EQ(3u, body(blobNow())["C-ClientParameters"]["connection_duration"].asUInt64());
  advance(5000);
  EXPECT_EQ(0u, body(blobNow())["C-ClientParameters"]["connection_duration"].asUInt64());
}

TEST_F(BlobDocumentTest, LowRssiDurationCountsTheWeakSignalTimeOfEachPeriod) {
  setStatus("Front Panel Status Color", "Red");
  advance(10000);
  EXPECT_EQ(10u, body(blobNow())["Network"]["WiFi"]["Low_RSSI_duration"].asUInt64());
  advance(4000);
  setStatus("Front Panel Status Color", "Green");
  advance(6000);
  EXPECT_EQ(4u, body(blobNow())["Network"]["WiFi"]["Low_RSSI_duration"].asUInt64());
  advance(6000);
  EXPECT_EQ(0u, body(blobNow())["Network"]["WiFi"]["Low_RSSI_duration"].asUInt64());
}

struct DisplayCase {
  const char* key;
  const char* value;
  std::vector<const char*> path;
  unsigned code;
};

void PrintTo(const DisplayCase& c, std::ostream* os) { *os << c.key << "=" << c.value; }

class BlobDisplayCodeTest : public BlobWriterTest, public ::testing::WithParamInterface<DisplayCase> {};

TEST_P(BlobDisplayCodeTest, MapsTheSettingToItsCode) {
  setStatus(GetParam().key, GetParam().value);
  Json::Value node = body(blobNow());
  for (const char* step : GetParam().path) {
    node = Json::Value(node[step]);
  }
  EXPECT_TRUE(node.isUInt());
  EXPECT_EQ(GetParam().code, node.asUInt());
}

const std::vector<const char*> kAspect = {"Display", "TV", "Aspect"};
const std::vector<const char*> kFormat = {"Display", "TV", "Format"};
const std::vector<const char*> kCurrent = {"Display", "TV", "Resolution", "Current"};
const std::vector<const char*> kSelected = {"Display", "TV", "Resolution", "Selected"};
const std::vector<const char*> kBar = {"Display", "Bar"};
const std::vector<const char*> kPower = {"Info", "PowerMode"};
constexpr char kAspectKey[] = "HDTV.TVRatio.AspectRatio";
constexpr char kFormatKey[] = "HDTV.Video.ScreenFormat";
constexpr char kCurrentKey[] = "HDTV.TVResolutions.CurrentResolution";
constexpr char kSelectedKey[] = "HDTV.TVResolutions.SelectedResolution";
constexpr char kBarKey[] = "HDTV.Video.BarColor";
constexpr char kPowerKey[] = "PowerSaving.Enabled";

INSTANTIATE_TEST_SUITE_P(
    Table, BlobDisplayCodeTest,
    ::testing::Values(DisplayCase{kAspectKey, "HDTV.TVRatio.AspectRatio.Standard", kAspect, 0},
                      DisplayCase{kAspectKey, "HDTV.TVRatio.AspectRatio.Widescreen", kAspect, 1},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.480i", kCurrent, 0},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.480p", kCurrent, 1},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.720p", kCurrent, 2},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.1080i", kCurrent, 3},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.1080p", kCurrent, 4},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.2160p", kCurrent, 5},
                      DisplayCase{kCurrentKey, "HDTV.TVResolutions.4320p", kCurrent, 0},
                      DisplayCase{kSelectedKey, "HDTV.TVResolutions.1080i", kSelected, 3},
                      DisplayCase{kSelectedKey, "HDTV.TVResolutions.2160p", kSelected, 5},
                      DisplayCase{kSelectedKey, "HDTV.TVResolutions.4320p", kSelected, 0},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Letterbox", kFormat, 1},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Stretch", kFormat, 2},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Crop", kFormat, 3},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Pillarbox", kFormat, 4},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Original", kFormat, 5},
                      DisplayCase{kFormatKey, "HDTV.Video.ScreenFormat.Zoom", kFormat, 0},
                      DisplayCase{kBarKey, "HDTV.Video.BarColor.Black", kBar, 0},
                      DisplayCase{kBarKey, "HDTV.Video.BarColor.DarkGray", kBar, 1},
                      DisplayCase{kBarKey, "HDTV.Video.BarColor.Gray", kBar, 2},
                      DisplayCase{kBarKey, "HDTV.Video.BarColor.White", kBar, 0},
                      DisplayCase{kPowerKey, "PowerSaving.Enabled.Off", kPower, 0},
                      DisplayCase{kPowerKey, "PowerSaving.Enabled.On", kPower, 1},
                      // The table is one for all settings: any known value gives its code anywhere.
                      DisplayCase{kBarKey, "HDTV.TVResolutions.720p", kBar, 2}));

TEST_F(BlobDocumentTest, UnknownDisplayValuesReportZeroAgainAndAgain) {
  setStatus("HDTV.TVResolutions.CurrentResolution", "HDTV.TVResolutions.4320p");
  EXPECT_EQ(0u, body(blobNow())["Display"]["TV"]["Resolution"]["Current"].asUInt());
  EXPECT_EQ(0u, body(blobNow())["Display"]["TV"]["Resolution"]["Current"].asUInt());
}

struct FlagCase {
  const char* key;
  const char* on;
  std::vector<const char*> path;
};

void PrintTo(const FlagCase& c, std::ostream* os) { *os << c.key; }

class BlobDisplayFlagTest : public BlobWriterTest, public ::testing::WithParamInterface<FlagCase> {};

TEST_P(BlobDisplayFlagTest, IsTrueOnlyForTheOnValue) {
  Json::Value node;
  auto flag = [&] {
    node = body(blobNow());
    for (const char* step : GetParam().path) {
      node = Json::Value(node[step]);
    }
    EXPECT_TRUE(node.isBool());
    return node.asBool();
  };
  setStatus(GetParam().key, GetParam().on);
  EXPECT_TRUE(flag());
  setStatus(GetParam().key, std::string(GetParam().on) + " ");
  EXPECT_FALSE(flag());
  setStatus(GetParam().key, GetParam().on);
  setStatus(GetParam().key, "On");
  EXPECT_FALSE(flag());
}

INSTANTIATE_TEST_SUITE_P(
    Flags, BlobDisplayFlagTest,
    ::testing::Values(
        FlagCase{"HDTV.Video.Native", "HDTV.Video.Native.On", {"Display", "TV", "Native"}},
        FlagCase{"HDTV.Video.HDMIControl", "HDTV.Video.HDMIControl.On", {"Display", "TV", "HDMI", "CEC"}},
        FlagCase{"Audio.Dolby.DolbyDigital", "Audio.Dolby.DolbyDigital.On", {"Display", "Audio", "DolbyDigital"}}));

TEST_F(BlobDocumentTest, CecActiveSourceOnlyWhileHdmiControlIsOn) {
  setStatuses(
      {{"CEC TV Active Source", "Yes"}, {"CEC Capability", "Full"}, {"CEC TV Version", "1.4"}, {"CEC TV On", "True"}});
  Json::Value hdmi = body(blobNow())["Display"]["TV"]["HDMI"];
  EXPECT_FALSE(hdmi.isMember("CEC_ActiveSource"));
  EXPECT_EQ("Full", hdmi["CEC_Capability"].asString());
  EXPECT_EQ("1.4", hdmi["CEC_Version"].asString());
  EXPECT_EQ("True", hdmi["CEC_TV_On"].asString());
  setStatus("HDTV.Video.HDMIControl", "HDTV.Video.HDMIControl.On");
  hdmi = body(blobNow())["Display"]["TV"]["HDMI"];
  ASSERT_TRUE(hdmi.isMember("CEC_ActiveSource"));
  EXPECT_EQ("Yes", hdmi["CEC_ActiveSource"].asString());
  EXPECT_TRUE(hdmi["CEC"].asBool());
  setStatus("HDTV.Video.HDMIControl", "HDTV.Video.HDMIControl.Off");
  hdmi = body(blobNow())["Display"]["TV"]["HDMI"];
  EXPECT_FALSE(hdmi.isMember("CEC_ActiveSource"));
  EXPECT_FALSE(hdmi["CEC"].asBool());
}

struct StandbyCase {
  const char* value;
  bool inStandby;
};

void PrintTo(const StandbyCase& c, std::ostream* os) { *os << '"' << c.value << '"'; }

class BlobStandbyTest : public BlobWriterTest, public ::testing::WithParamInterface<StandbyCase> {};

TEST_P(BlobStandbyTest, OnlyFalseMeansAwake) {
  setStatus("In Standby", "True");
  setStatus("In Standby", GetParam().value);
  EXPECT_EQ(GetParam().inStandby, body(blobNow())["Other"]["In_Standby"].asBool());
}

INSTANTIATE_TEST_SUITE_P(Values, BlobStandbyTest,
                         ::testing::Values(StandbyCase{"False", false}, StandbyCase{"True", true},
                                           StandbyCase{"false", true}, StandbyCase{"0", true}, StandbyCase{"", true},
                                           StandbyCase{"FALSE", true}));

TEST_F(BlobDocumentTest, RemoteAndPowerMode) {
  setStatuses({{"Last Remote Key", "KEY_GUIDE"}, {"PowerSaving.Enabled", "PowerSaving.Enabled.On"}});
  const Json::Value blob = body(blobNow());
  EXPECT_EQ("KEY_GUIDE", blob["Remote"]["LastCommand"].asString());
  EXPECT_EQ(1u, blob["Info"]["PowerMode"].asUInt());
}

TEST_F(BlobDocumentTest, StatusesKeepTheirValuesAcrossBlobs) {
  setStatuses({{"Last Remote Key", "KEY_OK"}, {"Client Connection Type", "Wireless"}, {"Channel", "36"}});
  blobNow();
  const Json::Value blob = body(blobNow());
  EXPECT_EQ("KEY_OK", blob["Remote"]["LastCommand"].asString());
  EXPECT_EQ("Wireless", blob["C-ClientParameters"]["connection_wireless"].asString());
  EXPECT_EQ(36u, blob["Network"]["WiFi"]["channel"].asUInt());
}

TEST_F(BlobDocumentTest, TextIsExactlyWhatTheJsonWriterWritesForAwkwardValues) {
  const std::vector<std::string> values = {
      "quote \" backslash \\ slash /",
      "\"abort_count\":[]",
      "],\"DroppedKeys\":[]",
      "tab\tnew line\ncarriage\rbell\x07",
      "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xba",
      "not utf-8 \xff\xfe",
      "http://10.0.0.2:8080/rec/1?profile=AVC_TS_HD_NA_ISO;DLNA.ORG_OP=01;DLNA.ORG_PS=-64,-16,16,64"};
  for (const std::string& value : values) {
    postEvent("Media Stream Definition Event", value);
  }
  setStatuses({{"Client Connection Type", values[1]}, {"Last Remote Key", values[0]}, {"Network Name", values[3]}});
  track("Dropped Key", 2);
  const std::string blob = blobNow();
  EXPECT_EQ(compact(parse(blob)), blob);
  const Json::Value definitions = body(blob)["C-ClientParameters"]["media_stream_definitions"];
  ASSERT_EQ(values.size(), definitions.size());
  for (size_t index = 0; index < values.size(); ++index) {
    if (index != 5) {  // invalid UTF-8 is written as replacement characters
      EXPECT_EQ(values[index], definitions[static_cast<Json::ArrayIndex>(index)][1].asString());
    }
  }
  EXPECT_EQ(2u, body(blob)["C-ClientParameters"]["DroppedKeys"].size());
  EXPECT_EQ(0u, body(blob)["C-ClientParameters"]["abort_count"].size());
}

}  // namespace
}  // namespace blobtest
