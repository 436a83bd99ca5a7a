#include "FakeController.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeProvider.h"
#include "FakeWebServer.h"
#include "zuna_upnp/LocalDevice.h"

namespace chdtest {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

TEST(FakeController, RemembersEachInitAndShutdown) {
  FakeController controller;
  auto* monitor = reinterpret_cast<zuna::net::NetworkManager*>(&controller);  // only compared, never used
  EXPECT_TRUE(controller.init(monitor, {"", "eth7"}, {"RVUServer"}));
  controller.shutdown();
  controller.shutdown();
  ASSERT_EQ(1u, controller.initCalls().size());
  EXPECT_EQ(monitor, controller.initCalls()[0].monitor);
  EXPECT_THAT(controller.initCalls()[0].interfaces, ElementsAre("", "eth7"));
  EXPECT_THAT(controller.initCalls()[0].serverNames, ElementsAre("RVUServer"));
  EXPECT_EQ(2, controller.shutdownCalls());
}

TEST(FakeController, PublishesEachRootDeviceOnce) {
  FakeController controller;
  zuna_upnp::RootDevice first;
  zuna_upnp::RootDevice second;
  EXPECT_TRUE(controller.addRootDevice(&first));
  EXPECT_FALSE(controller.addRootDevice(&first));
  EXPECT_FALSE(controller.addRootDevice(nullptr));
  EXPECT_TRUE(controller.addRootDevice(&second));
  EXPECT_THAT(controller.rootDevices(), ElementsAre(&first, &second));
}

TEST(FakeController, RoutesGetPathsToTheProviderOfTheLongestPrefix) {
  FakeController controller;
  FakeProvider logs;
  FakeProvider deep;
  EXPECT_TRUE(controller.registerWebProvider(&logs, "GET", "/var/log"));
  EXPECT_TRUE(controller.registerWebProvider(&deep, "GET", "/var/log/deep"));
  EXPECT_FALSE(controller.registerWebProvider(&logs, "POST", "/upload"));
  EXPECT_EQ(&logs, controller.providerFor("/var/log/messages"));
  EXPECT_EQ(&logs, controller.providerFor("/var/log"));
  EXPECT_EQ(&deep, controller.providerFor("/var/log/deep/x"));
  EXPECT_EQ(nullptr, controller.providerFor("/var/logs/messages"));
  EXPECT_EQ(nullptr, controller.providerFor("/upload/x"));
  controller.unregisterWebProvider(&deep);
  EXPECT_EQ(&logs, controller.providerFor("/var/log/deep/x"));
  EXPECT_THAT(
      controller.journal().calls(),
      ElementsAre(Pair("registerWebProvider GET /var/log", &logs), Pair("registerWebProvider GET /var/log/deep", &deep),
                  Pair("registerWebProvider POST /upload", &logs), Pair("unregisterWebProvider", &deep)));
}

TEST(FakeController, ServerStringIsTheTestsChoice) {
  FakeController controller;
  EXPECT_EQ("Linux/6.1 UPnP/1.0 TestStack/2.3", controller.getServerString());
  controller.setServerString("test");
  EXPECT_EQ("test", controller.getServerString());
}

TEST(FakeController, SharesAJournalWithTheWebServer) {
  CallJournal journal;
  FakeController controller(&journal);
  FakeWebServer server(&journal);
  FakeProvider provider;
  Tolvane::ServerSocket socket;
  controller.registerWebProvider(&provider, "GET", "/var/log");
  server.registerProvider(&provider, &socket, zuna_http::WebServer::METHOD_GET, "");
  controller.unregisterWebProvider(&provider);
  EXPECT_THAT(journal.calls(),
              ElementsAre(Pair("registerWebProvider GET /var/log", &provider), Pair("registerProvider 1 []", &provider),
                          Pair("unregisterWebProvider", &provider)));
  EXPECT_EQ(&journal, &controller.journal());
  EXPECT_EQ(&journal, &server.journal());
}

}  // namespace
}  // namespace chdtest
