#include <gtest/gtest.h>
#include <sched.h>

#include <string>

#include "FakeWebSocket.h"
#include "TestServices.h"
#include "tolvane/EventThread.h"

namespace {

TEST(LocalService, DerivesUrlsAndIdFromTheTypes) {
  upnp_test::TestDevice device;
  upnp_test::CalculatorService* service = device.calculator;
  EXPECT_EQ(service->getName(), "Calculator");
  EXPECT_EQ(service->getServiceTypeIDString(), "urn:schemas-example-org:service:Calculator:2");
  EXPECT_EQ(service->getXmlns(), "urn:schemas-example-org:service:Calculator:2");
  EXPECT_EQ(service->getServiceID(), "urn:upnp-org:serviceId:Calculator");
  EXPECT_EQ(service->getControlURL(), "/TestDevice/Calculator/control");
  EXPECT_EQ(service->getEventURL(), "/TestDevice/Calculator/event");
  EXPECT_EQ(service->getSCPDURL(), "/TestDevice/Calculator/scpd.xml");
  EXPECT_EQ(service->getParentDev(), &device);
  EXPECT_EQ(service->getLocalParentDev(), &device);
  EXPECT_EQ(service->getRootDev(), &device);
  EXPECT_EQ(service->getLocalRootDev(), &device);
  EXPECT_EQ(service->getTypeID().getVersion(), 2);
  const unsigned long configId = std::stoul(service->getConfigId());
  EXPECT_LT(configId, 1ul << 24);
}

TEST(LocalService, ActionTable) {
  upnp_test::TestDevice device;
  upnp_test::CalculatorService* service = device.calculator;
  ASSERT_EQ(service->getActions().size(), 3u);
  EXPECT_EQ(service->findAction("GetTotal")->getName(), "GetTotal");
  EXPECT_EQ(service->findAction("Missing"), nullptr);
  EXPECT_FALSE(service->addAction(
      new zuna_upnp::ActionT0<upnp_test::CalculatorService>("Reset", service, &upnp_test::CalculatorService::Reset)));
  EXPECT_FALSE(service->addAction(nullptr));
  EXPECT_EQ(service->getActions().size(), 3u);
}

TEST(LocalService, UpdateServiceParamSetsKnownVariables) {
  upnp_test::TestDevice device;
  EXPECT_TRUE(device.calculator->updateServiceParam("Total", "9", false));
  EXPECT_EQ(device.calculator->getVars().getValue("Total"), "9");
  EXPECT_FALSE(device.calculator->updateServiceParam("Missing", "9", true));
}

TEST(LocalService, SendChangedVarsReportsWhetherAnythingChanged) {
  upnp_test::TestDevice device;
  EXPECT_FALSE(device.calculator->sendChangedVars());
  device.calculator->getVars().setValue("A_ARG_TYPE_Text", "not evented");
  EXPECT_FALSE(device.calculator->sendChangedVars());
  device.calculator->getVars().setValue("Total", "8");
  EXPECT_TRUE(device.calculator->sendChangedVars());
  EXPECT_FALSE(device.calculator->getVars().hasChanges());
  EXPECT_FALSE(device.calculator->sendChangedVars());
  EXPECT_FALSE(device.calculator->hasSubscribers());
  EXPECT_NE(device.calculator->getBinding(), nullptr);
}

TEST(LocalService, DefaultWebRequestIsNotFound) {
  upnp_test::TestDevice device;
  chdtest::FakeWebSocket socket;
  zuna_http::WebRequest request("GET", "/TestDevice/Calculator/control");
  device.calculator->handleRequest(&socket, &request);
  EXPECT_EQ(socket.bytes().rfind("HTTP/1.1 404 Not Found\r\n", 0), 0u) << socket.bytes();
}

class ThreadProbe {
 public:
  explicit ThreadProbe(Tolvane::EventDispatcher* dispatcher) : mDispatcher(dispatcher) {}
  void probe() {
    onDispatcher = mDispatcher->isCurrentThread();
    policy = sched_getscheduler(0);
  }
  bool onDispatcher = false;
  int policy = -1;

 private:
  Tolvane::EventDispatcher* mDispatcher;
};

TEST(LocalService, EachServiceHasItsOwnDispatcher) {
  upnp_test::TestDevice first;
  upnp_test::TestDevice second;
  Tolvane::EventDispatcher* dispatcher = first.calculator->getDispatcher();
  ASSERT_NE(dispatcher, nullptr);
  EXPECT_NE(dispatcher, second.calculator->getDispatcher());
  EXPECT_FALSE(dispatcher->isCurrentThread());
  ThreadProbe probe(dispatcher);
  dispatcher->send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&probe, &ThreadProbe::probe)));
  EXPECT_TRUE(probe.onDispatcher);
}

TEST(LocalService, DispatcherRunsAsBackgroundWork) {
  upnp_test::TestDevice device;
  Tolvane::EventDispatcher* dispatcher = device.calculator->getDispatcher();
  ThreadProbe probe(dispatcher);
  dispatcher->send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(&probe, &ThreadProbe::probe)));
  EXPECT_EQ(probe.policy, SCHED_BATCH);
  EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER) << "the creating thread keeps its policy";
}

}  // namespace
