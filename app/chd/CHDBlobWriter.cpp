#include "CHDBlobWriter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "zuna_util/StringUtil.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace {

constexpr uint32_t kDefaultReportingInterval = 900;
constexpr uint32_t kMinReportingInterval = 900;
constexpr uint32_t kMaxReportingInterval = 43200;
// The first blob waits 1000 ms per interval second, the following ones only
// 100 ms per second: the period after the first is a tenth of the interval.
constexpr uint32_t kFirstBlobDelayFactor = 1000;
constexpr uint32_t kNextBlobDelayFactor = 100;

// Histories up to this size are published as soon as the incidents queued
// before the publication have been handled; bigger ones once they have grown
// by a quarter, and at the latest this long after their last change.
constexpr size_t kAlwaysPublishedHistoryBytes = size_t{64} * 1024;
constexpr unsigned kDeferredPublicationMs = 500;

// Values are logged up to this many bytes: a status can be any size.
constexpr size_t kLoggedValueBytes = 512;

constexpr char kThreadName[] = "CHDBlobWriter";
constexpr char kWriteBlobEvent[] = "Write CHD Blob Event";
constexpr char kTrackedParameterEvent[] = "CHD Tracked Parameter Event";
constexpr char kMediaStreamDefinitionEvent[] = "Media Stream Definition Event";
constexpr char kMediaStateEvent[] = "Media State Event";

constexpr char kReportingIntervalKey[] = "CHD Reporting Interval";
constexpr char kConnectionStatusKey[] = "Client Connection Status";
constexpr char kConnectionTypeKey[] = "Client Connection Type";
constexpr char kApMacAddressKey[] = "AP MAC Address";
constexpr char kChannelKey[] = "Channel";
constexpr char kSnrKey[] = "SNR";
constexpr char kNetworkNameKey[] = "Network Name";
constexpr char kFrontPanelColorKey[] = "Front Panel Status Color";
constexpr char kCongestionKey[] = "Wifi Congestion";
constexpr char kAspectRatioKey[] = "HDTV.TVRatio.AspectRatio";
constexpr char kCurrentResolutionKey[] = "HDTV.TVResolutions.CurrentResolution";
constexpr char kSelectedResolutionKey[] = "HDTV.TVResolutions.SelectedResolution";
constexpr char kLastRemoteKeyKey[] = "Last Remote Key";
constexpr char kInStandbyKey[] = "In Standby";
constexpr char kCecCapabilityKey[] = "CEC Capability";
constexpr char kCecTvVersionKey[] = "CEC TV Version";
constexpr char kCecTvActiveSourceKey[] = "CEC TV Active Source";
constexpr char kCecTvOnKey[] = "CEC TV On";
constexpr char kHdmiControlKey[] = "HDTV.Video.HDMIControl";
constexpr char kPowerSavingKey[] = "PowerSaving.Enabled";
constexpr char kScreenFormatKey[] = "HDTV.Video.ScreenFormat";
constexpr char kNativeKey[] = "HDTV.Video.Native";
constexpr char kBarColorKey[] = "HDTV.Video.BarColor";
constexpr char kDolbyDigitalKey[] = "Audio.Dolby.DolbyDigital";

constexpr char kConnectedTimer[] = "Connected Timer";
constexpr char kLowRssiTimer[] = "Low RSSI Timer";
constexpr char kUptimeTimer[] = "Uptime Timer";
constexpr char kWifiErrorCounter[] = "Wifi Error Counter";

constexpr char kConnected[] = "Common.Connected";
constexpr char kResolutionOn[] = "Common.On";

// The six sections of the blob body, in the order they are built.
constexpr char kClientSection[] = "C-ClientParameters";
constexpr char kNetworkSection[] = "Network";
constexpr char kDisplaySection[] = "Display";
constexpr char kRemoteSection[] = "Remote";
constexpr char kInfoSection[] = "Info";
constexpr char kOtherSection[] = "Other";

const std::pair<const char*, uint32_t> kDisplayCodeRows[] = {
    {"HDTV.TVRatio.AspectRatio.Standard", 0}, {"HDTV.TVRatio.AspectRatio.Widescreen", 1},
    {"HDTV.TVResolutions.480i", 0},           {"HDTV.TVResolutions.480p", 1},
    {"HDTV.TVResolutions.720p", 2},           {"HDTV.TVResolutions.1080i", 3},
    {"HDTV.TVResolutions.1080p", 4},          {"HDTV.TVResolutions.2160p", 5},
    {"HDTV.Video.ScreenFormat.Letterbox", 1}, {"HDTV.Video.ScreenFormat.Stretch", 2},
    {"HDTV.Video.ScreenFormat.Crop", 3},      {"HDTV.Video.ScreenFormat.Pillarbox", 4},
    {"HDTV.Video.ScreenFormat.Original", 5},  {"HDTV.Video.BarColor.Black", 0},
    {"HDTV.Video.BarColor.DarkGray", 1},      {"HDTV.Video.BarColor.Gray", 2},
    {"PowerSaving.Enabled.Off", 0},           {"PowerSaving.Enabled.On", 1},
};

const std::pair<const char*, uint32_t> kResolutionBitRows[] = {
    {"HDTV.TVResolutions.480i", 1},   {"HDTV.TVResolutions.480p", 2},   {"HDTV.TVResolutions.720p", 4},
    {"HDTV.TVResolutions.1080i", 8},  {"HDTV.TVResolutions.1080p", 16}, {"HDTV.TVResolutions.2160p", 32},
    {"HDTV.TVResolutions.4320p", 64},
};

// Precision argument of "%.*s" for a value in a log message.
int loggedLength(const std::string& value) { return static_cast<int>(std::min(value.size(), kLoggedValueBytes)); }

// A fresh string instead of an assignment, which would keep the capacity of a
// big earlier value for as long as the field lives.
void replaceText(std::string& field, const std::string& value) { std::string(value).swap(field); }

const std::string* findStatus(const StatusMap& statuses, const char* key) {
  const auto found = statuses.find(key);
  return found != statuses.end() ? &found->second : nullptr;
}

void storeIfPresent(const StatusMap& statuses, const char* key, std::string& field) {
  if (const std::string* value = findStatus(statuses, key)) {
    replaceText(field, *value);
  }
}

void storeFlagIfPresent(const StatusMap& statuses, const char* key, const char* onValue, bool& flag) {
  if (const std::string* value = findStatus(statuses, key)) {
    flag = *value == onValue;
  }
}

// failureFormat takes the value as "%.*s".
void parseNumberIfPresent(const StatusMap& statuses, const char* key, const char* failureFormat, uint32_t& number) {
  const std::string* value = findStatus(statuses, key);
  if (value != nullptr && !zuna_util::fromString(number, *value)) {
    tl_log_print(kLogError, __PRETTY_FUNCTION__, __FILE__, __LINE__, failureFormat, loggedLength(*value),
                 value->c_str());
  }
}

// Delivers a posted event on the writer's thread when the store's callback
// reached the writer elsewhere (the store's agents already run there).
class EventPostedAgent : public Tolvane::EventAgent {
 public:
  EventPostedAgent(CHDBlobWriter* writer, std::string name, std::string value)
      : Tolvane::EventAgent(writer), mWriter(writer), mName(std::move(name)), mValue(std::move(value)) {}
  void run() override { mWriter->notifyEventPosted(mName, mValue); }

 private:
  CHDBlobWriter* mWriter;
  std::string mName;
  std::string mValue;
};

template <class Agent, class... Args>
Tolvane::SmartPtr<Tolvane::EventAgent> makeAgent(Args&&... args) {
  return Tolvane::SmartPtr<Tolvane::EventAgent>(new Agent(std::forward<Args>(args)...));
}

}  // namespace

const CHDBlobWriter::HistoryRow CHDBlobWriter::kTrackedParameters[] = {
    {"Connection Failure", "connection_failures", "Connection Failure History",
     "Timestamp logged for CONNECTION_FAILURE", kConnectionFailures},
    {"Demux Buffer Empty", "demux_buffer_empty_count", "Demux Buffer History",
     "Timestamp logged for DEMUX_BUFFER_EMPTY", kDemuxBufferEmpty},
    {"Zuna Abort", "abort_count", "Zuna Abort History", "Timestamp logged for ZUNA_ABORT", kZunaAbort},
    {"Zuna Segfault", "segfault_count", "Zuna Segfault History", "Timestamp logged for ZUNA_SEGFAULT", kZunaSegfault},
    {"RVU Command Failure", "rvu_command_failures", "RVU Command Failure History",
     "Timestamp logged for RVU_COMMAND_FAILURE", kRvuCommandFailures},
    {"Dropped Key", "DroppedKeys", "Dropped Key History", "Timestamp logged for DROPPED_KEY", kDroppedKeys},
    {"MSearch No Response", "msearch_no_response", "MSearch No Response History",
     "Timestamp logged for MSEARCH_NO_RESPONSE", kMsearchNoResponse},
    {"UPnP Failure", "upnp_failures", "UPnP Failure History", "Timestamp logged for UPNP_FAILURE", kUpnpFailures},
    {"Server Disconnect", "server_disconnect_count", "Server Disconnect History",
     "Timestamp logged for SERVER_DISCONNECT", kServerDisconnect},
    {"Socket Health Error", "socket_health_errors", "Socket Health Error History",
     "Timestamp logged for SOCKET_HEALTH_ERROR", kSocketHealthErrors},
    {"DTCP Failure", "dtcp_failures", "DTCP Failure History", "Timestamp logged for DTCP_FAILURE", kDtcpFailures},
    {"HDCP Failure", "hdcp_failures", "HDCP Failure History", "Timestamp logged for HDCP_FAILURE", kHdcpFailures},
    {"Audio Decoder Error", "audio_decoder_errors", "Audio Decoder Error History",
     "Timestamp logged for AUDIO_DECODER_ERROR", kAudioDecoderErrors},
    {"Video Decoder Error", "video_decoder_errors", "Video Decoder Error History",
     "Timestamp logged for VIDEO_DECODER_ERROR", kVideoDecoderErrors},
};

const CHDBlobWriter::HistoryRow CHDBlobWriter::kDataEvents[] = {
    {kMediaStreamDefinitionEvent, "media_stream_definitions", "Media Stream Definition History",
     "Data logged for MEDIA_STREAM_DEFINITION", kMediaStreamDefinitions},
    {kMediaStateEvent, "media_state", "Media State History", "Data logged for MEDIA_STATE", kMediaState},
};

const CHDBlobWriter::HistoryRow CHDBlobWriter::kLowRssiHistory = {nullptr, "Low_RSSI_count", "Low RSSI History",
                                                                  nullptr, kLowRssi};

template <class Visit>
void CHDBlobWriter::forEachHistoryRow(Visit visit) {
  for (const HistoryRow& row : kTrackedParameters) {
    visit(row);
  }
  visit(kLowRssiHistory);
  for (const HistoryRow& row : kDataEvents) {
    visit(row);
  }
}

// ---------------------------------------------------------------------------
// History

void CHDBlobWriter::History::append(const std::string& entryText) {
  mText.pop_back();  // the closing bracket
  if (mSize > 0) {
    mText += ',';
  }
  mText += entryText;
  mText += ']';
  ++mSize;
}

void CHDBlobWriter::History::clear() {
  // Swapping gives a long period's buffer back instead of keeping its capacity.
  std::string("[]").swap(mText);
  mSize = 0;
  mChanged = false;
  mPublishedLength = 0;
}

void CHDBlobWriter::History::markPublished() {
  mChanged = false;
  mPublishedLength = mText.size();
}

bool CHDBlobWriter::History::worthPublishingNow() const {
  return mText.size() <= kAlwaysPublishedHistoryBytes || mText.size() - mPublishedLength >= mPublishedLength / 4;
}

// ---------------------------------------------------------------------------
// Construction, lifecycle and scheduling

CHDBlobWriter::CHDBlobWriter()
    : mReportingInterval(kDefaultReportingInterval),
      mEventThread(std::make_unique<Tolvane::EventThread>(kThreadName, 0)),
      mStatusManager(StatusManager::getInstance(false)) {
  TL_TRACE();
  mCompactWriter.omitEndingLineFeed();
  fillTables();
  reset();
  registerWithStatusStore();
  mStatusManager->startTimer(kUptimeTimer);
}

CHDBlobWriter::~CHDBlobWriter() {
  TL_TRACE();
  // No callback may be queued for a listener that is about to go; the store's
  // agents carry the listener pointer, the writer's own agents the writer.
  mStatusManager->removeListener(this);
  mEventThread->removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(this));
  mEventThread->removeAgentsByReceiver(this);
  stop();
  // Incidents already handled still reach their history statuses.
  mEventThread->send(makeAgent<Tolvane::SyncEventAgent>(this, &CHDBlobWriter::publishAllChangedHistories));
  mEventThread->shutdown();
  mEventThread.reset();
}

void CHDBlobWriter::fillTables() {
  forEachHistoryRow([this](const HistoryRow& row) { mHistoryStatusKeys[row.id] = row.statusKey; });
  mConnectionTable[kConnected] = "On";
  mConnectionTable["Common.NotConnected"] = "Off";
  for (const auto& row : kDisplayCodeRows) {
    mDisplayCodes[row.first] = row.second;
  }
  for (const auto& row : kResolutionBitRows) {
    mResolutionBits[row.first] = row.second;
    mResolutionList.emplace_back(row.first);
  }
}

void CHDBlobWriter::registerWithStatusStore() {
  mStatusManager->addListener(this, mEventThread.get());
  StatusNameList keys = {kReportingIntervalKey, kConnectionStatusKey, kConnectionTypeKey};
  if (Tolvane::PlatformSettings::getInstance()->hasWifi()) {
    keys.insert(keys.end(),
                {kApMacAddressKey, kChannelKey, kSnrKey, kNetworkNameKey, kFrontPanelColorKey, kCongestionKey});
  }
  keys.insert(keys.end(),
              {kAspectRatioKey, kCurrentResolutionKey, kSelectedResolutionKey, kLastRemoteKeyKey, kInStandbyKey,
               kCecCapabilityKey, kCecTvVersionKey, kCecTvActiveSourceKey, kCecTvOnKey, kHdmiControlKey,
               kPowerSavingKey, kScreenFormatKey, kNativeKey, kBarColorKey, kDolbyDigitalKey});
  keys.insert(keys.end(), mResolutionList.begin(), mResolutionList.end());
  mStatusManager->registerStatusKeys(this, keys);
  mStatusManager->registerEventNames(this, {kTrackedParameterEvent, kMediaStreamDefinitionEvent, kMediaStateEvent});
}

void CHDBlobWriter::start() {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->post(makeAgent<Tolvane::AsyncEventAgent>(this, &CHDBlobWriter::start));
    return;
  }
  if (!mPendingBlobAgent) {
    scheduleBlob(kFirstBlobDelayFactor * mReportingInterval);
  }
}

void CHDBlobWriter::stop() {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->send(makeAgent<Tolvane::SyncEventAgent>(this, &CHDBlobWriter::stop));
    return;
  }
  cancelPendingBlob();
}

bool CHDBlobWriter::genChdDataBlob() {
  TL_TRACE();
  TL_LOG(kLogInfo, "GenCHDData command received, creating CHD Diagnostics Blob");
  createJSONCHDBlob(false);
  return true;
}

void CHDBlobWriter::createJSONCHDBlob(bool reschedule) {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->post(makeAgent<Tolvane::AsyncEventAgent>(this, &CHDBlobWriter::createJSONCHDBlob, reschedule));
    return;
  }
  if (reschedule) {
    cancelPendingBlob();
  }
  // The history statuses keep the period's last texts after the reset.
  publishAllChangedHistories();
  const std::string blob = writeBlob();
  mStatusManager->postEvent(kWriteBlobEvent, blob, 0);
  reset();
  if (reschedule) {
    TL_LOG(kLogDetail, "Rescheduling blob gen in %u seconds", mReportingInterval);
    scheduleBlob(kNextBlobDelayFactor * mReportingInterval);
  }
}

void CHDBlobWriter::scheduleBlob(unsigned delayMs) {
  mPendingBlobAgent.reset(new Tolvane::AsyncEventAgent(this, &CHDBlobWriter::createJSONCHDBlob, true));
  mEventThread->postDelayed(mPendingBlobAgent, delayMs);
}

void CHDBlobWriter::cancelPendingBlob() {
  if (mPendingBlobAgent) {
    mEventThread->cancel(mPendingBlobAgent);
    mPendingBlobAgent = nullptr;
  }
}

void CHDBlobWriter::reset() {
  TL_TRACE();
  for (History& history : mHistories) {
    history.clear();
  }
  if (Tolvane::PlatformSettings::getInstance()->hasWifi()) {
    mStatusManager->setCounter(kWifiErrorCounter, 0);
    if (mLowRssiActive) {
      mStatusManager->startTimer(kLowRssiTimer);
    } else {
      mStatusManager->stopTimer(kLowRssiTimer);
    }
  }
  if (mConnectionStatus == kConnected) {
    mStatusManager->startTimer(kConnectedTimer);
  } else {
    mStatusManager->stopTimer(kConnectedTimer);
  }
}

// ---------------------------------------------------------------------------
// Blob document

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

// "%FT%TZ" needs 21 bytes with its terminator but the formatter may use only
// 20: it fails and leaves date, T and time without the zone letter, which is
// the form receivers of the blob know.
std::string CHDBlobWriter::getCurrentTimestamp() {
  const time_t now = time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  char text[21];
  memset(text, 0, sizeof(text));
  (void)strftime(text, 20, "%FT%TZ", &utc);
  return text;
}

// ---------------------------------------------------------------------------
// Event tracking

void CHDBlobWriter::notifyEventPosted(std::string name, std::string value) {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->post(makeAgent<EventPostedAgent>(this, std::move(name), std::move(value)));
    return;
  }
  if (name == kTrackedParameterEvent) {
    const auto row = std::find_if(std::begin(kTrackedParameters), std::end(kTrackedParameters),
                                  [&value](const HistoryRow& candidate) { return value == candidate.eventValue; });
    if (row != std::end(kTrackedParameters)) {
      TL_LOG(kLogDetail, "%s", row->logText);
      appendAndPublish(*row, std::string());
    }
    return;
  }
  for (const HistoryRow& row : kDataEvents) {
    if (name == row.eventValue) {
      TL_LOG(kLogDetail, "%s", row.logText);
      appendAndPublish(row, value);
      return;
    }
  }
}

void CHDBlobWriter::appendAndPublish(const HistoryRow& row, const std::string& data) {
  updateCHDParameterTimestamp(mHistories[row.id], data);
  historyChanged(row.id);
}

// A publication queued behind the incidents that are waiting already covers
// them all: readers see the newest text as soon as the queue ahead of it is
// drained, and a burst costs one copy of the text instead of one per incident.
void CHDBlobWriter::historyChanged(HistoryId id) {
  mHistories[id].markChanged();
  if (!mPublicationQueued) {
    mPublicationQueued = true;
    mEventThread->post(makeAgent<Tolvane::AsyncEventAgent>(this, &CHDBlobWriter::publishChangedHistories));
  }
}

void CHDBlobWriter::publishChangedHistories() {
  mPublicationQueued = false;
  bool deferred = false;
  for (size_t id = 0; id < kHistoryCount; ++id) {
    if (!mHistories[id].changed()) {
      continue;
    }
    if (mHistories[id].worthPublishingNow()) {
      publishHistory(static_cast<HistoryId>(id));
    } else {
      deferred = true;
    }
  }
  if (deferred && !mDeferredPublication) {
    mDeferredPublication.reset(new Tolvane::AsyncEventAgent(this, &CHDBlobWriter::publishDeferredHistories));
    mEventThread->postDelayed(mDeferredPublication, kDeferredPublicationMs);
  }
}

void CHDBlobWriter::publishDeferredHistories() {
  mDeferredPublication = nullptr;
  publishAllChangedHistories();
}

void CHDBlobWriter::publishAllChangedHistories() {
  for (size_t id = 0; id < kHistoryCount; ++id) {
    if (mHistories[id].changed()) {
      publishHistory(static_cast<HistoryId>(id));
    }
  }
}

void CHDBlobWriter::publishHistory(HistoryId id) {
  mStatusManager->setStatus(mHistoryStatusKeys[id], mHistories[id].text());
  mHistories[id].markPublished();
}

void CHDBlobWriter::updateCHDParameterTimestamp(History& history, const std::string& data) {
  const size_t size = history.size();
  const std::string timestamp = getCurrentTimestamp();
  Json::Value entry(Json::arrayValue);
  if (!data.empty()) {
    entry.append(timestamp);
    entry.append(data);
  } else {
    entry.append(Json::Value(Json::UInt64(size + 1)));
    entry.append(timestamp);
  }
  history.append(mCompactWriter.write(entry));
  // The styled dump grows with the history on every append: it is built only
  // when someone will see it, so that long histories stay cheap.
  if (tl_log_enabled(kLogDetail, __FILE__)) {
    TL_LOG(kLogDetail, "val: %s", styledHistory(history).c_str());
  }
}

std::string CHDBlobWriter::styledHistory(const History& history) {
  Json::Value parsed;
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  const std::string& text = history.text();
  reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr);
  return parsed.toStyledString();
}

// ---------------------------------------------------------------------------
// Status tracking

void CHDBlobWriter::notifyStatusChanged(StatusMap statuses) {
  TL_TRACE();
  if (!mEventThread->isCurrentThread()) {
    mEventThread->post(
        makeAgent<Tolvane::AsyncEventAgent>(this, &CHDBlobWriter::notifyStatusChanged, std::move(statuses)));
    return;
  }
  updateConnectionStatuses(statuses);
  updateWifiStatuses(statuses);
  updateDisplayStatuses(statuses);
  if (const std::string* interval = findStatus(statuses, kReportingIntervalKey)) {
    updateReportingInterval(*interval);
  }
}

void CHDBlobWriter::updateConnectionStatuses(const StatusMap& statuses) {
  if (const std::string* status = findStatus(statuses, kConnectionStatusKey)) {
    replaceText(mConnectionStatus, *status);
    if (mConnectionStatus == kConnected) {
      mStatusManager->resumeTimer(kConnectedTimer);
    } else {
      mStatusManager->pauseTimer(kConnectedTimer);
    }
  }
  storeIfPresent(statuses, kConnectionTypeKey, mConnectionType);
}

// A map may also carry keys that were not registered, so a box without Wi-Fi
// ignores Wi-Fi keys here as well.
void CHDBlobWriter::updateWifiStatuses(const StatusMap& statuses) {
  if (!Tolvane::PlatformSettings::getInstance()->hasWifi()) {
    return;
  }
  storeIfPresent(statuses, kApMacAddressKey, mApMacAddress);
  parseNumberIfPresent(statuses, kChannelKey, "Unable to parse wifi channel status [%.*s]", mChannel);
  parseNumberIfPresent(statuses, kSnrKey, "Unable to parse wifi snr status [%.*s]", mSnr);
  storeIfPresent(statuses, kNetworkNameKey, mNetworkName);
  if (const std::string* color = findStatus(statuses, kFrontPanelColorKey)) {
    updateFrontPanelColor(*color);
  }
  parseNumberIfPresent(statuses, kCongestionKey, "Unable to parse wifi congestion status [%.*s]", mCongestionCount);
}

// A red or blinking front panel means a weak Wi-Fi signal. Every such
// notification counts, also a change from red to blinking.
void CHDBlobWriter::updateFrontPanelColor(const std::string& color) {
  if (color == "Red" || color == "Blink") {
    mLowRssiActive = true;
    updateCHDParameterTimestamp(mHistories[kLowRssi], std::string());
    mStatusManager->resumeTimer(kLowRssiTimer);
    historyChanged(kLowRssi);
  } else {
    mLowRssiActive = false;
    mStatusManager->pauseTimer(kLowRssiTimer);
  }
}

void CHDBlobWriter::updateDisplayStatuses(const StatusMap& statuses) {
  storeIfPresent(statuses, kAspectRatioKey, mAspectRatio);
  if (const std::string* current = findStatus(statuses, kCurrentResolutionKey)) {
    replaceText(mCurrentResolution, *current);
    TL_LOG(kLogDetail, "CURRENT_RESOLUTION = [%.*s]", loggedLength(mCurrentResolution), mCurrentResolution.c_str());
  }
  if (const std::string* selected = findStatus(statuses, kSelectedResolutionKey)) {
    replaceText(mSelectedResolution, *selected);
    TL_LOG(kLogDetail, "SELECTED_RESOLUTION = [%.*s]", loggedLength(mSelectedResolution), mSelectedResolution.c_str());
  }
  storeIfPresent(statuses, kLastRemoteKeyKey, mLastRemoteKey);
  if (const std::string* standby = findStatus(statuses, kInStandbyKey)) {
    mInStandby = *standby != "False";
  }
  updateHdmiStatuses(statuses);
  storeIfPresent(statuses, kPowerSavingKey, mPowerSaving);
  storeIfPresent(statuses, kScreenFormatKey, mScreenFormat);
  storeFlagIfPresent(statuses, kNativeKey, "HDTV.Video.Native.On", mNative);
  storeIfPresent(statuses, kBarColorKey, mBarColor);
  storeFlagIfPresent(statuses, kDolbyDigitalKey, "Audio.Dolby.DolbyDigital.On", mDolbyDigital);
  updateSupportedResolutions(statuses);
}

void CHDBlobWriter::updateHdmiStatuses(const StatusMap& statuses) {
  storeIfPresent(statuses, kCecCapabilityKey, mCecCapability);
  storeIfPresent(statuses, kCecTvVersionKey, mCecTvVersion);
  storeIfPresent(statuses, kCecTvActiveSourceKey, mCecTvActiveSource);
  storeIfPresent(statuses, kCecTvOnKey, mCecTvOn);
  storeFlagIfPresent(statuses, kHdmiControlKey, "HDTV.Video.HDMIControl.On", mHdmiControl);
}

void CHDBlobWriter::updateSupportedResolutions(const StatusMap& statuses) {
  for (const std::string& key : mResolutionList) {
    if (const std::string* value = findStatus(statuses, key.c_str())) {
      const uint32_t bit = mResolutionBits[key];
      mSupportedResolutions = *value == kResolutionOn ? (mSupportedResolutions | bit) : (mSupportedResolutions & ~bit);
    }
  }
}

// The interval is kept within 900..43200 s; atoi's result is taken as
// unsigned, so a negative text lands on the upper bound and letters on the
// lower one.
void CHDBlobWriter::updateReportingInterval(const std::string& text) {
  const uint32_t requested = static_cast<uint32_t>(atoi(text.c_str()));
  const uint32_t interval = std::clamp(requested, kMinReportingInterval, kMaxReportingInterval);
  if (interval == mReportingInterval) {
    return;
  }
  mReportingInterval = interval;
  // The value is in seconds; the message's wording is what log readers search for.
  TL_LOG(kLogInfo, "New reporting interval is %u minutes", mReportingInterval);
  createJSONCHDBlob(true);
}
