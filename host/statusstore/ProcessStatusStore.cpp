// The process's one status store, and its export on the configured bus.
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "statusstore_host/LocalStatusManager.h"
#include "statusstore_host/StatusStoreBus.h"
#include "statusstore_host/StatusStoreExporter.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

namespace statusstore {
namespace {

std::atomic<StatusManager*> gTestInstance{nullptr};

// Written once while the store is created, read once at exit.
StatusStoreExporter* gExporter = nullptr;

void unexportAtExit() {
  StatusStoreExporter* exporter = gExporter;
  gExporter = nullptr;
  delete exporter;
}

void exportOnConfiguredBus(LocalStatusManager& store) {
  std::string bus = configuredBus();
  if (bus == kNoBus) {
    TL_LOG(5, "Status store is not exported on D-Bus");
    return;
  }
  auto* exporter = new StatusStoreExporter(store);
  if (!exporter->start(bus)) {
    delete exporter;
    return;
  }
  gExporter = exporter;
  atexit(unexportAtExit);
}

// Values of any size pass through the store and the bus. glibc serves big
// blocks with mmap and returns them when freed, but after the first such
// free it raises the threshold to that block's size (up to 32 MiB), and
// from then on big values land on heaps that seldom shrink: a process that
// once saw a 10 MB value would keep its memory after the value is gone.
// A fixed threshold keeps big blocks on mmap for good.
constexpr int kBigBlockBytes = 256 * 1024;

void returnBigBlocksToTheSystem() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc takes its arena lock for the change; called once
  mallopt(M_MMAP_THRESHOLD, kBigBlockBytes);
}

LocalStatusManager* createProcessStore() {
  returnBigBlocksToTheSystem();
  // Never deleted: components on other threads may use the store until the
  // very end of the process.
  auto* store = new LocalStatusManager();
  exportOnConfiguredBus(*store);
  return store;
}

}  // namespace

void setInstanceForTest(StatusManager* store) { gTestInstance.store(store, std::memory_order_release); }

}  // namespace statusstore

StatusManager* StatusManager::getInstance(bool /*create*/) {
  StatusManager* testStore = statusstore::gTestInstance.load(std::memory_order_acquire);
  if (testStore != nullptr) {
    return testStore;
  }
  static statusstore::LocalStatusManager* processStore = statusstore::createProcessStore();
  return processStore;
}
