#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "tolvane/TLCOM.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_localui/ISettingsManager.h"

namespace {

using framework_test::TempDir;
using Tolvane::SmartPtr;
using Tolvane::host::HostPlatformSettings;
using zuna_localui::ISettingsManager;

// Reads group [settings] of a settings file; fails the test if it does not parse.
std::map<std::string, std::string> readSettingsFile(const std::string& path) {
  std::map<std::string, std::string> values;
  GKeyFile* file = g_key_file_new();
  GError* error = nullptr;
  if (!g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, &error)) {
    ADD_FAILURE() << path << ": " << error->message;
    g_error_free(error);
    g_key_file_free(file);
    return values;
  }
  gsize count = 0;
  gchar** keys = g_key_file_get_keys(file, "settings", &count, nullptr);
  for (gsize i = 0; i < count; ++i) {
    gchar* value = g_key_file_get_string(file, "settings", keys[i], nullptr);
    values[keys[i]] = value != nullptr ? value : "";
    g_free(value);
  }
  g_strfreev(keys);
  g_key_file_free(file);
  return values;
}

std::vector<std::string> entriesOf(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

class SettingsManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(TLCOM::getComponentManager()->loadLibrary("libzunalui_settingsmanager.so"), 0);
    useSettingsFile(mDir.path() + "/lib/chd/settings.conf");
  }
  void TearDown() override { Tolvane::host::setPlatformSettingsForTest(nullptr); }

  // Installs host platform settings whose settings file is path.
  void useSettingsFile(const std::string& path) {
    mSettingsPath = path;
    const std::string conf =
        mDir.write("platform" + std::to_string(mConfs.size()) + ".conf",
                   "[platform]\nlog_path=" + mDir.path() + "/log\n[settings]\nfile=" + path + "\n");
    mConfs.push_back(std::make_unique<HostPlatformSettings>(conf));
    Tolvane::host::setPlatformSettingsForTest(mConfs.back().get());
  }

  SmartPtr<ISettingsManager> fetch() {
    SmartPtr<ISettingsManager> manager;
    TLCOM::GetServiceHelper("SettingsManagerProxy", "localui::ISettingsManager", manager);
    EXPECT_FALSE(manager.isNull());
    return manager;
  }

  TempDir mDir;
  std::string mSettingsPath;
  std::vector<std::unique_ptr<HostPlatformSettings>> mConfs;
};

TEST_F(SettingsManagerTest, MissingFileMeansNoSettings) {
  SmartPtr<ISettingsManager> manager = fetch();
  EXPECT_TRUE(manager->getFileSettingKeys().empty());
  EXPECT_EQ(manager->getFileSetting("HDTV.Video.Native"), "");
  EXPECT_FALSE(std::filesystem::exists(mSettingsPath));
}

TEST_F(SettingsManagerTest, StoredSettingIsKeptInMemoryUntilSaved) {
  SmartPtr<ISettingsManager> manager = fetch();
  EXPECT_TRUE(manager->storeFileSetting("HDTV.Video.Native", "HDTV.Video.Native.On"));
  EXPECT_EQ(manager->getFileSetting("HDTV.Video.Native"), "HDTV.Video.Native.On");
  EXPECT_EQ(manager->getFileSettingKeys(), (Tolvane::StringVector{"HDTV.Video.Native"}));
  EXPECT_FALSE(std::filesystem::exists(mSettingsPath));
}

TEST_F(SettingsManagerTest, SaveWritesEverySettingAndCreatesTheDirectory) {
  SmartPtr<ISettingsManager> manager = fetch();
  manager->storeFileSetting("HDTV.Video.Native", "HDTV.Video.Native.On");
  manager->storeFileSetting("CC.Display", "CC.Display.Off");
  manager->storeFileSetting("CC.Display", "CC.Display.On");
  ASSERT_TRUE(manager->saveFileSettings());
  const std::map<std::string, std::string> expected{{"CC.Display", "CC.Display.On"},
                                                    {"HDTV.Video.Native", "HDTV.Video.Native.On"}};
  EXPECT_EQ(readSettingsFile(mSettingsPath), expected);
  EXPECT_EQ(entriesOf(mDir.path() + "/lib/chd"), (std::vector<std::string>{"settings.conf"}));
}

TEST_F(SettingsManagerTest, SavedSettingsAreLoadedBackFromTheFile) {
  const std::string first = mSettingsPath;
  {
    SmartPtr<ISettingsManager> manager = fetch();
    manager->storeFileSetting("Audio.Output", "Audio.Output.Stereo");
    ASSERT_TRUE(manager->saveFileSettings());
  }
  useSettingsFile(mDir.path() + "/other.conf");
  EXPECT_TRUE(fetch()->getFileSettingKeys().empty());
  useSettingsFile(first);
  EXPECT_EQ(fetch()->getFileSetting("Audio.Output"), "Audio.Output.Stereo");
}

TEST_F(SettingsManagerTest, ExistingFileIsLoadedAtCreation) {
  std::filesystem::create_directories(mDir.path() + "/lib/chd");
  mDir.write("lib/chd/settings.conf", "[settings]\nHDTV.Video.Native=HDTV.Video.Native.Off\n[other]\nx=y\n");
  useSettingsFile(mSettingsPath + ".");  // a different name first, so the next one is read afresh
  useSettingsFile(mDir.path() + "/lib/chd/settings.conf");
  SmartPtr<ISettingsManager> manager = fetch();
  EXPECT_EQ(manager->getFileSetting("HDTV.Video.Native"), "HDTV.Video.Native.Off");
  EXPECT_EQ(manager->getFileSettingKeys().size(), 1u);
}

TEST_F(SettingsManagerTest, AllInstancesShareOneStore) {
  SmartPtr<ISettingsManager> first = fetch();
  SmartPtr<ISettingsManager> second = fetch();
  EXPECT_NE(first.get(), second.get());
  first->storeFileSetting("Remote.Type", "Remote.Type.RF");
  EXPECT_EQ(second->getFileSetting("Remote.Type"), "Remote.Type.RF");
  ASSERT_TRUE(second->saveFileSettings());
  EXPECT_EQ(readSettingsFile(mSettingsPath).at("Remote.Type"), "Remote.Type.RF");
}

TEST_F(SettingsManagerTest, SaveFailsWhenTheDirectoryCannotBeMade) {
  mDir.write("plainfile", "x");
  useSettingsFile(mDir.path() + "/plainfile/settings.conf");
  SmartPtr<ISettingsManager> manager = fetch();
  manager->storeFileSetting("A", "A.B");
  EXPECT_FALSE(manager->saveFileSettings());
}

TEST_F(SettingsManagerTest, ReadersSeeEitherTheOldOrTheNewFileNeverAMixture) {
  SmartPtr<ISettingsManager> manager = fetch();
  const std::string padding(4096, 'p');  // files larger than one write
  manager->storeFileSetting("Key0", padding);
  ASSERT_TRUE(manager->saveFileSettings());
  std::atomic<bool> done{false};
  std::atomic<int> badReads{0};
  std::thread reader([&] {
    for (int i = 0; i < 2000 && !done; ++i) {
      gchar* text = nullptr;
      gsize length = 0;
      if (!g_file_get_contents(mSettingsPath.c_str(), &text, &length, nullptr)) {
        ++badReads;  // the file must exist at every moment
        continue;
      }
      GKeyFile* file = g_key_file_new();
      if (!g_key_file_load_from_data(file, text, length, G_KEY_FILE_NONE, nullptr) ||
          !g_key_file_has_key(file, "settings", "Key0", nullptr)) {
        ++badReads;
      } else {
        gchar* value = g_key_file_get_string(file, "settings", "Key0", nullptr);
        badReads += (value != nullptr && padding == value) ? 0 : 1;
        g_free(value);
      }
      g_key_file_free(file);
      g_free(text);
    }
  });
  for (int i = 1; i <= 50; ++i) {
    manager->storeFileSetting("Key" + std::to_string(i), padding);
    ASSERT_TRUE(manager->saveFileSettings());
  }
  done = true;
  reader.join();
  EXPECT_EQ(badReads.load(), 0);
  EXPECT_EQ(readSettingsFile(mSettingsPath).size(), 51u);
  EXPECT_EQ(entriesOf(mDir.path() + "/lib/chd"), (std::vector<std::string>{"settings.conf"}));
}

TEST_F(SettingsManagerTest, ConcurrentStoresAreAllKept) {
  SmartPtr<ISettingsManager> manager = fetch();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([manager, t] {
      for (int i = 0; i < 100; ++i) {
        manager->storeFileSetting("T" + std::to_string(t) + "." + std::to_string(i), "v");
        manager->getFileSettingKeys();
      }
      manager->saveFileSettings();
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(manager->getFileSettingKeys().size(), 400u);
  EXPECT_EQ(readSettingsFile(mSettingsPath).size(), 400u);
}

TEST_F(SettingsManagerTest, StartRemovesOnlyAbandonedTemporaryFiles) {
  const std::string directory = mDir.path() + "/lib/chd";
  std::filesystem::create_directories(directory);
  mDir.write("lib/chd/settings.conf", "[settings]\nA=A.On\n");
  const std::string abandoned = mDir.write("lib/chd/.settings.conf.saving-abc123", "[settings]\nA=A.Torn");
  const std::string live = mDir.write("lib/chd/.settings.conf.saving-def456", "[settings]\nA=A.Off\n");
  mDir.write("lib/chd/settings.conf.backup", "kept");
  mDir.write("lib/chd/.other.conf.saving-abc123", "kept");
  // A save in progress in another process holds its file locked.
  const int fd = ::open(live.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  pid_t holder = fork();
  if (holder == 0) {
    ::pause();
    _exit(0);
  }
  ::close(fd);  // the child's copy keeps the lock
  useSettingsFile(mDir.path() + "/elsewhere.conf");
  fetch();
  useSettingsFile(directory + "/settings.conf");
  EXPECT_EQ(fetch()->getFileSetting("A"), "A.On");
  EXPECT_FALSE(std::filesystem::exists(abandoned));
  EXPECT_TRUE(std::filesystem::exists(live));
  EXPECT_TRUE(std::filesystem::exists(directory + "/settings.conf.backup"));
  EXPECT_TRUE(std::filesystem::exists(directory + "/.other.conf.saving-abc123"));
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  useSettingsFile(mDir.path() + "/elsewhere.conf");
  fetch();
  useSettingsFile(directory + "/settings.conf");
  fetch();
  EXPECT_FALSE(std::filesystem::exists(live));
}

// Started again as a child process by the kill test below: saves one version after another until it is
// killed, before any test runs.
[[noreturn]] void saveUntilKilled(const char* conf, int first) {
  TLCOM::getComponentManager()->loadLibrary("libzunalui_settingsmanager.so");
  HostPlatformSettings settings(conf);
  Tolvane::host::setPlatformSettingsForTest(&settings);
  SmartPtr<ISettingsManager> manager;
  TLCOM::GetServiceHelper("SettingsManagerProxy", "localui::ISettingsManager", manager);
  const std::string padding(64 * 1024, 'p');  // long enough that a kill often lands inside a save
  for (int version = first; !manager.isNull() && version < first + 100000; ++version) {
    manager->storeFileSetting("Padding", padding + std::to_string(version));
    manager->storeFileSetting("Version", std::to_string(version));
    manager->saveFileSettings();
  }
  _exit(2);
}

bool startedAsSaver() {
  const char* conf = std::getenv("CHD_SETTINGS_SAVER_CONF");
  const char* first = std::getenv("CHD_SETTINGS_SAVER_FIRST");
  if (conf != nullptr && first != nullptr) {
    saveUntilKilled(conf, std::atoi(first));
  }
  return false;
}

const bool gStartedAsSaver = startedAsSaver();

// The version in the settings file, or -1 before there is one.
int savedVersion(const std::string& path) {
  GKeyFile* file = g_key_file_new();
  int version = -1;
  if (g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr)) {
    gchar* value = g_key_file_get_string(file, "settings", "Version", nullptr);
    version = value != nullptr ? std::atoi(value) : -1;
    g_free(value);
  }
  g_key_file_free(file);
  return version;
}

int countTemporaries(const std::string& directory) {
  int count = 0;
  for (const std::string& name : entriesOf(directory)) {
    count += name != "settings.conf" ? 1 : 0;
  }
  return count;
}

TEST_F(SettingsManagerTest, KilledSavesNeverTearTheFileAndLeaveNothingAfterTheNextStart) {
  const std::string conf = mDir.path() + "/platform0.conf";
  const std::string directory = mDir.path() + "/lib/chd";
  std::mt19937 random(12345);
  const int kKills = 100;
  int lastFirst = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    // Each child saves versions of its own, so every version that reaches the file is known.
    lastFirst = kill * 1000000;
    const std::string confVar = "CHD_SETTINGS_SAVER_CONF=" + conf;
    const std::string firstVar = "CHD_SETTINGS_SAVER_FIRST=" + std::to_string(lastFirst);
    char* const argv[] = {const_cast<char*>("/proc/self/exe"), nullptr};
    char* const envp[] = {const_cast<char*>(confVar.c_str()), const_cast<char*>(firstVar.c_str()), nullptr};
    pid_t child = 0;
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const int spawned = posix_spawn(&child, "/proc/self/exe", &quiet, nullptr, argv, envp);
    posix_spawn_file_actions_destroy(&quiet);
    ASSERT_EQ(0, spawned);
    // Killed once it has saved at least once, at a random moment of its loop.
    // (Versions of this child are lastFirst and up; -1, no file yet, is below every one.)
    for (int wait = 0; wait < 1000 && savedVersion(mSettingsPath) < lastFirst; ++wait) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status)) << "the saver ended before it was killed";

    const std::map<std::string, std::string> saved = readSettingsFile(mSettingsPath);
    ASSERT_EQ(saved.size(), 2u) << "after kill " << kill;
    const int version = std::stoi(saved.at("Version"));
    EXPECT_EQ(saved.at("Padding"), std::string(64 * 1024, 'p') + saved.at("Version"));
    EXPECT_LE(version / 1000000, kill) << "a version no child saved";
  }
  const int leftBehind = countTemporaries(directory);
  std::printf("temporary files after %d kills during saves: %d\n", kKills, leftBehind);
  // Each child started a settings manager on the file, which removed what the previous kill left.
  EXPECT_LE(leftBehind, 1);

  // The next start of a settings manager on that file.
  const std::map<std::string, std::string> before = readSettingsFile(mSettingsPath);
  useSettingsFile(mDir.path() + "/elsewhere.conf");
  fetch();
  useSettingsFile(directory + "/settings.conf");
  SmartPtr<ISettingsManager> manager = fetch();
  EXPECT_EQ(countTemporaries(directory), 0);
  EXPECT_EQ(manager->getFileSetting("Version"), before.at("Version"));
  EXPECT_EQ(readSettingsFile(mSettingsPath), before);
}

}  // namespace
