// GetSupportedDataModels, GetSupportedParameters, GetInstances and the path helpers.
#include <string>
#include <vector>

#include "ConfigurationTestSupport.h"

namespace cmtest {
namespace {

typedef ConfigurationTest PathTreeQueriesTest;

TEST_F(PathTreeQueriesTest, CountDepthCountsSlashes) {
  EXPECT_EQ(-1, service().countDepth(""));
  EXPECT_EQ(2, mLog->levelOfFirst("Path was empty returning with a count of -1"));
  EXPECT_EQ(1, service().countDepth("/"));
  EXPECT_EQ(0, service().countDepth("vsp"));
  EXPECT_EQ(1, service().countDepth("/vsp"));
  EXPECT_EQ(2, service().countDepth("/vsp/"));
  EXPECT_EQ(3, service().countDepth("/vsp/CC/CAPTIONING"));
  EXPECT_EQ(4, service().countDepth("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480i"));
}

TEST_F(PathTreeQueriesTest, SupportedDataModelsIsOneSubTree) {
  std::string out = "untouched";
  zuna_upnp::UPnPReturn result;
  runOn(dispatcher(), [&] { result = service().GetSupportedDataModels(out); });
  EXPECT_EQ(0, result.kind);
  EXPECT_EQ("", result.description);
  EXPECT_EQ(0, result.code);
  EXPECT_EQ(
      "<SubTree>\n"
      "    <URI>urn:schemas-upnp-org:device:ManageableDevice:1</URI>\n"
      "    <Location>/vsp/</Location>\n"
      "</SubTree>\n",
      out);
}

TEST_F(PathTreeQueriesTest, InstancesAreAlwaysEmpty) {
  std::string out = "untouched";
  zuna_upnp::UPnPReturn result(1, "x", 1);
  runOn(dispatcher(), [&] { result = service().GetInstances("/vsp/", 0, out); });
  EXPECT_TRUE(result.isSuccess());
  EXPECT_EQ(0, result.code);
  EXPECT_EQ("", out);
  runOn(dispatcher(), [&] { result = service().GetInstances("nonsense", 2147483648u, out); });
  EXPECT_TRUE(result.isSuccess());
}

TEST_F(PathTreeQueriesTest, DepthOneBelowTheRootListsEighteenNodes) {
  const std::vector<std::string> expected = {
      "/vsp/Audio/", "/vsp/PowerSaving/", "/vsp/HDTV/",  "/vsp/CHD/",        "/vsp/Standby/",    "/vsp/Preferences/",
      "/vsp/HDTV/",  "/vsp/RCS/",         "/vsp/Reset/", "/vsp/ClientInfo/", "/vsp/Connection/", "/vsp/CHD/",
      "/vsp/HDTV/",  "/vsp/CHD/",         "/vsp/CC/",    "/vsp/Connection/", "/vsp/ClientInfo/", "/vsp/CHD/"};
  EXPECT_EQ(expected, supportedParameters("/vsp/", 1));
}

TEST_F(PathTreeQueriesTest, DepthOneBelowHdtvListsNineEntries) {
  const std::vector<std::string> expected = {
      "/vsp/HDTV/NATIVE",         "/vsp/HDTV/TV_RATIO",       "/vsp/HDTV/SCREEN_FORMAT",
      "/vsp/HDTV/BAR_COLOR",      "/vsp/HDTV/HDMI_CONTROL",   "/vsp/HDTV/SELECTED_RESOLUTION",
      "/vsp/HDTV/TV_RESOLUTION/", "/vsp/HDTV/HDMI_CONNECTED", "/vsp/HDTV/CURRENT_RESOLUTION"};
  EXPECT_EQ(expected, supportedParameters("/vsp/HDTV/", 1));
}

TEST_F(PathTreeQueriesTest, DepthZeroListsEveryKeyInLoadOrder) {
  std::vector<std::string> paths = supportedParameters("/vsp/", 0);
  const auto& keys = service().dataModel().upnpKeys;
  ASSERT_EQ(88u, paths.size());
  EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.end()), paths);
  for (const std::string& path : paths) {
    EXPECT_NE('/', path.back()) << path;
  }
}

TEST_F(PathTreeQueriesTest, RemoteControlNodeListsLeavesAndThreeDeviceNodes) {
  const std::vector<std::string> expected = {"/vsp/RCS/RECEIVER_CODE",
                                             "/vsp/RCS/ESN",
                                             "/vsp/RCS/MULTIBOX_RECEIVER_CODE",
                                             "/vsp/RCS/REMOTE_TYPE",
                                             "/vsp/RCS/MULTIBOX_ACTIVATED",
                                             "/vsp/RCS/BRAND_PROGRAM_TIME",
                                             "/vsp/RCS/VOLUME_LOCK",
                                             "/vsp/RCS/TV/",
                                             "/vsp/RCS/AV1/",
                                             "/vsp/RCS/AV2/"};
  EXPECT_EQ(expected, supportedParameters("/vsp/RCS/", 1));
}

TEST_F(PathTreeQueriesTest, CaptioningNodeAtDepthZeroListsTheTenCaptioningPaths) {
  ActionResult r = getSupportedParameters("/vsp/CC/", 0);
  ASSERT_EQ(0, r.result.code);
  std::string expected;
  for (const char* path : {"/vsp/CC/CAPTIONING", "/vsp/CC/DIGITAL_TRACK", "/vsp/CC/FONT_SIZE", "/vsp/CC/FONT_STYLE",
                           "/vsp/CC/FONT_COLOR", "/vsp/CC/FONT_OPACITY", "/vsp/CC/PANEL_COLOR", "/vsp/CC/PANEL_OPACITY",
                           "/vsp/CC/EDGE_COLOR", "/vsp/CC/EDGE_TYPE"}) {
    expected += std::string("<StructurePath>") + path + "</StructurePath>\n";
  }
  EXPECT_EQ(expected, r.out);
}

TEST_F(PathTreeQueriesTest, KnownLeafIsAnsweredWithItselfAtEveryDepth) {
  for (unsigned depth : {0u, 1u, 2u, 7u, 2147483647u}) {
    EXPECT_EQ(std::vector<std::string>{"/vsp/CC/CAPTIONING"}, supportedParameters("/vsp/CC/CAPTIONING", depth))
        << depth;
  }
  EXPECT_EQ(5, mLog->levelOfFirst("Path [/vsp/CC/CAPTIONING] is a valid key for mStatuses"));
}

TEST_F(PathTreeQueriesTest, EveryKindOfLeafIsValid) {
  const std::pair<const char*, const char*> leaves[] = {
      {"/vsp/HDTV/NATIVE", "mFileSettings"},
      {"/vsp/CHD/MEDIA_TRANSITION", "mSettings"},
      {"/vsp/CHD/CEC_TV_ON", "mStatuses"},
      {"/vsp/ClientInfo/TEMPERATURE", "mUpnpToQueryStatusMap"},
      {"/vsp/CHD/LOW_RSSI_DURATION", "mUpnpToTimerNameMap"},
      {"/vsp/CHD/WIFI_ERRORS", "mUpnpToCounterNameMap"},
  };
  for (const auto& leaf : leaves) {
    EXPECT_EQ(std::vector<std::string>{leaf.first}, supportedParameters(leaf.first, 1));
    EXPECT_TRUE(mLog->hasExact(std::string("Path [") + leaf.first + "] is a valid key for " + leaf.second))
        << leaf.first;
  }
}

TEST_F(PathTreeQueriesTest, PartialPathWithoutSlashIsAnUnknownLeaf) {
  ActionResult r = getSupportedParameters("/vsp/CC", 1, "untouched");
  EXPECT_EQ(1, r.result.kind);
  EXPECT_EQ("No Such Name", r.result.description);
  EXPECT_EQ(703, r.result.code);
  EXPECT_EQ("untouched", r.out);
  EXPECT_EQ(2, mLog->levelOfFirst("Path [/vsp/CC] is NOT a valid UPnP path key"));
}

TEST_F(PathTreeQueriesTest, UnknownPartialPathHasNoSuchName) {
  ActionResult r = getSupportedParameters("/vsp/Nothing/", 0, "untouched");
  EXPECT_EQ(703, r.result.code);
  EXPECT_EQ("untouched", r.out);
}

TEST_F(PathTreeQueriesTest, InvalidDepthsAreArgumentSyntaxErrors) {
  struct Case {
    const char* node;
    unsigned depth;
  };
  const Case cases[] = {
      {"/vsp/", 2147483648u},
      {"/vsp/", 4294967295u},
      {"/vsp/CC/CAPTIONING", 2147483648u},
      {"", 0},
      {"vsp", 0},
      {"", 1},
      {"", 2},
      {"", 9},
  };
  for (const Case& c : cases) {
    ActionResult r = getSupportedParameters(c.node, c.depth, "untouched");
    EXPECT_EQ(1, r.result.kind) << c.node << " " << c.depth;
    EXPECT_EQ("Invalid Argument Syntax", r.result.description);
    EXPECT_EQ(701, r.result.code) << c.node << " " << c.depth;
    EXPECT_EQ("untouched", r.out);
  }
}

TEST_F(PathTreeQueriesTest, DepthZeroOnAOneSlashNodeMeansNoLimit) {
  // "/" has depth 1: no limit, and it is a prefix of every key.
  EXPECT_EQ(88u, supportedParameters("/", 0).size());
}

TEST_F(PathTreeQueriesTest, ValidPathsAppendDuplicatesOncePerKey) {
  std::vector<std::string> paths;
  bool found = false;
  runOn(dispatcher(), [&] { found = service().getValidPaths("/vsp/RCS/", paths, 3); });
  EXPECT_TRUE(found);
  ASSERT_EQ(16u, paths.size());
  EXPECT_EQ("/vsp/RCS/TV/", paths[7]);
  EXPECT_EQ("/vsp/RCS/TV/", paths[8]);
  EXPECT_EQ("/vsp/RCS/TV/", paths[9]);
}

}  // namespace
}  // namespace cmtest
