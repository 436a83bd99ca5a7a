// The host's collection scripts: each writes its file into the configured log
// directory, whole, also when several runs overlap.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "PrivateNamespaces.h"

namespace bmtest {
namespace {

const std::string kScriptsDir = CHD_COLLECTION_SCRIPTS_DIR;

struct Script {
  const char* name;
  const char* output;
};

const Script kScripts[] = {
    {"procEntriesStatus.sh", "procEntriesStatus.log"},
    {"processList.sh", "processList.log"},
    {"fdStatus.sh", "fdStatus.log"},
    {"getNetstat.sh", "netstat.log"},
    {"wifiChipLogGet.sh", "wifichip.tar"},
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// True when a line's first blank-separated field is the word.
bool hasLineStartingWith(const std::string& text, const std::string& word) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string first;
    if (fields >> first && first == word) {
      return true;
    }
  }
  return false;
}

// Exit status of a shell command, bounded in time.
int shell(const std::string& command) {
  const int status = system(("timeout 120 sh -c '" + command + "'").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> directoryEntries(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) {
    return names;
  }
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  closedir(dir);
  return names;
}

class CollectionScriptsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!hasPrivateNamespaces()) {
      GTEST_SKIP() << "needs root for a private /tmp";
    }
    char pattern[] = "/tmp/chdscripts.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    root = pattern;
    logDir = root + "/log dir";
    config = root + "/platform.conf";
    // Blanks around the value and trailing slashes are the key file's and the platform's business, not ours.
    std::ofstream(config) << "[platform]\n# log_path=/wrong\nmodel = HOST\nlog_path = " << logDir
                          << "//  \n\n[elsewhere]\nlog_path=/tmp/not-this-one\n";
    setenv("CHD_PLATFORM_CONFIG", config.c_str(), 1);
  }
  void TearDown() override { unsetenv("CHD_PLATFORM_CONFIG"); }

  std::string scriptPath(const Script& script) { return kScriptsDir + "/" + script.name; }

  std::string root;
  std::string logDir;
  std::string config;
};

TEST_F(CollectionScriptsTest, ScriptsAreExecutable) {
  for (const Script& script : kScripts) {
    EXPECT_EQ(0, access(scriptPath(script).c_str(), X_OK)) << script.name;
  }
}

TEST_F(CollectionScriptsTest, EachScriptWritesItsFileIntoTheLogDirectory) {
  for (const Script& script : kScripts) {
    EXPECT_EQ(0, shell("\"" + scriptPath(script) + "\"")) << script.name;
    EXPECT_FALSE(readFile(logDir + "/" + script.output).empty()) << script.output;
  }
  EXPECT_EQ(5u, directoryEntries(logDir).size()) << "temporary files left behind";
  EXPECT_TRUE(directoryEntries("/tmp/not-this-one").empty());

  const std::string pid = std::to_string(getpid());
  const std::string proc = readFile(logDir + "/procEntriesStatus.log");
  EXPECT_NE(std::string::npos, proc.find("==== /proc/meminfo\nMemTotal:"));
  EXPECT_NE(std::string::npos, proc.find("==== /proc/loadavg\n"));
  const std::string processes = readFile(logDir + "/processList.log");
  EXPECT_TRUE(hasLineStartingWith(processes, pid));
  EXPECT_NE(std::string::npos, processes.find("basicmanagement"));
  const std::string fds = readFile(logDir + "/fdStatus.log");
  EXPECT_NE(std::string::npos, fds.find("==== pid " + pid + " ("));
  const std::string sockets = readFile(logDir + "/netstat.log");
  EXPECT_NE(std::string::npos, sockets.find("Collected "));
  EXPECT_EQ(0, shell("tar -tf \"" + logDir + "/wifichip.tar\" >/dev/null"));
}

TEST_F(CollectionScriptsTest, ConcurrentRunsLeaveWholeFiles) {
  std::string command;
  for (const Script& script : kScripts) {
    for (int run = 0; run < 4; ++run) {
      command += "\"" + scriptPath(script) + "\" & pids=\"$pids $!\"; ";
    }
  }
  command += "for p in $pids; do wait $p || exit 1; done";
  ASSERT_EQ(0, shell(command));
  EXPECT_EQ(5u, directoryEntries(logDir).size()) << "temporary files left behind";
  const std::string proc = readFile(logDir + "/procEntriesStatus.log");
  EXPECT_EQ(0u, proc.find("Collected "));
  EXPECT_NE(std::string::npos, proc.find("==== /proc/sys/fs/file-nr\n"));
  EXPECT_EQ(0, shell("tar -tf \"" + logDir + "/wifichip.tar\" >/dev/null"));
}

// A run killed at the daemon's time limit leaves its temporary file; the next run removes it once it
// is old enough to belong to no live run, and leaves a fresh one (a run in progress) alone.
TEST_F(CollectionScriptsTest, NextRunRemovesTemporaryFilesOfKilledRuns) {
  ASSERT_EQ(0, shell("mkdir -p \"" + logDir + "\" && cd \"" + logDir +
                     "\" && echo torn > .netstat.log.Ab12Cd && touch -d \"2 minutes ago\" .netstat.log.Ab12Cd"
                     " && echo live > .netstat.log.Ef34Gh && echo other > .fdStatus.log.Ij56Kl"
                     " && touch -d \"2 minutes ago\" .fdStatus.log.Ij56Kl"));
  const std::string stage = root + "/wifichip.Mn78Op";
  ASSERT_EQ(0, shell("mkdir -p \"" + stage + "/net\" && touch -d \"2 minutes ago\" \"" + stage + "\""));
  setenv("TMPDIR", root.c_str(), 1);
  EXPECT_EQ(0, shell("\"" + kScriptsDir + "/getNetstat.sh\""));
  EXPECT_EQ(0, shell("\"" + kScriptsDir + "/wifiChipLogGet.sh\""));
  unsetenv("TMPDIR");
  EXPECT_NE(0, access((logDir + "/.netstat.log.Ab12Cd").c_str(), F_OK));
  EXPECT_EQ(0, access((logDir + "/.netstat.log.Ef34Gh").c_str(), F_OK));
  EXPECT_EQ(0, access((logDir + "/.fdStatus.log.Ij56Kl").c_str(), F_OK)) << "another script's file";
  EXPECT_NE(0, access(stage.c_str(), F_OK));
  EXPECT_FALSE(readFile(logDir + "/netstat.log").empty());
}

TEST_F(CollectionScriptsTest, DefaultLogDirectoryWithoutSettingsFile) {
  // /var/log is replaced for this process only, so the default directory can be written.
  ASSERT_EQ(0, mount("chd-test-varlog", "/var/log", "tmpfs", MS_NOSUID | MS_NODEV, "size=16m"));
  setenv("CHD_PLATFORM_CONFIG", (root + "/missing.conf").c_str(), 1);
  EXPECT_EQ(0, shell("\"" + kScriptsDir + "/procEntriesStatus.sh\""));
  EXPECT_FALSE(readFile("/var/log/chd/procEntriesStatus.log").empty());
  umount("/var/log");
}

}  // namespace
}  // namespace bmtest
