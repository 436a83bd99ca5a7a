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
