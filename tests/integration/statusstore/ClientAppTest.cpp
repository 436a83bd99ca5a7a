// chd-client-app answering the daemon's requests over a private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "ExportedStoreFixture.h"

namespace statusstore::test {
namespace {

using Events = std::vector<std::pair<std::string, std::string>>;

constexpr char kApply[] = "Settings Refresh Apply Event";
constexpr char kCompleted[] = "Settings Refresh Completed Event";
constexpr char kError[] = "Settings Refresh Error Event";

class ClientAppTest : public ExportedStoreTest {
 protected:
  void SetUp() override {
    ExportedStoreTest::SetUp();
    listen({"In Standby", "HDTV.Video.Native", "PowerSaving.Enabled"}, {kCompleted, kError});
  }

  void TearDown() override {
    if (app) {
      app->sendSignal(SIGTERM);
      EXPECT_EQ(app->waitForExit(5000), 0) << app->transcript(TestProcess::kStdout);
      app.reset();
    }
    ExportedStoreTest::TearDown();
  }

  // Starts the application and returns once it listens for the store's events.
  void startApp(std::vector<std::string> args, const std::map<std::string, std::string>& env = {}) {
    args.insert(args.begin(), CHD_CLIENT_APP_BINARY);
    app = std::make_unique<TestProcess>(args, env);
    ASSERT_TRUE(app->waitForLine(TestProcess::kStdout, "Listening for events", 10000))
        << app->transcript(TestProcess::kStdout) << app->transcript(TestProcess::kStderr);
  }

  void startAppOnBus(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"--bus", bus.address(), "--settings", dir.path() + "/no-settings"});
    startApp(args);
  }

  // The application handles the store's events in order, so once its answer to
  // a later standby request has arrived it has dealt with everything before.
  void waitUntilAppHandledEarlierEvents() {
    store.postEvent("Enter Standby Event", "", 0);
    ASSERT_TRUE(listener.waitForCallbacks(listener.callbackCount() + 1));
    flush(dispatcher);
    ASSERT_EQ(store.getStatus("In Standby"), "True");
  }

  std::unique_ptr<TestProcess> app;
};

TEST_F(ClientAppTest, AnswersApplyWithCompleted) {
  startAppOnBus();
  store.postEvent(kApply, "", 0);
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_EQ(listener.events(), (Events{{kCompleted, ""}}));
}

TEST_F(ClientAppTest, ReportsTheConfiguredErrorBeforeCompleting) {
  startAppOnBus({"--error", "HDMI output busy"});
  store.postEvent(kApply, "", 0);
  ASSERT_TRUE(listener.waitForCallbacks(2));
  EXPECT_EQ(listener.events(), (Events{{kError, "HDMI output busy"}, {kCompleted, ""}}));
}

TEST_F(ClientAppTest, SilentApplicationNeverAnswers) {
  startAppOnBus({"--silent"});
  store.postEvent(kApply, "", 0);
  waitUntilAppHandledEarlierEvents();
  EXPECT_TRUE(listener.events().empty());
  EXPECT_TRUE(app->waitForLine(TestProcess::kStdout, "staying silent", 5000));
}

TEST_F(ClientAppTest, DelayedAnswerComesAfterTheDelay) {
  startAppOnBus({"--delay-ms", "300"});
  auto posted = std::chrono::steady_clock::now();
  store.postEvent(kApply, "", 0);
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_GE(std::chrono::steady_clock::now() - posted, std::chrono::milliseconds(300));
  EXPECT_EQ(listener.events(), (Events{{kCompleted, ""}}));
}

TEST_F(ClientAppTest, StandbyEventsSetInStandby) {
  startAppOnBus();
  store.postEvent("Enter Standby Event", "", 0);
  ASSERT_TRUE(listener.waitForCallbacks(1));
  store.postEvent("Exit Standby Event", "", 0);
  ASSERT_TRUE(listener.waitForCallbacks(2));
  std::vector<StatusMap> changes = listener.statuses();
  EXPECT_EQ(changes[0], (StatusMap{{"In Standby", "True"}}));
  EXPECT_EQ(changes[1], (StatusMap{{"In Standby", "False"}}));
  EXPECT_EQ(store.getStatus("In Standby"), "False");
}

TEST_F(ClientAppTest, PublishesTheSettingsFileFoundThroughThePlatformSettings) {
  std::string settings = dir.write("settings.conf",
                                   "[settings]\nHDTV.Video.Native=HDTV.Video.Native.On\n"
                                   "PowerSaving.Enabled=Common.Off\n");
  startApp({}, platformEnvironment(bus.address(), "[settings]\nfile=" + settings + "\n"));
  ASSERT_TRUE(listener.waitForCallbacks(1)) << app->transcript(TestProcess::kStdout);
  EXPECT_EQ(listener.statuses()[0],
            (StatusMap{{"HDTV.Video.Native", "HDTV.Video.Native.On"}, {"PowerSaving.Enabled", "Common.Off"}}));
  EXPECT_EQ(store.getStatus("PowerSaving.Enabled"), "Common.Off");
}

TEST_F(ClientAppTest, WaitsForTheStoreAndPublishesWhenItAppears) {
  exporter.stop();
  std::string settings = dir.write("settings.conf", "[settings]\nHDTV.Video.Native=HDTV.Video.Native.Off\n");
  startApp({"--bus", bus.address(), "--settings", settings});
  ASSERT_TRUE(app->waitForLine(TestProcess::kStdout, "Waiting for status store", 5000));
  ASSERT_TRUE(exporter.start(bus.address()));
  ASSERT_TRUE(listener.waitForCallbacks(1)) << app->transcript(TestProcess::kStdout);
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"HDTV.Video.Native", "HDTV.Video.Native.Off"}}));
  // A change made the moment the store appeared is signalled like any other.
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0], (StatusMap{{"HDTV.Video.Native", "HDTV.Video.Native.Off"}}));
}

TEST_F(ClientAppTest, StopsWithStatusZeroOnSigint) {
  startAppOnBus();
  app->sendSignal(SIGINT);
  EXPECT_EQ(app->waitForExit(5000), 0);
  app.reset();
}

TEST_F(ClientAppTest, BadUsageAndUnreachableBusAreReported) {
  CommandResult usage = runCommand({CHD_CLIENT_APP_BINARY, "--delay-ms", "soon"});
  EXPECT_EQ(usage.exitStatus, 2);
  CommandResult stray = runCommand({CHD_CLIENT_APP_BINARY, "--bus", bus.address(), "extra"});
  EXPECT_EQ(stray.exitStatus, 2);
  CommandResult unreachable = runCommand(
      {CHD_CLIENT_APP_BINARY, "--bus", "unix:path=" + dir.path() + "/nothing", "--settings", dir.path() + "/none"});
  EXPECT_EQ(unreachable.exitStatus, 1);
}

}  // namespace
}  // namespace statusstore::test
