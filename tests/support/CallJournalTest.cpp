#include "CallJournal.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace chdtest {
namespace {

TEST(CallJournal, KeepsCallsInTheOrderTheyCame) {
  CallJournal journal;
  int first = 0;
  int second = 0;
  journal.record("one", &first);
  journal.record("two", &second);
  journal.record("one", &second);
  const std::vector<CallJournal::Call> expected = {{"one", &first}, {"two", &second}, {"one", &second}};
  EXPECT_EQ(expected, journal.calls());
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
