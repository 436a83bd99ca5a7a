// Shell commands with a time limit: statuses, the process group, the limit,
// and aborting from other threads and from a signal handler.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "tolvane/Process.h"

namespace {

using framework_test::TempDir;
using std::chrono::milliseconds;
using Tolvane::CommandResult;
using Tolvane::runCommand;

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

// Waits (bounded) until a command has written the file.
bool waitForFile(const std::string& path) {
  for (int i = 0; i < 1000; ++i) {
    if (!readFile(path).empty()) {
      return true;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  return false;
}

// Gone, or a zombie that its new parent has not reaped yet: in either case it runs no more.
bool processHasEnded(pid_t pid) {
  if (kill(pid, 0) != 0) {
    return errno == ESRCH;
  }
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  return close != std::string::npos && stat.compare(close + 2, 1, "Z") == 0;
}

bool endsSoon(pid_t pid) {
  for (int i = 0; i < 500; ++i) {
    if (processHasEnded(pid)) {
      return true;
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  return false;
}

TEST(ProcessTest, ExitStatusOfTheShellIsPassedOn) {
  CommandResult result = runCommand("exit 7", milliseconds(10000));
  ASSERT_TRUE(WIFEXITED(result.status));
  EXPECT_EQ(7, WEXITSTATUS(result.status));
  EXPECT_FALSE(result.timedOut);
  EXPECT_FALSE(result.aborted);

  result = runCommand("/nonexistent/script.sh", milliseconds(10000));
  ASSERT_TRUE(WIFEXITED(result.status));
  EXPECT_EQ(127, WEXITSTATUS(result.status));
}

TEST(ProcessTest, ShellThatCannotStartGivesANegativeStatus) {
  // One argument longer than the kernel accepts: the shell is never executed.
  const std::string tooLong(256 * 1024, 'x');
  const CommandResult result = runCommand(tooLong, milliseconds(10000));
  EXPECT_EQ(-E2BIG, result.status);
  EXPECT_FALSE(result.timedOut);
}

TEST(ProcessTest, CommandRunsInAProcessGroupOfItsOwnWithDefaultSignals) {
  TempDir dir;
  const std::string out = dir.path() + "/ids";
  signal(SIGTERM, SIG_IGN);
  const CommandResult result =
      runCommand("echo $$ $(cut -d' ' -f5 /proc/$$/stat) > '" + out + "'; kill -TERM $$", milliseconds(10000));
  signal(SIGTERM, SIG_DFL);
  ASSERT_TRUE(WIFSIGNALED(result.status));
  EXPECT_EQ(SIGTERM, WTERMSIG(result.status));
  std::istringstream ids(readFile(out));
  pid_t shell = 0;
  pid_t group = 0;
  ASSERT_TRUE(ids >> shell >> group);
  EXPECT_EQ(shell, group);
  EXPECT_NE(getpgrp(), group);
}

TEST(ProcessTest, OverrunKillsTheWholeGroupAndReapsTheShell) {
  TempDir dir;
  const std::string pids = dir.path() + "/pids";
  const auto started = std::chrono::steady_clock::now();
  const CommandResult result =
      runCommand("sleep 30 & echo $$ $! > '" + pids + "'; wait; echo survived >> '" + pids + "'", milliseconds(300));
  EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds(300));
  EXPECT_TRUE(result.timedOut);
  EXPECT_FALSE(result.aborted);
  ASSERT_TRUE(WIFSIGNALED(result.status));
  EXPECT_EQ(SIGKILL, WTERMSIG(result.status));
  std::istringstream content(readFile(pids));
  pid_t shell = 0;
  pid_t sleeper = 0;
  std::string rest;
  ASSERT_TRUE(content >> shell >> sleeper);
  EXPECT_FALSE(content >> rest) << "the shell went on after its limit";
  EXPECT_TRUE(processHasEnded(shell));
  EXPECT_TRUE(endsSoon(sleeper)) << "the shell's child survived";
  // Reaped: no child of ours is left to wait for.
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST(ProcessTest, ZeroLimitKillsAtOnce) {
  const CommandResult result = runCommand("sleep 30", milliseconds(0));
  EXPECT_TRUE(result.timedOut);
  ASSERT_TRUE(WIFSIGNALED(result.status));
}

TEST(ProcessTest, AbortKillsRunningCommandsOfEveryThreadAndNotLaterOnes) {
  TempDir dir;
  std::vector<std::future<CommandResult>> running;
  for (int i = 0; i < 4; ++i) {
    const std::string marker = dir.path() + "/started" + std::to_string(i);
    running.push_back(std::async(std::launch::async, [marker] {
      return runCommand("echo $$ > '" + marker + "'; sleep 30", milliseconds(60000));
    }));
    ASSERT_TRUE(waitForFile(marker));
  }
  Tolvane::abortRunningCommands();
  for (auto& result : running) {
    ASSERT_EQ(std::future_status::ready, result.wait_for(std::chrono::seconds(20)));
    const CommandResult ended = result.get();
    EXPECT_TRUE(ended.aborted);
    EXPECT_FALSE(ended.timedOut);
    ASSERT_TRUE(WIFSIGNALED(ended.status));
    EXPECT_EQ(SIGKILL, WTERMSIG(ended.status));
  }
  const CommandResult later = runCommand("exit 0", milliseconds(10000));
  EXPECT_FALSE(later.aborted);
  EXPECT_TRUE(WIFEXITED(later.status));
}

TEST(ProcessTest, AbortWorksFromASignalHandler) {
  TempDir dir;
  const std::string marker = dir.path() + "/started";
  struct sigaction action {};
  action.sa_handler = [](int) { Tolvane::abortRunningCommands(); };
  struct sigaction previous {};
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
  auto running = std::async(
      std::launch::async, [marker] { return runCommand("echo x > '" + marker + "'; sleep 30", milliseconds(60000)); });
  ASSERT_TRUE(waitForFile(marker));
  kill(getpid(), SIGUSR1);
  ASSERT_EQ(std::future_status::ready, running.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(running.get().aborted);
  sigaction(SIGUSR1, &previous, nullptr);
}

TEST(ProcessTest, ConcurrentCommandsEachGetTheirOwnStatus) {
  std::vector<std::future<CommandResult>> results;
  for (int i = 0; i < 8; ++i) {
    results.push_back(std::async(std::launch::async, [i] {
      return runCommand("sleep 0.0" + std::to_string(i) + "; exit " + std::to_string(i), milliseconds(20000));
    }));
  }
  for (int i = 0; i < 8; ++i) {
    const CommandResult result = results[i].get();
    ASSERT_TRUE(WIFEXITED(result.status)) << i;
    EXPECT_EQ(i, WEXITSTATUS(result.status));
  }
}

}  // namespace
