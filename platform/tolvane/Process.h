// Shell commands of the Tolvane framework, run with a time limit.
//
// runCommand starts "/bin/sh -c command" in a process group of its own (the
// group's id is the shell's pid), with default signal dispositions and an empty
// signal mask, inheriting the caller's environment, working directory and open
// descriptors, as system() does. It waits for the shell to end, at most for the
// limit. When the limit runs out first, or abortRunningCommands() is called in
// the meantime, the whole group (the shell and everything it started that did
// not leave the group) is killed with SIGKILL and the shell is reaped before
// runCommand returns: no zombie is left, and no process of the group survives
// unless it moved to another group itself. Processes that stay in the group
// after the shell exited normally are left alone, as with system().
//
// Threads: runCommand may be called from any number of threads at once; each
// call blocks its thread only. abortRunningCommands may be called from any
// thread and from a signal handler (it only reads atomics and sends signals).
// The daemon runs its collection scripts on the web server's worker threads
// and aborts them from its SIGTERM thread.
//
// Errors: no exception is thrown. A shell that cannot be started gives a
// negative status (minus the errno of the failure) and nothing is waited for.
#pragma once

#include <chrono>
#include <string>

namespace Tolvane {

struct CommandResult {
  // The shell's wait status as waitpid gives it (WIFEXITED, WEXITSTATUS...),
  // or negative when no shell could be started.
  int status = -1;
  // The limit ran out: the group was killed and status shows that signal.
  bool timedOut = false;
  // abortRunningCommands() killed the group before the limit ran out.
  bool aborted = false;
};

// Runs the command through the shell and waits at most limit for it (a limit
// of zero or less kills it at once).
CommandResult runCommand(const std::string& command, std::chrono::milliseconds limit);

// Kills the process group of every command that a runCommand call waits for at
// this moment, in every thread; each of those calls returns promptly with
// aborted set. Commands started afterwards run normally. Meant for shutdown,
// when nobody may wait for a command any more. It reaches the first 64
// commands running at once; any beyond those still end at their limit.
void abortRunningCommands();

}  // namespace Tolvane
