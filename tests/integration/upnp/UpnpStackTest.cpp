// Device and control point in one process on loopback (run inside a private
// network namespace by the ctest wrapper).
#include <gtest/gtest.h>
#include <sched.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "LoopbackStackTest.h"
#include "Providers.h"
#include "tolvane/File.h"

namespace {

using upnp_it::ActionResult;

// Scheduling policies of this process's threads that carry the name.
std::vector<int> policiesOfThreads(const std::string& name) {
  std::vector<int> policies;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) {
      policies.push_back(sched_getscheduler(std::stoi(task.path().filename().string())));
    }
  }
  return policies;
}

bool allBackground(const std::vector<int>& policies) {
  for (int policy : policies) {
    if (policy != SCHED_BATCH) {
      return false;
    }
  }
  return !policies.empty();
}

class UpnpStackTest : public upnp_it::LoopbackStackTest {
 protected:
  static void SetUpTestSuite() {
    files = new upnp_it::FileProvider();
    slow = new upnp_it::BlockingProvider();
    startStack([] {
      ASSERT_TRUE(controller->registerWebProvider(files, "GET", "/files"));
      ASSERT_TRUE(controller->registerWebProvider(slow, "GET", "/slow"));
    });
  }

  static void TearDownTestSuite() {
    stopStack();
    delete files;
    delete slow;
  }

  GUPnPDeviceProxy* proxy() { return controlPoint->waitForDevice(device->getUDN(), 10000); }
  GUPnPServiceProxy* service(const char* type) {
    GUPnPDeviceProxy* found = proxy();
    return found == nullptr ? nullptr : controlPoint->service(found, type);
  }

  inline static upnp_it::FileProvider* files = nullptr;
  inline static upnp_it::BlockingProvider* slow = nullptr;
};

TEST_F(UpnpStackTest, ControlPointDiscoversTheDevice) {
  EXPECT_EQ(controller->getRunningInterfaces(), std::vector<std::string>{"lo"});
  ASSERT_EQ(location.rfind("http://127.0.0.1:", 0), 0u) << location;
  GUPnPDeviceProxy* found = proxy();
  ASSERT_NE(found, nullptr);
  char* name = gupnp_device_info_get_friendly_name(GUPNP_DEVICE_INFO(found));
  EXPECT_STREQ(name, "Acme RVU Client TestDevice");
  g_free(name);
  char* model = gupnp_device_info_get_model_name(GUPNP_DEVICE_INFO(found));
  EXPECT_STREQ(model, "ABC");
  g_free(model);
  EXPECT_STREQ(gupnp_device_info_get_location(GUPNP_DEVICE_INFO(found)), location.c_str());
}

TEST_F(UpnpStackTest, DescriptionsComeFromMemory) {
  upnp_it::HttpResult description = controlPoint->get(location);
  EXPECT_EQ(description.status, 200u);
  EXPECT_EQ(description.body, device->getXML());
  EXPECT_EQ(description.connectionHeader, "");  // kept alive
  EXPECT_EQ(controlPoint->get(base + device->getDescriptionURL()).body, device->getXML());
  upnp_it::HttpResult scpd = controlPoint->get(base + device->calculator->getSCPDURL());
  EXPECT_EQ(scpd.status, 200u);
  EXPECT_EQ(scpd.body, device->calculator->getXML());
  EXPECT_EQ(controlPoint->get(base + "/etc/passwd").status, 404u);
}

TEST_F(UpnpStackTest, ActionsAnswerWithTheirOutputs) {
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(calculator, nullptr);
  ActionResult add = controlPoint->invoke(calculator, "Add", {{"Text", "x & y"}, {"Number", "4294967295"}}, {"Result"});
  ASSERT_TRUE(add.ok) << add.errorMessage;
  EXPECT_EQ(add.outputs["Result"], "x & y+4294967295");
  ActionResult total = controlPoint->invoke(calculator, "GetTotal", {}, {"Total"});
  ASSERT_TRUE(total.ok) << total.errorMessage;
  EXPECT_EQ(total.outputs["Total"], "4294967295");
}

TEST_F(UpnpStackTest, FailedHandlerIsASoapFault) {
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(calculator, nullptr);
  ActionResult reset = controlPoint->invoke(calculator, "Reset", {}, {});
  EXPECT_FALSE(reset.ok);
  EXPECT_EQ(reset.errorCode, 701);
  EXPECT_EQ(reset.errorMessage, "Reset refused");
}

TEST_F(UpnpStackTest, BadArgumentsAndUnknownActions) {
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(calculator, nullptr);
  const int before = device->calculator->calls;
  for (const char* number : {"abc", "-1", "4294967296", ""}) {
    ActionResult bad = controlPoint->invoke(calculator, "Add", {{"Text", "x"}, {"Number", number}}, {"Result"});
    EXPECT_EQ(bad.errorCode, 402) << number;
    EXPECT_EQ(bad.errorMessage, "Invalid Args") << number;
  }
  EXPECT_EQ(controlPoint->invoke(calculator, "Add", {{"Text", "x"}}, {"Result"}).errorCode, 402);
  EXPECT_EQ(controlPoint->invoke(calculator, "Add", {{"Text", "x"}, {"Number", "1"}, {"More", "2"}}, {}).errorCode,
            402);
  EXPECT_EQ(controlPoint->invoke(calculator, "Add", {{"Text", "x"}, {"Count", "1"}}, {}).errorCode, 402);
  EXPECT_EQ(device->calculator->calls, before);
  ActionResult unknown = controlPoint->invoke(calculator, "Nope", {}, {});
  EXPECT_EQ(unknown.errorCode, 401);
}

TEST_F(UpnpStackTest, SubscribersGetCurrentValuesThenOneEventPerSend) {
  const std::string eventUrl = base + device->calculator->getEventURL();
  EXPECT_FALSE(device->calculator->hasSubscribers());
  device->calculator->getVars().setValue("Total", "9");
  device->calculator->getVars().takeChanges();
  upnp_it::EventSubscriber subscriber(*controlPoint);
  unsigned status = 0;
  const std::string sid = subscriber.subscribe(eventUrl, status);
  ASSERT_EQ(status, 200u);
  ASSERT_EQ(sid.rfind("uuid:", 0), 0u);
  ASSERT_TRUE(controlPoint->runUntil([&] { return !subscriber.events().empty(); }, 10000));
  EXPECT_EQ(subscriber.events()[0].sid, sid);
  EXPECT_EQ(subscriber.events()[0].seq, 0u);
  EXPECT_EQ(subscriber.events()[0].values, (std::map<std::string, std::string>{{"Total", "9"}, {"Flag", "false"}}));
  EXPECT_TRUE(device->calculator->hasSubscribers());

  device->calculator->getVars().setValue("Total", "11");
  device->calculator->getVars().setValue("Flag", "true");
  EXPECT_TRUE(device->calculator->sendChangedVars());
  EXPECT_FALSE(device->calculator->sendChangedVars());
  ASSERT_TRUE(controlPoint->runUntil([&] { return subscriber.events().size() >= 2; }, 10000));
  controlPoint->runUntil([] { return false; }, 300);  // a second message would arrive in this time
  ASSERT_EQ(subscriber.events().size(), 2u);
  EXPECT_EQ(subscriber.events()[1].seq, 1u);
  EXPECT_EQ(subscriber.events()[1].values, (std::map<std::string, std::string>{{"Total", "11"}, {"Flag", "true"}}));

  EXPECT_EQ(subscriber.unsubscribe(eventUrl, sid), 200u);
  // The stack takes note once the answer has gone out.
  EXPECT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 5000));
  EXPECT_EQ(subscriber.unsubscribe(eventUrl, sid), 412u);
}

TEST_F(UpnpStackTest, GupnpControlPointReceivesEvents) {
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(calculator, nullptr);
  std::string total;
  gupnp_service_proxy_add_notify(
      calculator, "Total", G_TYPE_STRING,
      [](GUPnPServiceProxy*, const char*, GValue* value, gpointer data) {
        *static_cast<std::string*>(data) = g_value_get_string(value) != nullptr ? g_value_get_string(value) : "";
      },
      &total);
  gupnp_service_proxy_set_subscribed(calculator, TRUE);
  ASSERT_TRUE(controlPoint->runUntil([&] { return device->calculator->hasSubscribers(); }, 5000));
  ASSERT_TRUE(controlPoint->runUntil([&] { return total == "11"; }, 10000));  // the first event
  device->calculator->getVars().setValue("Total", "12");
  device->calculator->sendChangedVars();
  EXPECT_TRUE(controlPoint->runUntil([&] { return total == "12"; }, 10000));
  gupnp_service_proxy_set_subscribed(calculator, FALSE);
  EXPECT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 5000));
}

void onHoldDone(GObject* source, GAsyncResult* result, gpointer data) {
  GError* error = nullptr;
  gupnp_service_proxy_call_action_finish(GUPNP_SERVICE_PROXY(source), result, &error);
  g_clear_error(&error);
  *static_cast<bool*>(data) = true;
}

TEST_F(UpnpStackTest, StackThreadsRunAsBackgroundWork) {
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(calculator, nullptr);
  ActionResult total = controlPoint->invoke(calculator, "GetTotal", {}, {"Total"});
  ASSERT_TRUE(total.ok) << total.errorMessage;
  // Each dispatcher sets its policy with its first agent.
  ASSERT_TRUE(controlPoint->runUntil([] { return allBackground(policiesOfThreads("UPnPService")); }, 5000));
  EXPECT_TRUE(allBackground(policiesOfThreads("UPnPStack")));
  EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER) << "the test's own thread keeps its policy";
}

TEST_F(UpnpStackTest, HeldHandlerHoldsUpOnlyItsOwnService) {
  GUPnPServiceProxy* holder = service(upnp_it::kHolderType);
  GUPnPServiceProxy* calculator = service(upnp_it::kCalculatorType);
  ASSERT_NE(holder, nullptr);
  ASSERT_NE(calculator, nullptr);
  bool holdAnswered = false;
  GUPnPServiceProxyAction* hold = gupnp_service_proxy_action_new("Hold", nullptr);
  gupnp_service_proxy_call_action_async(holder, hold, nullptr, onHoldDone, &holdAnswered);
  ASSERT_TRUE(controlPoint->runUntil([&] { return device->holder->entered.load(); }, 10000));

  ActionResult total = controlPoint->invoke(calculator, "GetTotal", {}, {"Total"});
  EXPECT_TRUE(total.ok) << total.errorMessage;
  EXPECT_FALSE(device->holder->finished) << "the other service waited for the held one";
  EXPECT_FALSE(holdAnswered);

  device->holder->release();
  EXPECT_TRUE(controlPoint->runUntil([&] { return holdAnswered; }, 10000));
  gupnp_service_proxy_action_unref(hold);
}

TEST_F(UpnpStackTest, WebProviderStreamsItsBody) {
  upnp_it::HttpResult result = controlPoint->get(base + "/files/logs/big");
  EXPECT_EQ(result.status, 200u);
  ASSERT_EQ(result.body.size(), upnp_it::kBigFileSize);
  size_t mismatches = 0;
  for (size_t i = 0; i < result.body.size(); ++i) {
    mismatches += result.body[i] != upnp_it::patternByte(i) ? 1 : 0;
  }
  EXPECT_EQ(mismatches, 0u);
  EXPECT_EQ(files->paths().back(), "/files/logs/big");

  upnp_it::HttpResult small = controlPoint->get(base + "/files/my%20notes.txt?x=1");
  EXPECT_EQ(small.status, 200u);
  EXPECT_EQ(small.body, "/files/my notes.txt");
}

TEST_F(UpnpStackTest, PathsLeavingTheRootAreNotFound) {
  const size_t before = files->paths().size();
  for (const char* path :
       {"/files/../etc/passwd", "/files/%2e%2e/etc/passwd", "/files/..%2f..%2fetc/passwd", "/files/%2e%2e%2fetc",
        "/files//etc/passwd", "/files/a%00b", "/files/%5c..%5cetc", "/files/.%2e/.%2e/etc", "/files/x/%2E%2E/%2E%2E/y",
        "/files%2f..%2fetc", "/files/%2e%2e%5c..%5cetc", "/files/x/%2e%2e/%2e%2e/%2e%2e/etc"}) {
    EXPECT_EQ(upnp_it::rawGetStatus(base + path), 404u) << path;
  }
  EXPECT_EQ(files->paths().size(), before);
  EXPECT_EQ(upnp_it::rawGetStatus(base + "/files/fine"), 200u);
}

TEST_F(UpnpStackTest, PrivateListenerServesItsProvider) {
  Tolvane::ServerSocket socket;
  ASSERT_TRUE(socket.bind("127.0.0.1", 0));
  ASSERT_TRUE(socket.listen(5));
  upnp_it::FileProvider provider;
  zuna_http::WebServer* server = zuna_http::WebServer::getSingleton();
  ASSERT_TRUE(server->registerProvider(&provider, &socket, zuna_http::WebServer::getMethod("GET"), ""));
  const std::string root = "http://127.0.0.1:" + std::to_string(socket.getPort());
  upnp_it::HttpResult result = controlPoint->get(root + "/var/log/chd/messages");
  EXPECT_EQ(result.status, 200u);
  EXPECT_EQ(result.body, "/var/log/chd/messages");
  for (const char* path : {"//etc/passwd", "/..%2fetc%2fpasswd", "/a%00", "/%5c..%5cetc", "/x/..%2F..%2Fetc"}) {
    EXPECT_EQ(upnp_it::rawGetStatus(root + path), 404u) << path;
  }
  EXPECT_EQ(provider.paths().size(), 1u);
  server->unregisterSocket(&socket);
  server->unregisterProvider(&provider);
}

TEST_F(UpnpStackTest, UnregisteringAProviderWaitsForItsRequests) {
  std::thread client([] { upnp_it::rawGetStatus(base + "/slow/anything"); });
  ASSERT_TRUE(controlPoint->runUntil([] { return slow->entered.load(); }, 10000));
  std::atomic<bool> unregistered{false};
  std::thread unregister([&unregistered] {
    controller->unregisterWebProvider(slow);
    unregistered = true;
  });
  controlPoint->runUntil([] { return false; }, 300);
  EXPECT_FALSE(unregistered) << "returned while the provider was still running";
  slow->release();
  unregister.join();
  client.join();
  EXPECT_TRUE(slow->finished);
  EXPECT_EQ(upnp_it::rawGetStatus(base + "/slow/anything"), 404u);
}

TEST_F(UpnpStackTest, ShutdownSaysGoodbye) {
  ASSERT_NE(proxy(), nullptr);
  controller->shutdown();
  EXPECT_TRUE(controlPoint->runUntil([] { return controlPoint->deviceGone(device->getUDN()); }, 5000));
  EXPECT_TRUE(controller->getRunningInterfaces().empty());
  controller->shutdown();
}

}  // namespace
