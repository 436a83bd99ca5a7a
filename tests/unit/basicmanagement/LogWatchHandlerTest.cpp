// The log-collection handler: which script each refresh runs, which outcomes
// of the script make a refresh fail, and the time limit of a script.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "BasicManagementFakes.h"
#include "LogWatchHandler.h"
#include "PrivateNamespaces.h"

namespace bmtest {
namespace {

const std::chrono::milliseconds kLimit = LogWatchHandler::kDefaultScriptLimit;

typedef bool (LogWatchHandler::*Refresh)();

struct ScriptCase {
  Refresh refresh;
  const char* script;
};

const ScriptCase kScripts[] = {
    {&LogWatchHandler::updateProcEntries, "/etc/utils/procEntriesStatus.sh"},
    {&LogWatchHandler::updateNetstat, "/etc/utils/getNetstat.sh"},
    {&LogWatchHandler::updateFdStatus, "/etc/utils/fdStatus.sh"},
    {&LogWatchHandler::updateProcessList, "/etc/utils/processList.sh"},
    {&LogWatchHandler::updateWifiChipLogFile, "/etc/utils/wifiChipLogGet.sh"},
};

TEST(LogWatchHandlerTest, EachRefreshRunsItsScriptWithoutArguments) {
  for (const ScriptCase& script : kScripts) {
    ScriptedRunner runner(0);
    LogWatchHandler handler(nullptr, kLimit, &runner);
    EXPECT_TRUE((handler.*script.refresh)());
    EXPECT_EQ(std::vector<std::string>{script.script}, runner.commands);
  }
}

TEST(LogWatchHandlerTest, ShellThatCannotStartFailsTheRefresh) {
  for (const ScriptCase& script : kScripts) {
    LogRecorder logs;
    ScriptedRunner runner(-1);
    LogWatchHandler handler(nullptr, kLimit, &runner);
    EXPECT_FALSE((handler.*script.refresh)());
    EXPECT_EQ(1, logs.exact(0, std::string("Failed to run command [") + script.script + "].  Sending Return Code[-1]"));
  }
}

TEST(LogWatchHandlerTest, ScriptThatRanAndFailedStillCounts) {
  for (int exitCode : {1, 2, 126, 127, 255}) {
    LogRecorder logs;
    ScriptedRunner runner(exitCode << 8);
    LogWatchHandler handler(nullptr, kLimit, &runner);
    for (const ScriptCase& script : kScripts) {
      EXPECT_TRUE((handler.*script.refresh)()) << script.script << " exit " << exitCode;
    }
    EXPECT_EQ(0, logs.countAnyLevel("Failed to run command"));
  }
}

// With the real system(): a script that does not exist makes the shell exit
// with 127, and the refresh still succeeds.
TEST(LogWatchHandlerTest, MissingScriptExitsWith127AndCounts) {
  if (!hasPrivateNamespaces()) {
    GTEST_SKIP() << "needs root to hide /etc/utils in a private mount namespace";
  }
  struct stat info {};
  const bool hidden = stat("/etc/utils", &info) == 0;
  if (hidden) {
    // Hidden for this process only: the host's scripts stay where they are.
    ASSERT_EQ(0, mount("chd-test-utils", "/etc/utils", "tmpfs", MS_NOSUID | MS_NODEV, "size=1m"));
  }
  ShellWithStandIn runner;
  LogWatchHandler handler(nullptr, kLimit, &runner);
  LogRecorder logs;
  for (const ScriptCase& script : kScripts) {
    EXPECT_TRUE((handler.*script.refresh)()) << script.script;
  }
  const std::vector<Tolvane::CommandResult> results = runner.results();
  ASSERT_EQ(5u, results.size());
  for (const Tolvane::CommandResult& result : results) {
    ASSERT_TRUE(WIFEXITED(result.status));
    EXPECT_EQ(127, WEXITSTATUS(result.status));
  }
  EXPECT_EQ(0, logs.countAnyLevel("Failed to run command"));
  if (hidden) {
    umount("/etc/utils");
  }
}

TEST(LogWatchHandlerTest, OtherNegativeStatusesAreReportedAsTheyCame) {
  LogRecorder logs;
  ScriptedRunner runner(-12);
  LogWatchHandler handler(nullptr, kLimit, &runner);
  EXPECT_FALSE(handler.updateWifiChipLogFile());
  EXPECT_EQ(1, logs.exact(0, "Failed to run command [/etc/utils/wifiChipLogGet.sh].  Sending Return Code[-12]"));
}

TEST(LogWatchHandlerTest, DefaultLimitIsTenSeconds) {
  EXPECT_EQ(std::chrono::milliseconds(10000), LogWatchHandler::kDefaultScriptLimit);
}

// What the runner reports for a script it killed at its limit, or at shutdown.
Tolvane::CommandResult killedScript(bool atLimit) {
  Tolvane::CommandResult killed;
  killed.status = SIGKILL;
  killed.timedOut = atLimit;
  killed.aborted = !atLimit;
  return killed;
}

TEST(LogWatchHandlerTest, ScriptKilledAtItsLimitStillCountsAndIsLogged) {
  LogRecorder logs;
  ScriptedRunner runner(killedScript(true));
  LogWatchHandler handler(nullptr, kLimit, &runner);
  EXPECT_TRUE(handler.updateNetstat());
  EXPECT_EQ(1, logs.exact(2, "Collection script [/etc/utils/getNetstat.sh] ran longer than [10000] ms and was killed"));
  EXPECT_EQ(0, logs.countAnyLevel("Failed to run command"));
}

TEST(LogWatchHandlerTest, ScriptKilledAtShutdownStillCounts) {
  LogRecorder logs;
  ScriptedRunner runner(killedScript(false));
  LogWatchHandler handler(nullptr, kLimit, &runner);
  EXPECT_TRUE(handler.updateFdStatus());
  EXPECT_EQ(1, logs.exact(2, "Collection script [/etc/utils/fdStatus.sh] was killed at shutdown"));
}

// With the real runner: the script that overruns its limit is killed with its
// group, and what it wrote before stays for the request.
TEST(LogWatchHandlerTest, OverrunningScriptIsKilledAfterItsLimit) {
  char pattern[] = "/tmp/chdlimit.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(pattern));
  const std::string output = std::string(pattern) + "/out.log";
  LogRecorder logs;
  ShellWithStandIn runner("echo partial > '" + output + "'; sleep 30; echo never >> '" + output + "'");
  LogWatchHandler handler(nullptr, std::chrono::milliseconds(300), &runner);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(handler.updateProcEntries());
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, std::chrono::milliseconds(300));
  EXPECT_LT(took, std::chrono::seconds(20));
  const std::vector<Tolvane::CommandResult> results = runner.results();
  ASSERT_EQ(1u, results.size());
  EXPECT_TRUE(results[0].timedOut);
  ASSERT_TRUE(WIFSIGNALED(results[0].status));
  EXPECT_EQ(SIGKILL, WTERMSIG(results[0].status));
  EXPECT_EQ(
      1, logs.exact(2, "Collection script [/etc/utils/procEntriesStatus.sh] ran longer than [300] ms and was killed"));
  std::ifstream in(output);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ("partial\n", content);
  unlink(output.c_str());
  rmdir(pattern);
}

TEST(LogWatchHandlerTest, ScriptWithinItsLimitIsNotKilled) {
  ShellWithStandIn runner("exit 3");
  LogWatchHandler handler(nullptr, std::chrono::milliseconds(10000), &runner);
  EXPECT_TRUE(handler.updateProcessList());
  const std::vector<Tolvane::CommandResult> results = runner.results();
  ASSERT_EQ(1u, results.size());
  EXPECT_FALSE(results[0].timedOut);
  ASSERT_TRUE(WIFEXITED(results[0].status));
  EXPECT_EQ(3, WEXITSTATUS(results[0].status));
}

}  // namespace
}  // namespace bmtest
