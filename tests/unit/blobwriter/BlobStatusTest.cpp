// Status tracking: numbers that may not parse, the low-signal history and
// timer, and the supported-resolution mask.
#include <gtest/gtest.h>

#include <ostream>

#include <string>

#include "BlobWriterFixture.h"
#include "LogRecorder.h"

namespace blobtest {
namespace {

class BlobStatusTest : public BlobWriterTest {};

struct NumberCase {
  const char* key;
  const char* blobKey;
  const char* failure;
};

void PrintTo(const NumberCase& c, std::ostream* os) { *os << c.key; }

class BlobWifiNumberTest : public BlobWriterTest, public ::testing::WithParamInterface<NumberCase> {};

TEST_P(BlobWifiNumberTest, AnUnparsableTextKeepsTheOldNumberAndIsLogged) {
  chdtest::LogRecorder log;
  setStatus(GetParam().key, "12");
  setStatus(GetParam().key, "twelve");
  EXPECT_EQ(1, log.count(0, std::string(GetParam().failure) + " [twelve]"));
  setStatus(GetParam().key, "-3");
  EXPECT_EQ(1, log.count(0, std::string(GetParam().failure) + " [-3]"));
  EXPECT_EQ(12u, body(blobNow())["Network"]["WiFi"][GetParam().blobKey].asUInt());
  setStatus(GetParam().key, "4294967295");
  EXPECT_EQ(4294967295u, body(blobNow())["Network"]["WiFi"][GetParam().blobKey].asUInt());
}

INSTANTIATE_TEST_SUITE_P(Keys, BlobWifiNumberTest,
                         ::testing::Values(NumberCase{"Channel", "channel", "Unable to parse wifi channel status"},
                                           NumberCase{"SNR", "SNR", "Unable to parse wifi snr status"},
                                           NumberCase{"Wifi Congestion", "congestion_count",
                                                      "Unable to parse wifi congestion status"}));

TEST_F(BlobStatusTest, RedBlinkGreenAppendsTwoLowSignalEntriesAndHaltsTheTimer) {
  setStatus("Front Panel Status Color", "Red");
  setStatus("Front Panel Status Color", "Blink");
  advance(5000);
  setStatus("Front Panel Status Color", "Green");
  const uint64_t halted = mStore.getTimerElapsed("Low RSSI Timer");
  EXPECT_EQ(5u, halted);
  advance(20000);
  EXPECT_EQ(halted, mStore.getTimerElapsed("Low RSSI Timer"));
  const std::string published = mStore.getStatus("Low RSSI History");
  const Json::Value history = body(blobNow())["C-ClientParameters"]["Low_RSSI_count"];
  ASSERT_EQ(2u, history.size());
  EXPECT_EQ(1u, history[0][0].asUInt());
  EXPECT_EQ(2u, history[1][0].asUInt());
  EXPECT_EQ(compact(history), published);
}

TEST_F(BlobStatusTest, EveryRedOrBlinkNotificationCounts) {
  setStatus("Front Panel Status Color", "Red");
  setStatus("Front Panel Status Color", "Red");
  setStatus("Front Panel Status Color", "Blink");
  setStatus("Front Panel Status Color", "red");
  setStatus("Front Panel Status Color", "Blinking");
  EXPECT_EQ(3u, body(blobNow())["C-ClientParameters"]["Low_RSSI_count"].size());
}

TEST_F(BlobStatusTest, LowSignalTimerResumesWithItsAccumulatedTime) {
  setStatus("Front Panel Status Color", "Blink");
  advance(3000);
  setStatus("Front Panel Status Color", "Green");
  advance(3000);
  setStatus("Front Panel Status Color", "Red");
  advance(2000);
  EXPECT_EQ(5u, mStore.getTimerElapsed("Low RSSI Timer"));
}

TEST_F(BlobStatusTest, ConnectedTimerFollowsTheConnection) {
  setStatus("Client Connection Status", "Common.Connected");
  advance(2000);
  setStatus("Client Connection Status", "Common.NotConnected");
  advance(2000);
  setStatus("Client Connection Status", "Common.Connected");
  advance(1000);
  EXPECT_EQ(3u, mStore.getTimerElapsed("Connected Timer"));
}

struct ResolutionCase {
  const char* key;
  unsigned bit;
};

void PrintTo(const ResolutionCase& c, std::ostream* os) { *os << c.key; }

class BlobResolutionBitTest : public BlobWriterTest, public ::testing::WithParamInterface<ResolutionCase> {};

unsigned supported(const std::string& blob) { return body(blob)["Display"]["TV"]["Res"]["Supported"].asUInt(); }

TEST_P(BlobResolutionBitTest, SetsAndClearsOnlyItsBit) {
  setStatus(GetParam().key, "Common.On");
  EXPECT_EQ(GetParam().bit, supported(blobNow()));
  setStatus(GetParam().key, "Common.Off");
  EXPECT_EQ(0u, supported(blobNow()));
}

INSTANTIATE_TEST_SUITE_P(
    Bits, BlobResolutionBitTest,
    ::testing::Values(ResolutionCase{"HDTV.TVResolutions.480i", 1}, ResolutionCase{"HDTV.TVResolutions.480p", 2},
                      ResolutionCase{"HDTV.TVResolutions.720p", 4}, ResolutionCase{"HDTV.TVResolutions.1080i", 8},
                      ResolutionCase{"HDTV.TVResolutions.1080p", 16}, ResolutionCase{"HDTV.TVResolutions.2160p", 32},
                      ResolutionCase{"HDTV.TVResolutions.4320p", 64}));

TEST_F(BlobStatusTest, ResolutionMaskCombinesBitsAndAnyOtherValueClears) {
  setStatuses({{"HDTV.TVResolutions.480i", "Common.On"},
               {"HDTV.TVResolutions.480p", "Common.On"},
               {"HDTV.TVResolutions.720p", "Common.On"},
               {"HDTV.TVResolutions.1080i", "Common.On"},
               {"HDTV.TVResolutions.1080p", "Common.On"},
               {"HDTV.TVResolutions.2160p", "Common.On"},
               {"HDTV.TVResolutions.4320p", "Common.On"}});
  EXPECT_EQ(127u, supported(blobNow()));
  setStatus("HDTV.TVResolutions.1080p", "On");
  EXPECT_EQ(127u - 16u, supported(blobNow()));
  setStatus("HDTV.TVResolutions.720p", "");
  EXPECT_EQ(127u - 16u - 4u, supported(blobNow()));
  setStatus("HDTV.TVResolutions.1080p", "Common.On");
  EXPECT_EQ(127u - 4u, supported(blobNow()));
}

TEST_F(BlobStatusTest, ResolutionChangesAreLogged) {
  chdtest::LogRecorder log;
  setStatuses({{"HDTV.TVResolutions.CurrentResolution", "HDTV.TVResolutions.1080i"},
               {"HDTV.TVResolutions.SelectedResolution", "HDTV.TVResolutions.2160p"}});
  EXPECT_EQ(1, log.count(6, "CURRENT_RESOLUTION = [HDTV.TVResolutions.1080i]"));
  EXPECT_EQ(1, log.count(6, "SELECTED_RESOLUTION = [HDTV.TVResolutions.2160p]"));
}

// A status can be any size; its log line carries the first 512 bytes.
TEST_F(BlobStatusTest, LongValuesAreClippedInLogLines) {
  chdtest::LogRecorder log;
  const std::string longValue = "HDTV." + std::string(100000, 'x');
  setStatus("HDTV.TVResolutions.CurrentResolution", longValue);
  setStatus("Channel", longValue);
  EXPECT_EQ(1, log.count(6, "CURRENT_RESOLUTION = [" + longValue.substr(0, 512) + "]"));
  EXPECT_EQ(1, log.count(0, "Unable to parse wifi channel status [" + longValue.substr(0, 512) + "]"));
  // The value itself is kept whole.
  setStatus("Last Remote Key", longValue);
  EXPECT_EQ(longValue, body(blobNow())["Remote"]["LastCommand"].asString());
}

TEST_F(BlobStatusTest, BlobBuildingIsLogged) {
  chdtest::LogRecorder log;
  const std::string blob = blobNow();
  for (const char* section : {"C-ClientParameters", "Network", "Display", "Remote", "Info", "Other"}) {
    EXPECT_EQ(1, log.count(6, std::string("Populating [") + section + "]")) << section;
  }
  EXPECT_EQ(1, log.count(6, "Converting JSON object to string"));
  EXPECT_EQ(1, log.count(6, "CHD JSON Blob [" + blob + "]"));
  EXPECT_EQ(1, log.count(6, "Posting Blob String with length [" + std::to_string(blob.size()) + "] to WRITE_CHD_BLOB"));
  EXPECT_EQ(1, log.count(5, "GenCHDData command received, creating CHD Diagnostics Blob"));
  startWriter();
  advance(kDefaultFirstDelayMs);
  EXPECT_EQ(1, log.count(6, "Rescheduling blob gen in 900 seconds"));
}

TEST_F(BlobStatusTest, UnregisteredKeysInAMapAreIgnored) {
  setStatuses({{"Last Remote Key", "KEY_1"}, {"Unknown Key", "x"}});
  EXPECT_EQ("KEY_1", body(blobNow())["Remote"]["LastCommand"].asString());
}

}  // namespace
}  // namespace blobtest
