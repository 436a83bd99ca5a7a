// The store's timers on the framework clock, driven by a ManualClock.
#include <gtest/gtest.h>

#include <ctime>

#include "statusstore_host/LocalStatusManager.h"
#include "tolvane_host/ManualClock.h"

namespace statusstore::test {
namespace {

class StoreTimersTest : public ::testing::Test {
 protected:
  void SetUp() override { Tolvane::host::setClock(&clock); }
  void TearDown() override { Tolvane::host::setClock(nullptr); }

  Tolvane::host::ManualClock clock{1000000};
  LocalStatusManager store;
};

TEST_F(StoreTimersTest, StartedTimerFollowsTheFrameworkClock) {
  time_t before = time(nullptr);
  store.startTimer("Uptime Timer");
  time_t after = time(nullptr);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 0U);
  clock.advance(999);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 0U);
  clock.advance(1);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 1U);
  clock.advance(43200 * 1000);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 43201U);
  EXPECT_GE(store.getTimerStartTime("Uptime Timer"), before);
  EXPECT_LE(store.getTimerStartTime("Uptime Timer"), after);
}

TEST_F(StoreTimersTest, PauseHaltsAndResumeContinues) {
  store.startTimer("Connected Timer");
  clock.advance(5000);
  store.pauseTimer("Connected Timer");
  clock.advance(60000);
  EXPECT_EQ(store.getTimerElapsed("Connected Timer"), 5U);
  store.resumeTimer("Connected Timer");
  clock.advance(2000);
  EXPECT_EQ(store.getTimerElapsed("Connected Timer"), 7U);
}

TEST_F(StoreTimersTest, StopClearsAndStartRestartsFromZero) {
  store.startTimer("Low RSSI Timer");
  clock.advance(9000);
  store.stopTimer("Low RSSI Timer");
  EXPECT_EQ(store.getTimerElapsed("Low RSSI Timer"), 0U);
  clock.advance(9000);
  EXPECT_EQ(store.getTimerElapsed("Low RSSI Timer"), 0U);
  store.startTimer("Low RSSI Timer");
  clock.advance(3000);
  EXPECT_EQ(store.getTimerElapsed("Low RSSI Timer"), 3U);
}

TEST_F(StoreTimersTest, ResumeStartsATimerThatNeverRan) {
  time_t before = time(nullptr);
  store.resumeTimer("Connected Timer");
  time_t after = time(nullptr);
  clock.advance(4000);
  EXPECT_EQ(store.getTimerElapsed("Connected Timer"), 4U);
  EXPECT_GE(store.getTimerStartTime("Connected Timer"), before);
  EXPECT_LE(store.getTimerStartTime("Connected Timer"), after);
}

TEST_F(StoreTimersTest, UnknownTimerReadsZero) {
  store.pauseTimer("Nobody");
  EXPECT_EQ(store.getTimerElapsed("Nobody"), 0U);
  EXPECT_EQ(store.getTimerStartTime("Nobody"), 0);
}

}  // namespace
}  // namespace statusstore::test
