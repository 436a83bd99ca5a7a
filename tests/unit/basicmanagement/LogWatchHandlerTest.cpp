// The log-collection handler: which script each refresh runs, and which
// outcomes of system() make a refresh fail.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <mutex>
#include <string>
#include <vector>

#include "BasicManagementFakes.h"
#include "LogWatchHandler.h"
#include "PrivateNamespaces.h"

namespace bmtest {
namespace {

// Answers every script with a chosen status instead of running it.
class ScriptedHandler : public LogWatchHandler {
 public:
  explicit ScriptedHandler(int status) : LogWatchHandler(nullptr), mStatus(status) {}
  std::vector<std::string> commands;

 protected:
  int runScript(const std::string& command) override {
    commands.push_back(command);
    return mStatus;
  }

 private:
  int mStatus;
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
    int runScript(const std::string& command) override {
      statuses.push_back(LogWatchHandler::runScript(command));
      return statuses.back();
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

}  // namespace
}  // namespace bmtest
