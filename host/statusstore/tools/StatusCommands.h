// The commands of chd-status, each a short exchange with the status store.
#pragma once

#include <gio/gio.h>

#include <string>
#include <vector>

namespace statusstore::tool {

enum ExitCode { kExitOk = 0, kExitUnreachable = 1, kExitUsage = 2 };

struct Command {
  const char* name;
  size_t minArgs;
  size_t maxArgs;
  int (*run)(GDBusConnection* connection, const std::vector<std::string>& args);
};

const std::vector<Command>& commands();
const Command* findCommand(const std::string& name);

// One line of `watch` output per signal.
std::string formatStatusesChanged(GVariant* statuses);
std::string formatEventPosted(const char* name, const char* value);

}  // namespace statusstore::tool
