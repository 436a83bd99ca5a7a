// chd-status against a store exported on a private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include "ExportedStoreFixture.h"
#include "tolvane_host/ManualClock.h"

namespace statusstore::test {
namespace {

using Events = std::vector<std::pair<std::string, std::string>>;

class ChdStatusTest : public ExportedStoreTest {
 protected:
  CommandResult chdStatus(std::vector<std::string> args, const std::map<std::string, std::string>& env = {}) {
    args.insert(args.begin(), CHD_STATUS_BINARY);
    return runCommand(args, env);
  }
  CommandResult chdStatusOnBus(std::vector<std::string> args) {
    args.insert(args.begin(), {"--bus", bus.address()});
    return chdStatus(args);
  }
};

TEST_F(ChdStatusTest, SetStoresTheStatusAndNotifiesListeners) {
  listen({"Client Signal Strength"});
  CommandResult result = chdStatusOnBus({"set", "Client Signal Strength", "-60"});
  EXPECT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(store.getStatus("Client Signal Strength"), "-60");
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"Client Signal Strength", "-60"}}));
}

TEST_F(ChdStatusTest, GetPrintsTheValueOrAnEmptyLine) {
  store.setStatus("BuildVersion:", "1.2.3");
  CommandResult known = chdStatusOnBus({"get", "BuildVersion:"});
  EXPECT_EQ(known.exitStatus, 0) << known.err;
  EXPECT_EQ(known.out, "1.2.3\n");
  CommandResult unknown = chdStatusOnBus({"get", "Never Set"});
  EXPECT_EQ(unknown.exitStatus, 0) << unknown.err;
  EXPECT_EQ(unknown.out, "\n");
}

TEST_F(ChdStatusTest, PostReachesListenersWithOrWithoutValue) {
  listen({}, {"Enter Standby Event", "CHD Tracked Parameter Event"});
  EXPECT_EQ(chdStatusOnBus({"post", "Enter Standby Event"}).exitStatus, 0);
  EXPECT_EQ(chdStatusOnBus({"post", "CHD Tracked Parameter Event", "Dropped Key"}).exitStatus, 0);
  ASSERT_TRUE(listener.waitForCallbacks(2));
  EXPECT_EQ(listener.events(), (Events{{"Enter Standby Event", ""}, {"CHD Tracked Parameter Event", "Dropped Key"}}));
}

TEST_F(ChdStatusTest, TimerAndCounterPrintTheStoreValues) {
  Tolvane::host::ManualClock clock(0);
  Tolvane::host::setClock(&clock);
  store.startTimer("Connected Timer");
  time_t start = store.getTimerStartTime("Connected Timer");
  clock.advance(65000);
  store.setCounter("Wifi Error Counter", 9);
  CommandResult timer = chdStatusOnBus({"timer", "Connected Timer"});
  CommandResult never = chdStatusOnBus({"timer", "Never Started"});
  CommandResult counter = chdStatusOnBus({"counter", "Wifi Error Counter"});
  Tolvane::host::setClock(nullptr);
  EXPECT_EQ(timer.exitStatus, 0) << timer.err;
  EXPECT_EQ(timer.out.rfind("elapsed 65 s, started " + std::to_string(start) + " (", 0), 0U) << timer.out;
  EXPECT_EQ(never.out, "elapsed 0 s, started never\n");
  EXPECT_EQ(counter.exitStatus, 0) << counter.err;
  EXPECT_EQ(counter.out, "9\n");
}

TEST_F(ChdStatusTest, WatchPrintsEveryChangeAndEventAsOneLine) {
  TestProcess watch({CHD_STATUS_BINARY, "--bus", bus.address(), "watch"});
  ASSERT_TRUE(watch.waitForLine(TestProcess::kStderr, "watching the status store", 10000));
  store.setStatus("A", "1");
  store.setStatuses({{"B", "two words"}, {"C", "quote \" here"}});
  store.postEvent("Write CHD Blob Event", "{\"x\":1}", 0);
  store.postEvent("Exit Standby Event", "", 0);
  EXPECT_EQ(watch.readLine(TestProcess::kStdout, 5000).value_or(""), "StatusesChanged {\"A\":\"1\"}");
  EXPECT_EQ(watch.readLine(TestProcess::kStdout, 5000).value_or(""),
            "StatusesChanged {\"B\":\"two words\",\"C\":\"quote \\\" here\"}");
  EXPECT_EQ(watch.readLine(TestProcess::kStdout, 5000).value_or(""),
            "EventPosted \"Write CHD Blob Event\" \"{\\\"x\\\":1}\"");
  EXPECT_EQ(watch.readLine(TestProcess::kStdout, 5000).value_or(""), "EventPosted \"Exit Standby Event\" \"\"");
  watch.sendSignal(SIGTERM);
  EXPECT_EQ(watch.waitForExit(5000), 0);
}

TEST_F(ChdStatusTest, WatchSeesChangesMadeByOtherBusClients) {
  TestProcess watch({CHD_STATUS_BINARY, "--bus", bus.address(), "watch"});
  ASSERT_TRUE(watch.waitForLine(TestProcess::kStderr, "watching", 10000));
  EXPECT_EQ(chdStatusOnBus({"set", "Language", "eng"}).exitStatus, 0);
  EXPECT_EQ(watch.readLine(TestProcess::kStdout, 5000).value_or(""), "StatusesChanged {\"Language\":\"eng\"}");
  watch.sendSignal(SIGINT);
  EXPECT_EQ(watch.waitForExit(5000), 0);
}

TEST_F(ChdStatusTest, BusIsTakenFromThePlatformSettings) {
  CommandResult set = chdStatus({"set", "From Settings", "yes"}, platformEnvironment(bus.address()));
  EXPECT_EQ(set.exitStatus, 0) << set.err;
  EXPECT_EQ(store.getStatus("From Settings"), "yes");
}

TEST_F(ChdStatusTest, BusSettingNoneIsAnError) {
  CommandResult result = chdStatus({"get", "A"}, platformEnvironment("none"));
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("--bus"), std::string::npos) << result.err;
}

TEST_F(ChdStatusTest, BadUsageExitsWithTwoAndExplains) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"get"}, {"set", "only-key"}, {"post", "a", "b", "c"}, {"watch", "x"}, {"--nope"}}) {
    CommandResult result = chdStatusOnBus(args);
    EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(args);
    EXPECT_NE(result.err.find("Commands:"), std::string::npos) << result.err;
  }
}

TEST_F(ChdStatusTest, StoreThatIsNotOnTheBusExitsWithOne) {
  exporter.stop();
  CommandResult result = chdStatusOnBus({"get", "A"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("cannot be reached"), std::string::npos) << result.err;
}

TEST_F(ChdStatusTest, BusThatCannotBeReachedExitsWithOne) {
  CommandResult result = chdStatus({"--bus", "unix:path=" + dir.path() + "/nothing", "set", "A", "1"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.err.find("cannot reach the bus"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace statusstore::test
