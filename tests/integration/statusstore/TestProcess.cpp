#include "TestProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace statusstore::test {
namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& overrides) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    std::string name = text.substr(0, text.find('='));
    if (overrides.count(name) == 0) {
      result.push_back(text);
    }
  }
  for (const auto& [name, value] : overrides) {
    result.push_back(name + "=" + value);
  }
  return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

TestProcess::TestProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env) {
  int pipes[2][2];
  if (pipe2(pipes[0], O_CLOEXEC) != 0 || pipe2(pipes[1], O_CLOEXEC) != 0) {
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipes[0][1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipes[1][1], STDERR_FILENO);
  std::vector<std::string> args = argv;
  std::vector<std::string> environment = mergedEnvironment(env);
  std::vector<char*> argPointers = pointersTo(args);
  std::vector<char*> envPointers = pointersTo(environment);
  if (posix_spawnp(&mPid, argPointers[0], &actions, nullptr, argPointers.data(), envPointers.data()) != 0) {
    mPid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  for (int stream = 0; stream < 2; ++stream) {
    close(pipes[stream][1]);
    mOutputs[stream].fd = pipes[stream][0];
  }
}

TestProcess::~TestProcess() {
  if (mPid > 0 && waitForExit(0) == -1) {
    sendSignal(SIGKILL);
    waitForExit(5000);
  }
  for (Output& output : mOutputs) {
    if (output.fd >= 0) {
      close(output.fd);
    }
  }
}

bool TestProcess::fill(Output& output, int timeoutMs) {
  if (output.fd < 0) {
    return false;
  }
  pollfd descriptor{output.fd, POLLIN, 0};
  if (poll(&descriptor, 1, timeoutMs) <= 0) {
    return false;
  }
  char buffer[4096];
  ssize_t count = read(output.fd, buffer, sizeof(buffer));
  if (count <= 0) {
    close(output.fd);
    output.fd = -1;
    return false;
  }
  output.pending.append(buffer, static_cast<size_t>(count));
  return true;
}

std::optional<std::string> TestProcess::readLine(Stream stream, int timeoutMs) {
  Output& output = mOutputs[stream];
  auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (output.pending.find('\n') == std::string::npos) {
    if (!fill(output, remainingMs(deadline))) {
      if (output.fd >= 0 || output.pending.empty()) {
        return std::nullopt;
      }
      output.pending += '\n';  // the last line of a stream that ended without one
    }
  }
  size_t end = output.pending.find('\n');
  std::string line = output.pending.substr(0, end);
  output.pending.erase(0, end + 1);
  output.transcript += line + "\n";
  return line;
}

bool TestProcess::waitForLine(Stream stream, const std::string& text, int timeoutMs) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::optional<std::string> line = readLine(stream, remainingMs(deadline))) {
    if (line->find(text) != std::string::npos) {
      return true;
    }
  }
  return false;
}

std::string TestProcess::transcript(Stream stream) const { return mOutputs[stream].transcript; }

void TestProcess::sendSignal(int signal) {
  if (mPid > 0 && mExitStatus == -1) {
    kill(mPid, signal);
  }
}

int TestProcess::waitForExit(int timeoutMs) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (mPid > 0 && mExitStatus == -1) {
    int status = 0;
    pid_t done = waitpid(mPid, &status, WNOHANG);
    if (done == mPid) {
      mExitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else if (remainingMs(deadline) == 0) {
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  return mExitStatus;
}

CommandResult runCommand(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         int timeoutMs) {
  TestProcess process(argv, env);
  CommandResult result;
  auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (process.readLine(TestProcess::kStdout, remainingMs(deadline))) {
  }
  while (process.readLine(TestProcess::kStderr, remainingMs(deadline))) {
  }
  result.exitStatus = process.waitForExit(remainingMs(deadline));
  result.out = process.transcript(TestProcess::kStdout);
  result.err = process.transcript(TestProcess::kStderr);
  return result;
}

}  // namespace statusstore::test
