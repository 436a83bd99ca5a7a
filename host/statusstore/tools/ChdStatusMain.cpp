// chd-status: reads and writes the status store of a running daemon over D-Bus.
#include <gio/gio.h>

#include <cstdio>
#include <string>
#include <vector>

#include "StatusCommands.h"
#include "statusstore_host/StatusStoreBus.h"

namespace {

constexpr char kCommandsHelp[] =
    "Commands:\n"
    "  get KEY              print the value of a status (an empty line if it was never set)\n"
    "  set KEY VALUE        set a status\n"
    "  post EVENT [VALUE]   post an event (the value is empty if left out)\n"
    "  watch                print every status change and event, one line each, until interrupted:\n"
    "                         StatusesChanged {\"key\":\"value\",...}\n"
    "                         EventPosted \"name\" \"value\"\n"
    "  timer NAME           print a timer's elapsed seconds and its start time\n"
    "  counter NAME         print a counter\n"
    "\n"
    "The store is looked for on the bus that the platform settings name ([statusstore] bus in the file\n"
    "$CHD_PLATFORM_CONFIG, default /etc/chd/platform.conf) unless --bus names one: session, system or a\n"
    "D-Bus address. Options go before the command.\n"
    "\n"
    "Exit status: 0 done, 1 the store cannot be reached, 2 bad usage.";

struct Invocation {
  std::string bus;
  const statusstore::tool::Command* command = nullptr;
  std::vector<std::string> args;
};

GOptionContext* newOptionContext(gchar** bus) {
  const GOptionEntry entries[] = {
      {"bus", 'b', 0, G_OPTION_ARG_STRING, bus, "Bus of the status store: session, system or an address", "BUS"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext* context = g_option_context_new("COMMAND [ARGUMENT...] - talk to the CHD status store");
  g_option_context_add_main_entries(context, entries, nullptr);
  g_option_context_set_description(context, kCommandsHelp);
  // Stop at the command, so that values such as "-60" are not read as options.
  g_option_context_set_strict_posix(context, TRUE);
  return context;
}

void printUsage(GOptionContext* context, const char* problem) {
  gchar* help = g_option_context_get_help(context, TRUE, nullptr);
  fprintf(stderr, "chd-status: %s\n\n%s", problem, help);
  g_free(help);
}

// Fills the invocation from the command line; false after printing why not.
bool parseCommandLine(int argc, char** argv, Invocation& invocation) {
  gchar* bus = nullptr;
  GOptionContext* context = newOptionContext(&bus);
  GError* error = nullptr;
  bool parsed = g_option_context_parse(context, &argc, &argv, &error);
  std::string problem = parsed ? "" : error->message;
  g_clear_error(&error);
  if (parsed && argc < 2) {
    problem = "no command given";
  } else if (parsed) {
    invocation.command = statusstore::tool::findCommand(argv[1]);
    invocation.args.assign(argv + 2, argv + argc);
    if (invocation.command == nullptr) {
      problem = std::string("unknown command '") + argv[1] + "'";
    } else if (invocation.args.size() < invocation.command->minArgs ||
               invocation.args.size() > invocation.command->maxArgs) {
      problem = std::string("wrong number of arguments for '") + argv[1] + "'";
    }
  }
  if (!problem.empty()) {
    printUsage(context, problem.c_str());
  }
  invocation.bus = bus != nullptr ? bus : "";
  g_free(bus);
  g_option_context_free(context);
  return problem.empty();
}

}  // namespace

int main(int argc, char** argv) {
  Invocation invocation;
  if (!parseCommandLine(argc, argv, invocation)) {
    return statusstore::tool::kExitUsage;
  }
  std::string bus = invocation.bus.empty() ? statusstore::configuredBus() : invocation.bus;
  if (bus == statusstore::kNoBus) {
    fprintf(stderr, "chd-status: the platform settings do not export the status store on D-Bus; use --bus\n");
    return statusstore::tool::kExitUnreachable;
  }
  GError* error = nullptr;
  GDBusConnection* connection = statusstore::connectToBus(bus, &error);
  if (connection == nullptr) {
    fprintf(stderr, "chd-status: cannot reach the bus '%s': %s\n", bus.c_str(), error->message);
    g_clear_error(&error);
    return statusstore::tool::kExitUnreachable;
  }
  int exitCode = invocation.command->run(connection, invocation.args);
  g_dbus_connection_flush_sync(connection, nullptr, nullptr);
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
  return exitCode;
}
