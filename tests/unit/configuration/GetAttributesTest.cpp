// GetAttributes: the same four attributes for every path that starts with a key.
#include <string>

#include "ConfigurationTestSupport.h"

namespace cmtest {
namespace {

typedef ConfigurationTest GetAttributesTest;

std::string node(const std::string& path) {
  return "<Node>\n    <NodeAttributePath>" + path +
         "</NodeAttributePath>\n    <Type>string(32)</Type>\n    <Access>readOnly</Access>\n"
         "    <EventOnChange>0</EventOnChange>\n</Node>\n";
}

std::string pathList(std::initializer_list<std::string> paths) {
  std::string xml = "<NodeAttributePathList>";
  for (const std::string& path : paths) {
    xml += "<NodeAttributePath>" + path + "</NodeAttributePath>";
  }
  return xml + "</NodeAttributePathList>";
}

TEST_F(GetAttributesTest, OnePathPrintsSixLines) {
  ActionResult r = getAttributes(pathList({"/vsp/HDTV/NATIVE"}));
  EXPECT_EQ(0, r.result.kind);
  EXPECT_EQ("", r.result.description);
  EXPECT_EQ(0, r.result.code);
  EXPECT_EQ(
      "<Node>\n"
      "    <NodeAttributePath>/vsp/HDTV/NATIVE</NodeAttributePath>\n"
      "    <Type>string(32)</Type>\n"
      "    <Access>readOnly</Access>\n"
      "    <EventOnChange>0</EventOnChange>\n"
      "</Node>\n",
      r.out);
}

TEST_F(GetAttributesTest, SamePathTwiceGivesTwoNodes) {
  ActionResult r = getAttributes(pathList({"/vsp/CC/CAPTIONING", "/vsp/CC/CAPTIONING"}));
  EXPECT_EQ(node("/vsp/CC/CAPTIONING") + node("/vsp/CC/CAPTIONING"), r.out);
}

TEST_F(GetAttributesTest, ExtraCharactersAfterAKeyAreEchoed) {
  ActionResult r = getAttributes(pathList({"/vsp/HDTV/NATIVE/", "/vsp/RCS/ESN_and_more"}));
  EXPECT_TRUE(r.result.isSuccess());
  EXPECT_EQ(node("/vsp/HDTV/NATIVE/") + node("/vsp/RCS/ESN_and_more"), r.out);
}

TEST_F(GetAttributesTest, PartialPathsAloneHaveNoSuchName) {
  expectFailure(getAttributes(pathList({"/vsp/"}), "untouched"), 703, "No Such Name");
  expectFailure(getAttributes(pathList({"/vsp/CC/"}), "untouched"), 703, "No Such Name");
  expectFailure(getAttributes("<NodeAttributePath>/vsp/CC/</NodeAttributePath>", "untouched"), 703, "No Such Name");
}

TEST_F(GetAttributesTest, PathsOfTablesNotLoadedHaveNoSuchName) {
  destroyService();
  mPlatform->locale = 2;
  createService();
  expectFailure(getAttributes(pathList({"/vsp/CC/CAPTIONING"}), "untouched"), 703, "No Such Name");
  EXPECT_EQ(node("/vsp/CC/SUBTITLES"), getAttributes(pathList({"/vsp/CC/SUBTITLES"})).out);
}

TEST_F(GetAttributesTest, EveryKindOfPathHasTheSameAttributes) {
  const std::string paths[] = {"/vsp/HDTV/TV_RATIO",       "/vsp/CHD/MEDIA_TRANSITION", "/vsp/CHD/CEC_TV_ON",
                               "/vsp/Connection/TX_BYTES", "/vsp/ClientInfo/UPTIME",    "/vsp/CHD/WIFI_ERRORS"};
  for (const std::string& path : paths) {
    EXPECT_EQ(node(path), getAttributes("<NodeAttributePath>" + path + "</NodeAttributePath>").out) << path;
  }
}

TEST_F(GetAttributesTest, TopLevelPathElementsAreAccepted) {
  ActionResult r = getAttributes(
      "<NodeAttributePath>/vsp/RCS/ESN</NodeAttributePath>"
      "<NodeAttributePath>/vsp/CHD/WIFI_ERRORS</NodeAttributePath>");
  EXPECT_EQ(node("/vsp/RCS/ESN") + node("/vsp/CHD/WIFI_ERRORS"), r.out);
}

TEST_F(GetAttributesTest, MalformedArgumentsAreInvalidXml) {
  expectFailure(getAttributes("", "untouched"), 702, "Invalid XML Argument");
  expectFailure(getAttributes("<a><b></a>", "untouched"), 702, "Invalid XML Argument");
  EXPECT_EQ(0, mLog->levelOfFirst("Server didn't provide us with a proper xml string"));
}

TEST_F(GetAttributesTest, EmptyElementIsInvalidXml) {
  expectInvalidXml(getAttributes("<NodeAttributePathList><NodeAttributePath/></NodeAttributePathList>", "untouched"),
                   "No text was given in XML element");
}

TEST_F(GetAttributesTest, SiblingOfAnotherNameDiscardsWhatWasAccepted) {
  ActionResult r = getAttributes(
      "<NodeAttributePathList><NodeAttributePath>/vsp/RCS/ESN</NodeAttributePath><Path>/vsp/RCS/ESN</Path>"
      "</NodeAttributePathList>",
      "untouched");
  expectInvalidXml(r, "Element value should be NodeAttributePath not [Path]");
}

TEST_F(GetAttributesTest, NamespacedListFailsOnItsName) {
  ActionResult r = getAttributes(
      "<cms:NodeAttributePathList><NodeAttributePath>/vsp/RCS/ESN</NodeAttributePath></cms:NodeAttributePathList>",
      "untouched");
  expectFailure(r, 702, "Invalid XML Argument");
  EXPECT_TRUE(mLog->hasExact("Element value should be NodeAttributePath not [cms:NodeAttributePathList]"));
}

TEST_F(GetAttributesTest, ListWithoutPathElementHasNoSuchName) {
  expectFailure(
      getAttributes("<NodeAttributePathList><Other>/vsp/RCS/ESN</Other></NodeAttributePathList>", "untouched"), 703,
      "No Such Name");
}

}  // namespace
}  // namespace cmtest
