// The store exported on a private bus: bus calls act like in-process calls,
// and every change, whoever made it, is a signal.
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
#include <ctime>

#include "ExportedStoreFixture.h"
#include "statusstore_host/StatusStoreBus.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "tolvane_host/ManualClock.h"

namespace statusstore::test {
namespace {

using Events = std::vector<std::pair<std::string, std::string>>;

std::string stringReply(GVariant* reply) {
  if (reply == nullptr) {
    return "<no reply>";
  }
  const gchar* text = nullptr;
  g_variant_get(reply, "(&s)", &text);
  std::string result = text;
  g_variant_unref(reply);
  return result;
}

template <class T>
T numberReply(GVariant* reply, const char* format) {
  T value{};
  if (reply != nullptr) {
    g_variant_get(reply, format, &value);
    g_variant_unref(reply);
  }
  return value;
}

void callWithoutReply(BusClient& client, const char* method, GVariant* parameters) {
  std::string error;
  GVariant* reply = client.call(method, parameters, "()", &error);
  ASSERT_NE(reply, nullptr) << method << ": " << error;
  g_variant_unref(reply);
}

TEST_F(ExportedStoreTest, StoreOwnsItsNameUntilStopped) {
  EXPECT_TRUE(client->nameHasOwner(kStoreBusName));
  exporter.stop();
  EXPECT_FALSE(client->nameHasOwner(kStoreBusName));
}

TEST_F(ExportedStoreTest, SetStatusOverTheBusReachesListenerAndIsSignalled) {
  listen({"Language"});
  callWithoutReply(*client, "SetStatus", g_variant_new("(ss)", "Language", "eng"));
  EXPECT_EQ(store.getStatus("Language"), "eng");
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"Language", "eng"}}));
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0], (StatusMap{{"Language", "eng"}}));
}

TEST_F(ExportedStoreTest, SetStatusesOverTheBusDeliversTheWholeMap) {
  listen({"ESN"});
  StatusMap batch{{"ESN", "42"}, {"CamID", "7"}, {"Not Registered", "x"}};
  callWithoutReply(*client, "SetStatuses", g_variant_new("(@a{ss})", statusMapToVariant(batch)));
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_EQ(listener.statuses()[0], batch);
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0], batch);
}

TEST_F(ExportedStoreTest, PostEventOverTheBusReachesListenerAndIsSignalled) {
  listen({}, {"Settings Refresh Completed Event"});
  callWithoutReply(*client, "PostEvent", g_variant_new("(ssi)", "Settings Refresh Completed Event", "", 0));
  callWithoutReply(*client, "PostEvent", g_variant_new("(ssi)", "Unregistered Event", "v", 3));
  ASSERT_TRUE(client->waitUntil([&] { return client->eventSignals().size() == 2; }));
  EXPECT_EQ(client->eventSignals(), (Events{{"Settings Refresh Completed Event", ""}, {"Unregistered Event", "v"}}));
  flush(dispatcher);
  EXPECT_EQ(listener.events(), (Events{{"Settings Refresh Completed Event", ""}}));
}

TEST_F(ExportedStoreTest, InProcessChangesAreSignalledInOrder) {
  store.setStatus("HDMI Plug", "Connected");
  store.postEvent("Write CHD Blob Event", "{\"a\":1}", 0);
  store.setStatuses({{"B", "2"}, {"C", "3"}});
  ASSERT_TRUE(client->waitUntil([&] { return client->statusSignals().size() == 2; }));
  ASSERT_TRUE(client->waitUntil([&] { return client->eventSignals().size() == 1; }));
  EXPECT_EQ(client->statusSignals()[0], (StatusMap{{"HDMI Plug", "Connected"}}));
  EXPECT_EQ(client->statusSignals()[1], (StatusMap{{"B", "2"}, {"C", "3"}}));
  EXPECT_EQ(client->eventSignals()[0], (std::pair<std::string, std::string>{"Write CHD Blob Event", "{\"a\":1}"}));
}

TEST_F(ExportedStoreTest, ValueThatIsNotUtf8StillTravels) {
  store.setStatus("Network Name", std::string("caf\xe9", 4));
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0].at("Network Name").substr(0, 3), "caf");
  EXPECT_EQ(stringReply(client->call("GetStatus", g_variant_new("(s)", "Network Name"), "(s)")).substr(0, 3), "caf");
}

// A value with an embedded nul cannot be a D-Bus string either: the nul goes
// out as a replacement character, while the store keeps every byte.
TEST_F(ExportedStoreTest, ValueWithANulStillTravels) {
  const std::string value("ab\0cd", 5);
  store.setStatus("Network Name", value);
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0].at("Network Name"),
            "ab\xef\xbf\xbd"
            "cd");
  EXPECT_EQ(store.getStatus("Network Name"), value);
}

// A value set over the bus is stored as received and goes out again whole:
// in the signal, in GetStatus and to in-process listeners.
TEST_F(ExportedStoreTest, BigValueSetOverTheBusTravelsWhole) {
  listen({"Big"});
  std::string big(3 * 1024 * 1024, 'v');
  big[12345] = 'w';
  big += "\u00e9";  // multi-byte UTF-8 at the very end
  callWithoutReply(*client, "SetStatuses",
                   g_variant_new("(@a{ss})", statusMapToVariant({{"Big", big}, {"Small", "s"}})));
  EXPECT_EQ(store.getStatus("Big"), big);
  ASSERT_TRUE(listener.waitForCallbacks(1));
  EXPECT_EQ(listener.statuses()[0], (StatusMap{{"Big", big}, {"Small", "s"}}));
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0].at("Big"), big);
  EXPECT_EQ(stringReply(client->call("GetStatus", g_variant_new("(s)", "Big"), "(s)")), big);
  callWithoutReply(*client, "SetStatus", g_variant_new("(ss)", "Big", "small again"));
  EXPECT_EQ(store.getStatus("Big"), "small again");
}

TEST_F(ExportedStoreTest, BigValueSetInProcessIsSignalledAndReadWhole) {
  const std::string big(2 * 1024 * 1024, 'x');
  store.setStatus("Big", big);
  store.postEvent("Write CHD Blob Event", big, 0);
  ASSERT_TRUE(client->waitUntil([&] { return !client->statusSignals().empty(); }));
  ASSERT_TRUE(client->waitUntil([&] { return !client->eventSignals().empty(); }));
  EXPECT_EQ(client->statusSignals()[0].at("Big"), big);
  EXPECT_EQ(client->eventSignals()[0].second, big);
  EXPECT_EQ(stringReply(client->call("GetStatus", g_variant_new("(s)", "Big"), "(s)")), big);
}

TEST_F(ExportedStoreTest, ReadsOverTheBusMatchTheStore) {
  EXPECT_EQ(stringReply(client->call("GetStatus", g_variant_new("(s)", "Never Set"), "(s)")), "");
  store.setStatus("TL date", "2024-01-01");
  EXPECT_EQ(stringReply(client->call("GetStatus", g_variant_new("(s)", "TL date"), "(s)")), "2024-01-01");
  EXPECT_EQ(numberReply<guint32>(client->call("GetCounter", g_variant_new("(s)", "Wifi Error Counter"), "(u)"), "(u)"),
            0U);
  callWithoutReply(*client, "SetCounter", g_variant_new("(su)", "Wifi Error Counter", 12U));
  EXPECT_EQ(store.getCounter("Wifi Error Counter"), 12U);
  EXPECT_EQ(numberReply<guint32>(client->call("GetCounter", g_variant_new("(s)", "Wifi Error Counter"), "(u)"), "(u)"),
            12U);
}

TEST_F(ExportedStoreTest, TimersOverTheBusFollowTheFrameworkClock) {
  Tolvane::host::ManualClock clock(5000);
  Tolvane::host::setClock(&clock);
  time_t before = time(nullptr);
  callWithoutReply(*client, "StartTimer", g_variant_new("(s)", "Uptime Timer"));
  time_t after = time(nullptr);
  clock.advance(3500);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 3U);
  auto elapsed = [&] {
    return numberReply<guint64>(client->call("GetTimerElapsed", g_variant_new("(s)", "Uptime Timer"), "(t)"), "(t)");
  };
  EXPECT_EQ(elapsed(), 3U);
  gint64 start =
      numberReply<gint64>(client->call("GetTimerStartTime", g_variant_new("(s)", "Uptime Timer"), "(x)"), "(x)");
  EXPECT_GE(start, before);
  EXPECT_LE(start, after);
  callWithoutReply(*client, "PauseTimer", g_variant_new("(s)", "Uptime Timer"));
  clock.advance(10000);
  EXPECT_EQ(elapsed(), 3U);
  callWithoutReply(*client, "ResumeTimer", g_variant_new("(s)", "Uptime Timer"));
  clock.advance(2000);
  EXPECT_EQ(elapsed(), 5U);
  callWithoutReply(*client, "StopTimer", g_variant_new("(s)", "Uptime Timer"));
  EXPECT_EQ(elapsed(), 0U);
  EXPECT_EQ(store.getTimerElapsed("Uptime Timer"), 0U);
  Tolvane::host::setClock(nullptr);
}

TEST_F(ExportedStoreTest, CallWithWrongArgumentsIsRefusedAndChangesNothing) {
  std::string error;
  GVariant* reply = client->call("SetStatus", g_variant_new("(s)", "Only Key"), nullptr, &error);
  EXPECT_EQ(reply, nullptr);
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(store.getStatus("Only Key"), "");
}

TEST_F(ExportedStoreTest, SecondStoreOnTheSameBusDoesNotTakeTheName) {
  LocalStatusManager otherStore;
  StatusStoreExporter otherExporter(otherStore);
  EXPECT_TRUE(otherExporter.start(bus.address()));
  callWithoutReply(*client, "SetStatus", g_variant_new("(ss)", "Owner", "first"));
  EXPECT_EQ(store.getStatus("Owner"), "first");
  EXPECT_EQ(otherStore.getStatus("Owner"), "");
}

TEST(StatusStoreExportTest, UnreachableBusLeavesTheStoreInProcess) {
  TempDir dir;
  LocalStatusManager store;
  StatusStoreExporter exporter(store);
  EXPECT_FALSE(exporter.start("unix:path=" + dir.path() + "/no-bus-here"));
  store.setStatus("A", "1");
  EXPECT_EQ(store.getStatus("A"), "1");
  exporter.stop();
}

// The process store exports itself on the bus that the platform settings
// name. It is created once per process, so this is the only test that does.
TEST(ProcessStatusStoreTest, ProcessStoreIsExportedOnTheConfiguredBus) {
  static bool created = false;
  if (created) {
    GTEST_SKIP() << "the process store is created once per process";
  }
  created = true;
  TempDir dir;
  PrivateBus bus(dir);
  ASSERT_FALSE(bus.address().empty());
  std::string config = dir.write(
      "platform.conf", "[platform]\nlog_path=" + dir.path() + "/log\n[statusstore]\nbus=" + bus.address() + "\n");
  static Tolvane::host::HostPlatformSettings settings(config);
  Tolvane::host::setPlatformSettingsForTest(&settings);
  StatusManager* store = StatusManager::getInstance(false);
  Tolvane::host::setPlatformSettingsForTest(nullptr);

  BusClient client(bus.address());
  ASSERT_TRUE(client.nameHasOwner(kStoreBusName));
  store->setStatus("Process Key", "v");
  ASSERT_TRUE(client.waitUntil([&] { return !client.statusSignals().empty(); }));
  EXPECT_EQ(client.statusSignals()[0], (StatusMap{{"Process Key", "v"}}));
  EXPECT_EQ(stringReply(client.call("GetStatus", g_variant_new("(s)", "Process Key"), "(s)")), "v");
}

// A process ended by exit() from its SIGTERM handler, as the daemon is, gives
// its name back on the way out.
TEST(ProcessStatusStoreTest, ProcessThatExitsReleasesTheName) {
  TempDir dir;
  PrivateBus bus(dir);
  ASSERT_FALSE(bus.address().empty());
  std::string config = dir.write(
      "platform.conf", "[platform]\nlog_path=" + dir.path() + "/log\n[statusstore]\nbus=" + bus.address() + "\n");
  // The helper ends by exit() inside its signal handler, as the daemon does;
  // ThreadSanitizer would report every allocation made on the way out.
  const char* sanitizerOptions = getenv("TSAN_OPTIONS");
  std::string tsanOptions =
      std::string(sanitizerOptions != nullptr ? sanitizerOptions : "") + " report_signal_unsafe=0";
  TestProcess helper({PROCESS_STORE_HELPER}, {{"CHD_PLATFORM_CONFIG", config}, {"TSAN_OPTIONS", tsanOptions}});
  ASSERT_TRUE(helper.waitForLine(TestProcess::kStdout, "ready", 10000)) << helper.transcript(TestProcess::kStderr);
  BusClient client(bus.address());
  ASSERT_TRUE(client.nameHasOwner(kStoreBusName));
  EXPECT_EQ(stringReply(client.call("GetStatus", g_variant_new("(s)", "Helper"), "(s)")), "ready");
  helper.sendSignal(SIGTERM);
  EXPECT_EQ(helper.waitForExit(5000), 1);
  EXPECT_FALSE(client.nameHasOwner(kStoreBusName));
  while (std::optional<std::string> line = helper.readLine(TestProcess::kStderr, 1000)) {
  }
  EXPECT_NE(helper.transcript(TestProcess::kStderr).find("no longer exported"), std::string::npos)
      << helper.transcript(TestProcess::kStderr);
}

}  // namespace
}  // namespace statusstore::test
