// The store's timers on the framework clock, driven by a ManualClock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "statusstore_host/LocalStatusManager.h"
#include "tolvane_host/ManualClock.h"

namespace statusstore::test {
namespace {

using ::testing::AllOf;
using ::testing::Ge;
using ::testing::Le;

// The wall-clock seconds around an action: a timer that it starts carries a
// start time in between.
struct WallClockSpan {
  time_t before;
  time_t after;
};

template <typename Action>
WallClockSpan wallClockAround(Action action) {
  const time_t before = time(nullptr);
  action();
  return {before, time(nullptr)};
}

::testing::Matcher<time_t> within(const WallClockSpan& span) { return AllOf(Ge(span.before), Le(span.after)); }

class StoreTimersTest : public ::testing::Test {
 protected:
  void SetUp() override { Tolvane::host::setClock(&clock); }
  void TearDown() override { Tolvane::host::setClock(nullptr); }

  Tolvane::host::ManualClock clock{1000000};
  LocalStatusManager store;
};

TEST_F(StoreTimersTest, StartedTimerFollowsTheFrameworkClock) {
  const WallClockSpan started = wallClockAround([this] { store.startTimer("Uptime Timer"); });
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 0U);
  clock.advance(999);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 0U);
  clock.advance(1);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 1U);
  clock.advance(43200 * 1000);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 43201U);
  EXPECT_THAT(store.getTimerStartTime("Uptime Timer"), within(started));
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
  const WallClockSpan resumed = wallClockAround([this] { store.resumeTimer("Connected Timer"); });
  clock.advance(4000);
  EXPECT_EQ(store.getTimerElapsed("Connected Timer"), 4U);
  EXPECT_THAT(store.getTimerStartTime("Connected Timer"), within(resumed));
}

TEST_F(StoreTimersTest, UnknownTimerReadsZero) {
  store.pauseTimer("Nobody");
  EXPECT_EQ(store.getTimerElapsed("Nobody"), 0U);
  EXPECT_EQ(store.getTimerStartTime("Nobody"), 0);
}

}  // namespace
}  // namespace statusstore::test
