// GetValues: the content path list, the value sources and the printed answer.
#include <string>
#include <vector>

#include "ConfigurationTestSupport.h"

namespace cmtest {
namespace {

typedef ConfigurationTest GetValuesTest;

size_t countOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

std::string parameterXml(const std::string& path, const std::string& value) {
  return "    <Parameter>\n        <ParameterPath>" + path + "</ParameterPath>\n        <Value>" + value +
         "</Value>\n    </Parameter>\n";
}

TEST_F(GetValuesTest, PrintsTheParameterValueListExactly) {
  setStatuses({{"HDTV.Video.Native", "HDTV.Video.Native.On"}, {"ESN", "a<b&c"}});
  ActionResult r = getValues(contentPathList({"/vsp/HDTV/NATIVE", "/vsp/RCS/ESN", "/vsp/CHD/MEDIA_TRANSITION"}));
  EXPECT_EQ(0, r.result.kind);
  EXPECT_EQ("", r.result.description);
  EXPECT_EQ(0, r.result.code);
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/HDTV/NATIVE", "On") +
                parameterXml("/vsp/RCS/ESN", "a&lt;b&amp;c") + parameterXml("/vsp/CHD/MEDIA_TRANSITION", "") +
                "</ParameterValueList>\n",
            r.out);
}

TEST_F(GetValuesTest, RepeatedRequestsShowCurrentValues) {
  const std::string both = contentPathList({"/vsp/HDTV/NATIVE", "/vsp/RCS/ESN"});
  setStatuses({{"HDTV.Video.Native", "HDTV.Video.Native.On"}, {"ESN", "first"}});
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/HDTV/NATIVE", "On") + parameterXml("/vsp/RCS/ESN", "first") +
                "</ParameterValueList>\n",
            getValues(both).out);
  setStatuses({{"ESN", "second"}});
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/HDTV/NATIVE", "On") + parameterXml("/vsp/RCS/ESN", "second") +
                "</ParameterValueList>\n",
            getValues(both).out);
  // Another list in between, then the first again.
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/RCS/ESN", "second") + "</ParameterValueList>\n",
            getValues(contentPathList({"/vsp/RCS/ESN"})).out);
  setStatuses({{"ESN", "third"}});
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/HDTV/NATIVE", "On") + parameterXml("/vsp/RCS/ESN", "third") +
                "</ParameterValueList>\n",
            getValues(both).out);
  EXPECT_EQ("<ParameterValueList />\n", getValues("<ContentPathList></ContentPathList>").out);
}

TEST_F(GetValuesTest, ListWithoutContentPathGivesTheBareRoot) {
  ActionResult r = getValues("<ContentPathList><Other>/vsp/</Other></ContentPathList>", "untouched");
  EXPECT_TRUE(r.result.isSuccess());
  EXPECT_EQ("<ParameterValueList />\n", r.out);
  r = getValues("<ContentPathList></ContentPathList>", "untouched");
  EXPECT_EQ("<ParameterValueList />\n", r.out);
}

TEST_F(GetValuesTest, BareTopLevelContentPathsAreAccepted) {
  ActionResult r = getValues("<ContentPath>/vsp/CHD/CEC_TV_ON</ContentPath><ContentPath>/vsp/RCS/ESN</ContentPath>");
  EXPECT_TRUE(r.result.isSuccess());
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/CHD/CEC_TV_ON", "") + parameterXml("/vsp/RCS/ESN", "") +
                "</ParameterValueList>\n",
            r.out);
}

TEST_F(GetValuesTest, NamespacedRootFailsOnItsName) {
  ActionResult r = getValues(
      "<cms:ContentPathList xmlns:cms=\"urn:schemas-upnp-org:dm:cms\"><ContentPath>/vsp/</ContentPath>"
      "</cms:ContentPathList>",
      "untouched");
  expectInvalidXml(r, "Element value should be ContentPath not [cms:ContentPathList]");
}

TEST_F(GetValuesTest, SiblingOfAnotherNameFailsAfterTheFirstPathWasChecked) {
  ActionResult r =
      getValues("<ContentPathList><ContentPath>/vsp/RCS/ESN</ContentPath><Path>/vsp/RCS/ESN</Path></ContentPathList>",
                "untouched");
  expectFailure(r, 702, "Invalid XML Argument");
  int checked = mLog->indexOfFirst("Path [/vsp/RCS/ESN] is a valid key for mStatuses");
  int failed = mLog->indexOfFirst("Element value should be ContentPath not [Path]");
  EXPECT_GE(checked, 0);
  EXPECT_GT(failed, checked);
}

TEST_F(GetValuesTest, MalformedArgumentsAreInvalidXml) {
  for (const char* xml : {"", "not xml", "<ContentPathList><ContentPath>/vsp/</ContentPath>", "<<<>>>",
                          "<!-- only a comment -->", "<ContentPath>/vsp/RCS/ESN</ContentPath><broken"}) {
    SCOPED_TRACE(xml);
    mLog->clear();
    expectInvalidXml(getValues(xml, "untouched"), "Server did not provide us with a proper xml string");
  }
}

TEST_F(GetValuesTest, ElementWithoutTextIsInvalidXml) {
  for (const char* xml : {"<ContentPathList><ContentPath/></ContentPathList>",
                          "<ContentPathList><ContentPath>/vsp/RCS/ESN</ContentPath><Other/></ContentPathList>"}) {
    SCOPED_TRACE(xml);
    mLog->clear();
    expectInvalidXml(getValues(xml, "untouched"), "No text was given in XML element");
  }
}

TEST_F(GetValuesTest, UnknownPathFailsTheWholeRequest) {
  ActionResult r = getValues(contentPathList({"/vsp/RCS/ESN", "/vsp/RCS/NOPE"}), "untouched");
  expectFailure(r, 703, "No Such Name");
  EXPECT_EQ(0, mLog->levelOfFirst("Path[/vsp/RCS/NOPE] does not exists in our data model"));
  expectFailure(getValues(contentPathList({"/vsp/CC"}), "untouched"), 703, "No Such Name");
}

TEST_F(GetValuesTest, OversizedArgumentIsInvalidXml) {
  std::string xml = "<ContentPathList>";
  while (xml.size() <= 32 * 1024) {
    xml += "<ContentPath>/vsp/RCS/ESN</ContentPath>";
  }
  xml += "</ContentPathList>";
  expectFailure(getValues(xml, "untouched"), 702, "Invalid XML Argument");
}

TEST_F(GetValuesTest, DottedValuesAreCutToTheirLastComponent) {
  setStatuses({{"CHD Reporting Interval", "1.5.900"},
               {"HDTV.TVResolutions.SelectedResolution", "odd.value.x"},
               {"BuildVersion:", "4.12.7"},
               {"CEC TV Active Source", "1.0.0.0"},
               {"Rx bytes", "12.5"}});
  EXPECT_EQ("900", valueOf("/vsp/CHD/REPORTING_INTERVAL"));
  EXPECT_EQ("x", valueOf("/vsp/HDTV/SELECTED_RESOLUTION"));
  EXPECT_EQ("7", valueOf("/vsp/ClientInfo/SOFTWARE_VERSION"));
  EXPECT_EQ("1.0.0.0", valueOf("/vsp/CHD/CEC_ACTIVE_SOURCE"));
  EXPECT_EQ("12.5", valueOf("/vsp/Connection/RX_BYTES"));
  EXPECT_TRUE(mLog->hasExact("Queried status [Rx bytes] and got value [12.5]"));
  EXPECT_TRUE(mLog->hasExact("Current value is [1.0.0.0]"));
}

TEST_F(GetValuesTest, TimersAndCountersAreDecimal) {
  mStore->startTimer("Connected Timer");
  mClock->advance(7000);
  mStore->setCounter("Wifi Error Counter", 4294967295u);
  EXPECT_EQ("7", valueOf("/vsp/CHD/CONNECTION_DURATION"));
  EXPECT_EQ("0", valueOf("/vsp/ClientInfo/UPTIME"));
  EXPECT_EQ("4294967295", valueOf("/vsp/CHD/WIFI_ERRORS"));
  EXPECT_TRUE(mLog->hasExact("Timer [Connected Timer] has elapsed time [7]"));
  EXPECT_TRUE(mLog->hasExact("Counter [Wifi Error Counter] has count value [4294967295]"));
}

TEST_F(GetValuesTest, SamePathTwiceGivesTwoParameters) {
  ActionResult r = getValues(contentPathList({"/vsp/RCS/ESN", "/vsp/RCS/ESN"}));
  EXPECT_EQ("<ParameterValueList>\n" + parameterXml("/vsp/RCS/ESN", "") + parameterXml("/vsp/RCS/ESN", "") +
                "</ParameterValueList>\n",
            r.out);
}

TEST_F(GetValuesTest, PartialPathsExpandToEveryLeafBelow) {
  ActionResult r = getValues(contentPathList({"/vsp/"}));
  ASSERT_TRUE(r.result.isSuccess());
  EXPECT_EQ(88u, countOf(r.out, "<Parameter>"));
  r = getValues(contentPathList({"/vsp/HDTV/TV_RESOLUTION/", "/vsp/Audio/"}));
  EXPECT_EQ(8u, countOf(r.out, "<Parameter>"));
  EXPECT_EQ(1u, countOf(r.out, "/vsp/Audio/DOLBYDIGITAL"));
}

TEST_F(GetValuesTest, StatusChangesAreTranslatedBeforeTheyAreStored) {
  setStatuses({{"Display.CC.EdgeType", "Display.CC.EdgeType.RightDropShadow"},
               {"HDTV.TVResolutions.1080p", "Common.Off"},
               {"Language", "Common.Spanish"}});
  EXPECT_EQ("DropShadowedEdges", valueOf("/vsp/CC/EDGE_TYPE"));
  EXPECT_EQ("Off", valueOf("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_1080p"));
  EXPECT_EQ("Spanish", valueOf("/vsp/Preferences/LANGUAGE"));
}

}  // namespace
}  // namespace cmtest
