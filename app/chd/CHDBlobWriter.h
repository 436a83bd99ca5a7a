// Counts the box's incidents, follows its statuses, and every reporting period
// posts the diagnostics blob ("Write CHD Blob Event") to the status store.
//
// Every operation runs on the writer's own event thread "CHDBlobWriter"; a
// public operation called on another thread re-posts itself there, so the
// fields below need no lock.
#pragma once

#include <json/json.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ConfigurationManagementListener.h"
#include "status/StatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane/RefCount.h"

class CHDBlobWriter : public ConfigurationManagementListener, public IStatusUpdateListener {
 public:
  CHDBlobWriter();
  ~CHDBlobWriter() override;
  CHDBlobWriter(const CHDBlobWriter&) = delete;
  CHDBlobWriter& operator=(const CHDBlobWriter&) = delete;

  // Schedules the first periodic blob 1000 x interval ms from now (no-op while one is pending).
  void start();
  // Cancels the pending periodic blob; from another thread it waits until done.
  void stop();
  // Builds and posts one blob now without moving the periodic schedule; returns true at once.
  bool genChdDataBlob() override;
  // Builds, posts and resets; with reschedule the next periodic blob comes 100 x interval ms later.
  void createJSONCHDBlob(bool reschedule);

  void notifyStatusChanged(StatusMap statuses) override;
  void notifyEventPosted(std::string name, std::string value) override;

  // The time stamp of a blob and of a history entry: the moment in UTC as
  // "YYYY-MM-DDThh:mm:ss", without a zone letter, which is the form receivers
  // of the blob know.
  static std::string formatTimestamp(time_t when);

 protected:
  // The writer's own thread, so that a subclass can run work in step with it.
  Tolvane::EventDispatcher& getEventDispatcher() { return *mEventThread; }

 private:
  // One incident history, kept as the compact JSON text of its array. The
  // history is published as that text, and the blob holds it verbatim, so the
  // text is all that is needed: a Json::Value per entry would cost several
  // hundred bytes and a full rewrite per publication.
  class History {
   public:
    History() { clear(); }
    // entryText: the compact JSON text of one entry.
    void append(const std::string& entryText);
    void clear();
    size_t size() const { return mSize; }
    const std::string& text() const { return mText; }

    bool changed() const { return mChanged; }
    void markChanged() { mChanged = true; }
    void markPublished();
    // Publishing copies the whole text to the store and every reader: a small
    // text is always worth it, a big one once it has grown by a quarter since
    // it was last published, so that a storm of incidents costs a bounded
    // multiple of the text instead of one copy per incident.
    bool worthPublishingNow() const;

   private:
    std::string mText;
    size_t mSize = 0;
    bool mChanged = false;
    size_t mPublishedLength = 0;
  };

  enum HistoryId : size_t {
    kConnectionFailures,
    kDemuxBufferEmpty,
    kZunaAbort,
    kZunaSegfault,
    kRvuCommandFailures,
    kDroppedKeys,
    kMsearchNoResponse,
    kUpnpFailures,
    kServerDisconnect,
    kSocketHealthErrors,
    kDtcpFailures,
    kHdcpFailures,
    kAudioDecoderErrors,
    kVideoDecoderErrors,
    kLowRssi,
    kMediaStreamDefinitions,
    kMediaState,
    kHistoryCount
  };

  struct HistoryRow {
    const char* eventValue;  // tracked-parameter name or data event name
    const char* blobKey;
    const char* statusKey;
    const char* logText;
    HistoryId id;
  };

  static const HistoryRow kTrackedParameters[];
  static const HistoryRow kDataEvents[];
  static const HistoryRow kLowRssiHistory;
  static void forEachHistoryRow(const std::function<void(const HistoryRow&)>& visit);

  void fillTables();
  void registerWithStatusStore();
  void scheduleBlob(unsigned delayMs);
  void cancelPendingBlob();
  void reset();

  // Blob document.
  std::string writeBlob();
  std::string spliceHistories(const std::string& skeleton) const;
  Json::Value createJSONCHDCClient();
  Json::Value createJSONCHDNetwork();
  Json::Value createJSONCHDDisplay();
  Json::Value createJSONCHDRemote();
  Json::Value createJSONCHDInfo();
  Json::Value createJSONCHDOther();
  Json::Value createTvDisplay();
  Json::Value createHdmiDisplay();
  unsigned displayCode(const std::string& settingValue);
  static std::string getCurrentTimestamp();

  // Event tracking.
  void updateCHDParameterTimestamp(History& history, const std::string& data);
  void appendAndPublish(const HistoryRow& row, const std::string& data);
  static std::string styledHistory(const History& history);

  // History publication: one queued publication covers every incident
  // handled before it runs.
  void historyChanged(HistoryId id);
  void publishChangedHistories();
  void publishDeferredHistories();
  void publishAllChangedHistories();
  void publishHistory(HistoryId id);

  // Status tracking.
  void updateConnectionStatuses(const StatusMap& statuses);
  void updateWifiStatuses(const StatusMap& statuses);
  void updateFrontPanelColor(const std::string& color);
  void updateDisplayStatuses(const StatusMap& statuses);
  void updateHdmiStatuses(const StatusMap& statuses);
  void updateSupportedResolutions(const StatusMap& statuses);
  void updateReportingInterval(const std::string& text);

  uint32_t mReportingInterval;
  std::unique_ptr<Tolvane::EventThread> mEventThread;
  Tolvane::SmartPtr<Tolvane::AsyncEventAgent> mPendingBlobAgent;
  std::array<History, kHistoryCount> mHistories;
  std::array<const char*, kHistoryCount> mHistoryStatusKeys{};
  bool mPublicationQueued = false;
  Tolvane::SmartPtr<Tolvane::AsyncEventAgent> mDeferredPublication;
  StatusManager* mStatusManager;

  std::string mConnectionStatus;
  std::string mConnectionType;
  std::string mApMacAddress;
  std::string mNetworkName;
  std::string mAspectRatio;
  std::string mCurrentResolution;
  std::string mSelectedResolution;
  std::string mLastRemoteKey;
  std::string mCecCapability;
  std::string mCecTvVersion;
  std::string mCecTvActiveSource;
  std::string mCecTvOn;
  std::string mScreenFormat;
  std::string mBarColor;
  std::string mPowerSaving;

  uint32_t mChannel = 0;
  uint32_t mCongestionCount = 0;
  uint32_t mSnr = 0;
  uint32_t mSupportedResolutions = 0;

  bool mInStandby = false;
  bool mHdmiControl = false;
  bool mNative = false;
  bool mDolbyDigital = false;
  bool mLowRssiActive = false;

  std::map<std::string, std::string> mConnectionTable;
  std::map<std::string, uint32_t> mDisplayCodes;
  std::map<std::string, uint32_t> mResolutionBits;
  std::vector<std::string> mResolutionList;

  Json::FastWriter mCompactWriter;
};
