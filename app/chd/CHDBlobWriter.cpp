// The blob writer's frame: its tables, its registration with the status
// store, and the periodic schedule of the blob. What goes into the blob, the
// incident histories and the followed statuses have files of their own
// (Document, Histories, Statuses).
#include <utility>

#include "CHDBlobWriter.h"
#include "CHDBlobWriterNames.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using namespace blob_writer;

namespace {

// The first blob waits 1000 ms per interval second, the following ones only
// 100 ms per second: the period after the first is a tenth of the interval.
constexpr uint32_t kFirstBlobDelayFactor = 1000;
constexpr uint32_t kNextBlobDelayFactor = 100;

constexpr char kThreadName[] = "CHDBlobWriter";
constexpr char kWriteBlobEvent[] = "Write CHD Blob Event";

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

}  // namespace

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
