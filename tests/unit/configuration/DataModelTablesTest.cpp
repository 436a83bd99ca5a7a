// The data model tables and the value translation.
#include <algorithm>
#include <string>
#include <vector>

#include "ConfigurationTestSupport.h"

namespace cmtest {
namespace {

const std::vector<std::string> kCaptioningPaths = {
    "/vsp/CC/CAPTIONING", "/vsp/CC/DIGITAL_TRACK", "/vsp/CC/FONT_SIZE",   "/vsp/CC/FONT_STYLE",
    "/vsp/CC/FONT_COLOR", "/vsp/CC/FONT_OPACITY",  "/vsp/CC/PANEL_COLOR", "/vsp/CC/PANEL_OPACITY",
    "/vsp/CC/EDGE_COLOR", "/vsp/CC/EDGE_TYPE"};

class DataModelTablesTest : public ConfigurationTest {
 protected:
  void rebuild(int locale, bool wifi) {
    destroyService();
    mPlatform->locale = locale;
    mPlatform->wifi = wifi;
    mLog->clear();
    createService();
  }
  bool hasKey(const std::string& path) {
    const auto& keys = service().dataModel().upnpKeys;
    return std::find(keys.begin(), keys.end(), path) != keys.end();
  }
};

TEST_F(DataModelTablesTest, LocaleZeroWithoutWifiLoads88PathsInTableOrder) {
  const auto& keys = service().dataModel().upnpKeys;
  ASSERT_EQ(88u, keys.size());
  EXPECT_EQ("/vsp/Audio/DOLBYDIGITAL", keys[0]);
  EXPECT_EQ("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_4320p", keys[14]);
  EXPECT_EQ("/vsp/CHD/REPORTING_INTERVAL", keys[15]);
  EXPECT_EQ("/vsp/Standby/IN_STANDBY", keys[17]);
  EXPECT_EQ("/vsp/Preferences/LANGUAGE", keys[18]);
  EXPECT_EQ("/vsp/CHD/CEC_TV_ON", keys[70]);
  EXPECT_EQ("/vsp/CC/CAPTIONING", keys[71]);
  EXPECT_EQ("/vsp/CC/EDGE_TYPE", keys[80]);
  EXPECT_EQ("/vsp/Connection/RX_BYTES", keys[81]);
  EXPECT_EQ("/vsp/ClientInfo/UPTIME", keys[84]);
  EXPECT_EQ("/vsp/CHD/WIFI_ERRORS", keys[87]);
  EXPECT_EQ(15u, service().dataModel().fileSettings.size());
  EXPECT_EQ(3u, service().dataModel().settings.size());
  EXPECT_EQ(63u, service().dataModel().statuses.size());
}

TEST_F(DataModelTablesTest, LocaleTwoWithWifiLoads90Paths) {
  rebuild(2, true);
  EXPECT_EQ(90u, service().dataModel().upnpKeys.size());
  EXPECT_TRUE(hasKey("/vsp/CC/SUBTITLES"));
  EXPECT_TRUE(hasKey("/vsp/HDTV/TV_ENCODING"));
  for (const std::string& path : kCaptioningPaths) {
    EXPECT_FALSE(hasKey(path)) << path;
  }
  EXPECT_TRUE(hasKey("/vsp/Connection/Wifi/AP_MAC_ADDRESS"));
}

TEST_F(DataModelTablesTest, LocalesOneAndThreeLoadSubtitlesButNotTheEncoding) {
  for (int locale : {1, 3}) {
    rebuild(locale, false);
    EXPECT_TRUE(hasKey("/vsp/CC/SUBTITLES")) << locale;
    EXPECT_FALSE(hasKey("/vsp/HDTV/TV_ENCODING")) << locale;
    EXPECT_FALSE(hasKey("/vsp/CC/CAPTIONING")) << locale;
    EXPECT_EQ(79u, service().dataModel().upnpKeys.size()) << locale;
  }
}

TEST_F(DataModelTablesTest, LoadingMessagesComeInTableOrder) {
  rebuild(2, true);
  const char* const order[] = {"Loading FILE_SETTING_REFERENCE",   "Loading SETTING_REFERENCE",
                               "Loading STATUS_REFERENCE",         "Loading SUBTITLES_SETTINGS_REFERENCE",
                               "Loading HDTV_SETTINGS_REFERENCE",  "Loading WIFI_SETTINGS_REFERENCE",
                               "Loading QUERY_SETTINGS_REFERENCE", "Loading QUERY_TIMER_REFERENCE",
                               "Loading QUERY_COUNTER_REFERENCE",  "Calculating max depth"};
  int last = -1;
  for (const char* message : order) {
    int index = mLog->indexOfFirst(message);
    EXPECT_GT(index, last) << message;
    last = index;
  }
  EXPECT_FALSE(mLog->hasExact("Loading CAPTIONING_SETTINGS_REFERENCE"));
}

TEST_F(DataModelTablesTest, SettingPathChecksAreExact) {
  EXPECT_TRUE(service().isValidSettingPath("/vsp/CHD/MEDIA_TRANSITION"));
  EXPECT_FALSE(service().isValidFileSettingPath("/vsp/CHD/REPORTING_INTERVAL"));
  EXPECT_TRUE(service().isValidSettingPath("/vsp/CHD/REPORTING_INTERVAL"));
  EXPECT_FALSE(service().isValidSettingPath("/vsp/CHD/REPORTING_INTERVAL/"));
  EXPECT_FALSE(service().isValidSettingPath("/vsp/chd/reporting_interval"));
  EXPECT_TRUE(service().isValidFileSettingPath("/vsp/HDTV/NATIVE"));
  EXPECT_FALSE(service().isValidFileSettingPath("/vsp/HDTV/NATIVE/"));
}

TEST_F(DataModelTablesTest, MaxDepthIsFourOnEveryPlatform) {
  EXPECT_EQ(4, service().dataModel().maxDepth);
  for (int locale = 0; locale <= 3; ++locale) {
    for (bool wifi : {false, true}) {
      rebuild(locale, wifi);
      EXPECT_EQ(4, service().dataModel().maxDepth) << locale << " " << wifi;
    }
  }
}

TEST_F(DataModelTablesTest, SharedApMacAddressKeyLeadsToThePathLoadedLast) {
  EXPECT_EQ("/vsp/ClientInfo/MAC_ADDRESS", service().dataModel().statusKeyToUpnp.at("AP MAC Address"));
  rebuild(0, true);
  EXPECT_EQ("/vsp/Connection/Wifi/AP_MAC_ADDRESS", service().dataModel().statusKeyToUpnp.at("AP MAC Address"));
  const auto& keys = service().dataModel().statusKeys;
  EXPECT_EQ(2, std::count(keys.begin(), keys.end(), "AP MAC Address"));
}

TEST_F(DataModelTablesTest, EmptySettingKeyIsRecordedButEmptyStatusKeysAreNot) {
  EXPECT_EQ("/vsp/CHD/MEDIA_TRANSITION", service().dataModel().statusKeyToUpnp.at(""));
  EXPECT_EQ("", service().dataModel().upnpToStatusKey.at("/vsp/CHD/MEDIA_TRANSITION"));
  const auto& keys = service().dataModel().statusKeys;
  EXPECT_EQ(1, std::count(keys.begin(), keys.end(), ""));
  // File settings, settings and statuses: 15 + 3 + 53 + 10, then the HDCP key.
  ASSERT_EQ(82u, keys.size());
  EXPECT_EQ("HDCP Failure", keys.back());
  // Queries, timers and counters have no status key.
  EXPECT_EQ(0u, service().dataModel().upnpToStatusKey.count("/vsp/Connection/RX_BYTES"));
  EXPECT_EQ(0u, service().dataModel().upnpToStatusKey.count("/vsp/ClientInfo/UPTIME"));
}

TEST_F(DataModelTablesTest, RemoteControlKeysAreComposedFromThePrefix) {
  const auto& map = service().dataModel().upnpToStatusKey;
  EXPECT_EQ("RCS.ReceiverMode.Option", map.at("/vsp/RCS/RECEIVER_CODE"));
  EXPECT_EQ("RCS.AV2.CODESET", map.at("/vsp/RCS/AV2/CODE_SET"));
  EXPECT_EQ("RCS.TV.DEVTYPE", map.at("/vsp/RCS/TV/DEVICE_TYPE"));
  EXPECT_EQ("BuildVersion:", map.at("/vsp/ClientInfo/SOFTWARE_VERSION"));
}

// Value translation.

TEST_F(DataModelTablesTest, TranslatesBetweenBothSpellings) {
  EXPECT_EQ("Off", service().translateToUpnpValue("/vsp/CC/CAPTIONING", "Display.CC.Captioning.Off"));
  EXPECT_EQ("Display.CC.Captioning.On", service().translateToStatusValue("Display.CC.Captioning", "On"));
  EXPECT_EQ("On", service().translateToUpnpValue("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_720p", "Common.On"));
  EXPECT_EQ("NoEdges", service().translateToUpnpValue("/vsp/CC/EDGE_TYPE", "Display.CC.EdgeType.None"));
  EXPECT_EQ("Display.CC.EdgeType.LeftDropShadow",
            service().translateToStatusValue("Display.CC.EdgeType", "DropLeftShadowedEdges"));
  EXPECT_EQ("Common.Cyan", service().translateToStatusValue("Display.CC.PanelColor", "Cyan"));
  EXPECT_EQ("4320p", service().translateToUpnpValue("/vsp/HDTV/SELECTED_RESOLUTION", "HDTV.TVResolutions.4320p"));
}

TEST_F(DataModelTablesTest, SubtitlesListsOfDifferentLengthAlwaysGiveEmpty) {
  rebuild(2, false);
  EXPECT_EQ("", service().translateToUpnpValue("/vsp/CC/SUBTITLES", "Subtitles.Language.English"));
  EXPECT_TRUE(
      mLog->hasExact("Mismatch between status and upnp value lists for Status Key [/vsp/CC/SUBTITLES] and UPnP Key "
                     "[Subtitles.Language]"));
  EXPECT_EQ(0, mLog->levelOfFirst("Mismatch between status and upnp value lists for Status Key [/vsp/CC/SUBTITLES] and "
                                  "UPnP Key [Subtitles.Language]"));
  EXPECT_EQ("", service().translateToStatusValue("Subtitles.Language", "English"));
  EXPECT_TRUE(
      mLog->hasExact("Mismatch between status and upnp value lists for Status Key [Subtitles.Language] and UPnP Key "
                     "[/vsp/CC/SUBTITLES]"));
}

TEST_F(DataModelTablesTest, TvFormatListPairsWithNothing) {
  EXPECT_EQ("", service().translateToUpnpValue("/vsp/HDTV/TV_FORMAT", "Widescreen 16:9"));
}

TEST_F(DataModelTablesTest, UnknownValueComesBackUnchanged) {
  EXPECT_EQ("Display.CC.FontSize.Huge",
            service().translateToUpnpValue("/vsp/CC/FONT_SIZE", "Display.CC.FontSize.Huge"));
  EXPECT_EQ(2, mLog->levelOfFirst("Status Value [Display.CC.FontSize.Huge] has no valid mapping for UPnP Key "
                                  "[/vsp/CC/FONT_SIZE]"));
  EXPECT_EQ("Huge", service().translateToStatusValue("Display.CC.FontSize", "Huge"));
  EXPECT_EQ(2, mLog->levelOfFirst("UPnP Value [Huge] has no valid mapping to Status Key [Display.CC.FontSize]"));
}

TEST_F(DataModelTablesTest, SpecialTranslationsAreNeverLoaded) {
  EXPECT_TRUE(service().dataModel().specialTranslations.empty());
  EXPECT_EQ("Common.Connected", service().translateToUpnpValue("/vsp/Connection/CONNECTED", "Common.Connected"));
}

TEST_F(DataModelTablesTest, FontStyleMatchesOnlyTheLowerCaseSpelling) {
  EXPECT_EQ("Display.CC.FontStyle.DomCasual", service().translateToStatusValue("Display.CC.FontStyle", "Domcasual"));
  EXPECT_EQ("DomCasual", service().translateToStatusValue("Display.CC.FontStyle", "DomCasual"));
  EXPECT_EQ("Domcasual", service().translateToUpnpValue("/vsp/CC/FONT_STYLE", "Display.CC.FontStyle.DomCasual"));
}

TEST_F(DataModelTablesTest, KeysWithoutValueListPassUntranslated) {
  EXPECT_EQ("900", service().translateToStatusValue("CHD Reporting Interval", "900"));
  EXPECT_EQ("", service().translateToStatusValue("HDTV.TVResolutions.PreviousResolution", "1080p"));
}

}  // namespace
}  // namespace cmtest
