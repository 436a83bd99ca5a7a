// The stopwatch arithmetic on its own, with the clocks given explicitly.
#include <gtest/gtest.h>

#include "statusstore_host/StatusTimers.h"

namespace statusstore::test {
namespace {

TEST(StatusTimersTest, UnknownTimerReadsZero) {
  StatusTimers timers;
  EXPECT_EQ(timers.elapsedSeconds("Uptime Timer", 123456), 0U);
  EXPECT_EQ(timers.startTime("Uptime Timer"), 0);
}

TEST(StatusTimersTest, ElapsedTimeIsInWholeSecondsRoundedDown) {
  StatusTimers timers;
  timers.start("T", 1000, 500);
  EXPECT_EQ(timers.elapsedSeconds("T", 1999), 0U);
  EXPECT_EQ(timers.elapsedSeconds("T", 2000), 1U);
  EXPECT_EQ(timers.elapsedSeconds("T", 61999), 60U);
  EXPECT_EQ(timers.startTime("T"), 500);
}

TEST(StatusTimersTest, PauseAndResumeKeepTheAccumulatedTime) {
  StatusTimers timers;
  timers.start("T", 0, 100);
  timers.pause("T", 1500);
  EXPECT_EQ(timers.elapsedSeconds("T", 90000), 1U);
  timers.resume("T", 90000, 200);
  EXPECT_EQ(timers.elapsedSeconds("T", 90500), 2U);
  EXPECT_EQ(timers.startTime("T"), 100);
}

TEST(StatusTimersTest, PausingTwiceOrResumingARunningTimerChangesNothing) {
  StatusTimers timers;
  timers.start("T", 0, 100);
  timers.resume("T", 5000, 200);
  EXPECT_EQ(timers.elapsedSeconds("T", 10000), 10U);
  timers.pause("T", 10000);
  timers.pause("T", 20000);
  EXPECT_EQ(timers.elapsedSeconds("T", 30000), 10U);
}

TEST(StatusTimersTest, FirstResumeStartsATimerThatNeverRan) {
  StatusTimers timers;
  timers.resume("Connected Timer", 4000, 777);
  EXPECT_EQ(timers.startTime("Connected Timer"), 777);
  EXPECT_EQ(timers.elapsedSeconds("Connected Timer", 7000), 3U);
}

TEST(StatusTimersTest, StopClearsTheTimeButKeepsTheStartTime) {
  StatusTimers timers;
  timers.start("T", 0, 100);
  timers.stop("T", 5000);
  EXPECT_EQ(timers.elapsedSeconds("T", 9000), 0U);
  EXPECT_EQ(timers.startTime("T"), 100);
  timers.resume("T", 9000, 300);
  EXPECT_EQ(timers.elapsedSeconds("T", 11000), 2U);
  EXPECT_EQ(timers.startTime("T"), 100);
}

TEST(StatusTimersTest, StopOfAPausedTimerClearsItsTime) {
  StatusTimers timers;
  timers.start("T", 0, 100);
  timers.pause("T", 5000);
  timers.stop("T", 6000);
  EXPECT_EQ(timers.elapsedSeconds("T", 9000), 0U);
  timers.resume("T", 9000, 300);
  EXPECT_EQ(timers.elapsedSeconds("T", 10000), 1U);
}

TEST(StatusTimersTest, StartRestartsFromZero) {
  StatusTimers timers;
  timers.start("T", 0, 100);
  timers.start("T", 50000, 150);
  EXPECT_EQ(timers.elapsedSeconds("T", 52000), 2U);
  EXPECT_EQ(timers.startTime("T"), 150);
}

TEST(StatusTimersTest, PauseAndStopOfAnUnknownTimerLeaveItUnknown) {
  StatusTimers timers;
  timers.pause("T", 1000);
  timers.stop("T", 2000);
  EXPECT_EQ(timers.startTime("T"), 0);
  EXPECT_EQ(timers.elapsedSeconds("T", 5000), 0U);
}

TEST(StatusTimersTest, TimersAreIndependent) {
  StatusTimers timers;
  timers.start("A", 0, 1);
  timers.start("B", 3000, 2);
  timers.pause("A", 4000);
  EXPECT_EQ(timers.elapsedSeconds("A", 10000), 4U);
  EXPECT_EQ(timers.elapsedSeconds("B", 10000), 7U);
}

TEST(StatusTimersTest, AClockThatGoesBackDoesNotUnderflow) {
  StatusTimers timers;
  timers.start("T", 10000, 1);
  EXPECT_EQ(timers.elapsedSeconds("T", 5000), 0U);
}

}  // namespace
}  // namespace statusstore::test
