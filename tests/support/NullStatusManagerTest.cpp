#include "NullStatusManager.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace chdtest {
namespace {

class CountingListener : public IStatusUpdateListener {
 public:
  void notifyStatusChanged(StatusMap /*statuses*/) override { ++calls; }
  void notifyEventPosted(std::string /*name*/, std::string /*value*/) override { ++calls; }
  int calls = 0;
};

TEST(NullStatusManager, KeepsNothing) {
  NullStatusManager store;
  CountingListener listener;
  store.addListener(&listener, nullptr);
  store.registerStatusKeys(&listener, {"Key"});
  store.registerEventNames(&listener, {"Event"});
  store.setStatus("Key", "value");
  store.setStatuses({{"Key", "other"}});
  store.setCounter("Counter", 3);
  store.startTimer("Timer");
  store.postEvent("Event", "value", 0);
  EXPECT_EQ("", store.getStatus("Key"));
  EXPECT_EQ(0u, store.getCounter("Counter"));
  EXPECT_EQ(0u, store.getTimerElapsed("Timer"));
  EXPECT_EQ(0, store.getTimerStartTime("Timer"));
  EXPECT_EQ(0, listener.calls);
}

TEST(NullStatusManager, HandsPostedEventsToItsObserver) {
  NullStatusManager store;
  store.postEvent("Before", "unseen", 0);
  std::vector<std::pair<std::string, std::string>> seen;
  store.watchEvents([&seen](const std::string& name, const std::string& value) { seen.emplace_back(name, value); });
  store.postEvent("First", "1", 0);
  store.postEvent("Second", "2", 5);
  store.watchEvents(nullptr);
  store.postEvent("After", "unseen", 0);
  const std::vector<std::pair<std::string, std::string>> expected = {{"First", "1"}, {"Second", "2"}};
  EXPECT_EQ(expected, seen);
}

}  // namespace
}  // namespace chdtest
