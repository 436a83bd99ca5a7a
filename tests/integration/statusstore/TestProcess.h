// Child processes of the tests (the bus daemon, chd-status, chd-client-app)
// with their standard output and error read line by line under time limits.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace statusstore::test {

class TestProcess {
 public:
  enum Stream { kStdout = 0, kStderr = 1 };

  // Starts argv[0] (looked up in PATH) with the environment of the test plus
  // the given variables.
  TestProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {});
  ~TestProcess();  // kills a child that is still running
  TestProcess(const TestProcess&) = delete;
  TestProcess& operator=(const TestProcess&) = delete;

  bool started() const { return mPid > 0; }
  // The next whole line (without its newline), or nothing after timeoutMs or at end of stream.
  std::optional<std::string> readLine(Stream stream, int timeoutMs);
  // Reads lines until one contains the text; false after timeoutMs.
  bool waitForLine(Stream stream, const std::string& text, int timeoutMs);
  // Every line read so far from the stream, for failure messages.
  std::string transcript(Stream stream) const;

  void sendSignal(int signal);
  // Exit status, 128 + signal number if killed by one, -1 if still running after timeoutMs.
  int waitForExit(int timeoutMs);

 private:
  struct Output {
    int fd = -1;
    std::string pending;
    std::string transcript;
  };

  bool fill(Output& output, int timeoutMs);

  pid_t mPid = -1;
  int mExitStatus = -1;
  Output mOutputs[2];
};

// Runs a command to its end (at most timeoutMs) and gives its exit status and output.
struct CommandResult {
  int exitStatus = -1;
  std::string out;
  std::string err;
};
CommandResult runCommand(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env = {},
                         int timeoutMs = 10000);

}  // namespace statusstore::test
