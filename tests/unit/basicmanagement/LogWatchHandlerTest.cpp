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

// Answers every script with a chosen status instead of running it.
class ScriptedHandler : public LogWatchHandler {
 public:
  explicit ScriptedHandler(int status) : LogWatchHandler(nullptr) { mResult.status = status; }
  explicit ScriptedHandler(const Tolvane::CommandResult& result) : LogWatchHandler(nullptr), mResult(result) {}
  std::vector<std::string> commands;

 protected:
  Tolvane::CommandResult runScript(const std::string& command) override {
    commands.push_back(command);
    return mResult;
  }

 private:
  Tolvane::CommandResult mResult;
};

// Runs the real command runner on a stand-in command instead of the platform's script.
class StandInHandler : public LogWatchHandler {
 public:
  StandInHandler(std::string standIn, std::chrono::milliseconds limit)
      : LogWatchHandler(nullptr, limit), mStandIn(std::move(standIn)) {}
  std::vector<Tolvane::CommandResult> results;

 protected:
  Tolvane::CommandResult runScript(const std::string& /*command*/) override {
    results.push_back(LogWatchHandler::runScript(mStandIn));
    return results.back();
  }

 private:
  std::string mStandIn;
};

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
    ScriptedHandler handler(0);
    EXPECT_TRUE((handler.*script.refresh)());
    EXPECT_EQ(std::vector<std::string>{script.script}, handler.commands);
  }
}

TEST(LogWatchHandlerTest, ShellThatCannotStartFailsTheRefresh) {
  for (const ScriptCase& script : kScripts) {
    LogRecorder logs;
    ScriptedHandler handler(-1);
    EXPECT_FALSE((handler.*script.refresh)());
    EXPECT_EQ(1, logs.exact(0, std::string("Failed to run command [") + script.script + "].  Sending Return Code[-1]"));
  }
}

TEST(LogWatchHandlerTest, ScriptThatRanAndFailedStillCounts) {
  for (int exitCode : {1, 2, 126, 127, 255}) {
    LogRecorder logs;
    ScriptedHandler handler(exitCode << 8);
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
  class ObservedHandler : public LogWatchHandler {
   public:
    ObservedHandler() : LogWatchHandler(nullptr) {}
    std::vector<int> statuses;

   protected:
    Tolvane::CommandResult runScript(const std::string& command) override {
      const Tolvane::CommandResult result = LogWatchHandler::runScript(command);
      statuses.push_back(result.status);
      return result;
    }
  } handler;
  LogRecorder logs;
  for (const ScriptCase& script : kScripts) {
    EXPECT_TRUE((handler.*script.refresh)()) << script.script;
  }
  ASSERT_EQ(5u, handler.statuses.size());
  for (int status : handler.statuses) {
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(127, WEXITSTATUS(status));
  }
  EXPECT_EQ(0, logs.countAnyLevel("Failed to run command"));
  if (hidden) {
    umount("/etc/utils");
  }
}

TEST(LogWatchHandlerTest, OtherNegativeStatusesAreReportedAsTheyCame) {
  LogRecorder logs;
  ScriptedHandler handler(-12);
  EXPECT_FALSE(handler.updateWifiChipLogFile());
  EXPECT_EQ(1, logs.exact(0, "Failed to run command [/etc/utils/wifiChipLogGet.sh].  Sending Return Code[-12]"));
}

TEST(LogWatchHandlerTest, DefaultLimitIsTenSeconds) {
  EXPECT_EQ(std::chrono::milliseconds(10000), LogWatchHandler::kDefaultScriptLimit);
}

TEST(LogWatchHandlerTest, ScriptKilledAtItsLimitStillCountsAndIsLogged) {
  Tolvane::CommandResult killed;
  killed.status = SIGKILL;
  killed.timedOut = true;
  LogRecorder logs;
  ScriptedHandler handler(killed);
  EXPECT_TRUE(handler.updateNetstat());
  EXPECT_EQ(1, logs.exact(2, "Collection script [/etc/utils/getNetstat.sh] ran longer than [10000] ms and was killed"));
  EXPECT_EQ(0, logs.countAnyLevel("Failed to run command"));
}

TEST(LogWatchHandlerTest, ScriptKilledAtShutdownStillCounts) {
  Tolvane::CommandResult killed;
  killed.status = SIGKILL;
  killed.aborted = true;
  LogRecorder logs;
  ScriptedHandler handler(killed);
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
  StandInHandler handler("echo partial > '" + output + "'; sleep 30; echo never >> '" + output + "'",
                         std::chrono::milliseconds(300));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(handler.updateProcEntries());
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, std::chrono::milliseconds(300));
  EXPECT_LT(took, std::chrono::seconds(20));
  ASSERT_EQ(1u, handler.results.size());
  EXPECT_TRUE(handler.results[0].timedOut);
  ASSERT_TRUE(WIFSIGNALED(handler.results[0].status));
  EXPECT_EQ(SIGKILL, WTERMSIG(handler.results[0].status));
  EXPECT_EQ(
      1, logs.exact(2, "Collection script [/etc/utils/procEntriesStatus.sh] ran longer than [300] ms and was killed"));
  std::ifstream in(output);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ("partial\n", content);
  unlink(output.c_str());
  rmdir(pattern);
}

TEST(LogWatchHandlerTest, ScriptWithinItsLimitIsNotKilled) {
  StandInHandler handler("exit 3", std::chrono::milliseconds(10000));
  EXPECT_TRUE(handler.updateProcessList());
  ASSERT_EQ(1u, handler.results.size());
  EXPECT_FALSE(handler.results[0].timedOut);
  ASSERT_TRUE(WIFEXITED(handler.results[0].status));
  EXPECT_EQ(3, WEXITSTATUS(handler.results[0].status));
}

}  // namespace
}  // namespace bmtest
