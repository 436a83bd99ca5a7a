// The blob document: its six sections from the followed statuses, the
// incident histories spliced in, under the time stamp of its writing.
#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

#include "CHDBlobWriter.h"
#include "CHDBlobWriterNames.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using namespace blob_writer;

namespace {

// "YYYY-MM-DDThh:mm:ss"
constexpr size_t kTimestampLength = 19;

// The six sections of the blob body, in the order they are built.
constexpr char kClientSection[] = "C-ClientParameters";
constexpr char kNetworkSection[] = "Network";
constexpr char kDisplaySection[] = "Display";
constexpr char kRemoteSection[] = "Remote";
constexpr char kInfoSection[] = "Info";
constexpr char kOtherSection[] = "Other";

}  // namespace

std::string CHDBlobWriter::writeBlob() {
  Json::Value document;
  Json::Value body;
  const std::pair<const char*, Json::Value (CHDBlobWriter::*)()> sections[] = {
      {kClientSection, &CHDBlobWriter::createJSONCHDCClient},  {kNetworkSection, &CHDBlobWriter::createJSONCHDNetwork},
      {kDisplaySection, &CHDBlobWriter::createJSONCHDDisplay}, {kRemoteSection, &CHDBlobWriter::createJSONCHDRemote},
      {kInfoSection, &CHDBlobWriter::createJSONCHDInfo},       {kOtherSection, &CHDBlobWriter::createJSONCHDOther},
  };
  for (const auto& section : sections) {
    TL_LOG(kLogDetail, "Populating [%s]", section.first);
    body[section.first] = (this->*section.second)();
  }
  document[getCurrentTimestamp()] = std::move(body);
  TL_LOG(kLogDetail, "Converting JSON object to string");
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  std::string blob = spliceHistories(writer.write(document));
  TL_LOG(kLogDetail, "CHD JSON Blob [%s]", blob.c_str());
  TL_LOG(kLogDetail, "Posting Blob String with length [%u] to WRITE_CHD_BLOB", static_cast<unsigned>(blob.size()));
  return blob;
}

// The document is written with every history as an empty array; each
// history's own compact text (written by the same writer, entry by entry) then
// takes the place of its "[]". The writer escapes every quote inside a string,
// so "key":[] can only be the member itself, and the result is byte for byte
// what the writer gives for the document with the histories filled in.
std::string CHDBlobWriter::spliceHistories(const std::string& skeleton) const {
  std::vector<std::pair<size_t, const History*>> places;
  size_t length = skeleton.size();
  forEachHistoryRow([&](const HistoryRow& row) {
    const std::string member = std::string("\"") + row.blobKey + "\":[]";
    const size_t found = skeleton.find(member);
    if (found == std::string::npos) {
      TL_LOG(kLogError, "History [%s] missing from the blob", row.blobKey);
      return;
    }
    places.emplace_back(found + member.size() - 2, &mHistories[row.id]);
    length += mHistories[row.id].text().size() - 2;
  });
  std::sort(places.begin(), places.end());
  std::string blob;
  blob.reserve(length);
  size_t copied = 0;
  for (const auto& place : places) {
    blob.append(skeleton, copied, place.first - copied);
    blob += place.second->text();
    copied = place.first + 2;
  }
  blob.append(skeleton, copied, std::string::npos);
  return blob;
}

Json::Value CHDBlobWriter::createJSONCHDCClient() {
  Json::Value client;
  const bool hasWifi = Tolvane::PlatformSettings::getInstance()->hasWifi();
  client["connected"] = mConnectionTable[mConnectionStatus];
  client["connection_duration"] = Json::Value(Json::UInt64(mStatusManager->getTimerElapsed(kConnectedTimer)));
  client["connection_wireless"] = mConnectionType;
  client["wifi_errors"] =
      hasWifi ? Json::Value(Json::UInt(mStatusManager->getCounter(kWifiErrorCounter))) : Json::Value(0);
  // The histories are filled in when the document is written (spliceHistories).
  forEachHistoryRow([&client](const HistoryRow& row) { client[row.blobKey] = Json::Value(Json::arrayValue); });
  client["Reporting_Interval"] = Json::Value(Json::UInt(mReportingInterval));
  return client;
}

Json::Value CHDBlobWriter::createJSONCHDNetwork() {
  Json::Value wifi;
  if (Tolvane::PlatformSettings::getInstance()->hasWifi()) {
    wifi["ap_mac_address"] = mApMacAddress;
    wifi["channel"] = Json::Value(Json::UInt(mChannel));
    wifi["SNR"] = Json::Value(Json::UInt(mSnr));
    wifi["SSID"] = mNetworkName;
    wifi["Low_RSSI_duration"] = Json::Value(Json::UInt64(mStatusManager->getTimerElapsed(kLowRssiTimer)));
    wifi["congestion_count"] = Json::Value(Json::UInt(mCongestionCount));
  } else {
    wifi["ap_mac_address"] = "";
    wifi["channel"] = 0;
    wifi["SNR"] = 0;
    wifi["SSID"] = "";
    wifi["Low_RSSI_duration"] = 0;
    wifi["congestion_count"] = 0;
  }
  Json::Value network;
  network["WiFi"] = std::move(wifi);
  return network;
}

Json::Value CHDBlobWriter::createJSONCHDDisplay() {
  Json::Value display;
  display["Bar"] = Json::Value(Json::UInt(displayCode(mBarColor)));
  display["TV"] = createTvDisplay();
  display["Audio"]["DolbyDigital"] = mDolbyDigital;
  return display;
}

Json::Value CHDBlobWriter::createTvDisplay() {
  Json::Value tv;
  tv["Aspect"] = Json::Value(Json::UInt(displayCode(mAspectRatio)));
  tv["Format"] = Json::Value(Json::UInt(displayCode(mScreenFormat)));
  tv["Native"] = mNative;
  tv["Resolution"]["Current"] = Json::Value(Json::UInt(displayCode(mCurrentResolution)));
  tv["Resolution"]["Selected"] = Json::Value(Json::UInt(displayCode(mSelectedResolution)));
  tv["Res"]["Supported"] = Json::Value(Json::UInt(mSupportedResolutions));
  tv["HDMI"] = createHdmiDisplay();
  return tv;
}

Json::Value CHDBlobWriter::createHdmiDisplay() {
  Json::Value hdmi;
  hdmi["CEC"] = mHdmiControl;
  hdmi["CEC_Capability"] = mCecCapability;
  hdmi["CEC_Version"] = mCecTvVersion;
  if (mHdmiControl) {
    hdmi["CEC_ActiveSource"] = mCecTvActiveSource;
  }
  hdmi["CEC_TV_On"] = mCecTvOn;
  return hdmi;
}

Json::Value CHDBlobWriter::createJSONCHDRemote() {
  Json::Value remote;
  remote["LastCommand"] = mLastRemoteKey;
  return remote;
}

Json::Value CHDBlobWriter::createJSONCHDInfo() {
  Json::Value info;
  info["PowerMode"] = Json::Value(Json::UInt(displayCode(mPowerSaving)));
  return info;
}

Json::Value CHDBlobWriter::createJSONCHDOther() {
  Json::Value other;
  other["In_Standby"] = mInStandby;
  return other;
}

// An unknown setting value reports 0 and stays in the table with that code.
unsigned CHDBlobWriter::displayCode(const std::string& settingValue) { return mDisplayCodes[settingValue]; }

// The buffer leaves room for any year; one beyond 9999 is cut to the same width.
std::string CHDBlobWriter::formatTimestamp(time_t when) {
  struct tm utc = {};
  gmtime_r(&when, &utc);
  char text[64] = {};
  const size_t length = strftime(text, sizeof(text), "%FT%T", &utc);
  return std::string(text, std::min(length, kTimestampLength));
}

std::string CHDBlobWriter::getCurrentTimestamp() { return formatTimestamp(time(nullptr)); }
