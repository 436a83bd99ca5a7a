// When blobs are built: the periodic schedule, on-demand blobs, the reporting
// interval and start/stop.
#include <gtest/gtest.h>

#include <ostream>

#include <thread>

#include "BlobWriterFixture.h"
#include "LogRecorder.h"

namespace blobtest {
namespace {

class BlobScheduleTest : public BlobWriterTest {};

TEST_F(BlobScheduleTest, NoBlobBeforeStart) {
  advance(10 * kDefaultFirstDelayMs);
  EXPECT_EQ(0u, blobCount());
}

TEST_F(BlobScheduleTest, FirstBlobAfter900SecondsThenEvery90) {
  startWriter();
  advance(kDefaultFirstDelayMs - 1);
  EXPECT_EQ(0u, blobCount());
  advance(1);
  EXPECT_EQ(1u, blobCount());
  advance(kDefaultPeriodMs - 1);
  EXPECT_EQ(1u, blobCount());
  advance(1);
  EXPECT_EQ(2u, blobCount());
  advance(kDefaultPeriodMs);
  EXPECT_EQ(3u, blobCount());
  EXPECT_EQ(900u, body(lastBlob())["C-ClientParameters"]["Reporting_Interval"].asUInt());
}

TEST_F(BlobScheduleTest, IntervalOf3600BuildsAtOnceAndNext360SecondsLater) {
  startWriter();
  setStatus("CHD Reporting Interval", "3600");
  ASSERT_EQ(1u, blobCount());
  EXPECT_EQ(3600u, body(lastBlob())["C-ClientParameters"]["Reporting_Interval"].asUInt());
  advance(359999);
  EXPECT_EQ(1u, blobCount());
  advance(1);
  EXPECT_EQ(2u, blobCount());
  advance(360000);
  EXPECT_EQ(3u, blobCount());
  // The schedule of the old interval is gone: nothing extra at 900 s.
  advance(900000 - 720000);
  EXPECT_EQ(3u, blobCount());
  advance(360000 - (900000 - 720000));
  EXPECT_EQ(4u, blobCount());
}

TEST_F(BlobScheduleTest, IntervalChangeBeforeStartAlsoSchedules) {
  setStatus("CHD Reporting Interval", "1000");
  ASSERT_EQ(1u, blobCount());
  advance(100000);
  EXPECT_EQ(2u, blobCount());
  // start() while a periodic blob is pending changes nothing.
  startWriter();
  advance(99999);
  EXPECT_EQ(2u, blobCount());
  advance(1);
  EXPECT_EQ(3u, blobCount());
}

TEST_F(BlobScheduleTest, StartTwiceSchedulesOnce) {
  startWriter();
  startWriter();
  advance(kDefaultFirstDelayMs);
  EXPECT_EQ(1u, blobCount());
  advance(kDefaultPeriodMs - 1);
  EXPECT_EQ(1u, blobCount());
}

TEST_F(BlobScheduleTest, StartAfterTheFirstBlobKeepsTheRunningSchedule) {
  startWriter();
  advance(kDefaultFirstDelayMs);
  startWriter();
  advance(kDefaultPeriodMs);
  EXPECT_EQ(2u, blobCount());
}

TEST_F(BlobScheduleTest, OnDemandBlobBetweenPeriodicOnesDoesNotMoveTheNext) {
  startWriter();
  advance(kDefaultFirstDelayMs);
  ASSERT_EQ(1u, blobCount());
  advance(45000);
  track("Dropped Key");
  const std::string onDemand = blobNow();
  EXPECT_EQ(1u, body(onDemand)["C-ClientParameters"]["DroppedKeys"].size());
  advance(44999);
  EXPECT_EQ(2u, blobCount());
  advance(1);
  ASSERT_EQ(3u, blobCount());
  // The on-demand blob started a new period.
  EXPECT_EQ(0u, body(lastBlob())["C-ClientParameters"]["DroppedKeys"].size());
}

TEST_F(BlobScheduleTest, OnDemandBlobWithoutStartSchedulesNothing) {
  EXPECT_TRUE(mWriter->genChdDataBlob());
  settle();
  EXPECT_EQ(1u, blobCount());
  advance(10 * kDefaultFirstDelayMs);
  EXPECT_EQ(1u, blobCount());
}

TEST_F(BlobScheduleTest, NothingAfterStopUntilStartedAgain) {
  startWriter();
  advance(kDefaultFirstDelayMs);
  ASSERT_EQ(1u, blobCount());
  mWriter->stop();
  advance(20 * kDefaultPeriodMs);
  EXPECT_EQ(1u, blobCount());
  mWriter->stop();  // stopping a stopped writer is harmless
  startWriter();
  advance(kDefaultFirstDelayMs - 1);
  EXPECT_EQ(1u, blobCount());
  advance(1);
  EXPECT_EQ(2u, blobCount());
}

TEST_F(BlobScheduleTest, StopBeforeTheFirstBlob) {
  startWriter();
  advance(kDefaultFirstDelayMs / 2);
  mWriter->stop();
  advance(10 * kDefaultFirstDelayMs);
  EXPECT_EQ(0u, blobCount());
}

TEST_F(BlobScheduleTest, StopFromAnotherThreadHasTakenEffectWhenItReturns) {
  startWriter();
  std::thread stopper([this] { mWriter->stop(); });
  stopper.join();
  mClock.advance(kDefaultFirstDelayMs);
  settle();
  EXPECT_EQ(0u, blobCount());
}

TEST_F(BlobScheduleTest, OnDemandBlobIsBuiltOnTheWritersThreadAfterTheCallReturns) {
  // genChdDataBlob only posts: the blob exists once the writer's thread ran.
  std::thread caller([this] { EXPECT_TRUE(mWriter->genChdDataBlob()); });
  caller.join();
  settle();
  EXPECT_EQ(1u, blobCount());
}

TEST_F(BlobScheduleTest, DestroyingAStartedWriterCancelsItsSchedule) {
  startWriter();
  track("Zuna Abort", 3);
  mWriter.reset();
  mClock.advance(10 * kDefaultFirstDelayMs);
  mCollector->flush();
  EXPECT_EQ(0u, blobCount());
}

TEST_F(BlobScheduleTest, UptimeTimerStartsWithTheWriter) { EXPECT_NE(0, mStore.getTimerStartTime("Uptime Timer")); }

struct IntervalCase {
  const char* text;
  unsigned expected;
  bool blob;
};

void PrintTo(const IntervalCase& c, std::ostream* os) { *os << '"' << c.text << '"'; }

class BlobReportingIntervalTest : public BlobWriterTest, public ::testing::WithParamInterface<IntervalCase> {};

TEST_P(BlobReportingIntervalTest, IsClampedAndBuildsABlobOnlyWhenChanged) {
  chdtest::LogRecorder log;
  startWriter();
  setStatus("CHD Reporting Interval", GetParam().text);
  ASSERT_EQ(GetParam().blob ? 1u : 0u, blobCount());
  const std::string message = "New reporting interval is " + std::to_string(GetParam().expected) + " minutes";
  EXPECT_EQ(GetParam().blob ? 1 : 0, log.count(5, message));
  // The interval in force shows in the next blob and in its schedule.
  const std::string next = blobNow();
  EXPECT_EQ(GetParam().expected, body(next)["C-ClientParameters"]["Reporting_Interval"].asUInt());
  const uint64_t firstDelay = GetParam().blob ? 100ull * GetParam().expected : 1000ull * GetParam().expected;
  const size_t before = blobCount();
  advance(firstDelay - 1);
  EXPECT_EQ(before, blobCount());
  advance(1);
  EXPECT_EQ(before + 1, blobCount());
}

INSTANTIATE_TEST_SUITE_P(Texts, BlobReportingIntervalTest,
                         ::testing::Values(IntervalCase{"60", 900, false}, IntervalCase{"100000", 43200, true},
                                           IntervalCase{"-5", 43200, true}, IntervalCase{"letters", 900, false},
                                           IntervalCase{"900", 900, false}, IntervalCase{"", 900, false},
                                           IntervalCase{"43200", 43200, true}, IntervalCase{"901", 901, true},
                                           IntervalCase{"1800abc", 1800, true}));

TEST_F(BlobScheduleTest, AnUnchangedIntervalBuildsNoSecondBlob) {
  setStatus("CHD Reporting Interval", "3600");
  setStatus("CHD Reporting Interval", "3600");
  EXPECT_EQ(1u, blobCount());
  // Letters fall back to 900, which is a change from 3600.
  setStatus("CHD Reporting Interval", "abc");
  ASSERT_EQ(2u, blobCount());
  EXPECT_EQ(900u, body(lastBlob())["C-ClientParameters"]["Reporting_Interval"].asUInt());
}

TEST_F(BlobScheduleTest, ConnectionInTheSameMapIsAppliedBeforeTheIntervalBlob) {
  setStatuses({{"CHD Reporting Interval", "1200"}, {"Client Connection Status", "Common.Connected"}});
  ASSERT_EQ(1u, blobCount());
  EXPECT_EQ("On", body(lastBlob())["C-ClientParameters"]["connected"].asString());
}

}  // namespace
}  // namespace blobtest
