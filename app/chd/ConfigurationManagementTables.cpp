// The "/vsp/" data model: which box value stands behind each path, and how
// enumerated values are spelled on the UPnP side and on the box side.
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "ConfigurationManagement.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace {

typedef std::pair<std::string, std::string> KeyPath;

const std::string kRcsPrefix = "RCS.";

// Each pair is (settings, status, timer or counter name; path).
const KeyPath kFileSettingReference[] = {
    {"Audio.Dolby.DolbyDigital", "/vsp/Audio/DOLBYDIGITAL"},
    {"PowerSaving.Enabled", "/vsp/PowerSaving/POWER_SAVING"},
    {"HDTV.Video.Native", "/vsp/HDTV/NATIVE"},
    {"HDTV.TVRatio.AspectRatio", "/vsp/HDTV/TV_RATIO"},
    {"HDTV.Video.ScreenFormat", "/vsp/HDTV/SCREEN_FORMAT"},
    {"HDTV.Video.BarColor", "/vsp/HDTV/BAR_COLOR"},
    {"HDTV.Video.HDMIControl", "/vsp/HDTV/HDMI_CONTROL"},
    {"HDTV.TVResolutions.SelectedResolution", "/vsp/HDTV/SELECTED_RESOLUTION"},
    {"HDTV.TVResolutions.480i", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480i"},
    {"HDTV.TVResolutions.480p", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480p"},
    {"HDTV.TVResolutions.720p", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_720p"},
    {"HDTV.TVResolutions.1080i", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_1080i"},
    {"HDTV.TVResolutions.1080p", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_1080p"},
    {"HDTV.TVResolutions.2160p", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_2160p"},
    {"HDTV.TVResolutions.4320p", "/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_4320p"},
};

// MEDIA_TRANSITION has no key on purpose: the path is part of the tree and of
// the settings, but nothing on the box stands behind it.
const KeyPath kSettingReference[] = {
    {"CHD Reporting Interval", "/vsp/CHD/REPORTING_INTERVAL"},
    {"", "/vsp/CHD/MEDIA_TRANSITION"},
    {"In Standby", "/vsp/Standby/IN_STANDBY"},
};

// Several store keys carry a trailing colon or inner blanks; they are the
// store's own spelling.
const KeyPath kStatusReference[] = {
    {"Language", "/vsp/Preferences/LANGUAGE"},
    {"HDMI Plug", "/vsp/HDTV/HDMI_CONNECTED"},
    {kRcsPrefix + "ReceiverMode.Option", "/vsp/RCS/RECEIVER_CODE"},
    {"ESN", "/vsp/RCS/ESN"},
    {kRcsPrefix + "MultiBox.ReceiverCode", "/vsp/RCS/MULTIBOX_RECEIVER_CODE"},
    {kRcsPrefix + "IRRFSetup.Option", "/vsp/RCS/REMOTE_TYPE"},
    {kRcsPrefix + "MultiBox.Activated", "/vsp/RCS/MULTIBOX_ACTIVATED"},
    {kRcsPrefix + "ProgramDates", "/vsp/RCS/BRAND_PROGRAM_TIME"},
    {kRcsPrefix + "VolumeLock", "/vsp/RCS/VOLUME_LOCK"},
    {kRcsPrefix + "TV" + ".BRAND", "/vsp/RCS/TV/BRAND"},
    {kRcsPrefix + "TV" + ".DEVTYPE", "/vsp/RCS/TV/DEVICE_TYPE"},
    {kRcsPrefix + "TV" + ".CODESET", "/vsp/RCS/TV/CODE_SET"},
    {kRcsPrefix + "AV1" + ".BRAND", "/vsp/RCS/AV1/BRAND"},
    {kRcsPrefix + "AV1" + ".DEVTYPE", "/vsp/RCS/AV1/DEVICE_TYPE"},
    {kRcsPrefix + "AV1" + ".CODESET", "/vsp/RCS/AV1/CODE_SET"},
    {kRcsPrefix + "AV2" + ".BRAND", "/vsp/RCS/AV2/BRAND"},
    {kRcsPrefix + "AV2" + ".DEVTYPE", "/vsp/RCS/AV2/DEVICE_TYPE"},
    {kRcsPrefix + "AV2" + ".CODESET", "/vsp/RCS/AV2/CODE_SET"},
    {"Reset.Timestamp", "/vsp/Reset/RESTART_RECEIVER_TIMESTAMP"},
    {"CamID", "/vsp/ClientInfo/CAM_ID"},
    {"NDSSerialNum", "/vsp/ClientInfo/NDS_SERIAL_NUMBER"},
    {"AP MAC Address", "/vsp/ClientInfo/MAC_ADDRESS"},
    {"MoreInfoWindow.ClientMacAddress", "/vsp/ClientInfo/CLIENT_MAC_ADDRESS"},
    {"BuildVersion:", "/vsp/ClientInfo/SOFTWARE_VERSION"},
    {"TL date", "/vsp/ClientInfo/SOFTWARE_MODIFIED_DATE"},
    {"Client Connection Type", "/vsp/Connection/CONNECTION_TYPE"},
    {"Client Connection Status", "/vsp/Connection/CONNECTED"},
    {"Client Connection Failures", "/vsp/Connection/WEEKLY_CONNECTION_FAILURES"},
    {"Connection Speed", "/vsp/Connection/CONNECTION_SPEED"},
    {"Connection Failure History", "/vsp/Connection/CONNECTION_FAILURES"},
    {"Demux Buffer History", "/vsp/CHD/DEMUX_BUFFER_EMPTY_COUNT"},
    {"Zuna Abort History", "/vsp/CHD/ABORT_COUNT"},
    {"Zuna Segfault History", "/vsp/CHD/SEGFAULT_COUNT"},
    {"RVU Command Failure History", "/vsp/CHD/RVU_COMMAND_FAILURES"},
    {"Dropped Key History", "/vsp/CHD/DROPPED_KEYS"},
    {"MSearch No Response History", "/vsp/CHD/MSEARCH_NO_RESPONSE"},
    {"UPnP Failure History", "/vsp/CHD/UPNP_FAILURES"},
    {"Server Disconnect History", "/vsp/CHD/SERVER_DISCONNECT_COUNT"},
    {"Socket Health Error History", "/vsp/CHD/SOCKET_HEALTH_ERRORS"},
    {"DTCP Failure History", "/vsp/CHD/DTCP_FAILURES"},
    {"HDCP Failure History", "/vsp/CHD/HDCP_FAILURES"},
    {"Audio Decoder Error History", "/vsp/CHD/AUDIO_DECODER_ERRORS"},
    {"Video Decoder Error History", "/vsp/CHD/VIDEO_DECODER_ERRORS"},
    {"Media Stream Definition History", "/vsp/CHD/MEDIA_STREAM_DEFINITIONS"},
    {"Media State History", "/vsp/CHD/MEDIA_STATE"},
    {"Low RSSI History", "/vsp/CHD/LOW_RSSI_COUNT"},
    {"Wifi Congestion", "/vsp/CHD/WIFI_CONGESTION_COUNT"},
    {"Last Remote Key", "/vsp/CHD/REMOTE_LAST_COMMAND"},
    {"HDTV.TVResolutions.CurrentResolution", "/vsp/HDTV/CURRENT_RESOLUTION"},
    {"CEC Capability", "/vsp/CHD/CEC_CAPABILITY"},
    {"CEC TV Version", "/vsp/CHD/CEC_VERSION"},
    {"CEC TV Active Source", "/vsp/CHD/CEC_ACTIVE_SOURCE"},
    {"CEC TV On", "/vsp/CHD/CEC_TV_ON"},
};

const KeyPath kCaptioningSettingsReference[] = {
    {"Display.CC.Captioning", "/vsp/CC/CAPTIONING"},  {"Display.CC.DigitalTrack", "/vsp/CC/DIGITAL_TRACK"},
    {"Display.CC.FontSize", "/vsp/CC/FONT_SIZE"},     {"Display.CC.FontStyle", "/vsp/CC/FONT_STYLE"},
    {"Display.CC.FontColor", "/vsp/CC/FONT_COLOR"},   {"Display.CC.FontOpacity", "/vsp/CC/FONT_OPACITY"},
    {"Display.CC.PanelColor", "/vsp/CC/PANEL_COLOR"}, {"Display.CC.PanelOpacity", "/vsp/CC/PANEL_OPACITY"},
    {"Display.CC.EdgeColor", "/vsp/CC/EDGE_COLOR"},   {"Display.CC.EdgeType", "/vsp/CC/EDGE_TYPE"},
};

const KeyPath kSubtitlesSettingsReference[] = {
    {"Subtitles.Language", "/vsp/CC/SUBTITLES"},
};

const KeyPath kHdtvSettingsReference[] = {
    {"HDTV.TVRatio.Encoding", "/vsp/HDTV/TV_ENCODING"},
};

// AP_MAC_ADDRESS shares its key with /vsp/ClientInfo/MAC_ADDRESS; loaded
// later, it is the path that status changes of that key reach.
const KeyPath kWifiSettingsReference[] = {
    {"Client Signal Strength", "/vsp/Connection/Wifi/SIGNAL_STRENGTH"},
    {"Client Historical RSSI Average", "/vsp/Connection/Wifi/RSSI_AVG"},
    {"Client Historical RSSI Min", "/vsp/Connection/Wifi/RSSI_MIN"},
    {"Client Historical RSSI Max", "/vsp/Connection/Wifi/RSSI_MAX"},
    {"Network Min Uptime", "/vsp/Connection/Wifi/HIST_RSSI_MIN_UPTIME"},
    {"Network Max Uptime", "/vsp/Connection/Wifi/HIST_RSSI_MAX_UPTIME"},
    {"SNR", "/vsp/Connection/Wifi/SNR"},
    {"Channel", "/vsp/Connection/Wifi/CHANNEL"},
    {"Network Name", "/vsp/Connection/Wifi/SSID"},
    {"AP MAC Address", "/vsp/Connection/Wifi/AP_MAC_ADDRESS"},
};

const KeyPath kQuerySettingsReference[] = {
    {"Rx bytes", "/vsp/Connection/RX_BYTES"},
    {"Tx bytes", "/vsp/Connection/TX_BYTES"},
    {"Internal Temp:", "/vsp/ClientInfo/TEMPERATURE"},
};

const KeyPath kQueryTimerReference[] = {
    {"Uptime Timer", "/vsp/ClientInfo/UPTIME"},
    {"Connected Timer", "/vsp/CHD/CONNECTION_DURATION"},
    {"Low RSSI Timer", "/vsp/CHD/LOW_RSSI_DURATION"},
};

const KeyPath kQueryCounterReference[] = {
    {"Wifi Error Counter", "/vsp/CHD/WIFI_ERRORS"},
};

const std::pair<const char*, const char*> kSpecialTranslationReference[] = {
    {"Common.On", "On"},        {"Common.Off", "Off"},          {"Common.Disabled", "Disable"},
    {"Common.Connected", "On"}, {"Common.NotConnected", "Off"},
};

// UPnP value lists.
const char* const kUpnpOnOff[] = {"On", "Off"};
const char* const kUpnpDigitalTrack[] = {"Service1", "Service2", "Service3", "Service4", "Service5", "Service6"};
const char* const kUpnpFontSize[] = {"Small", "Standard", "Large"};
// "Domcasual" is the UPnP spelling; the box spells it "DomCasual".
const char* const kUpnpFontStyle[] = {"TradeGothic", "TimesRoman", "KaufmanBold", "Frutiger1",
                                      "Frutiger2",   "Domcasual",  "Courier",     "Caslon"};
const char* const kUpnpColor[] = {"White", "Black", "Red", "Green", "Blue", "Yellow", "Magenta", "Cyan"};
const char* const kUpnpOpacity[] = {"Opaque", "Translucent", "Transparent", "Flash"};
const char* const kUpnpEdgeType[] = {"NoEdges",        "UniformEdges",      "RaisedEdges",
                                     "DepressedEdges", "DropShadowedEdges", "DropLeftShadowedEdges"};
const char* const kUpnpLanguage[] = {"English", "Spanish", "Portuguese"};
const char* const kUpnpScreenFormat[] = {"Pillarbox", "Letterbox", "Original", "Stretch", "Crop"};
const char* const kUpnpBarColor[] = {"DarkGray", "Black", "Gray"};
const char* const kUpnpTvRatio[] = {"Standard", "Widescreen"};
const char* const kUpnpTvFormat[] = {"Widescreen 16:9", "Standard 4:3"};
const char* const kUpnpTvEncoding[] = {"PALM", "NTSC"};
const char* const kUpnpResolution[] = {"480i", "480p", "720p", "1080i", "1080p", "2160p", "4320p"};
// Ten entries against sixteen on the box side: every subtitles translation
// ends in the list-length mismatch, and that is how the box behaves.
const char* const kUpnpSubtitles[] = {"Automatic", "None", "English", "Spanish", "Portuguese",
                                      "Other",     "CC1",  "CC2",     "CC3",     "CC4"};

// Settings/status value lists.
const char* const kStatusCaptioning[] = {"Display.CC.Captioning.On", "Display.CC.Captioning.Off"};
const char* const kStatusDigitalTrack[] = {"Display.CC.DigitalTrack.Service1", "Display.CC.DigitalTrack.Service2",
                                           "Display.CC.DigitalTrack.Service3", "Display.CC.DigitalTrack.Service4",
                                           "Display.CC.DigitalTrack.Service5", "Display.CC.DigitalTrack.Service6"};
const char* const kStatusFontSize[] = {"Display.CC.FontSize.Small", "Display.CC.FontSize.Standard",
                                       "Display.CC.FontSize.Large"};
const char* const kStatusFontStyle[] = {"Display.CC.FontStyle.TradeGothic", "Display.CC.FontStyle.TimesRoman",
                                        "Display.CC.FontStyle.KaufmanBold", "Display.CC.FontStyle.Frutiger1",
                                        "Display.CC.FontStyle.Frutiger2",   "Display.CC.FontStyle.DomCasual",
                                        "Display.CC.FontStyle.Courier",     "Display.CC.FontStyle.Caslon"};
const char* const kStatusColor[] = {"Common.White", "Common.Black",  "Common.Red",     "Common.Green",
                                    "Common.Blue",  "Common.Yellow", "Common.Magenta", "Common.Cyan"};
const char* const kStatusOpacity[] = {"Display.CC.Opaque", "Display.CC.Translucent", "Display.CC.Transparent",
                                      "Display.CC.Flash"};
const char* const kStatusEdgeType[] = {
    "Display.CC.EdgeType.None",      "Display.CC.EdgeType.Uniform",         "Display.CC.EdgeType.Raised",
    "Display.CC.EdgeType.Depressed", "Display.CC.EdgeType.RightDropShadow", "Display.CC.EdgeType.LeftDropShadow"};
const char* const kStatusDolby[] = {"Audio.Dolby.DolbyDigital.On", "Audio.Dolby.DolbyDigital.Off"};
const char* const kStatusLanguage[] = {"Common.English", "Common.Spanish", "Common.Portuguese"};
const char* const kStatusNative[] = {"HDTV.Video.Native.On", "HDTV.Video.Native.Off"};
const char* const kStatusScreenFormat[] = {"HDTV.Video.ScreenFormat.Pillarbox", "HDTV.Video.ScreenFormat.Letterbox",
                                           "HDTV.Video.ScreenFormat.Original", "HDTV.Video.ScreenFormat.Stretch",
                                           "HDTV.Video.ScreenFormat.Crop"};
const char* const kStatusBarColor[] = {"HDTV.Video.BarColor.DarkGray", "HDTV.Video.BarColor.Black",
                                       "HDTV.Video.BarColor.Gray"};
const char* const kStatusHdmiControl[] = {"HDTV.Video.HDMIControl.On", "HDTV.Video.HDMIControl.Off"};
const char* const kStatusAspectRatio[] = {"HDTV.TVRatio.AspectRatio.Standard", "HDTV.TVRatio.AspectRatio.Widescreen"};
const char* const kStatusEncoding[] = {"HDTV.TVRatio.Encoding.PALM", "HDTV.TVRatio.Encoding.NTSC"};
const char* const kStatusResolution[] = {
    "HDTV.TVResolutions.480i",  "HDTV.TVResolutions.480p",  "HDTV.TVResolutions.720p", "HDTV.TVResolutions.1080i",
    "HDTV.TVResolutions.1080p", "HDTV.TVResolutions.2160p", "HDTV.TVResolutions.4320p"};
const char* const kStatusCommonOnOff[] = {"Common.On", "Common.Off"};
const char* const kStatusPowerSaving[] = {"PowerSaving.Enabled.On", "PowerSaving.Enabled.Off"};
const char* const kStatusSubtitles[] = {
    "Subtitles.Language.Automatic", "Subtitles.Language.None",       "Subtitles.Language.English",
    "Subtitles.Language.Spanish",   "Subtitles.Language.Portuguese", "Subtitles.Language.Chinese",
    "Subtitles.Language.French",    "Subtitles.Language.German",     "Subtitles.Language.Italian",
    "Subtitles.Language.Japanese",  "Subtitles.Language.Korean",     "Subtitles.Language.Other",
    "Subtitles.Language.CC1",       "Subtitles.Language.CC2",        "Subtitles.Language.CC3",
    "Subtitles.Language.CC4"};

struct ValueList {
  const char* name;
  const char* const* values;
  size_t count;
};

template <size_t N>
constexpr ValueList valueList(const char* name, const char* const (&values)[N]) {
  return ValueList{name, values, N};
}

// The paths that carry an enumeration, in load order, with their UPnP list.
const ValueList kUpnpValuePaths[] = {
    valueList("/vsp/CC/CAPTIONING", kUpnpOnOff),
    valueList("/vsp/CC/DIGITAL_TRACK", kUpnpDigitalTrack),
    valueList("/vsp/CC/FONT_SIZE", kUpnpFontSize),
    valueList("/vsp/CC/FONT_STYLE", kUpnpFontStyle),
    valueList("/vsp/CC/FONT_COLOR", kUpnpColor),
    valueList("/vsp/CC/FONT_OPACITY", kUpnpOpacity),
    valueList("/vsp/CC/PANEL_COLOR", kUpnpColor),
    valueList("/vsp/CC/PANEL_OPACITY", kUpnpOpacity),
    valueList("/vsp/CC/EDGE_TYPE", kUpnpEdgeType),
    valueList("/vsp/CC/EDGE_COLOR", kUpnpColor),
    valueList("/vsp/Audio/DOLBYDIGITAL", kUpnpOnOff),
    valueList("/vsp/Preferences/LANGUAGE", kUpnpLanguage),
    valueList("/vsp/HDTV/NATIVE", kUpnpOnOff),
    valueList("/vsp/HDTV/SCREEN_FORMAT", kUpnpScreenFormat),
    valueList("/vsp/HDTV/BAR_COLOR", kUpnpBarColor),
    valueList("/vsp/HDTV/HDMI_CONTROL", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RATIO", kUpnpTvRatio),
    // No reference table holds TV_FORMAT: its list pairs with no box list.
    valueList("/vsp/HDTV/TV_FORMAT", kUpnpTvFormat),
    valueList("/vsp/HDTV/TV_ENCODING", kUpnpTvEncoding),
    valueList("/vsp/HDTV/SELECTED_RESOLUTION", kUpnpResolution),
    valueList("/vsp/HDTV/CURRENT_RESOLUTION", kUpnpResolution),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480i", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_480p", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_720p", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_1080i", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_1080p", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_2160p", kUpnpOnOff),
    valueList("/vsp/HDTV/TV_RESOLUTION/TV_RESOLUTION_4320p", kUpnpOnOff),
    valueList("/vsp/PowerSaving/POWER_SAVING", kUpnpOnOff),
    valueList("/vsp/CC/SUBTITLES", kUpnpSubtitles),
};

// The settings/status keys that carry an enumeration, in load order, with
// their box list. PreviousResolution has no path of its own.
const ValueList kStatusValueKeys[] = {
    valueList("Display.CC.Captioning", kStatusCaptioning),
    valueList("Display.CC.DigitalTrack", kStatusDigitalTrack),
    valueList("Display.CC.FontSize", kStatusFontSize),
    valueList("Display.CC.FontStyle", kStatusFontStyle),
    valueList("Display.CC.FontColor", kStatusColor),
    valueList("Display.CC.FontOpacity", kStatusOpacity),
    valueList("Display.CC.PanelColor", kStatusColor),
    valueList("Display.CC.PanelOpacity", kStatusOpacity),
    valueList("Display.CC.EdgeType", kStatusEdgeType),
    valueList("Display.CC.EdgeColor", kStatusColor),
    valueList("Audio.Dolby.DolbyDigital", kStatusDolby),
    valueList("Language", kStatusLanguage),
    valueList("HDTV.Video.Native", kStatusNative),
    valueList("HDTV.Video.ScreenFormat", kStatusScreenFormat),
    valueList("HDTV.Video.BarColor", kStatusBarColor),
    valueList("HDTV.Video.HDMIControl", kStatusHdmiControl),
    valueList("HDTV.TVRatio.AspectRatio", kStatusAspectRatio),
    valueList("HDTV.TVRatio.Encoding", kStatusEncoding),
    valueList("HDTV.TVResolutions.SelectedResolution", kStatusResolution),
    valueList("HDTV.TVResolutions.PreviousResolution", kStatusResolution),
    valueList("HDTV.TVResolutions.CurrentResolution", kStatusResolution),
    valueList("HDTV.TVResolutions.480i", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.480p", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.720p", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.1080i", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.1080p", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.2160p", kStatusCommonOnOff),
    valueList("HDTV.TVResolutions.4320p", kStatusCommonOnOff),
    valueList("PowerSaving.Enabled", kStatusPowerSaving),
    valueList("Subtitles.Language", kStatusSubtitles),
};

template <size_t N>
void populateValueMap(const ValueList (&lists)[N], ConfigurationManagementService::ValueListMap& map) {
  // Each name is bound to its array in the table itself, so no name can be
  // left without a list here.
  for (const ValueList& list : lists) {
    map[list.name] = ConfigurationManagementService::StringList(list.values, list.values + list.count);
  }
}

const ConfigurationManagementService::StringList& listOf(const ConfigurationManagementService::ValueListMap& map,
                                                         const std::string& key) {
  static const ConfigurationManagementService::StringList kEmpty;
  auto found = map.find(key);
  return found == map.end() ? kEmpty : found->second;
}

std::string valueOf(const ConfigurationManagementService::StringMap& map, const std::string& key) {
  auto found = map.find(key);
  return found == map.end() ? std::string() : found->second;
}

// The entry of to at value's place in from, or nothing when from lacks the
// value. Lists of different lengths pair nothing: the mismatch is logged
// under the two keys as given and "" is the answer.
std::optional<std::string> pairedValue(const ConfigurationManagementService::StringList& from,
                                       const ConfigurationManagementService::StringList& to, const std::string& value,
                                       const std::string& firstKey, const std::string& secondKey) {
  if (from.size() != to.size()) {
    TL_LOG(kLogError, "Mismatch between status and upnp value lists for Status Key [%s] and UPnP Key [%s]",
           firstKey.c_str(), secondKey.c_str());
    return std::string();
  }
  for (size_t i = 0; i < from.size(); ++i) {
    if (from[i] == value) {
      return to[i];
    }
  }
  return std::nullopt;
}

int platformLocale() { return Tolvane::PlatformSettings::getInstance()->getLocale(); }

typedef void (ConfigurationManagementService::*KeyAdder)(std::string, std::string);

template <size_t N>
void loadTable(ConfigurationManagementService& service, const char* name, const KeyPath (&table)[N], KeyAdder add) {
  TL_LOG(kLogDetail, "Loading %s", name);
  for (const KeyPath& entry : table) {
    (service.*add)(entry.second, entry.first);
  }
}

}  // namespace

void ConfigurationManagementService::storeSettings() {
  TL_TRACE();
  typedef ConfigurationManagementService Self;
  populateUpnpValueMap();
  populateStatusValueMap();

  loadTable(*this, "FILE_SETTING_REFERENCE", kFileSettingReference, &Self::addFileSettingKeyMapping);
  loadTable(*this, "SETTING_REFERENCE", kSettingReference, &Self::addSettingKeyMapping);
  loadTable(*this, "STATUS_REFERENCE", kStatusReference, &Self::addStatusKeyMapping);
  if (platformLocale() != 1 && platformLocale() != 2 && platformLocale() != 3) {
    loadTable(*this, "CAPTIONING_SETTINGS_REFERENCE", kCaptioningSettingsReference, &Self::addStatusKeyMapping);
  } else {
    loadTable(*this, "SUBTITLES_SETTINGS_REFERENCE", kSubtitlesSettingsReference, &Self::addStatusKeyMapping);
  }
  if (platformLocale() == 2) {
    loadTable(*this, "HDTV_SETTINGS_REFERENCE", kHdtvSettingsReference, &Self::addStatusKeyMapping);
  }
  if (Tolvane::PlatformSettings::getInstance()->hasWifi()) {
    loadTable(*this, "WIFI_SETTINGS_REFERENCE", kWifiSettingsReference, &Self::addStatusKeyMapping);
  }
  loadTable(*this, "QUERY_SETTINGS_REFERENCE", kQuerySettingsReference, &Self::addQueryKeyMapping);
  loadTable(*this, "QUERY_TIMER_REFERENCE", kQueryTimerReference, &Self::addTimerKeyMapping);
  loadTable(*this, "QUERY_COUNTER_REFERENCE", kQueryCounterReference, &Self::addCounterKeyMapping);

  calculateMaxDepth();
}

void ConfigurationManagementService::calculateMaxDepth() {
  TL_LOG(kLogDetail, "Calculating max depth");
  for (const std::string& path : mModel.upnpKeys) {
    int depth = countDepth(path);
    if (depth > mModel.maxDepth) {
      mModel.maxDepth = depth;
    }
  }
}

void ConfigurationManagementService::populateUpnpValueMap() {
  TL_TRACE();
  populateValueMap(kUpnpValuePaths, mModel.upnpValues);
}

void ConfigurationManagementService::populateStatusValueMap() {
  TL_TRACE();
  populateValueMap(kStatusValueKeys, mModel.statusValues);
}

// Never called at start-up: with this map empty, values of paths without a
// value list are published exactly as the box stores them.
void ConfigurationManagementService::populateSpecialTranslationMap() {
  TL_TRACE();
  for (const auto& entry : kSpecialTranslationReference) {
    mModel.specialTranslations[entry.first] = entry.second;
  }
}

// A path whose value the service keeps in values, recorded with its box key
// both ways; an empty key is recorded only when recordEmptyKey says so.
void ConfigurationManagementService::addTrackedKeyMapping(const std::string& path, const std::string& key,
                                                          bool recordEmptyKey, StringMap& values) {
  mModel.upnpKeys.push_back(path);
  if (recordEmptyKey || !key.empty()) {
    mModel.statusKeys.push_back(key);
    mModel.upnpToStatusKey[path] = key;
    mModel.statusKeyToUpnp[key] = path;
  }
  TL_LOG(kLogInfo, "Adding UPnP Key: [%s]", path.c_str());
  values[path] = "";
}

void ConfigurationManagementService::addFileSettingKeyMapping(std::string path, std::string key) {
  addTrackedKeyMapping(path, key, true, mModel.fileSettings);
}

// Unlike the status adder, an empty key is recorded too (MEDIA_TRANSITION
// maps "" to its path), as the box has always done.
void ConfigurationManagementService::addSettingKeyMapping(std::string path, std::string key) {
  addTrackedKeyMapping(path, key, true, mModel.settings);
}

void ConfigurationManagementService::addStatusKeyMapping(std::string path, std::string key) {
  addTrackedKeyMapping(path, key, false, mModel.statuses);
}

void ConfigurationManagementService::addQueryKeyMapping(std::string path, std::string key) {
  mModel.upnpKeys.push_back(path);
  mModel.upnpToQueryStatus[path] = key;
}

void ConfigurationManagementService::addTimerKeyMapping(std::string path, std::string name) {
  mModel.upnpKeys.push_back(path);
  mModel.upnpToTimerName[path] = name;
}

void ConfigurationManagementService::addCounterKeyMapping(std::string path, std::string name) {
  mModel.upnpKeys.push_back(path);
  mModel.upnpToCounterName[path] = name;
}

bool ConfigurationManagementService::isValidSettingPath(const std::string& path) {
  return mModel.settings.find(path) != mModel.settings.end();
}

bool ConfigurationManagementService::isValidFileSettingPath(const std::string& path) {
  return mModel.fileSettings.find(path) != mModel.fileSettings.end();
}

bool ConfigurationManagementService::isValidUpnpValue(const std::string& path, const std::string& value) {
  auto allowed = mModel.upnpValues.find(path);
  if (allowed == mModel.upnpValues.end()) {
    return isValidFileSettingPath(path) || isValidSettingPath(path);
  }
  for (const std::string& candidate : allowed->second) {
    if (candidate == value) {
      return true;
    }
  }
  return false;
}

std::string ConfigurationManagementService::translateToUpnpValue(std::string path, std::string statusValue) {
  TL_TRACE();
  if (mModel.upnpValues.find(path) == mModel.upnpValues.end()) {
    auto special = mModel.specialTranslations.find(statusValue);
    return special == mModel.specialTranslations.end() ? statusValue : special->second;
  }
  const std::string statusKey = valueOf(mModel.upnpToStatusKey, path);
  // The labels read the other way round in this direction; kept as logged by the box.
  std::optional<std::string> paired = pairedValue(listOf(mModel.statusValues, statusKey),
                                                  listOf(mModel.upnpValues, path), statusValue, path, statusKey);
  if (paired) {
    return *paired;
  }
  TL_LOG(kLogWarning, "Status Value [%s] has no valid mapping for UPnP Key [%s]", statusValue.c_str(), path.c_str());
  return statusValue;
}

std::string ConfigurationManagementService::translateToStatusValue(std::string statusKey, std::string upnpValue) {
  TL_TRACE();
  if (mModel.statusValues.find(statusKey) == mModel.statusValues.end()) {
    return upnpValue;
  }
  const std::string path = valueOf(mModel.statusKeyToUpnp, statusKey);
  std::optional<std::string> paired =
      pairedValue(listOf(mModel.upnpValues, path), listOf(mModel.statusValues, statusKey), upnpValue, statusKey, path);
  if (paired) {
    return *paired;
  }
  TL_LOG(kLogWarning, "UPnP Value [%s] has no valid mapping to Status Key [%s]", upnpValue.c_str(), statusKey.c_str());
  return upnpValue;
}
