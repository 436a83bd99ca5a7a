// The service frame: declarations, status mirroring, eventing cycle, the
// trivial actions, GenCHDData, shutdown and the settings manager start-up.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "ConfigurationTestSupport.h"
#include "statusstore_host/LocalStatusManager.h"
#include "zuna_upnp/Action.h"

namespace cmtest {
namespace {

// "<count>,YYYY-MM-DDThh:mm:ss" with a count of at least 1.
bool isUpdateStamp(const std::string& value) {
  const size_t comma = value.find(',');
  if (comma == std::string::npos || comma == 0 || value.size() != comma + 20 || value[0] == '0') {
    return false;
  }
  const std::string pattern = "dddd-dd-ddTdd:dd:dd";
  for (size_t i = 0; i < comma; ++i) {
    if (!isdigit(static_cast<unsigned char>(value[i]))) return false;
  }
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char c = value[comma + 1 + i];
    if (pattern[i] == 'd' ? !isdigit(static_cast<unsigned char>(c)) : c != pattern[i]) return false;
  }
  return true;
}

class CountingListener : public ConfigurationManagementListener {
 public:
  bool genChdDataBlob() override {
    ++calls;
    return false;
  }
  std::atomic<int> calls{0};
};

class ServiceFrameTest : public ConfigurationTest {
 protected:
  std::string supportedParametersUpdate() {
    std::string out;
    runOn(dispatcher(), [&] { service().GetSupportedParametersUpdate(out); });
    return out;
  }
  // Lets the periodic check run once more.
  void runEventingCycle() {
    mClock->advance(3000);
    runOn(dispatcher(), [] {});
  }
};

TEST_F(ServiceFrameTest, DeclaresTheServiceType) {
  EXPECT_EQ("urn:schemas-upnp-org:service:ConfigurationManagement:1", service().getServiceTypeIDString());
  EXPECT_EQ("ConfigurationManagement", service().getName());
  EXPECT_EQ(1, service().getServiceMajorSpec());
  EXPECT_EQ(1, service().getServiceMinorSpec());
}

TEST_F(ServiceFrameTest, DeclaresFifteenStateVariablesInOrder) {
  struct Expected {
    const char* name;
    const char* type;
    const char* value;
    bool evented;
  };
  const Expected expected[] = {
      {"A_ARG_TYPE_SupportedDataModels", "string", "", false},
      {"A_ARG_TYPE_StructurePath", "string", "", false},
      {"A_ARG_TYPE_SearchDepth", "ui4", "0", false},
      {"A_ARG_TYPE_StructurePathList", "string", "", false},
      {"A_ARG_TYPE_PartialPath", "string", "", false},
      {"A_ARG_TYPE_InstancePathList", "string", "", false},
      {"A_ARG_TYPE_ContentPathList", "string", "", false},
      {"A_ARG_TYPE_ParameterValueList", "string", "", false},
      {"A_ARG_TYPE_NodeAttributePathList", "string", "", false},
      {"A_ARG_TYPE_NodeAttributeValueList", "string", "", false},
      {"A_ARG_TYPE_ChangeStatus", "string", "", false},
      {"ConfigurationUpdate", "string", "", true},
      {"CurrentConfigurationVersion", "ui4", "0", false},
      {"SupportedDataModelsUpdate", "string", "", true},
      {"SupportedParametersUpdate", "string", "", true},
  };
  const std::vector<zuna_upnp::Var> vars = service().getVars().getAll();
  ASSERT_EQ(15u, vars.size());
  for (size_t i = 0; i < vars.size(); ++i) {
    EXPECT_EQ(expected[i].name, vars[i].getName());
    EXPECT_EQ(expected[i].type, vars[i].getType()) << expected[i].name;
    EXPECT_EQ(expected[i].value, vars[i].getDefault()) << expected[i].name;
    EXPECT_EQ(expected[i].evented, vars[i].isEvented()) << expected[i].name;
  }
}

TEST_F(ServiceFrameTest, RegistersElevenActionsInOrder) {
  struct Expected {
    const char* name;
    std::vector<std::string> in;
    std::vector<std::string> out;
  };
  const Expected expected[] = {
      {"GetSupportedDataModels", {}, {"SupportedDataModels:A_ARG_TYPE_SupportedDataModels"}},
      {"GetSupportedParameters",
       {"StartingNode:A_ARG_TYPE_StructurePath", "SearchDepth:A_ARG_TYPE_SearchDepth"},
       {"Result:A_ARG_TYPE_StructurePathList"}},
      {"GetInstances",
       {"StartingNode:A_ARG_TYPE_PartialPath", "SearchDepth:A_ARG_TYPE_SearchDepth"},
       {"Result:A_ARG_TYPE_InstancePathList"}},
      {"GetValues", {"Parameters:A_ARG_TYPE_ContentPathList"}, {"ParameterValueList:A_ARG_TYPE_ParameterValueList"}},
      {"SetValues", {"ParameterValueList:A_ARG_TYPE_ParameterValueList"}, {"Status:A_ARG_TYPE_ChangeStatus"}},
      {"GetAttributes",
       {"Parameters:A_ARG_TYPE_NodeAttributePathList"},
       {"NodeAttributeValueList:A_ARG_TYPE_NodeAttributeValueList"}},
      {"GetConfigurationUpdate", {}, {"StateVariableValue:ConfigurationUpdate"}},
      {"GetCurrentConfigurationVersion", {}, {"StateVariableValue:CurrentConfigurationVersion"}},
      {"GetSupportedDataModelsUpdate", {}, {"StateVariableValue:SupportedDataModelsUpdate"}},
      {"GetSupportedParametersUpdate", {}, {"StateVariableValue:SupportedParametersUpdate"}},
      {"GenCHDData", {}, {}},
  };
  const auto& actions = service().getActions();
  ASSERT_EQ(11u, actions.size());
  auto joined = [](const std::vector<zuna_upnp::ActionArgument>& args) {
    std::vector<std::string> texts;
    for (const auto& arg : args) texts.push_back(arg.name + ":" + arg.stateVariable);
    return texts;
  };
  for (size_t i = 0; i < actions.size(); ++i) {
    EXPECT_EQ(expected[i].name, actions[i]->getName());
    EXPECT_EQ(expected[i].in, joined(actions[i]->getInArgs())) << expected[i].name;
    EXPECT_EQ(expected[i].out, joined(actions[i]->getOutArgs())) << expected[i].name;
  }
  EXPECT_FALSE(mLog->hasExact("invalid action types for action GenCHDData - discarding"));
  EXPECT_NE(std::string::npos, service().getXML().find("GenCHDData"));
}

TEST_F(ServiceFrameTest, ActionsAnswerThroughTheStack) {
  std::vector<std::string> outputs;
  zuna_upnp::UPnPReturn result;
  runOn(dispatcher(), [&] {
    result = service().findAction("GetSupportedParameters")->invoke({"/vsp/CC/CAPTIONING", "1"}, outputs);
  });
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(std::vector<std::string>{"<StructurePath>/vsp/CC/CAPTIONING</StructurePath>\n"}, outputs);
  runOn(dispatcher(), [&] { result = service().findAction("GetCurrentConfigurationVersion")->invoke({}, outputs); });
  EXPECT_EQ(std::vector<std::string>{"0"}, outputs);
  runOn(dispatcher(), [&] {
    result = service().findAction("GetSupportedParameters")->invoke({"/vsp/", "2147483648"}, outputs);
  });
  EXPECT_EQ(701, result.code);
}

TEST_F(ServiceFrameTest, UpdateActionsStartAtTheirFixedValues) {
  std::string configurationUpdate;
  std::string dataModelsUpdate;
  unsigned version = 99;
  runOn(dispatcher(), [&] {
    EXPECT_TRUE(service().GetConfigurationUpdate(configurationUpdate).isSuccess());
    EXPECT_TRUE(service().GetSupportedDataModelsUpdate(dataModelsUpdate).isSuccess());
    EXPECT_TRUE(service().GetCurrentConfigurationVersion(version).isSuccess());
  });
  EXPECT_EQ("0,0001-01-01T00:00:00Z", supportedParametersUpdate());
  EXPECT_EQ("0,0001-01-01T00:00:00Z,,", configurationUpdate);
  EXPECT_EQ("0,0001-01-01T00:00:00Z", dataModelsUpdate);
  EXPECT_EQ(0u, version);
  EXPECT_EQ("", service().getVars().getValue("ConfigurationUpdate"));
}

TEST_F(ServiceFrameTest, StatusChangeUpdatesTheModelAndTheEventedVariable) {
  setStatuses({{"ESN", "123"}});
  const std::string update = supportedParametersUpdate();
  EXPECT_TRUE(isUpdateStamp(update)) << update;
  EXPECT_EQ("1,", update.substr(0, 2));
  EXPECT_EQ(update, service().getVars().getValue("SupportedParametersUpdate"));
  EXPECT_EQ("123", valueOf("/vsp/RCS/ESN"));
  EXPECT_EQ(6, mLog->levelOfFirst("Updated param[/vsp/RCS/ESN] with value[123],  parameter update count[1]  time[" +
                                  update.substr(2) + "]"));
  // The data model keeps what was sent, and the other side of the update stays as it was.
  EXPECT_EQ("0,0001-01-01T00:00:00Z,,", [&] {
    std::string out;
    runOn(dispatcher(), [&] { service().GetConfigurationUpdate(out); });
    return out;
  }());
}

TEST_F(ServiceFrameTest, HdcpFailureNeverReachesTheModel) {
  setStatuses({{"HDCP Failure", "Common.True"}});
  setStatuses({{"HDCP Failure", "Common.False"}});
  EXPECT_EQ("0,0001-01-01T00:00:00Z", supportedParametersUpdate());
  EXPECT_EQ("", service().getVars().getValue("SupportedParametersUpdate"));
  EXPECT_FALSE(service().getVars().hasChanges());
}

TEST_F(ServiceFrameTest, UnknownKeysAreIgnored) {
  setStatuses({{"Some Other Status", "1"}});
  service().updateServiceParam("Not In The Model", "x", false);
  flush();
  EXPECT_EQ("0,0001-01-01T00:00:00Z", supportedParametersUpdate());
}

TEST_F(ServiceFrameTest, TwoChangesCountTwiceAndAreEventedOnce) {
  setStatuses({{"ESN", "1"}, {"CamID", "2"}});
  EXPECT_EQ("2,", supportedParametersUpdate().substr(0, 2));
  EXPECT_EQ(2, mLog->countStartingWith("Updated param["));
  EXPECT_TRUE(service().getVars().hasChanges());
  const std::string noSubscriber =
      "KTVRNA-67902: Server has not UPnP subscribed to handle ConfigurationManagement notifications";
  EXPECT_EQ(0, mLog->exactAnyLevel(noSubscriber));
  runEventingCycle();
  EXPECT_EQ(1, mLog->exactAnyLevel(noSubscriber));
  EXPECT_EQ(6, mLog->levelOfFirst(noSubscriber));
  // Sent although nobody listens.
  EXPECT_FALSE(service().getVars().hasChanges());
  runEventingCycle();
  EXPECT_EQ(1, mLog->exactAnyLevel(noSubscriber));
  setStatuses({{"ESN", "3"}});
  runEventingCycle();
  EXPECT_EQ(2, mLog->exactAnyLevel(noSubscriber));
}

TEST_F(ServiceFrameTest, AspectRatioSetsTheTvFormatOnLocaleTwo) {
  destroyService();
  mPlatform->locale = 2;
  createService();
  setStatuses({{"HDTV.TVRatio.AspectRatio", "HDTV.TVRatio.AspectRatio.Widescreen"}});
  EXPECT_EQ("Widescreen 16:9", valueOf("/vsp/HDTV/TV_FORMAT"));
  EXPECT_EQ("Widescreen", valueOf("/vsp/HDTV/TV_RATIO"));
  setStatuses({{"HDTV.TVRatio.AspectRatio", "HDTV.TVRatio.AspectRatio.Standard"}});
  EXPECT_EQ("Standard 4:3", valueOf("/vsp/HDTV/TV_FORMAT"));
  setStatuses({{"HDTV.TVRatio.AspectRatio", "unknown"}});
  EXPECT_EQ("Standard 4:3", valueOf("/vsp/HDTV/TV_FORMAT"));
}

TEST_F(ServiceFrameTest, AspectRatioLeavesTheTvFormatAloneElsewhere) {
  setStatuses({{"HDTV.TVRatio.AspectRatio", "HDTV.TVRatio.AspectRatio.Widescreen"}});
  EXPECT_EQ("Widescreen", valueOf("/vsp/HDTV/TV_RATIO"));
  EXPECT_EQ("<703>", valueOf("/vsp/HDTV/TV_FORMAT"));
}

TEST_F(ServiceFrameTest, UpdatesFromOtherThreadsAreAppliedOnTheDispatcher) {
  EXPECT_TRUE(service().updateServiceParam("CamID", "cam-7", true));
  flush();
  EXPECT_EQ("cam-7", valueOf("/vsp/ClientInfo/CAM_ID"));
}

int applyEvents(const std::vector<std::string>& eventNames) {
  return static_cast<int>(std::count(eventNames.begin(), eventNames.end(), "Settings Refresh Apply Event"));
}

// The standby flag shows in SetValues: in standby it answers without asking
// the client application to apply the change.
TEST_F(ServiceFrameTest, FlagsFollowTheirStatuses) {
  FakeClientApp client(mStore.get());
  setStatuses({{"In Standby", "True"}});
  EXPECT_EQ("True", valueOf("/vsp/Standby/IN_STANDBY"));
  EXPECT_TRUE(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "Off"}})).result.isSuccess());
  EXPECT_EQ(0, applyEvents(mRecorder.eventNames()));
  // Only "True" means standby.
  setStatuses({{"In Standby", "true"}});
  EXPECT_TRUE(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}})).result.isSuccess());
  EXPECT_EQ(1, applyEvents(mRecorder.eventNames()));
  EXPECT_TRUE(client.waitForApply(1));
}

TEST_F(ServiceFrameTest, GenChdDataCallsTheListener) {
  CountingListener listener;
  service().setConfigurationManagementListener(&listener);
  zuna_upnp::UPnPReturn result(1, "x", 1);
  runOn(dispatcher(), [&] { result = service().GenCHDData(); });
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(0, result.code);
  EXPECT_EQ(1, listener.calls.load());
  std::vector<std::string> outputs;
  runOn(dispatcher(), [&] { result = service().findAction("GenCHDData")->invoke({}, outputs); });
  EXPECT_EQ(2, listener.calls.load());
  service().setConfigurationManagementListener(nullptr);
  runOn(dispatcher(), [&] { result = service().GenCHDData(); });
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(2, listener.calls.load());
}

TEST_F(ServiceFrameTest, RefreshEventsAreHandledUnderTheLock) {
  mStore->postEvent("Settings Refresh Error Event", "bad resolution", 0);
  mStore->postEvent("Settings Refresh Completed Event", "", 0);
  mStore->postEvent("Unrelated Event", "", 0);
  flush();
  EXPECT_EQ(2, mLog->levelOfFirst("Settings refresh error reported: [bad resolution]"));
  EXPECT_EQ(5, mLog->levelOfFirst("Settings refresh completed"));
}

TEST_F(ServiceFrameTest, ShutdownStopsListeningAndEventing) {
  service().shutdown();
  setStatuses({{"ESN", "after"}});
  EXPECT_EQ("", valueOf("/vsp/RCS/ESN"));
  runOn(dispatcher(), [&] { service().updateServiceParam("ESN", "direct", false); });
  EXPECT_TRUE(service().getVars().hasChanges());
  runEventingCycle();
  EXPECT_TRUE(service().getVars().hasChanges());
  EXPECT_FALSE(
      mLog->hasExact("KTVRNA-67902: Server has not UPnP subscribed to handle ConfigurationManagement notifications"));
  service().shutdown();  // a second time is harmless
}

TEST_F(ServiceFrameTest, DestructorDetachesWithoutAnExplicitShutdown) {
  delete mService;
  mService = nullptr;
  // The store would call a destroyed listener here if it were still attached.
  mStore->setStatuses({{"ESN", "x"}});
  mStore->postEvent("Settings Refresh Completed Event", "", 0);
  createService();
  EXPECT_EQ("", valueOf("/vsp/RCS/ESN"));
}

// Start-up without a settings manager ends the process.
TEST(ConfigurationStartupDeathTest, MissingSettingsManagerServiceEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("TLCOM_COMPONENT_PATH", CM_EMPTY_COMPONENT_DIR, 1);
        statusstore::LocalStatusManager store;
        statusstore::setInstanceForTest(&store);
        zuna_upnp::RootDevice device;
        new ConfigurationManagementService(&device, &device);
      },
      ::testing::ExitedWithCode(1), "Failed to get SettingsManager");
}

}  // namespace
}  // namespace cmtest
