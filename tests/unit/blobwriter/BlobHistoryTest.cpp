// Incident histories: entries, ordinals, data entries, history statuses and
// the start of a new period after each blob.
#include <gtest/gtest.h>

#include <ostream>

#include <atomic>
#include <thread>
#include <vector>

#include "BlobWriterFixture.h"
#include "LogRecorder.h"

namespace blobtest {
namespace {

struct TrackedCase {
  const char* incident;
  const char* blobKey;
  const char* statusKey;
  const char* logText;
};

void PrintTo(const TrackedCase& c, std::ostream* os) { *os << c.incident; }

class BlobTrackedParameterTest : public BlobWriterTest, public ::testing::WithParamInterface<TrackedCase> {};

TEST_P(BlobTrackedParameterTest, GoesToItsOwnHistoryAndStatus) {
  chdtest::LogRecorder log;
  track(GetParam().incident);
  EXPECT_EQ(1, log.count(6, GetParam().logText));
  const std::string published = mStore.getStatus(GetParam().statusKey);
  const Json::Value client = body(blobNow())["C-ClientParameters"];
  const Json::Value& history = client[GetParam().blobKey];
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(1u, history[0][0].asUInt());
  EXPECT_EQ(compact(history), published);
  for (const std::string& key : client.getMemberNames()) {
    if (client[key].isArray() && key != GetParam().blobKey) {
      EXPECT_EQ(0u, client[key].size()) << key;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, BlobTrackedParameterTest,
    ::testing::Values(
        TrackedCase{"Connection Failure", "connection_failures", "Connection Failure History",
                    "Timestamp logged for CONNECTION_FAILURE"},
        TrackedCase{"Demux Buffer Empty", "demux_buffer_empty_count", "Demux Buffer History",
                    "Timestamp logged for DEMUX_BUFFER_EMPTY"},
        TrackedCase{"Zuna Abort", "abort_count", "Zuna Abort History", "Timestamp logged for ZUNA_ABORT"},
        TrackedCase{"Zuna Segfault", "segfault_count", "Zuna Segfault History", "Timestamp logged for ZUNA_SEGFAULT"},
        TrackedCase{"RVU Command Failure", "rvu_command_failures", "RVU Command Failure History",
                    "Timestamp logged for RVU_COMMAND_FAILURE"},
        TrackedCase{"Dropped Key", "DroppedKeys", "Dropped Key History", "Timestamp logged for DROPPED_KEY"},
        TrackedCase{"MSearch No Response", "msearch_no_response", "MSearch No Response History",
                    "Timestamp logged for MSEARCH_NO_RESPONSE"},
        TrackedCase{"UPnP Failure", "upnp_failures", "UPnP Failure History", "Timestamp logged for UPNP_FAILURE"},
        TrackedCase{"Server Disconnect", "server_disconnect_count", "Server Disconnect History",
                    "Timestamp logged for SERVER_DISCONNECT"},
        TrackedCase{"Socket Health Error", "socket_health_errors", "Socket Health Error History",
                    "Timestamp logged for SOCKET_HEALTH_ERROR"},
        TrackedCase{"DTCP Failure", "dtcp_failures", "DTCP Failure History", "Timestamp logged for DTCP_FAILURE"},
        TrackedCase{"HDCP Failure", "hdcp_failures", "HDCP Failure History", "Timestamp logged for HDCP_FAILURE"},
        TrackedCase{"Audio Decoder Error", "audio_decoder_errors", "Audio Decoder Error History",
                    "Timestamp logged for AUDIO_DECODER_ERROR"},
        TrackedCase{"Video Decoder Error", "video_decoder_errors", "Video Decoder Error History",
                    "Timestamp logged for VIDEO_DECODER_ERROR"}));

class BlobHistoryTest : public BlobWriterTest {};

TEST_F(BlobHistoryTest, ThreeDroppedKeysHaveOrdinalsOneTwoThree) {
  chdtest::LogRecorder log;
  track("Dropped Key", 3);
  const std::string published = mStore.getStatus("Dropped Key History");
  const Json::Value history = body(blobNow())["C-ClientParameters"]["DroppedKeys"];
  ASSERT_EQ(3u, history.size());
  for (Json::ArrayIndex index = 0; index < 3; ++index) {
    ASSERT_EQ(2u, history[index].size());
    EXPECT_TRUE(history[index][0].isUInt());
    EXPECT_EQ(index + 1, history[index][0].asUInt());
    EXPECT_TRUE(isTimestamp(history[index][1].asString())) << history[index][1].asString();
  }
  EXPECT_EQ(compact(history), published);
  // The styled dump of the history is logged on every append.
  EXPECT_EQ(3, log.count(6, "val: [\n"));
}

std::vector<std::string> publishedTexts(BlobCollector& collector, const std::string& key) {
  std::vector<std::string> published;
  for (const StatusMap& update : collector.historyUpdates()) {
    const auto found = update.find(key);
    if (found != update.end()) {
      published.push_back(found->second);
    }
  }
  return published;
}

TEST_F(BlobHistoryTest, EachHandledIncidentPublishesTheWholeHistory) {
  track("Zuna Abort");
  track("Zuna Abort");
  const std::vector<std::string> published = publishedTexts(*mCollector, "Zuna Abort History");
  ASSERT_EQ(2u, published.size());
  EXPECT_EQ(1u, parse(published[0]).size());
  EXPECT_EQ(2u, parse(published[1]).size());
  EXPECT_EQ(0u, published[1].find(published[0].substr(0, published[0].size() - 1)));
}

// Incidents that wait for the writer together are published together: the
// newest text carries them all, and the texts in between are skipped.
TEST_F(BlobHistoryTest, IncidentsQueuedTogetherArePublishedOnce) {
  mWriter->hold();
  for (int i = 0; i < 5; ++i) {
    mStore.postEvent(kTrackedEvent, "Zuna Abort", 0);
  }
  mWriter->release();
  settle();
  const std::vector<std::string> published = publishedTexts(*mCollector, "Zuna Abort History");
  ASSERT_EQ(1u, published.size());
  EXPECT_EQ(5u, parse(published[0]).size());
  EXPECT_EQ(5u, body(blobNow())["C-ClientParameters"]["abort_count"].size());
}

class BigHistoryTest : public BlobWriterTest {
 protected:
  // Incidents queued while the writer is held, so that they are handled as one burst.
  void burst(int incidents) {
    mWriter->hold();
    for (int i = 0; i < incidents; ++i) {
      mStore.postEvent(kTrackedEvent, "Dropped Key", 0);
    }
    mWriter->release();
    settle();
  }

  size_t publishedEntries() { return parse(mStore.getStatus("Dropped Key History")).size(); }
  size_t publicationCount() { return publishedTexts(*mCollector, "Dropped Key History").size(); }

  // Well over 64 KiB of history text.
  static constexpr int kBigBurst = 3000;
};

TEST_F(BigHistoryTest, ABigHistoryIsRepublishedOnceItGrewByAQuarter) {
  burst(kBigBurst);
  ASSERT_EQ(1u, publicationCount());
  EXPECT_EQ(size_t{kBigBurst}, publishedEntries());
  burst(kBigBurst / 3);
  EXPECT_EQ(2u, publicationCount());
  EXPECT_EQ(size_t{kBigBurst + kBigBurst / 3}, publishedEntries());
}

TEST_F(BigHistoryTest, ASmallGrowthOfABigHistoryIsPublishedHalfASecondLater) {
  burst(kBigBurst);
  track("Dropped Key");
  EXPECT_EQ(1u, publicationCount());
  EXPECT_EQ(size_t{kBigBurst}, publishedEntries());
  advance(499);
  EXPECT_EQ(size_t{kBigBurst}, publishedEntries());
  advance(1);
  EXPECT_EQ(2u, publicationCount());
  EXPECT_EQ(size_t{kBigBurst + 1}, publishedEntries());
  advance(10000);
  EXPECT_EQ(2u, publicationCount());
}

TEST_F(BigHistoryTest, ABlobPublishesWhatIsStillUnpublishedBeforeTheNewPeriod) {
  burst(kBigBurst);
  track("Dropped Key");
  const Json::Value history = body(blobNow())["C-ClientParameters"]["DroppedKeys"];
  EXPECT_EQ(size_t{kBigBurst + 1}, history.size());
  EXPECT_EQ(compact(history), mStore.getStatus("Dropped Key History"));
  // Nothing is left for the delayed publication to send.
  advance(1000);
  EXPECT_EQ(2u, publicationCount());
}

TEST_F(BigHistoryTest, AWriterThatGoesAwayPublishesWhatItHandled) {
  burst(kBigBurst);
  track("Dropped Key");
  mWriter.reset();
  EXPECT_EQ(size_t{kBigBurst + 1}, publishedEntries());
}

TEST_F(BlobHistoryTest, OrdinalsStartAgainAfterEachBlob) {
  track("Video Decoder Error", 2);
  blobNow();
  track("Video Decoder Error");
  const Json::Value history = body(blobNow())["C-ClientParameters"]["video_decoder_errors"];
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(1u, history[0][0].asUInt());
}

TEST_F(BlobHistoryTest, OrdinalsStartAgainAfterAPeriodicBlob) {
  startWriter();
  track("UPnP Failure", 4);
  advance(kDefaultFirstDelayMs);
  ASSERT_EQ(1u, blobCount());
  EXPECT_EQ(4u, body(lastBlob())["C-ClientParameters"]["upnp_failures"].size());
  track("UPnP Failure");
  advance(kDefaultPeriodMs);
  ASSERT_EQ(2u, blobCount());
  const Json::Value history = body(lastBlob())["C-ClientParameters"]["upnp_failures"];
  ASSERT_EQ(1u, history.size());
  EXPECT_EQ(1u, history[0][0].asUInt());
}

TEST_F(BlobHistoryTest, HistoryStatusesKeepTheirTextAfterABlob) {
  track("HDCP Failure", 2);
  const std::string before = mStore.getStatus("HDCP Failure History");
  blobNow();
  EXPECT_EQ(before, mStore.getStatus("HDCP Failure History"));
  track("HDCP Failure");
  EXPECT_EQ(1u, parse(mStore.getStatus("HDCP Failure History")).size());
}

TEST_F(BlobHistoryTest, MediaEventsKeepTheirDataVerbatim) {
  chdtest::LogRecorder log;
  const std::string definition =
      "http://10.0.0.2:8080/live/5?ch=5 DLNA.ORG_PN=AVC_TS_NA_ISO;DLNA.ORG_OP=10;DLNA.ORG_PS=-4,4 vpid=0x31 apid=0x34 "
      "frames=0";
  postEvent("Media Stream Definition Event", definition);
  postEvent("Media State Event", "Playing");
  EXPECT_EQ(1, log.count(6, "Data logged for MEDIA_STREAM_DEFINITION"));
  EXPECT_EQ(1, log.count(6, "Data logged for MEDIA_STATE"));
  const Json::Value client = body(blobNow())["C-ClientParameters"];
  ASSERT_EQ(1u, client["media_stream_definitions"].size());
  EXPECT_TRUE(isTimestamp(client["media_stream_definitions"][0][0].asString()));
  EXPECT_EQ(definition, client["media_stream_definitions"][0][1].asString());
  ASSERT_EQ(1u, client["media_state"].size());
  EXPECT_EQ("Playing", client["media_state"][0][1].asString());
  EXPECT_EQ(compact(client["media_state"]), mStore.getStatus("Media State History"));
  EXPECT_EQ(compact(client["media_stream_definitions"]), mStore.getStatus("Media Stream Definition History"));
}

TEST_F(BlobHistoryTest, AnEmptyMediaValueGivesAnOrdinalEntry) {
  postEvent("Media State Event", "");
  postEvent("Media State Event", "Paused");
  postEvent("Media State Event", "");
  const Json::Value history = body(blobNow())["C-ClientParameters"]["media_state"];
  ASSERT_EQ(3u, history.size());
  EXPECT_EQ(1u, history[0][0].asUInt());
  EXPECT_TRUE(isTimestamp(history[0][1].asString()));
  EXPECT_TRUE(isTimestamp(history[1][0].asString()));
  EXPECT_EQ("Paused", history[1][1].asString());
  // The ordinal counts every entry before it, data entries included.
  EXPECT_EQ(3u, history[2][0].asUInt());
}

TEST_F(BlobHistoryTest, UnknownIncidentsAndEventsAreIgnored) {
  chdtest::LogRecorder log;
  track("dropped key");
  track("Dropped Key ");
  track("");
  postEvent("Some Other Event", "Dropped Key");
  const Json::Value client = body(blobNow())["C-ClientParameters"];
  for (const std::string& key : client.getMemberNames()) {
    const Json::Value& member = client[key];
    if (member.isArray()) {
      EXPECT_EQ(0u, member.size()) << key;
    }
  }
  EXPECT_EQ("", mStore.getStatus("Dropped Key History"));
  EXPECT_EQ(0, log.count(6, "Timestamp logged for"));
  EXPECT_TRUE(mCollector->historyUpdates().empty());
}

TEST_F(BlobHistoryTest, HistoryEntriesCarryTheCurrentUtcTime) {
  const time_t before = time(nullptr);
  track("Server Disconnect");
  const time_t after = time(nullptr);
  const std::string stamp = parse(mStore.getStatus("Server Disconnect History"))[0][1].asString();
  struct tm broken = {};
  ASSERT_NE(nullptr, strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &broken));
  const time_t stamped = timegm(&broken);
  EXPECT_LE(before, stamped);
  EXPECT_GE(after, stamped);
}

// Incidents arrive from many threads while blobs are asked for from others:
// every incident lands in exactly one blob.
TEST_F(BlobHistoryTest, EveryIncidentLandsInExactlyOneBlobUnderConcurrency) {
  constexpr int kPosters = 4;
  constexpr int kIncidentsEach = 100;
  constexpr int kBlobRequests = 20;
  std::vector<std::thread> threads;
  for (int poster = 0; poster < kPosters; ++poster) {
    threads.emplace_back([this] {
      for (int i = 0; i < kIncidentsEach; ++i) {
        mStore.postEvent(kTrackedEvent, "Socket Health Error", 0);
      }
    });
  }
  threads.emplace_back([this] {
    for (int i = 0; i < kBlobRequests; ++i) {
      mWriter->genChdDataBlob();
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  mWriter->genChdDataBlob();
  settle();
  unsigned total = 0;
  for (const std::string& blob : mCollector->blobs()) {
    const Json::Value history = body(blob)["C-ClientParameters"]["socket_health_errors"];
    for (Json::ArrayIndex index = 0; index < history.size(); ++index) {
      EXPECT_EQ(index + 1, history[index][0].asUInt());
    }
    total += history.size();
  }
  EXPECT_EQ(static_cast<unsigned>(kPosters * kIncidentsEach), total);
  EXPECT_EQ(static_cast<size_t>(kBlobRequests + 1), blobCount());
}

}  // namespace
}  // namespace blobtest
