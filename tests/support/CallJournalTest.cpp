#include "CallJournal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace chdtest {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

TEST(CallJournal, KeepsCallsInTheOrderTheyCame) {
  CallJournal journal;
  int first = 0;
  int second = 0;
  journal.record("one", &first);
  journal.record("two", &second);
  journal.record("one", &second);
  EXPECT_THAT(journal.calls(), ElementsAre(Pair("one", &first), Pair("two", &second), Pair("one", &second)));
  journal.clear();
  EXPECT_TRUE(journal.calls().empty());
}

TEST(CallJournal, TakesCallsFromSeveralThreads) {
  CallJournal journal;
  std::thread other([&journal] {
    for (int i = 0; i < 100; ++i) {
      journal.record("other", nullptr);
    }
  });
  for (int i = 0; i < 100; ++i) {
    journal.record("main", nullptr);
  }
  other.join();
  EXPECT_EQ(200u, journal.calls().size());
}

}  // namespace
}  // namespace chdtest
