#include "BlobWriterFixture.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "tolvane_host/HostPlatformSettings.h"

namespace blobtest {

namespace {

const std::set<std::string>& ordinalHistoryKeys() {
  static const std::set<std::string> keys = {
      "Connection Failure History",  "Demux Buffer History",        "Zuna Abort History",
      "Zuna Segfault History",       "RVU Command Failure History", "Dropped Key History",
      "MSearch No Response History", "UPnP Failure History",        "Server Disconnect History",
      "Socket Health Error History", "DTCP Failure History",        "HDCP Failure History",
      "Audio Decoder Error History", "Video Decoder Error History", "Low RSSI History"};
  return keys;
}

const std::set<std::string>& dataHistoryKeys() {
  static const std::set<std::string> keys = {"Media Stream Definition History", "Media State History"};
  return keys;
}

// Without a dump directory given, blobs go to a directory of this process
// that is removed when it exits.
class OwnTemporaryDirectory {
 public:
  OwnTemporaryDirectory() {
    char pattern[] = "/tmp/chd-blob-dump-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
    }
    mPath = pattern;
  }
  ~OwnTemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
  }
  OwnTemporaryDirectory(const OwnTemporaryDirectory&) = delete;
  OwnTemporaryDirectory& operator=(const OwnTemporaryDirectory&) = delete;
  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
};

const std::string& dumpDirectory() {
  static const std::string directory = [] {
    const char* configured = std::getenv("CHD_BLOB_DUMP_DIR");
    if (configured != nullptr && *configured != '\0') {
      std::filesystem::create_directories(configured);
      return std::string(configured);
    }
    static const OwnTemporaryDirectory temporary;
    return temporary.path();
  }();
  return directory;
}

// One file per document; the prefix tells the validator which schema applies.
void dump(const std::string& prefix, const std::string& text) {
  static std::atomic<unsigned> sequence{0};
  const std::string path = dumpDirectory() + "/" + prefix + "-" + std::to_string(getpid()) + "-" +
                           std::to_string(sequence.fetch_add(1)) + ".json";
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out.good()) {
    ADD_FAILURE() << "could not write " << path;
  }
}

}  // namespace

// Twice: the history publication that incidents queue while they are handled
// runs after the agents that were queued with them, the first flush included.
void TestableBlobWriter::flush() {
  for (int round = 0; round < 2; ++round) {
    getEventDispatcher().send(
        Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(this, &TestableBlobWriter::noop)));
  }
}

void TestableBlobWriter::hold() {
  {
    const std::lock_guard<std::mutex> guard(mHoldMutex);
    mHeld = true;
  }
  getEventDispatcher().post(
      Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::AsyncEventAgent(this, &TestableBlobWriter::waitForRelease)));
}

void TestableBlobWriter::release() {
  const std::lock_guard<std::mutex> guard(mHoldMutex);
  mHeld = false;
  mReleased.notify_all();
}

void TestableBlobWriter::waitForRelease() {
  std::unique_lock<std::mutex> lock(mHoldMutex);
  mReleased.wait_for(lock, std::chrono::seconds(10), [this] { return !mHeld; });
}

BlobCollector::BlobCollector(StatusManager& store) : mStore(store), mThread("BlobCollector", 0) {
  mStore.addListener(this, &mThread);
  mStore.registerEventNames(this, {kWriteBlobEvent});
  StatusNameList keys(ordinalHistoryKeys().begin(), ordinalHistoryKeys().end());
  keys.insert(keys.end(), dataHistoryKeys().begin(), dataHistoryKeys().end());
  mStore.registerStatusKeys(this, keys);
}

BlobCollector::~BlobCollector() {
  mStore.removeListener(this);
  mThread.removeAgentsByReceiver(static_cast<IStatusUpdateListener*>(this));
  mThread.shutdown();
}

void BlobCollector::notifyEventPosted(std::string name, std::string value) {
  if (name != kWriteBlobEvent) {
    ADD_FAILURE() << "unexpected event " << name;
    return;
  }
  dump("blob", value);
  const std::lock_guard<std::mutex> guard(mMutex);
  mBlobs.push_back(std::move(value));
}

void BlobCollector::notifyStatusChanged(StatusMap statuses) {
  for (const auto& [key, value] : statuses) {
    if (ordinalHistoryKeys().count(key) != 0) {
      dump("history-ordinal", value);
    } else if (dataHistoryKeys().count(key) != 0) {
      dump("history-data", value);
    }
  }
  const std::lock_guard<std::mutex> guard(mMutex);
  mHistoryUpdates.push_back(std::move(statuses));
}

void BlobCollector::flush() {
  mThread.send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(this, &BlobCollector::noop)));
}

std::vector<std::string> BlobCollector::blobs() {
  const std::lock_guard<std::mutex> guard(mMutex);
  return mBlobs;
}

std::vector<StatusMap> BlobCollector::historyUpdates() {
  const std::lock_guard<std::mutex> guard(mMutex);
  return mHistoryUpdates;
}

void BlobWriterTest::SetUp() {
  // The blob carries the Wi-Fi figures unless a test says the box has none.
  mPlatform.setWifi(true);
  Tolvane::host::setClock(&mClock);
  Tolvane::host::setPlatformSettingsForTest(&mPlatform);
  statusstore::setInstanceForTest(&mStore);
  mCollector = std::make_unique<BlobCollector>(mStore);
  mWriter = std::make_unique<TestableBlobWriter>();
}

void BlobWriterTest::TearDown() {
  mWriter.reset();
  mCollector.reset();
  statusstore::setInstanceForTest(nullptr);
  Tolvane::host::setPlatformSettingsForTest(nullptr);
  Tolvane::host::setClock(nullptr);
}

void BlobWriterTest::recreateWriter(bool wifi) {
  mWriter.reset();
  mPlatform.setWifi(wifi);
  mWriter = std::make_unique<TestableBlobWriter>();
}

void BlobWriterTest::startWriter() {
  mWriter->start();
  settle();
}

void BlobWriterTest::settle() {
  mWriter->flush();
  mCollector->flush();
}

void BlobWriterTest::advance(uint64_t ms) {
  mClock.advance(ms);
  settle();
}

void BlobWriterTest::setStatus(const std::string& key, const std::string& value) {
  mStore.setStatus(key, value);
  settle();
}

void BlobWriterTest::setStatuses(const StatusMap& statuses) {
  mStore.setStatuses(statuses);
  settle();
}

void BlobWriterTest::postEvent(const std::string& name, const std::string& value) {
  mStore.postEvent(name, value, 0);
  settle();
}

void BlobWriterTest::track(const std::string& incident, int times) {
  for (int i = 0; i < times; ++i) {
    mStore.postEvent(kTrackedEvent, incident, 0);
  }
  settle();
}

size_t BlobWriterTest::blobCount() { return mCollector->blobs().size(); }

std::string BlobWriterTest::lastBlob() {
  const std::vector<std::string> blobs = mCollector->blobs();
  if (blobs.empty()) {
    ADD_FAILURE() << "no blob was posted";
    return "{}";
  }
  return blobs.back();
}

std::string BlobWriterTest::blobNow() {
  const size_t before = blobCount();
  EXPECT_TRUE(mWriter->genChdDataBlob());
  settle();
  EXPECT_EQ(before + 1, blobCount());
  return lastBlob();
}

Json::Value parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "not JSON (" << errors << "): " << text;
  }
  return value;
}

std::string topKey(const std::string& blob) {
  const Json::Value document = parse(blob);
  if (!document.isObject() || document.size() != 1) {
    ADD_FAILURE() << "a blob has exactly one member: " << blob;
    return "";
  }
  return document.getMemberNames().front();
}

Json::Value body(const std::string& blob) {
  const Json::Value document = parse(blob);
  if (!document.isObject() || document.size() != 1) {
    ADD_FAILURE() << "a blob has exactly one member: " << blob;
    return Json::Value();
  }
  return document[document.getMemberNames().front()];
}

std::string compact(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

bool isTimestamp(const std::string& text) {
  static const std::string shape = "dddd-dd-ddTdd:dd:dd";
  if (text.size() != shape.size()) {
    return false;
  }
  for (size_t index = 0; index < shape.size(); ++index) {
    const bool digit = text[index] >= '0' && text[index] <= '9';
    if (shape[index] == 'd' ? !digit : text[index] != shape[index]) {
      return false;
    }
  }
  return true;
}

}  // namespace blobtest
