#include <gtest/gtest.h>

#include <sys/utsname.h>

#include "FakeProvider.h"
#include "FakeWebServer.h"
#include "TestServices.h"
#include "tolvane/File.h"
#include "zuna_http_host/HostWebServer.h"
#include "zuna_upnp_host/HostController.h"
#include "zuna_upnp_host/UpnpStack.h"

namespace {

TEST(HostController, RecordsRegistrationsBeforeInit) {
  zuna_upnp::host::HostController controller;
  upnp_test::TestDevice device;
  chdtest::FakeProvider provider;
  EXPECT_TRUE(controller.addRootDevice(&device));
  EXPECT_FALSE(controller.addRootDevice(&device));
  EXPECT_FALSE(controller.addRootDevice(nullptr));
  EXPECT_TRUE(controller.registerWebProvider(&provider, "GET", "/var/log"));
  EXPECT_FALSE(controller.registerWebProvider(&provider, "POST", "/var/log"));
  EXPECT_TRUE(controller.getRunningInterfaces().empty());
  EXPECT_EQ(controller.getDescriptionLocation("lo", &device), "");
  controller.unregisterWebProvider(&provider);
  // Nothing runs, so a change sent now goes nowhere.
  device.calculator->getVars().setValue("Total", "1");
  EXPECT_TRUE(device.calculator->sendChangedVars());
  controller.shutdown();
  controller.shutdown();
}

TEST(HostController, ServerStringNamesSystemUpnpAndProduct) {
  zuna_upnp::host::HostController controller;
  const std::string server = controller.getServerString();
  utsname system{};
  uname(&system);
  EXPECT_EQ(server, std::string("Linux/") + system.release + " UPnP/1.0 CHD/0.1");
}

TEST(HostController, InitWithoutInterfacesRunsNothing) {
  zuna_upnp::host::HostController controller;
  EXPECT_TRUE(controller.init(nullptr, {"", "no-such-if0"}, {"RVUServer"}));
  EXPECT_FALSE(controller.init(nullptr, {"lo"}, {}));
  EXPECT_TRUE(controller.getRunningInterfaces().empty());
  controller.shutdown();
  EXPECT_TRUE(controller.getRunningInterfaces().empty());
}

TEST(HostController, TestHooksReplaceTheSingletons) {
  zuna_upnp::Controller* own = zuna_upnp::Controller::getInstance();
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own, zuna_upnp::Controller::getInstance());
  zuna_upnp::host::HostController replacement;
  zuna_upnp::host::setControllerForTest(&replacement);
  EXPECT_EQ(zuna_upnp::Controller::getInstance(), &replacement);
  zuna_upnp::host::setControllerForTest(nullptr);
  EXPECT_EQ(zuna_upnp::Controller::getInstance(), own);

  zuna_http::WebServer* server = zuna_http::WebServer::getSingleton();
  ASSERT_NE(server, nullptr);
  chdtest::FakeWebServer fake;
  zuna_http::host::setWebServerForTest(&fake);
  EXPECT_EQ(zuna_http::WebServer::getSingleton(), &fake);
  zuna_http::host::setWebServerForTest(nullptr);
  EXPECT_EQ(zuna_http::WebServer::getSingleton(), server);
}

TEST(HostWebServer, RefusesSocketsThatDoNotListen) {
  chdtest::FakeProvider provider;
  zuna_http::WebServer* server = zuna_http::WebServer::getSingleton();
  EXPECT_FALSE(server->registerProvider(&provider, nullptr, zuna_http::WebServer::METHOD_GET, ""));
  Tolvane::ServerSocket closed;
  EXPECT_FALSE(server->registerProvider(&provider, &closed, zuna_http::WebServer::METHOD_GET, ""));
  server->unregisterSocket(&closed);
  server->unregisterProvider(&provider);
}

}  // namespace
