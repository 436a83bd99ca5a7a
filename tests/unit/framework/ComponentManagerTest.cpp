#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "tolvane/TLCOM.h"

namespace {

using framework_test::TempDir;

class Counted : public Tolvane::RefCount {
 public:
  Counted() { ++created; }
  static std::atomic<int> created;
};
std::atomic<int> Counted::created{0};

Tolvane::RefCount* makeCounted() { return new Counted; }

TEST(ComponentManagerTest, ServiceIsFoundByNameAndInterfaceAndMadePerRequest) {
  TLCOM::IComponentManager* manager = TLCOM::getComponentManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager, TLCOM::getComponentManager());
  manager->registerService("CountedService", "test::ICounted", &makeCounted);
  const int before = Counted::created.load();
  Tolvane::SmartPtr<Counted> first;
  TLCOM::GetServiceHelper("CountedService", "test::ICounted", first);
  Tolvane::SmartPtr<Counted> second;
  TLCOM::GetServiceHelper("CountedService", "test::ICounted", second);
  ASSERT_FALSE(first.isNull());
  ASSERT_FALSE(second.isNull());
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(Counted::created.load(), before + 2);
  EXPECT_TRUE(manager->getService("CountedService", "test::IOther").isNull());
  EXPECT_TRUE(manager->getService("OtherService", "test::ICounted").isNull());
}

TEST(ComponentManagerTest, UnknownLibraryFails) {
  EXPECT_NE(TLCOM::getComponentManager()->loadLibrary("libno_such_component.so"), 0);
  EXPECT_NE(TLCOM::getComponentManager()->loadLibrary("/nonexistent/libno_such_component.so"), 0);
}

TEST(ComponentManagerTest, LoadsTheSettingsManagerBesideTheFramework) {
  TLCOM::IComponentManager* manager = TLCOM::getComponentManager();
  ASSERT_EQ(manager->loadLibrary("libzunalui_settingsmanager.so"), 0);
  EXPECT_FALSE(manager->getService("SettingsManagerProxy", "localui::ISettingsManager").isNull());
}

TEST(ComponentManagerTest, SearchesTheComponentPathFirst) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() + "/components");
  // A component found only through the path: a copy under a name of its own.
  std::filesystem::copy_file(std::string(CHD_COMPONENT_DIR) + "/libzunalui_settingsmanager.so",
                             dir.path() + "/components/libpathonly_component.so");
  EXPECT_NE(TLCOM::getComponentManager()->loadLibrary("libpathonly_component.so"), 0);
  setenv("TLCOM_COMPONENT_PATH", ("/nonexistent:" + dir.path() + "/components").c_str(), 1);
  EXPECT_EQ(TLCOM::getComponentManager()->loadLibrary("libpathonly_component.so"), 0);
  unsetenv("TLCOM_COMPONENT_PATH");
}

TEST(ComponentManagerTest, ConcurrentRegistrationAndLookup) {
  TLCOM::IComponentManager* manager = TLCOM::getComponentManager();
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([manager, t, &found] {
      const std::string name = "Concurrent" + std::to_string(t);
      for (int i = 0; i < 200; ++i) {
        manager->registerService(name, "test::ICounted", &makeCounted);
        found += manager->getService(name, "test::ICounted").isNull() ? 0 : 1;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(found.load(), 800);
}

}  // namespace
