// Blob build and write time and memory with 0 to 1,000,000 history entries in
// one period, side by side with a plain Json::FastWriter of the same document.
//
// The writer runs against a status store that keeps nothing, so that only the
// writer's own work and memory are measured (a real store also keeps one copy
// of each history's text as its status).
//
// Counters:
//   writer_ms            time from the start of the blob on the writer's thread to the posted text
//   floor_ms             Json::FastWriter::write of the same document, already built as Json::Value
//   ratio                writer_ms / floor_ms
//   ns_per_entry         writer time per history entry
//   bytes_per_entry      heap the writer holds per history entry before the blob
//   build_extra_bytes    heap added while the blob is built, measured when it is posted
//   json_value_bytes_per_entry  heap per entry of the same document as Json::Value
//   append_ns_per_entry  time to record one incident (event delivery included)
#include <benchmark/benchmark.h>
#include <json/json.h>
#include <malloc.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "CHDBlobWriter.h"
#include "FakePlatformSettings.h"
#include "NullStatusManager.h"
#include "status/StatusManager.h"
#include "statusstore_host/LocalStatusManager.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr char kWriteBlobEvent[] = "Write CHD Blob Event";
constexpr char kTrackedEvent[] = "CHD Tracked Parameter Event";
const char* const kIncidents[] = {"Connection Failure",  "Demux Buffer Empty",  "Zuna Abort",          "Zuna Segfault",
                                  "RVU Command Failure", "Dropped Key",         "MSearch No Response", "UPnP Failure",
                                  "Server Disconnect",   "Socket Health Error", "DTCP Failure",        "HDCP Failure",
                                  "Audio Decoder Error", "Video Decoder Error"};

size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A store that keeps nothing; notes when and with how much heap in use a blob is posted.
class BlobWatchingStore {
 public:
  BlobWatchingStore() {
    mStore.watchEvents([this](const std::string& name, const std::string& value) { notePosted(name, value); });
  }
  ~BlobWatchingStore() { mStore.watchEvents(nullptr); }
  BlobWatchingStore(const BlobWatchingStore&) = delete;
  BlobWatchingStore& operator=(const BlobWatchingStore&) = delete;

  StatusManager& store() { return mStore; }

  struct Posted {
    SteadyClock::time_point at;
    size_t heap;
    std::string blob;
  };

  Posted waitForBlob() {
    std::unique_lock<std::mutex> lock(mMutex);
    mPostedCondition.wait(lock, [this] { return mPosted; });
    mPosted = false;
    return Posted{mPostedAt, mHeapAtPost, std::move(mBlob)};
  }

 private:
  void notePosted(const std::string& name, const std::string& value) {
    if (name != kWriteBlobEvent) {
      return;
    }
    const SteadyClock::time_point now = SteadyClock::now();
    const size_t heap = heapInUse();
    const std::lock_guard<std::mutex> guard(mMutex);
    mPostedAt = now;
    mHeapAtPost = heap;
    mBlob = value;
    mPosted = true;
    mPostedCondition.notify_all();
  }

  chdtest::NullStatusManager mStore;
  std::mutex mMutex;
  std::condition_variable mPostedCondition;
  bool mPosted = false;
  SteadyClock::time_point mPostedAt;
  size_t mHeapAtPost = 0;
  std::string mBlob;
};

class BenchBlobWriter : public CHDBlobWriter {
 public:
  void flush() { runOnOwnThread(&BenchBlobWriter::noop); }

  // Builds one blob on the writer's own thread, as the periodic schedule does,
  // and returns when it started: the time excludes the hand-over of a request
  // from another thread.
  SteadyClock::time_point timedBlob() {
    runOnOwnThread(&BenchBlobWriter::blobNow);
    return mStartedAt;
  }

 private:
  void runOnOwnThread(void (BenchBlobWriter::*method)()) {
    getEventDispatcher().send(Tolvane::SmartPtr<Tolvane::EventAgent>(new Tolvane::SyncEventAgent(this, method)));
  }
  void noop() {}
  void blobNow() {
    mStartedAt = SteadyClock::now();
    createJSONCHDBlob(false);
  }

  SteadyClock::time_point mStartedAt;  // written and read in send(), which orders both
};

// The writer, its store and its platform for one benchmark.
class Bench {
 public:
  Bench() {
    // With Wi-Fi, every history and figure goes into the blob.
    mPlatform.setWifi(true);
    Tolvane::host::setPlatformSettingsForTest(&mPlatform);
    statusstore::setInstanceForTest(&mStore.store());
    mWriter = std::make_unique<BenchBlobWriter>();
  }
  ~Bench() {
    mWriter.reset();
    statusstore::setInstanceForTest(nullptr);
    Tolvane::host::setPlatformSettingsForTest(nullptr);
  }

  // Records entries incidents, spread over every tracked history, and waits until they are in.
  double fill(size_t entries) {
    const SteadyClock::time_point start = SteadyClock::now();
    for (size_t index = 0; index < entries; ++index) {
      mWriter->notifyEventPosted(kTrackedEvent, kIncidents[index % std::size(kIncidents)]);
    }
    mWriter->flush();
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
  }

  // The posted blob and the time its build took.
  std::pair<BlobWatchingStore::Posted, double> blob() {
    const SteadyClock::time_point start = mWriter->timedBlob();
    BlobWatchingStore::Posted posted = mStore.waitForBlob();
    return {std::move(posted), std::chrono::duration<double>(posted.at - start).count()};
  }

 private:
  chdtest::FakePlatformSettings mPlatform;
  BlobWatchingStore mStore;
  std::unique_ptr<BenchBlobWriter> mWriter;
};

Json::Value parseDocument(const std::string& text) {
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value document;
  reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
  return document;
}

double timeFastWriter(const Json::Value& document, size_t expectedLength) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  const SteadyClock::time_point start = SteadyClock::now();
  const std::string text = writer.write(document);
  const double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  if (text.size() != expectedLength) {
    return -1;
  }
  return seconds;
}

void BM_BlobBuildAndWrite(benchmark::State& state) {
  const size_t entries = static_cast<size_t>(state.range(0));
  Bench bench;
  double writerSeconds = 0;
  double floorSeconds = 0;
  double appendSeconds = 0;
  double bytesPerEntry = 0;
  double buildExtra = 0;
  double valueBytesPerEntry = 0;
  for (auto _ : state) {
    const size_t heapEmpty = heapInUse();
    appendSeconds += bench.fill(entries);
    const size_t heapFilled = heapInUse();
    auto [posted, seconds] = bench.blob();
    state.SetIterationTime(seconds);
    writerSeconds += seconds;
    bytesPerEntry += entries > 0 ? static_cast<double>(heapFilled - heapEmpty) / static_cast<double>(entries) : 0;
    buildExtra += static_cast<double>(posted.heap) - static_cast<double>(heapFilled);

    const size_t heapBeforeDocument = heapInUse();
    const Json::Value document = parseDocument(posted.blob);
    const size_t heapDocument = heapInUse() - heapBeforeDocument;
    valueBytesPerEntry += entries > 0 ? static_cast<double>(heapDocument) / static_cast<double>(entries) : 0;
    const double floor = timeFastWriter(document, posted.blob.size());
    if (floor < 0) {
      state.SkipWithError("the plain writer's text differs in length from the blob");
      break;
    }
    floorSeconds += floor;
  }
  const double iterations = static_cast<double>(state.iterations());
  state.counters["writer_ms"] = 1e3 * writerSeconds / iterations;
  state.counters["floor_ms"] = 1e3 * floorSeconds / iterations;
  state.counters["ratio"] = floorSeconds > 0 ? writerSeconds / floorSeconds : 0;
  state.counters["ns_per_entry"] = entries > 0 ? 1e9 * writerSeconds / iterations / static_cast<double>(entries) : 0;
  state.counters["bytes_per_entry"] = bytesPerEntry / iterations;
  state.counters["build_extra_bytes"] = buildExtra / iterations;
  state.counters["json_value_bytes_per_entry"] = valueBytesPerEntry / iterations;
  state.counters["append_ns_per_entry"] =
      entries > 0 ? 1e9 * appendSeconds / iterations / static_cast<double>(entries) : 0;
}

// The floor alone: Json::FastWriter of the finished document.
void BM_PlainFastWriter(benchmark::State& state) {
  const size_t entries = static_cast<size_t>(state.range(0));
  std::string blob;
  {
    Bench bench;
    bench.fill(entries);
    blob = bench.blob().first.blob;
  }
  const Json::Value document = parseDocument(blob);
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  for (auto _ : state) {
    benchmark::DoNotOptimize(writer.write(document));
  }
  state.counters["blob_bytes"] = static_cast<double>(blob.size());
}

// Recording incidents with the host's real status store, which keeps a copy of
// each history's whole text as its status after every append: the cost per
// incident grows with the length of the history.
void BM_AppendPublishedToLocalStore(benchmark::State& state) {
  const size_t entries = static_cast<size_t>(state.range(0));
  chdtest::FakePlatformSettings platform;
  platform.setWifi(true);
  Tolvane::host::setPlatformSettingsForTest(&platform);
  statusstore::LocalStatusManager store;
  statusstore::setInstanceForTest(&store);
  {
    BenchBlobWriter writer;
    double seconds = 0;
    for (auto _ : state) {
      const SteadyClock::time_point start = SteadyClock::now();
      for (size_t index = 0; index < entries; ++index) {
        writer.notifyEventPosted(kTrackedEvent, "Dropped Key");
      }
      writer.flush();
      const double iteration = std::chrono::duration<double>(SteadyClock::now() - start).count();
      state.SetIterationTime(iteration);
      seconds += iteration;
      writer.genChdDataBlob();
      writer.flush();
    }
    state.counters["ns_per_entry"] = 1e9 * seconds / static_cast<double>(state.iterations() * entries);
  }
  statusstore::setInstanceForTest(nullptr);
  Tolvane::host::setPlatformSettingsForTest(nullptr);
}

}  // namespace

BENCHMARK(BM_AppendPublishedToLocalStore)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlobBuildAndWrite)->Arg(0)->Arg(1000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlobBuildAndWrite)->Arg(100000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlobBuildAndWrite)->Arg(1000000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainFastWriter)->Arg(0)->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  // The writer's information messages would drown the table.
  setenv("CHD_LOG_LEVEL", "2", 0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
