// The process store behind StatusManager::getInstance and its test override.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "statusstore_host/LocalStatusManager.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace statusstore::test {
namespace {

// Platform settings that keep the process store off every bus.
Tolvane::host::HostPlatformSettings* settingsWithoutBus() {
  std::filesystem::path dir = std::filesystem::temp_directory_path() / ("statusstore-test-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "platform.conf") << "[platform]\nlog_path=" << (dir / "log").string()
                                       << "\n[statusstore]\nbus=none\n";
  static Tolvane::host::HostPlatformSettings settings((dir / "platform.conf").string());
  std::filesystem::remove_all(dir);
  return &settings;
}

TEST(ProcessStoreTest, TestInstanceReplacesTheProcessStoreUntilCleared) {
  Tolvane::host::setPlatformSettingsForTest(settingsWithoutBus());
  LocalStatusManager testStore;
  setInstanceForTest(&testStore);
  EXPECT_EQ(StatusManager::getInstance(false), &testStore);
  setInstanceForTest(nullptr);
  StatusManager* processStore = StatusManager::getInstance(false);
  ASSERT_NE(processStore, nullptr);
  EXPECT_NE(processStore, &testStore);
  EXPECT_EQ(StatusManager::getInstance(false), processStore);
  processStore->setStatus("Process Key", "v");
  EXPECT_EQ(StatusManager::getInstance(false)->getStatus("Process Key"), "v");
  EXPECT_EQ(testStore.getStatus("Process Key"), "");
  Tolvane::host::setPlatformSettingsForTest(nullptr);
}

}  // namespace
}  // namespace statusstore::test
