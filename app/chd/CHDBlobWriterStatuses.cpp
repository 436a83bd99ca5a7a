// The statuses the blob reports, followed as the status store changes them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "CHDBlobWriter.h"
#include "CHDBlobWriterNames.h"
#include "tolvane/Logging.h"
#include "tolvane/PlatformSettings.h"
#include "zuna_util/StringUtil.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using namespace blob_writer;

namespace {

// Values are logged up to this many bytes: a status can be any size.
constexpr size_t kLoggedValueBytes = 512;

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

}  // namespace

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
