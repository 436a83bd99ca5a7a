// SetValues, the settings-refresh handshake and the override rules.
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "ConfigurationTestSupport.h"

namespace cmtest {
namespace {

const char* const kUntouched = "untouched";

class SetValuesTest : public ConfigurationTest {
 protected:
  void SetUp() override {
    ConfigurationTest::SetUp();
    mClient = std::make_unique<FakeClientApp>(mStore.get());
  }
  void TearDown() override {
    mClient.reset();
    ConfigurationTest::TearDown();
  }

  std::future<ActionResult> setValuesAsync(const std::string& xml) {
    return std::async(std::launch::async, [this, xml] { return setValues(xml, kUntouched); });
  }

  // Returns once the handler waits for the completion event: the Apply event
  // went out under the handler's lock, and an unrelated event, whose delivery
  // takes that lock too, got through, so the handler let go of it in its wait.
  void waitUntilWaiting(int applyCount) {
    ASSERT_TRUE(mClient->waitForApply(applyCount));
    service().notifyEventPosted("Unrelated Event", "");
  }

  // A SetValues the client app leaves unanswered, once the driven clock has
  // reached the end of the 5000 ms wait for the completion event.
  std::future<ActionResult> setValuesPastTheWait(const std::string& xml) {
    std::future<ActionResult> pending = setValuesAsync(xml);
    waitUntilWaiting(1);
    mClock->advance(5000);
    return pending;
  }

  void expectResult(const ActionResult& r, int kind, const std::string& description, int code) {
    EXPECT_EQ(kind, r.result.kind);
    EXPECT_EQ(description, r.result.description);
    EXPECT_EQ(code, r.result.code);
  }

  // True when the store saw nothing but the HDMI and HDCP statuses the test set.
  bool storeUntouched() {
    for (const auto& entry : mRecorder.entries()) {
      if (entry.isEvent) {
        return false;
      }
      for (const auto& status : entry.statuses) {
        if (status.first != "HDMI Plug" && status.first != "HDCP Failure") {
          return false;
        }
      }
    }
    return true;
  }

  std::unique_ptr<FakeClientApp> mClient;
};

TEST_F(SetValuesTest, AppliesSettingsAndAnswersChangesApplied) {
  ActionResult r =
      setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}, {"/vsp/CHD/REPORTING_INTERVAL", "900"}}), kUntouched);
  expectResult(r, 0, "", 0);
  EXPECT_EQ("ChangesApplied", r.out);
  EXPECT_EQ("HDTV.Video.Native.On", mStore->getStatus("HDTV.Video.Native"));
  EXPECT_EQ("900", mStore->getStatus("CHD Reporting Interval"));
  const std::string file = readFile(mSettingsFile);
  EXPECT_NE(std::string::npos, file.find("HDTV.Video.Native=HDTV.Video.Native.On")) << file;
  EXPECT_EQ(std::string::npos, file.find("CHD Reporting Interval")) << file;

  const std::vector<std::string> events = mRecorder.eventNames();
  ASSERT_GE(events.size(), 3u);
  EXPECT_EQ("Settings Refresh Started Event", events[0]);
  EXPECT_EQ("Settings Refresh Apply Event", events[1]);
  EXPECT_EQ("Settings Refresh Completed Event", events[2]);
  EXPECT_TRUE(mLog->hasExact("Posting 2 SetValues status updates"));
  EXPECT_TRUE(mLog->hasExact("Storing file setting: Key[HDTV.Video.Native] Value[HDTV.Video.Native.On]"));
  EXPECT_TRUE(mLog->hasExact("Received setting refresh completed response"));

  flush();
  EXPECT_EQ("On", valueOf("/vsp/HDTV/NATIVE"));
  EXPECT_EQ("900", valueOf("/vsp/CHD/REPORTING_INTERVAL"));
}

TEST_F(SetValuesTest, FileSettingsAreSavedBeforeTheStatusesArePosted) {
  std::string fileWhenPosted;
  mRecorder.onStatuses = [&](const StatusMap& statuses) {
    if (statuses.count("HDTV.Video.BarColor") != 0) {
      fileWhenPosted = readFile(mSettingsFile);
    }
  };
  ActionResult r = setValues(parameterValueList({{"/vsp/HDTV/BAR_COLOR", "Gray"}}));
  mRecorder.onStatuses = nullptr;
  expectResult(r, 0, "", 0);
  EXPECT_NE(std::string::npos, fileWhenPosted.find("HDTV.Video.BarColor=HDTV.Video.BarColor.Gray")) << fileWhenPosted;
  EXPECT_LT(mLog->indexOfFirst("Saving new settings file updates"),
            mLog->indexOfFirst("Waiting for Zuna to apply setting refresh"));
}

TEST_F(SetValuesTest, OnlyUntranslatableParametersLeaveNothingToApply) {
  ActionResult r = setValues(parameterValueList({{"/vsp/CHD/MEDIA_TRANSITION", "Fast"}}), kUntouched);
  expectResult(r, 0, "No settings to apply", 0);
  EXPECT_EQ(kUntouched, r.out);
  EXPECT_TRUE(mRecorder.eventNames().empty());
}

TEST_F(SetValuesTest, AnInvalidParameterFailsTheRequestAndAppliesNothing) {
  ActionResult r =
      setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}, {"/vsp/HDTV/BAR_COLOR", "Purple"}}), kUntouched);
  expectResult(r, 1, "Invalid Value", 705);
  EXPECT_EQ(kUntouched, r.out);
  EXPECT_TRUE(mRecorder.entries().empty());
  EXPECT_EQ("", readFile(mSettingsFile));
  EXPECT_EQ("", mStore->getStatus("HDTV.Video.Native"));
}

TEST_F(SetValuesTest, EachMalformedParameterHasItsAnswer) {
  struct Case {
    std::string xml;
    int code;
    const char* description;
    const char* log;
  };
  const std::string native = "<ParameterPath>/vsp/HDTV/NATIVE</ParameterPath>";
  const Case cases[] = {
      {"not xml", 702, "Invalid XML Argument", "Server did not provide us with a proper xml string"},
      {"<ParameterValueList>" + parameter("/vsp/HDTV/NATIVE", "On") + "<Other>x</Other></ParameterValueList>", 702,
       "Invalid XML Argument", "Element value should be Parameter not [Other]"},
      {"<cms:ParameterValueList>" + parameter("/vsp/HDTV/NATIVE", "On") + "</cms:ParameterValueList>", 702,
       "Invalid XML Argument", "Element value should be Parameter not [cms:ParameterValueList]"},
      {"<Parameter><Value>On</Value></Parameter>", 702, "Invalid XML Argument",
       "Server did not provide us with a ParameterPath for Parameter [Parameter]"},
      {"<Parameter>" + native + "</Parameter>", 702, "Invalid XML Argument",
       "Server did not provide us with a Value for Parameter [Parameter]"},
      {"<Parameter><ParameterPath/><Value>On</Value></Parameter>", 702, "Invalid XML Argument",
       "No text was given in ParameterPath XML element"},
      {"<Parameter>" + native + "<Value></Value></Parameter>", 704, "Invalid Value Type",
       "No text was given in Value XML element"},
      {parameter("/vsp/RCS/ESN", "x"), 703, "No Such Name",
       "Setting Path[/vsp/RCS/ESN] does not exists in our data model"},
      {parameter("/vsp/CHD/WIFI_ERRORS", "1"), 703, "No Such Name",
       "Setting Path[/vsp/CHD/WIFI_ERRORS] does not exists in our data model"},
      {parameter("/vsp/HDTV/NATIVE/", "On"), 703, "No Such Name",
       "Setting Path[/vsp/HDTV/NATIVE/] does not exists in our data model"},
      {parameter("/vsp/HDTV/NATIVE", "on"), 705, "Invalid Value",
       "[on] is not a valid Value for path [/vsp/HDTV/NATIVE]"},
  };
  for (const Case& c : cases) {
    mLog->clear();
    ActionResult r = setValues(c.xml, kUntouched);
    expectResult(r, 1, c.description, c.code);
    EXPECT_EQ(kUntouched, r.out) << c.xml;
    EXPECT_EQ(0, mLog->levelOfFirst(c.log)) << c.xml;
  }
  EXPECT_TRUE(mRecorder.entries().empty());
}

TEST_F(SetValuesTest, StandbyPathNeedsEchoSupport) {
  ActionResult r = setValues(parameterValueList({{"/vsp/Standby/IN_STANDBY", "True"}}), kUntouched);
  expectResult(r, 1, "No Such Name", 703);
  EXPECT_EQ(kUntouched, r.out);

  mPlatform->echo = true;
  r = setValues(parameterValueList({{"/vsp/Standby/IN_STANDBY", "True"}}), kUntouched);
  expectResult(r, 0, "", 0);
  EXPECT_EQ("True", mStore->getStatus("In Standby"));
  const std::vector<std::string> events = mRecorder.eventNames();
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ("Settings Refresh Started Event", events[0]);
  EXPECT_EQ("Enter Standby Event", events[1]);
}

TEST_F(SetValuesTest, InStandbyTheAnswerIsImmediate) {
  setStatuses({{"In Standby", "True"}});
  ActionResult r = setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "Off"}}), kUntouched);
  expectResult(r, 0, "", 0);
  EXPECT_EQ("ChangesApplied", r.out);
  EXPECT_EQ(0, mClient->applyCount());
  for (const std::string& name : mRecorder.eventNames()) {
    EXPECT_NE("Settings Refresh Apply Event", name);
  }
  EXPECT_EQ(2, mLog->levelOfFirst("Zuna is currently in standby, not waiting for setting refresh response"));
  EXPECT_EQ("HDTV.Video.Native.Off", mStore->getStatus("HDTV.Video.Native"));
}

TEST_F(SetValuesTest, HdmiWithoutGoodHdcpFailsBeforeAnythingIsPosted) {
  setStatuses({{"HDMI Plug", "Common.True"}});
  ActionResult r = setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}}), kUntouched);
  expectResult(r, 4, "HDCP Failure", 802);
  EXPECT_EQ(kUntouched, r.out);
  setStatuses({{"HDCP Failure", "Common.True"}});
  expectResult(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}})), 4, "HDCP Failure", 802);
  EXPECT_TRUE(storeUntouched());
  EXPECT_EQ("", readFile(mSettingsFile));

  setStatuses({{"HDCP Failure", "Common.False"}});
  expectResult(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}})), 0, "", 0);
}

TEST_F(SetValuesTest, HdcpFailureWithoutHdmiDoesNotBlock) {
  setStatuses({{"HDMI Plug", "Common.False"}, {"HDCP Failure", "Common.True"}});
  expectResult(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}})), 0, "", 0);
}

TEST_F(SetValuesTest, ErrorFollowedByCompletionReportsTheErrorText) {
  mClient->setMode(FakeClientApp::ERROR_THEN_COMPLETE, "Display refused 2160p");
  ActionResult r = setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}}), kUntouched);
  expectResult(r, 4, "Display refused 2160p", 802);
  EXPECT_EQ("ChangesApplied", r.out);
  EXPECT_EQ(2, mLog->levelOfFirst("Encountered settings refresh error: [Display refused 2160p]"));
  EXPECT_EQ(2, mLog->levelOfFirst("Settings refresh error reported: [Display refused 2160p]"));

  // The next request starts without the old error.
  mClient->setMode(FakeClientApp::COMPLETE);
  expectResult(setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "Off"}})), 0, "", 0);
}

TEST_F(SetValuesTest, SilenceTimesOutAfterExactly5000Ms) {
  mClient->setMode(FakeClientApp::SILENT);
  std::future<ActionResult> pending = setValuesAsync(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}}));
  waitUntilWaiting(1);
  mClock->advance(4999);
  EXPECT_EQ(std::future_status::timeout, pending.wait_for(std::chrono::milliseconds(200)));
  mClock->advance(1);
  ASSERT_EQ(std::future_status::ready, pending.wait_for(std::chrono::seconds(10)));
  ActionResult r = pending.get();
  expectResult(r, 3, "Settings Refresh Timed Out", 801);
  EXPECT_EQ("ChangesApplied", r.out);
  EXPECT_EQ(2, mLog->levelOfFirst("Timed out waiting for settings refresh to complete"));
  // The changes stay although the handshake failed.
  EXPECT_EQ("HDTV.Video.Native.On", mStore->getStatus("HDTV.Video.Native"));
}

TEST_F(SetValuesTest, AnErrorWithoutCompletionEndsAsTheTimeOut) {
  mClient->setMode(FakeClientApp::ERROR_ONLY, "late");
  std::future<ActionResult> pending = setValuesPastTheWait(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}}));
  ASSERT_EQ(std::future_status::ready, pending.wait_for(std::chrono::seconds(10)));
  expectResult(pending.get(), 3, "Settings Refresh Timed Out", 801);
}

TEST_F(SetValuesTest, LaterParameterForTheSameKeyWins) {
  ActionResult r = setValues(parameterValueList({{"/vsp/HDTV/NATIVE", "On"}, {"/vsp/HDTV/NATIVE", "Off"}}));
  expectResult(r, 0, "", 0);
  EXPECT_EQ("HDTV.Video.Native.Off", mStore->getStatus("HDTV.Video.Native"));
  EXPECT_TRUE(mLog->hasExact("Posting 1 SetValues status updates"));
}

TEST_F(SetValuesTest, SelectingAResolutionAddsAnUpdateAndItsOverrideSurvivesATimeOut) {
  mClient->setMode(FakeClientApp::SILENT);
  std::future<ActionResult> pending =
      setValuesPastTheWait(parameterValueList({{"/vsp/HDTV/SELECTED_RESOLUTION", "2160p"}}));
  ASSERT_EQ(std::future_status::ready, pending.wait_for(std::chrono::seconds(10)));
  expectResult(pending.get(), 3, "Settings Refresh Timed Out", 801);
  EXPECT_TRUE(mLog->hasExact("Posting 2 SetValues status updates"));
  EXPECT_EQ("Common.On", mStore->getStatus("HDTV.TVResolutions.2160p"));
  EXPECT_EQ("HDTV.TVResolutions.2160p", mStore->getStatus("HDTV.TVResolutions.SelectedResolution"));
  EXPECT_EQ("EDID Override Enabled", mStore->getStatus("EDID Override 2160p"));
  // The override status went to the store before the batch of updates.
  int overrideAt = -1;
  int batchAt = -1;
  const auto entries = mRecorder.entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i].isEvent && entries[i].statuses.count("EDID Override 2160p") != 0) overrideAt = static_cast<int>(i);
    if (!entries[i].isEvent && entries[i].statuses.count("HDTV.TVResolutions.2160p") != 0)
      batchAt = static_cast<int>(i);
  }
  EXPECT_GE(overrideAt, 0);
  EXPECT_GT(batchAt, overrideAt);
  const std::string file = readFile(mSettingsFile);
  // Only the file updates of the request itself are saved, not those the overrides added.
  EXPECT_NE(std::string::npos, file.find("HDTV.TVResolutions.SelectedResolution=HDTV.TVResolutions.2160p"));
  EXPECT_EQ(std::string::npos, file.find("HDTV.TVResolutions.2160p=")) << file;
}

TEST_F(SetValuesTest, EveryFileSettingCanBeSetAndSurvivesInTheFile) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {"/vsp/Audio/DOLBYDIGITAL", "Off"},
      {"/vsp/PowerSaving/POWER_SAVING", "On"},
      {"/vsp/HDTV/TV_RATIO", "Widescreen"},
      {"/vsp/HDTV/SCREEN_FORMAT", "Crop"},
      {"/vsp/HDTV/HDMI_CONTROL", "Off"},
      {"/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480i", "Off"},
      {"/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_4320p", "On"},
  };
  expectResult(setValues(parameterValueList(values)), 0, "", 0);
  const std::string file = readFile(mSettingsFile);
  for (const char* line :
       {"Audio.Dolby.DolbyDigital=Audio.Dolby.DolbyDigital.Off", "PowerSaving.Enabled=PowerSaving.Enabled.On",
        "HDTV.TVRatio.AspectRatio=HDTV.TVRatio.AspectRatio.Widescreen",
        "HDTV.Video.ScreenFormat=HDTV.Video.ScreenFormat.Crop", "HDTV.Video.HDMIControl=HDTV.Video.HDMIControl.Off",
        "HDTV.TVResolutions.480i=Common.Off", "HDTV.TVResolutions.4320p=Common.On"}) {
    EXPECT_NE(std::string::npos, file.find(line)) << line;
  }
  flush();
  for (const auto& value : values) {
    EXPECT_EQ(value.second, valueOf(value.first)) << value.first;
  }
}

// The override rules on their own.

class OverrideRequestsTest : public ConfigurationTest {
 protected:
  StatusMap apply(StatusMap updates) {
    runOn(dispatcher(), [&] { service().handleOverrideRequests(updates); });
    return updates;
  }
};

TEST_F(OverrideRequestsTest, UpdatesWithoutTheFourKeysAreLeftAlone) {
  const StatusMap updates = {{"HDTV.Video.Native", "HDTV.Video.Native.On"}, {"CHD Reporting Interval", "900"}};
  EXPECT_EQ(updates, apply(updates));
  EXPECT_TRUE(mRecorder.entries().empty());
}

TEST_F(OverrideRequestsTest, ResolutionSwitchesSetTheirOverride) {
  apply({{"HDTV.TVResolutions.1080p", "Common.On"}, {"HDTV.TVResolutions.2160p", "Common.Off"}});
  EXPECT_EQ("EDID Override Enabled", mStore->getStatus("EDID Override 1080p"));
  EXPECT_EQ("EDID Override Disabled", mStore->getStatus("EDID Override 2160p"));
  EXPECT_EQ(5, mLog->levelOfFirst("Request to enable 1080p detected, enabling 1080p EEDID override"));
  EXPECT_EQ(5, mLog->levelOfFirst("Request to disable 2160p detected, disabling 2160p EEDID override"));
  apply({{"HDTV.TVResolutions.1080p", "Common.Off"}, {"HDTV.TVResolutions.2160p", "Common.On"}});
  EXPECT_EQ("EDID Override Disabled", mStore->getStatus("EDID Override 1080p"));
  EXPECT_EQ("EDID Override Enabled", mStore->getStatus("EDID Override 2160p"));
  EXPECT_TRUE(mLog->hasExact("Request to disable 1080p detected, disabling 1080p EEDID override"));
  EXPECT_TRUE(mLog->hasExact("Request to enable 2160p detected, enabling 2160p EEDID override"));
}

TEST_F(OverrideRequestsTest, OtherResolutionValuesDoNothing) {
  const StatusMap updates = {{"HDTV.TVResolutions.1080p", "Common.Maybe"},
                             {"HDTV.TVResolutions.SelectedResolution", "HDTV.TVResolutions.720p"}};
  EXPECT_EQ(updates, apply(updates));
  EXPECT_TRUE(mRecorder.entries().empty());
}

TEST_F(OverrideRequestsTest, SelectingAResolutionWinsOverDisablingIt) {
  StatusMap result = apply({{"HDTV.TVResolutions.1080p", "Common.Off"},
                            {"HDTV.TVResolutions.SelectedResolution", "HDTV.TVResolutions.1080p"}});
  EXPECT_EQ("Common.On", result.at("HDTV.TVResolutions.1080p"));
  const auto entries = mRecorder.entries();
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ("EDID Override Disabled", entries[0].statuses.at("EDID Override 1080p"));
  EXPECT_EQ("EDID Override Enabled", entries[1].statuses.at("EDID Override 1080p"));
  EXPECT_TRUE(mLog->hasExact("Request to set selected resolution to 1080p detected, enabling 1080p EEDID override"));
}

TEST_F(OverrideRequestsTest, Selecting2160pAddsItsSwitch) {
  StatusMap result = apply({{"HDTV.TVResolutions.SelectedResolution", "HDTV.TVResolutions.2160p"}});
  EXPECT_EQ(2u, result.size());
  EXPECT_EQ("Common.On", result.at("HDTV.TVResolutions.2160p"));
  EXPECT_EQ("EDID Override Enabled", mStore->getStatus("EDID Override 2160p"));
  EXPECT_TRUE(mLog->hasExact("Request to set selected resolution to 2160p detected, enabling 2160p EEDID override"));
}

TEST_F(OverrideRequestsTest, StandbyRequestsBecomeEvents) {
  apply({{"In Standby", "True"}});
  apply({{"In Standby", "False"}});
  StatusMap kept = apply({{"In Standby", "Sleepy"}});
  EXPECT_EQ("Sleepy", kept.at("In Standby"));
  EXPECT_EQ((std::vector<std::string>{"Enter Standby Event", "Exit Standby Event"}), mRecorder.eventNames());
  EXPECT_EQ(5, mLog->levelOfFirst("Received UPnP request to enter standby"));
  EXPECT_EQ(5, mLog->levelOfFirst("Received UPnP request to exit standby"));
  EXPECT_EQ(5, mLog->levelOfFirst("Received invalid UPnP request [Sleepy] for standby"));
  for (const auto& entry : mRecorder.entries()) {
    EXPECT_EQ("", entry.value);
  }
}

}  // namespace
}  // namespace cmtest
