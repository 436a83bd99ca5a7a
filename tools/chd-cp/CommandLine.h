// chd-cp's command line: a subcommand, its arguments and the options.
#pragma once

#include <string>
#include <vector>

namespace chdcp {

struct CommandLine {
  std::string command;
  std::string box;                    // BOX, for every command but discover
  std::vector<std::string> args;      // what follows BOX
  std::string interfaceName;          // --interface
  double timeout = 10;                // --timeout
  double wait = 3;                    // --wait (discover)
  unsigned depth = 0;                 // --depth (params; 0: the whole subtree)
  double forSeconds = 0;              // --for (watch; 0: until interrupted)
  std::string outputDirectory = ".";  // -o (logs)
  bool json = false;                  // --json
  bool help = false;
};

// Throws a Failure with kExitUsage and the reason.
CommandLine parseCommandLine(int argc, char** argv);

// The text that --help prints.
std::string usageText();

}  // namespace chdcp
