#include "tolvane/Process.h"

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <thread>

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX declares it nowhere else

namespace Tolvane {

namespace {

// The commands that runCommand waits for, reachable from a signal handler:
// a fixed table of atomics instead of a locked container.
struct RunningCommand {
  std::atomic<pid_t> group{0};
  // The group that an abort killed: a slot handed on between reading and killing is not mistaken for aborted.
  std::atomic<pid_t> abortedGroup{0};
};

constexpr size_t kRunningSlots = 64;
std::array<RunningCommand, kRunningSlots> gRunning;
// Counts aborts: a command spawned before an abort but registered after it
// (its slot not yet claimed when the abort looked) kills itself.
std::atomic<uint64_t> gAborts{0};

// Without a process descriptor the wait falls back to polling at this pace.
constexpr std::chrono::milliseconds kPollStep{10};
// One poll waits at most this long (ms), so that a limit of weeks does not overflow its argument.
constexpr int64_t kLongestPoll = int64_t{3600} * 1000;

RunningCommand* claimSlot(pid_t group) {
  for (RunningCommand& slot : gRunning) {
    pid_t expected = 0;
    if (slot.group.compare_exchange_strong(expected, group)) {
      return &slot;
    }
  }
  return nullptr;
}

// Cleared before the shell is reaped, so that a late abort can only reach a
// group whose leader is still a zombie, never a reused process id.
bool releaseSlot(RunningCommand* slot, pid_t group) {
  if (slot == nullptr) {
    return false;
  }
  const bool aborted = slot->abortedGroup.exchange(0) == group;
  slot->group.store(0);
  return aborted;
}

int spawnShell(const std::string& command, pid_t* pid) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGCHLD, SIGUSR1, SIGUSR2}) {
    sigaddset(&defaults, sig);
  }
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const char* const argv[] = {"sh", "-c", command.c_str(), nullptr};
  const int error = posix_spawn(pid, "/bin/sh", nullptr, &attributes, const_cast<char* const*>(argv), environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

// True once the child has ended (not yet reaped), false when the deadline came first.
bool waitForEnd(pid_t pid, int processFd, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    siginfo_t info{};
    if (processFd < 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid == pid) {
      return true;
    }
    if (left.count() <= 0) {
      return false;
    }
    if (processFd < 0) {
      std::this_thread::sleep_for(std::min(left, kPollStep));
      continue;
    }
    pollfd readable{processFd, POLLIN, 0};
    const int ready = poll(&readable, 1, static_cast<int>(std::min<int64_t>(left.count(), kLongestPoll) + 1));
    if (ready > 0) {
      return true;
    }
    if (ready < 0 && errno != EINTR) {
      processFd = -1;  // cannot happen with a valid descriptor; polling still works
    }
  }
}

int reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -errno;
    }
  }
  return status;
}

}  // namespace

CommandResult runCommand(const std::string& command, std::chrono::milliseconds limit) {
  CommandResult result;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  pid_t pid = 0;
  const uint64_t abortsBefore = gAborts.load();
  const int error = spawnShell(command, &pid);
  if (error != 0) {
    result.status = -error;
    return result;
  }
  RunningCommand* slot = claimSlot(pid);
  if (slot != nullptr && gAborts.load() != abortsBefore) {
    slot->abortedGroup.store(pid);
    killpg(pid, SIGKILL);
  }
  const int processFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const bool ended = waitForEnd(pid, processFd, deadline);
  if (processFd >= 0) {
    close(processFd);
  }
  if (!ended) {
    killpg(pid, SIGKILL);
  }
  result.aborted = releaseSlot(slot, pid);
  result.timedOut = !ended && !result.aborted;
  result.status = reap(pid);
  return result;
}

void abortRunningCommands() {
  gAborts.fetch_add(1);
  for (RunningCommand& slot : gRunning) {
    const pid_t group = slot.group.load();
    if (group != 0) {
      slot.abortedGroup.store(group);
      killpg(group, SIGKILL);
    }
  }
}

}  // namespace Tolvane
