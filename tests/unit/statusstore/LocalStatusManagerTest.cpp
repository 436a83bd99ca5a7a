// The store's contract with its listeners: what reaches whom, on which thread,
// in which order, and what removeListener guarantees.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "RecordingListener.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"

namespace statusstore::test {
namespace {

using Events = std::vector<std::pair<std::string, std::string>>;

class LocalStatusManagerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    store.removeListener(&listener);
    dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&listener));
  }

  void listen(StatusNameList keys, StatusNameList events = {}) {
    store.addListener(&listener, &dispatcher);
    store.registerStatusKeys(&listener, std::move(keys));
    store.registerEventNames(&listener, std::move(events));
  }

  LocalStatusManager store;
  Tolvane::EventThread dispatcher{"StoreTestThread"};
  RecordingListener listener;
};

TEST_F(LocalStatusManagerTest, StatusNeverSetReadsEmpty) {
  EXPECT_EQ(store.getStatus("Never Set"), "");
  store.setStatus("Other", "x");
  EXPECT_EQ(store.getStatus("Never Set"), "");
}

TEST_F(LocalStatusManagerTest, StatusReadsLastValueSet) {
  store.setStatus("Language", "eng");
  store.setStatuses({{"Language", "spa"}, {"ESN", "123"}});
  EXPECT_EQ(store.getStatus("Language"), "spa");
  EXPECT_EQ(store.getStatus("ESN"), "123");
}

TEST_F(LocalStatusManagerTest, KeysAreComparedWholeAndCaseSensitive) {
  store.setStatus("BuildVersion:", "1.2");
  EXPECT_EQ(store.getStatus("BuildVersion"), "");
  EXPECT_EQ(store.getStatus("buildversion:"), "");
  EXPECT_EQ(store.getStatus("BuildVersion:"), "1.2");
}

TEST_F(LocalStatusManagerTest, RegisteredKeyChangeReachesListener) {
  listen({"HDMI Plug"});
  store.setStatus("HDMI Plug", "Connected");
  flush(dispatcher);
  ASSERT_EQ(listener.statuses().size(), 1U);
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"HDMI Plug", "Connected"}}));
}

TEST_F(LocalStatusManagerTest, UnregisteredKeyChangeDoesNotReachListener) {
  listen({"HDMI Plug"});
  store.setStatus("Language", "eng");
  store.setStatuses({{"ESN", "1"}, {"CamID", "2"}});
  flush(dispatcher);
  EXPECT_TRUE(listener.statuses().empty());
}

TEST_F(LocalStatusManagerTest, MapWithUnregisteredKeysIsDeliveredWhole) {
  listen({"HDMI Plug"});
  StatusMap batch{{"HDMI Plug", "Connected"}, {"Language", "eng"}, {"Unknown Key", "z"}};
  store.setStatuses(batch);
  flush(dispatcher);
  ASSERT_EQ(listener.statuses().size(), 1U);
  EXPECT_EQ(listener.statuses()[0], batch);
}

TEST_F(LocalStatusManagerTest, SameValueIsReportedAgain) {
  listen({"In Standby"});
  store.setStatus("In Standby", "True");
  store.setStatus("In Standby", "True");
  flush(dispatcher);
  EXPECT_EQ(listener.statuses().size(), 2U);
}

TEST_F(LocalStatusManagerTest, RegistrationsAddUp) {
  listen({"A"}, {"Event A"});
  store.registerStatusKeys(&listener, {"B"});
  store.registerEventNames(&listener, {"Event B"});
  store.setStatus("A", "1");
  store.setStatus("B", "2");
  store.postEvent("Event A", "a", 0);
  store.postEvent("Event B", "b", 0);
  flush(dispatcher);
  EXPECT_EQ(listener.statuses().size(), 2U);
  EXPECT_EQ(listener.events(), (Events{{"Event A", "a"}, {"Event B", "b"}}));
}

TEST_F(LocalStatusManagerTest, ListenerWithoutRegistrationsGetsNothing) {
  store.addListener(&listener, &dispatcher);
  store.setStatus("A", "1");
  store.postEvent("Event A", "a", 0);
  flush(dispatcher);
  EXPECT_EQ(listener.callbackCount(), 0U);
}

TEST_F(LocalStatusManagerTest, RegistrationBeforeAddListenerIsIgnored) {
  store.registerStatusKeys(&listener, {"A"});
  store.addListener(&listener, &dispatcher);
  store.setStatus("A", "1");
  flush(dispatcher);
  EXPECT_EQ(listener.callbackCount(), 0U);
}

TEST_F(LocalStatusManagerTest, RegisteredEventReachesListenerWithItsValue) {
  listen({}, {"CHD Blob Updated Event"});
  store.postEvent("CHD Blob Updated Event", "payload", 0);
  store.postEvent("Other Event", "x", 0);
  flush(dispatcher);
  EXPECT_EQ(listener.events(), (Events{{"CHD Blob Updated Event", "payload"}}));
}

TEST_F(LocalStatusManagerTest, EventPostedBeforeRegistrationIsNotDeliveredLater) {
  store.addListener(&listener, &dispatcher);
  store.postEvent("Syslog Uris Updated Event", "early", 0);
  store.registerEventNames(&listener, {"Syslog Uris Updated Event"});
  flush(dispatcher);
  EXPECT_TRUE(listener.events().empty());
  store.postEvent("Syslog Uris Updated Event", "late", 0);
  flush(dispatcher);
  EXPECT_EQ(listener.events(), (Events{{"Syslog Uris Updated Event", "late"}}));
}

TEST_F(LocalStatusManagerTest, EventsAreNotStoredAsStatuses) {
  store.postEvent("Write CHD Blob Event", "{}", 0);
  EXPECT_EQ(store.getStatus("Write CHD Blob Event"), "");
}

TEST_F(LocalStatusManagerTest, CallbacksRunOnTheDispatcherThread) {
  listen({"A"}, {"E"});
  store.setStatus("A", "1");
  store.postEvent("E", "", 0);
  flush(dispatcher);
  std::thread::id dispatcherThread = threadOf(dispatcher);
  ASSERT_EQ(listener.threads().size(), 2U);
  for (std::thread::id id : listener.threads()) {
    EXPECT_EQ(id, dispatcherThread);
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

// A change made on the listener's own dispatcher thread is still queued, not
// delivered inside the call that made it.
TEST_F(LocalStatusManagerTest, ChangeMadeOnTheDispatcherThreadIsNotDeliveredInline) {
  listen({"A"}, {"E"});
  struct Poster {
    LocalStatusManager* store;
    RecordingListener* listener;
    size_t seenInsideCall = 0;
    void run() {
      store->setStatus("A", "1");
      store->postEvent("E", "v", 0);
      seenInsideCall = listener->callbackCount();
    }
  } poster{&store, &listener};
  dispatcher.send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&poster, &Poster::run)));
  EXPECT_EQ(poster.seenInsideCall, 0U);
  flush(dispatcher);
  EXPECT_EQ(listener.callbackCount(), 2U);
}

TEST_F(LocalStatusManagerTest, CallbacksKeepTheOrderOfTheChanges) {
  listen({"Counter"}, {"Tick"});
  constexpr int kChanges = 500;
  for (int i = 0; i < kChanges; ++i) {
    store.setStatus("Counter", std::to_string(i));
    store.postEvent("Tick", std::to_string(i), 0);
  }
  flush(dispatcher);
  std::vector<StatusMap> statuses = listener.statuses();
  Events events = listener.events();
  ASSERT_EQ(statuses.size(), static_cast<size_t>(kChanges));
  ASSERT_EQ(events.size(), static_cast<size_t>(kChanges));
  for (int i = 0; i < kChanges; ++i) {
    EXPECT_EQ(statuses[i].at("Counter"), std::to_string(i));
    EXPECT_EQ(events[i].second, std::to_string(i));
  }
}

TEST_F(LocalStatusManagerTest, ListenerMayCallBackIntoTheStoreFromItsCallback) {
  struct Reader : IStatusUpdateListener {
    LocalStatusManager* store;
    std::promise<std::string> readBack;
    void notifyStatusChanged(StatusMap) override {
      store->setCounter("Reads", store->getCounter("Reads") + 1);
      readBack.set_value(store->getStatus("A"));
    }
  } reader;
  reader.store = &store;
  std::future<std::string> value = reader.readBack.get_future();
  store.addListener(&reader, &dispatcher);
  store.registerStatusKeys(&reader, {"A"});
  store.setStatus("A", "inside");
  ASSERT_EQ(value.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(value.get(), "inside");
  store.removeListener(&reader);
  dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&reader));
}

TEST_F(LocalStatusManagerTest, TwoListenersOnOneDispatcherBothGetTheChange) {
  RecordingListener second;
  listen({"A"});
  store.addListener(&second, &dispatcher);
  store.registerStatusKeys(&second, {"A"});
  store.setStatus("A", "1");
  flush(dispatcher);
  EXPECT_EQ(listener.statuses().size(), 1U);
  EXPECT_EQ(second.statuses().size(), 1U);
  store.removeListener(&second);
  dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&second));
}

TEST_F(LocalStatusManagerTest, RemovedListenerGetsNoNewCallback) {
  listen({"A"}, {"E"});
  store.removeListener(&listener);
  store.setStatus("A", "1");
  store.postEvent("E", "", 0);
  flush(dispatcher);
  EXPECT_EQ(listener.callbackCount(), 0U);
}

TEST_F(LocalStatusManagerTest, AddingAListenerAgainMovesItToTheNewDispatcher) {
  Tolvane::EventThread other("StoreTestOther");
  listen({"A"});
  store.addListener(&listener, &other);
  store.setStatus("A", "1");
  flush(other);
  flush(dispatcher);
  ASSERT_EQ(listener.threads().size(), 1U);
  EXPECT_EQ(listener.threads()[0], threadOf(other));
  store.removeListener(&listener);
  other.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&listener));
}

// While another thread keeps changing a registered key, nothing new reaches the
// listener once removeListener has returned and its queued agents are dropped.
TEST_F(LocalStatusManagerTest, NothingIsQueuedAfterRemoveListenerReturnsUnderLoad) {
  listen({"A"});
  std::atomic<bool> stop{false};
  std::atomic<int> posted{0};
  std::thread poster([&] {
    for (int i = 0; i < 200000 && !stop.load(); ++i) {
      store.setStatus("A", std::to_string(i));
      posted.fetch_add(1);
    }
  });
  ASSERT_TRUE(listener.waitForCallbacks(10));
  store.removeListener(&listener);
  dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&listener));
  size_t countAfterRemoval = listener.callbackCount();
  int postedAtRemoval = posted.load();
  for (int round = 0; round < 1000 && posted.load() < postedAtRemoval + 100; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  flush(dispatcher);
  stop = true;
  poster.join();
  flush(dispatcher);
  EXPECT_EQ(listener.callbackCount(), countAfterRemoval);
}

// A component with several bases drops its queued callbacks through the
// IStatusUpdateListener pointer, which is the receiver of the store's agents.
TEST_F(LocalStatusManagerTest, QueuedCallbacksAreRemovedThroughTheListenerPointer) {
  struct OtherBase {
    virtual ~OtherBase() = default;
    int padding = 0;
  };
  struct Component : OtherBase, RecordingListener {};
  Component component;
  store.addListener(&component, &dispatcher);
  store.registerStatusKeys(&component, {"A"});
  store.registerEventNames(&component, {"E"});

  struct Blocker {
    std::shared_future<void> release;
    void run() { release.wait(); }
  } blocker;
  std::promise<void> release;
  blocker.release = release.get_future().share();
  dispatcher.post(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::AsyncEventAgent(&blocker, &Blocker::run)));

  store.setStatus("A", "1");
  store.postEvent("E", "", 0);
  store.removeListener(&component);
  dispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&component));
  release.set_value();
  flush(dispatcher);
  EXPECT_EQ(component.callbackCount(), 0U);
}

TEST_F(LocalStatusManagerTest, CountersReadZeroUntilSetAndKeepTheLastValue) {
  EXPECT_EQ(store.getCounter("Wifi Error Counter"), 0U);
  store.setCounter("Wifi Error Counter", 7);
  EXPECT_EQ(store.getCounter("Wifi Error Counter"), 7U);
  store.setCounter("Wifi Error Counter", 0);
  EXPECT_EQ(store.getCounter("Wifi Error Counter"), 0U);
  store.setCounter("Other", 4000000000U);
  EXPECT_EQ(store.getCounter("Other"), 4000000000U);
  EXPECT_EQ(store.getCounter("Wifi Error Counter"), 0U);
}

struct Change {
  StatusMap statuses;
  std::string event;
};

class RecordingObserver : public StoreObserver {
 public:
  void onStatusesChanged(const StatusMap& statuses) override { changes.push_back({statuses, ""}); }
  void onEventPosted(const std::string& name, const std::string& value) override {
    changes.push_back({{}, name + "=" + value});
  }
  std::vector<Change> changes;
};

TEST_F(LocalStatusManagerTest, ObserverSeesEveryChangeAndEventInOrderUntilRemoved) {
  RecordingObserver observer;
  store.addObserver(&observer);
  store.setStatus("A", "1");
  store.postEvent("Nobody Listens", "v", 0);
  store.setStatuses({{"B", "2"}, {"C", "3"}});
  store.setStatuses({});
  store.removeObserver(&observer);
  store.setStatus("A", "2");
  ASSERT_EQ(observer.changes.size(), 3U);
  EXPECT_EQ(observer.changes[0].statuses, (StatusMap{{"A", "1"}}));
  EXPECT_EQ(observer.changes[1].event, "Nobody Listens=v");
  EXPECT_EQ(observer.changes[2].statuses, (StatusMap{{"B", "2"}, {"C", "3"}}));
}

class SharingObserver : public StoreObserver {
 public:
  void onSharedStatusesChanged(const SharedStatusMap& statuses) override { changes.push_back(statuses); }
  void onEventPosted(const std::string& /*name*/, const std::string& /*value*/) override {}
  std::vector<SharedStatusMap> changes;
};

// A value exists once: the table and the observers hold the same object, and
// listeners get their own copies only when their callbacks run.
TEST_F(LocalStatusManagerTest, AValueIsSharedByTheTableAndTheObservers) {
  SharingObserver observer;
  store.addObserver(&observer);
  listen({"Big"});
  store.setStatus("Big", std::string(100000, 'b'));
  store.removeObserver(&observer);
  ASSERT_EQ(observer.changes.size(), 1U);
  const SharedStatusValue stored = store.getSharedStatus("Big");
  EXPECT_EQ(observer.changes[0].at("Big").get(), stored.get());
  EXPECT_EQ(stored->text(), std::string(100000, 'b'));
  flush(dispatcher);
  ASSERT_EQ(listener.statuses().size(), 1U);
  EXPECT_EQ(listener.statuses()[0].at("Big"), std::string(100000, 'b'));
}

TEST_F(LocalStatusManagerTest, SharedStatusesAreStoredAsGivenAndDeliveredAsCopies) {
  listen({"A"});
  const SharedStatusValue value = makeStatusValue("first");
  store.setSharedStatuses({{"A", value}, {"B", makeStatusValue("second")}});
  EXPECT_EQ(store.getSharedStatus("A").get(), value.get());
  EXPECT_EQ(store.getStatus("B"), "second");
  EXPECT_EQ(store.getSharedStatus("Never Set")->text(), "");
  flush(dispatcher);
  ASSERT_EQ(listener.statuses().size(), 1U);
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"A", "first"}, {"B", "second"}}));
  store.setSharedStatuses({});
  flush(dispatcher);
  EXPECT_EQ(listener.statuses().size(), 1U);
}

// A value's bytes may be anything, nuls included.
TEST_F(LocalStatusManagerTest, ValuesKeepEveryByte) {
  const std::string value("a\0b\xff", 4);
  store.setStatus("Bytes", value);
  EXPECT_EQ(store.getStatus("Bytes"), value);
  EXPECT_EQ(store.getSharedStatus("Bytes")->text().data()[4], '\0');
}

// Several threads use every operation at once; each listener gets exactly its
// share, per key in the order each thread made the changes.
TEST_F(LocalStatusManagerTest, ConcurrentUseDeliversEverythingInOrderPerThread) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  Tolvane::EventThread secondDispatcher("StoreTestSecond");
  RecordingListener second;
  listen({"key0", "key1", "key2", "key3"}, {"Tick"});
  store.addListener(&second, &secondDispatcher);
  store.registerStatusKeys(&second, {"key0"});

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      std::string key = "key" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        store.setStatus(key, std::to_string(i));
        store.postEvent("Tick", key, 0);
        store.setCounter(key, store.getCounter(key) + 1);
        store.startTimer(key);
        store.pauseTimer(key);
        EXPECT_EQ(store.getStatus(key), std::to_string(i));
        (void)store.getTimerElapsed(key);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  flush(dispatcher);
  flush(secondDispatcher);

  EXPECT_EQ(listener.statuses().size(), static_cast<size_t>(kThreads * kRounds));
  EXPECT_EQ(listener.events().size(), static_cast<size_t>(kThreads * kRounds));
  EXPECT_EQ(second.statuses().size(), static_cast<size_t>(kRounds));
  std::map<std::string, int> nextValue;
  for (const StatusMap& change : listener.statuses()) {
    const auto& [key, value] = *change.begin();
    EXPECT_EQ(value, std::to_string(nextValue[key]++));
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(store.getCounter("key" + std::to_string(t)), static_cast<unsigned>(kRounds));
  }
  store.removeListener(&second);
  secondDispatcher.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(&second));
}

}  // namespace
}  // namespace statusstore::test
