// The BasicManagement service's actions, state variables, URI list and events.
#include <thread>

#include "BasicManagementFixture.h"

namespace bmtest {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

class BasicManagementServiceTest : public BasicManagementTest {
 protected:
  std::string fileList(bool wifi) {
    std::string list = "," + logDir + "/messages";
    if (wifi) {
      list += "," + logDir + "/wifichip.tar";
    }
    return list + "," + logDir + "/procEntriesStatus.log," + logDir + "/processList.log," + logDir + "/fdStatus.log," +
           logDir + "/netstat.log";
  }

  std::string callGetLogURIs() {
    std::string out = "unset";
    EXPECT_TRUE(service->GetLogURIs(out).isSuccess());
    return out;
  }

  // The URI file rewritten, and the event the box posts after that.
  void rewriteUriFile(const std::string& content) {
    writeFile(kSyslogUrisFile, content);
    store.postEvent("Syslog Uris Updated Event", "", 0);
    flush();
  }

  // Changes that carried the given variable.
  int eventsWith(const std::string& variable) {
    int count = 0;
    for (const Changes& changes : publisher.published()) {
      for (const auto& change : changes) {
        count += change.first == variable ? 1 : 0;
      }
    }
    return count;
  }
};

TEST_F(BasicManagementServiceTest, LogUrisIsOneCommaWithoutUriFile) {
  start();
  EXPECT_EQ(",", logURIsVar());
  EXPECT_EQ(1, logs.exact(2, "logFile[/tmp/syslogUrisPath.txt] open failed"));
}

TEST_F(BasicManagementServiceTest, ConstructionSendsTheFirstListAsOneEvent) {
  start();
  EXPECT_THAT(constructionEvents, ElementsAre(ElementsAre(Pair("LogURIs", ","))));
}

TEST_F(BasicManagementServiceTest, LogUrisIsOneCommaWithEmptyUriFile) {
  writeFile(kSyslogUrisFile, "");
  start();
  EXPECT_EQ(",", logURIsVar());
  EXPECT_EQ(1, logs.exact(6, "Read from /tmp/syslogUrisPath.txt is "));
}

TEST_F(BasicManagementServiceTest, LogUrisIsTwoCommasWithEdidDumping) {
  settings.setEedidDumps(true);
  writeFile(kSyslogUrisFile, "");
  start();
  EXPECT_EQ(",,", logURIsVar());
}

TEST_F(BasicManagementServiceTest, UriFileWithFinalNewlineGivesItsUris) {
  writeFile(kSyslogUrisFile, "http://10.0.0.2/log/a.log,http://10.0.0.2/log/b.log\n");
  start();
  EXPECT_EQ("http://10.0.0.2/log/a.log,http://10.0.0.2/log/b.log,", logURIsVar());
  EXPECT_EQ(1,
            logs.exact(6, "Read from /tmp/syslogUrisPath.txt is http://10.0.0.2/log/a.log,http://10.0.0.2/log/b.log"));
}

TEST_F(BasicManagementServiceTest, UriFileWithoutFinalNewlineGivesNothing) {
  writeFile(kSyslogUrisFile, "http://10.0.0.2/log/a.log,http://10.0.0.2/log/b.log");
  start();
  EXPECT_EQ(",", logURIsVar());
}

TEST_F(BasicManagementServiceTest, UriFileFirstLineEndsAtCarriageReturnOrTab) {
  writeFile(kSyslogUrisFile, "http://a/1.log\r\nhttp://b/2.log\n");
  start();
  EXPECT_EQ("http://a/1.log,", logURIsVar());

  rewriteUriFile("http://a/1.log\tcomment\n");
  EXPECT_EQ("http://a/1.log,", logURIsVar());

  rewriteUriFile("first\nsecond\n");
  EXPECT_EQ("first,", logURIsVar());
}

TEST_F(BasicManagementServiceTest, SyslogEventRereadsUriFileAndSendsOneEvent) {
  start();
  writeFile(kSyslogUrisFile, "http://a/s.log\n");
  store.postEvent("Syslog Uris Updated Event", "ignored", 0);
  flush();
  EXPECT_EQ("http://a/s.log,", logURIsVar());
  EXPECT_THAT(publisher.published(), ElementsAre(ElementsAre(Pair("LogURIs", "http://a/s.log,"))));
  EXPECT_EQ(1, logs.exact(6, "New LogURIs is [http://a/s.log,]"));
}

TEST_F(BasicManagementServiceTest, UsbHotplugEventRereadsUriFile) {
  start();
  writeFile(kSyslogUrisFile, "http://usb/x.log\n");
  store.postEvent("USB Hotplug Detected Event", "", 0);
  flush();
  EXPECT_EQ("http://usb/x.log,", logURIsVar());
}

TEST_F(BasicManagementServiceTest, UriFileRemovedLaterEmptiesSyslogPart) {
  writeFile(kSyslogUrisFile, "http://a/s.log\n");
  start();
  unlink(kSyslogUrisFile);
  store.postEvent("Syslog Uris Updated Event", "", 0);
  flush();
  EXPECT_EQ(",", logURIsVar());
}

TEST_F(BasicManagementServiceTest, BlobUrisFollowSyslogPart) {
  writeFile(kSyslogUrisFile, "http://a/s.log\n");
  start();
  store.setStatus("CHD Blob Uris", "http://box/blob1.json");
  flush();
  EXPECT_EQ("http://a/s.log,http://box/blob1.json", logURIsVar());
  EXPECT_EQ(1, logs.exact(5, "CHD Blob URIs updated to [http://box/blob1.json]"));
}

TEST_F(BasicManagementServiceTest, SameBlobUrisTwiceSendsOneEvent) {
  start();
  store.setStatus("CHD Blob Uris", "http://box/blob.json");
  store.setStatus("CHD Blob Uris", "http://box/blob.json");
  flush();
  EXPECT_EQ(1, eventsWith("LogURIs"));
  EXPECT_EQ(1, logs.exact(6, "New LogURIs is [,http://box/blob.json]"));
  EXPECT_EQ(1, logs.exact(6, "LogURIs [,http://box/blob.json] have not changed"));
  EXPECT_EQ(",http://box/blob.json", logURIsVar());

  store.setStatus("CHD Blob Uris", "http://box/blob2.json");
  flush();
  EXPECT_EQ(2, eventsWith("LogURIs"));
}

TEST_F(BasicManagementServiceTest, EdidDumpPathJoinsWhenSupported) {
  settings.setEedidDumps(true);
  start();
  store.setStatuses({{"CHD Blob Uris", "http://box/b.json"}, {"EEDID Dump File Path", "/var/log/edid.bin"}});
  flush();
  EXPECT_EQ(",http://box/b.json,/var/log/edid.bin", logURIsVar());
  EXPECT_EQ(1, logs.exact(5, "EDID dump file path updated to [/var/log/edid.bin]"));
  // The blob part and the dump path are applied one after the other.
  EXPECT_EQ(1, logs.exact(6, "New LogURIs is [,http://box/b.json,]"));
  EXPECT_EQ(1, logs.exact(6, "New LogURIs is [,http://box/b.json,/var/log/edid.bin]"));
}

TEST_F(BasicManagementServiceTest, EdidDumpPathIgnoredWithoutSupport) {
  start();
  store.setStatus("EEDID Dump File Path", "/var/log/edid.bin");
  store.setStatus("CHD Blob Uris", "http://box/b.json");
  flush();
  EXPECT_EQ(",http://box/b.json", logURIsVar());
  EXPECT_EQ(0, logs.countAnyLevel("EDID dump file path updated"));
}

TEST_F(BasicManagementServiceTest, GetLogUrisAppendsTheLogFiles) {
  writeFile(kSyslogUrisFile, "http://a/s.log\n");
  start();
  store.setStatus("CHD Blob Uris", "http://box/b.json");
  flush();
  EXPECT_EQ("http://a/s.log,http://box/b.json" + fileList(false), callGetLogURIs());
  settings.setWifi(true);
  EXPECT_EQ("http://a/s.log,http://box/b.json" + fileList(true), callGetLogURIs());
}

TEST_F(BasicManagementServiceTest, GetLogUrisBeforeAnyStatus) {
  start();
  EXPECT_EQ("," + fileList(false), callGetLogURIs());
}

TEST_F(BasicManagementServiceTest, ActionsInTableOrderWithTheirOutputs) {
  start();
  const auto& actions = service->getActions();
  ASSERT_EQ(2u, actions.size());
  EXPECT_EQ("GetLogURIs", actions[0]->getName());
  EXPECT_EQ("GetDeviceStatus", actions[1]->getName());
  for (const auto& action : actions) {
    EXPECT_TRUE(action->getInArgs().empty());
    ASSERT_EQ(1u, action->getOutArgs().size());
  }
  EXPECT_EQ("LogURIs", actions[0]->getOutArgs()[0].name);
  EXPECT_EQ("LogURIs", actions[0]->getOutArgs()[0].stateVariable);
  EXPECT_EQ("DeviceStatus", actions[1]->getOutArgs()[0].name);
  EXPECT_EQ("DeviceStatus", actions[1]->getOutArgs()[0].stateVariable);
}

TEST_F(BasicManagementServiceTest, ActionsAnswerThroughTheStackInvocation) {
  store.setStart(1709647629);
  start();
  std::vector<std::string> outputs;
  zuna_upnp::UPnPReturn result = service->findAction("GetLogURIs")->invoke({}, outputs);
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(0, result.code);
  EXPECT_EQ("", result.description);
  EXPECT_THAT(outputs, ElementsAre("," + fileList(false)));

  outputs.clear();
  result = service->findAction("GetDeviceStatus")->invoke({}, outputs);
  EXPECT_TRUE(result.isSuccess());
  EXPECT_THAT(outputs, ElementsAre("OK,2024-03-05T14:07:09"));
}

TEST_F(BasicManagementServiceTest, ServiceIdentityAndStateVariables) {
  start();
  EXPECT_EQ("urn:schemas-upnp-org:service:BasicManagement:1", service->getServiceTypeIDString());
  EXPECT_EQ("urn:upnp-org:serviceId:BasicManagement", service->getServiceID());
  const std::vector<zuna_upnp::Var> vars = service->getVars().getAll();
  ASSERT_EQ(3u, vars.size());
  EXPECT_EQ("LogURIs", vars[0].getName());
  EXPECT_EQ("string", vars[0].getType());
  EXPECT_EQ("", vars[0].getDefault());
  EXPECT_EQ("DeviceStatus", vars[1].getName());
  EXPECT_EQ("string", vars[1].getType());
  EXPECT_EQ("", vars[1].getDefault());
  EXPECT_EQ("ChdBlobUpdated", vars[2].getName());
  EXPECT_EQ("boolean", vars[2].getType());
  EXPECT_EQ("false", vars[2].getDefault());
  for (const auto& var : vars) {
    EXPECT_TRUE(var.isEvented()) << var.getName();
  }
  EXPECT_NE(std::string::npos, service->getXML().find("GetDeviceStatus"));
  EXPECT_NE(std::string::npos, service->getXML().find("ChdBlobUpdated"));
}

TEST_F(BasicManagementServiceTest, DeviceStatusIsUptimeStartInLocalTime) {
  store.setStart(1709647629);  // 2024-03-05 14:07:09 UTC
  start();
  std::string status;
  EXPECT_TRUE(service->GetDeviceStatus(status).isSuccess());
  EXPECT_EQ("OK,2024-03-05T14:07:09", status);
  EXPECT_THAT(store.asked(), ElementsAre("Uptime Timer"));
  // Only the action's output carries it.
  EXPECT_EQ("", service->getVars().getValue("DeviceStatus"));
}

TEST_F(BasicManagementServiceTest, DeviceStatusIsCachedAcrossTimerRestarts) {
  store.setStart(1709647629);
  start();
  std::string first;
  std::string second;
  std::string third;
  service->GetDeviceStatus(first);
  store.setStart(1709647629 + 86400 + 3661);
  service->GetDeviceStatus(second);
  store.setStart(0);
  service->GetDeviceStatus(third);
  EXPECT_EQ("OK,2024-03-05T14:07:09", first);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first, third);
  EXPECT_EQ(1u, store.asked().size());
}

TEST_F(BasicManagementServiceTest, BlobUpdatedEventPulsesTrueThenFalse) {
  start();
  store.postEvent("CHD Blob Updated Event", "whatever", 0);
  flush();
  EXPECT_THAT(publisher.published(),
              ElementsAre(ElementsAre(Pair("ChdBlobUpdated", "true")), ElementsAre(Pair("ChdBlobUpdated", "false"))));
  EXPECT_EQ("false", service->getVars().getValue("ChdBlobUpdated"));
  EXPECT_EQ(1, logs.exact(5, "Notifying server of CHD blob update"));
}

TEST_F(BasicManagementServiceTest, PulseAfterUnchangedUrisCarriesOnlyTheFlag) {
  start();
  store.setStatus("CHD Blob Uris", "");
  flush();
  EXPECT_EQ(1, logs.exact(6, "LogURIs [,] have not changed"));
  store.postEvent("CHD Blob Updated Event", "", 0);
  flush();
  EXPECT_THAT(publisher.published(),
              ElementsAre(ElementsAre(Pair("ChdBlobUpdated", "true")), ElementsAre(Pair("ChdBlobUpdated", "false"))));
}

TEST_F(BasicManagementServiceTest, UnrelatedEventsAndStatusesAreIgnored) {
  start();
  store.postEvent("Write CHD Blob Event", "{}", 0);
  store.setStatus("Some Other Status", "x");
  flush();
  EXPECT_TRUE(publisher.published().empty());
}

TEST_F(BasicManagementServiceTest, RegistersBothWebProvidersAndUnregistersInOrder) {
  start();
  zuna_http::WebServiceProvider* provider = service.get();
  const std::vector<chdtest::CallJournal::Call> registered = journal.calls();
  ASSERT_EQ(2u, registered.size());
  EXPECT_THAT(registered[0], Pair("registerWebProvider GET " + logDir, static_cast<const void*>(provider)));
  EXPECT_EQ("registerProvider " + std::to_string(zuna_http::WebServer::METHOD_GET) + " []", registered[1].first);
  EXPECT_EQ(provider, registered[1].second);
  EXPECT_EQ(provider, controller.providerFor(logDir + "/messages"));
  Tolvane::ServerSocket* listening = webServer.registeredSocket();
  ASSERT_NE(nullptr, listening);
  EXPECT_EQ(80, listening->getPort());
  EXPECT_TRUE(listening->isListening());
  const void* socket = listening;

  service.reset();
  const std::vector<chdtest::CallJournal::Call> calls = journal.calls();
  ASSERT_EQ(5u, calls.size());
  EXPECT_THAT(calls[2], Pair("unregisterWebProvider", static_cast<const void*>(provider)));
  EXPECT_THAT(calls[3], Pair("unregisterSocket", socket));
  EXPECT_THAT(calls[4], Pair("unregisterProvider", static_cast<const void*>(provider)));
  EXPECT_EQ(nullptr, controller.providerFor(logDir + "/messages"));
}

TEST_F(BasicManagementServiceTest, BusyPortEightyLeavesTheStackPortServing) {
  Tolvane::ServerSocket squatter;
  ASSERT_TRUE(squatter.bind("0.0.0.0", 80));
  ASSERT_TRUE(squatter.listen(1));
  start();
  EXPECT_EQ(1, logs.exact(0, "Bind was not successful on port[80]"));
  EXPECT_EQ(nullptr, webServer.registeredSocket());
  const std::vector<chdtest::CallJournal::Call> calls = journal.calls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ("registerWebProvider GET " + logDir, calls[0].first);
}

TEST_F(BasicManagementServiceTest, NoCallbackAfterDestruction) {
  start();
  service.reset();
  // The store must have forgotten the service: these would reach freed memory otherwise.
  store.setStatus("CHD Blob Uris", "http://box/late.json");
  store.postEvent("CHD Blob Updated Event", "", 0);
  EXPECT_EQ(0, logs.countAnyLevel("late.json"));
}

// Actions, requests and status callbacks on different threads at once (for the thread sanitizer).
TEST_F(BasicManagementServiceTest, ActionsAndCallbacksRunConcurrently) {
  writeFile(kSyslogUrisFile, "http://a/s.log\n");
  writeFile(logDir + "/messages", "hello");
  start();
  service->setBasicManagementListener(&listener);
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([this, &stop] {
      for (int round = 0; round < 2000 && !stop; ++round) {
        std::string uris;
        std::string status;
        service->GetLogURIs(uris);
        service->GetDeviceStatus(status);
        ASSERT_EQ(0u, uris.find("http://a/s.log,"));
        get(logDir + "/messages");
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    store.setStatus("CHD Blob Uris", "http://box/blob" + std::to_string(round) + ".json");
    if (round % 20 == 0) {
      store.postEvent("Syslog Uris Updated Event", "", 0);
      store.postEvent("CHD Blob Updated Event", "", 0);
    }
  }
  flush();
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ("http://a/s.log,http://box/blob199.json", logURIsVar());
}

}  // namespace
}  // namespace bmtest
