#include "LogRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 6);

namespace chdtest {
namespace {

using ::testing::ElementsAre;

TEST(LogRecorder, CountsMessagesByLevelAndText) {
  LogRecorder logs;
  TL_LOG(2, "disk [%s] is full", "sda");
  TL_LOG(2, "disk [%s] is full", "sdb");
  TL_LOG(5, "disk [sda] is full");
  EXPECT_EQ(2, logs.count(2, "is full"));
  EXPECT_EQ(1, logs.count(5, "is full"));
  EXPECT_EQ(0, logs.count(0, "is full"));
  EXPECT_EQ(1, logs.exact(2, "disk [sdb] is full"));
  EXPECT_EQ(0, logs.exact(2, "disk [sdb]"));
  EXPECT_EQ(3, logs.countAnyLevel("is full"));
  EXPECT_TRUE(logs.contains("[sdb]"));
  EXPECT_FALSE(logs.contains("[sdc]"));
  EXPECT_THAT(logs.messages(2), ElementsAre("disk [sda] is full", "disk [sdb] is full"));
  logs.clear();
  EXPECT_EQ(0, logs.countAnyLevel("is full"));
}

TEST(LogRecorder, MatchesWholeMessagesOrTheirBeginningAtAnyLevel) {
  LogRecorder logs;
  TL_LOG(2, "Updated param[a]");
  TL_LOG(6, "Updated param[a]");
  TL_LOG(5, "Not Updated param[c]");
  EXPECT_EQ(2, logs.exactAnyLevel("Updated param[a]"));
  EXPECT_EQ(0, logs.exactAnyLevel("Updated param["));
  EXPECT_TRUE(logs.hasExact("Not Updated param[c]"));
  EXPECT_FALSE(logs.hasExact("param[c]"));
  EXPECT_TRUE(logs.contains("param[c]"));
  EXPECT_EQ(2, logs.countStartingWith("Updated param["));
  EXPECT_EQ(1, logs.countStartingWith("Not "));
  EXPECT_EQ(0, logs.countStartingWith("param["));
  EXPECT_EQ(0, logs.countStartingWith("Updated param[a] and more"));
  EXPECT_EQ(3, logs.countStartingWith(""));
}

TEST(LogRecorder, GivesLevelAndPositionOfTheFirstWholeMatch) {
  LogRecorder logs;
  TL_LOG(5, "opening");
  TL_LOG(2, "failed");
  TL_LOG(6, "failed");
  TL_LOG(0, "failed badly");
  EXPECT_EQ(2, logs.levelOfFirst("failed"));
  EXPECT_EQ(0, logs.levelOfFirst("failed badly"));
  EXPECT_EQ(5, logs.levelOfFirst("opening"));
  EXPECT_EQ(-1, logs.levelOfFirst("fail"));
  EXPECT_EQ(0, logs.indexOfFirst("opening"));
  EXPECT_EQ(1, logs.indexOfFirst("failed"));
  EXPECT_EQ(3, logs.indexOfFirst("failed badly"));
  EXPECT_EQ(-1, logs.indexOfFirst("open"));
  logs.clear();
  EXPECT_EQ(-1, logs.levelOfFirst("failed"));
  EXPECT_EQ(-1, logs.indexOfFirst("failed"));
}

TEST(LogRecorder, SeesOtherThreadsAndNothingOnceGone) {
  auto logs = std::make_unique<LogRecorder>();
  std::thread other([] { TL_LOG(2, "from the other thread"); });
  other.join();
  EXPECT_EQ(1, logs->exact(2, "from the other thread"));
  logs.reset();
  LogRecorder later;
  TL_LOG(2, "after");
  EXPECT_EQ(0, later.countAnyLevel("from the other thread"));
  EXPECT_EQ(1, later.exact(2, "after"));
}

}  // namespace
}  // namespace chdtest
