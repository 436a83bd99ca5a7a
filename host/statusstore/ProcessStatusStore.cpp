// The process's one status store, and its export on the configured bus.
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

LocalStatusManager* createProcessStore() {
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
