// A blob writer on a driven clock, with a local status store, platform
// settings of the test's choosing and a listener that collects every posted
// blob and every history status. Everything collected is also written to the
// directory named by CHD_BLOB_DUMP_DIR (default: a temporary directory), where
// a later test step validates it against the published schema.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CHDBlobWriter.h"
#include "FakePlatformSettings.h"
#include "status/StatusManager.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane/EventThread.h"
#include "tolvane_host/ManualClock.h"

namespace blobtest {

inline constexpr char kWriteBlobEvent[] = "Write CHD Blob Event";
inline constexpr char kTrackedEvent[] = "CHD Tracked Parameter Event";
inline constexpr uint64_t kDefaultFirstDelayMs = 900000;
inline constexpr uint64_t kDefaultPeriodMs = 90000;

// The writer with a way to wait until everything queued on its thread has run,
// and to hold its thread while the test queues work behind it.
class TestableBlobWriter : public CHDBlobWriter {
 public:
  void flush();
  // The writer's thread waits (at most 10 s) until release().
  void hold();
  void release();

 private:
  void noop() {}
  void waitForRelease();

  std::mutex mHoldMutex;
  std::condition_variable mReleased;
  bool mHeld = false;
};

// Listens like any other component: on its own event thread.
class BlobCollector : public IStatusUpdateListener {
 public:
  explicit BlobCollector(StatusManager& store);
  ~BlobCollector() override;
  BlobCollector(const BlobCollector&) = delete;
  BlobCollector& operator=(const BlobCollector&) = delete;

  void notifyEventPosted(std::string name, std::string value) override;
  void notifyStatusChanged(StatusMap statuses) override;
  void flush();
  std::vector<std::string> blobs();
  std::vector<StatusMap> historyUpdates();

 private:
  void noop() {}

  StatusManager& mStore;
  Tolvane::EventThread mThread;
  std::mutex mMutex;
  std::vector<std::string> mBlobs;
  std::vector<StatusMap> mHistoryUpdates;
};

class BlobWriterTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Replaces the writer with one built for a box with or without Wi-Fi.
  void recreateWriter(bool wifi);
  // start() from the test's thread only posts; this also waits until it ran.
  void startWriter();
  // Waits until the writer and the collector have handled everything queued.
  void settle();
  void advance(uint64_t ms);
  void setStatus(const std::string& key, const std::string& value);
  void setStatuses(const StatusMap& statuses);
  void postEvent(const std::string& name, const std::string& value);
  void track(const std::string& incident, int times = 1);
  size_t blobCount();
  std::string lastBlob();
  // Asks for a blob on demand and returns its text.
  std::string blobNow();

  Tolvane::host::ManualClock mClock{1000000};
  chdtest::FakePlatformSettings mPlatform;
  statusstore::LocalStatusManager mStore;
  std::unique_ptr<BlobCollector> mCollector;
  std::unique_ptr<TestableBlobWriter> mWriter;
};

Json::Value parse(const std::string& text);
// The single top-level key of a blob.
std::string topKey(const std::string& blob);
// The body under that key.
Json::Value body(const std::string& blob);
// What Json::FastWriter (no final line feed) writes for the value.
std::string compact(const Json::Value& value);
bool isTimestamp(const std::string& text);

}  // namespace blobtest
