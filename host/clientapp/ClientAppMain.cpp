// chd-client-app: answers the daemon's requests to the client application on a host box.
#include <gio/gio.h>
#include <glib-unix.h>

#include <cstdio>
#include <string>

#include "ClientApp.h"
#include "statusstore_host/StatusStoreBus.h"
#include "tolvane/PlatformSettings.h"
#include "tolvane_host/HostPlatformSettings.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUnreachable = 1;
constexpr int kExitUsage = 2;

struct CommandLine {
  std::string bus;
  clientapp::ClientAppOptions options;
};

struct RawOptions {
  gchar* bus = nullptr;
  gchar* error = nullptr;
  gchar* settings = nullptr;
  gchar* blobDirectory = nullptr;
  gint delayMs = 0;
  gboolean silent = FALSE;
};

GOptionContext* newOptionContext(RawOptions& raw) {
  const GOptionEntry entries[] = {
      {"bus", 'b', 0, G_OPTION_ARG_STRING, &raw.bus, "Bus of the status store: session, system or an address", "BUS"},
      {"error", 'e', 0, G_OPTION_ARG_STRING, &raw.error, "Report this settings refresh error before completing",
       "TEXT"},
      {"delay-ms", 'd', 0, G_OPTION_ARG_INT, &raw.delayMs, "Answer a settings refresh after this many ms", "N"},
      {"silent", 's', 0, G_OPTION_ARG_NONE, &raw.silent, "Never answer a settings refresh", nullptr},
      {"settings", 0, 0, G_OPTION_ARG_FILENAME, &raw.settings,
       "Settings file to publish (default: [settings] file of the platform settings)", "FILE"},
      {"blob-dir", 0, 0, G_OPTION_ARG_FILENAME, &raw.blobDirectory,
       "Directory for the diagnostics blobs (default: log_path of the platform settings)", "DIR"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext* context = g_option_context_new("- the client application of a host box, over the status store");
  g_option_context_add_main_entries(context, entries, nullptr);
  g_option_context_set_description(
      context,
      "Without --bus the store is looked for on the bus that the platform settings name ([statusstore] bus in\n"
      "$CHD_PLATFORM_CONFIG). Exit status: 0 stopped by SIGTERM or SIGINT, 1 the bus cannot be reached, 2 bad usage.");
  return context;
}

std::string configuredSettingsFile() {
  auto* settings = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  return settings != nullptr ? settings->getSettingsFile() : std::string();
}

std::string configuredLogPath() { return Tolvane::PlatformSettings::getInstance()->getLogPath(); }

void takeOptions(const RawOptions& raw, CommandLine& commandLine) {
  commandLine.bus = raw.bus != nullptr ? raw.bus : statusstore::configuredBus();
  commandLine.options.reportError = raw.error != nullptr;
  commandLine.options.errorText = raw.error != nullptr ? raw.error : "";
  commandLine.options.delayMs = static_cast<unsigned>(raw.delayMs);
  commandLine.options.silent = raw.silent != FALSE;
  commandLine.options.settingsFile = raw.settings != nullptr ? raw.settings : configuredSettingsFile();
  commandLine.options.blobDirectory = raw.blobDirectory != nullptr ? raw.blobDirectory : configuredLogPath();
}

bool parseCommandLine(int argc, char** argv, CommandLine& commandLine) {
  RawOptions raw;
  GOptionContext* context = newOptionContext(raw);
  GError* error = nullptr;
  bool parsed = g_option_context_parse(context, &argc, &argv, &error);
  std::string problem = parsed ? "" : error->message;
  g_clear_error(&error);
  if (parsed && argc > 1) {
    problem = std::string("unexpected argument '") + argv[1] + "'";
  } else if (parsed && raw.delayMs < 0) {
    problem = "--delay-ms must not be negative";
  }
  if (problem.empty()) {
    takeOptions(raw, commandLine);
  } else {
    gchar* help = g_option_context_get_help(context, TRUE, nullptr);
    fprintf(stderr, "chd-client-app: %s\n\n%s", problem.c_str(), help);
    g_free(help);
  }
  g_free(raw.bus);
  g_free(raw.error);
  g_free(raw.settings);
  g_free(raw.blobDirectory);
  g_option_context_free(context);
  return problem.empty();
}

struct RunState {
  GMainLoop* loop;
  int exitCode;
};

gboolean onStopSignal(gpointer state) {
  clientapp::say("Stopping");
  g_main_loop_quit(static_cast<RunState*>(state)->loop);
  return G_SOURCE_CONTINUE;
}

void onConnectionClosed(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* /*error*/, gpointer state) {
  clientapp::say("The bus went away");
  static_cast<RunState*>(state)->exitCode = kExitUnreachable;
  g_main_loop_quit(static_cast<RunState*>(state)->loop);
}

int run(GDBusConnection* connection, const clientapp::ClientAppOptions& options) {
  RunState state{g_main_loop_new(nullptr, FALSE), kExitOk};
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  g_signal_connect(connection, "closed", G_CALLBACK(onConnectionClosed), &state);
  guint term = g_unix_signal_add(SIGTERM, onStopSignal, &state);
  guint interrupt = g_unix_signal_add(SIGINT, onStopSignal, &state);
  {
    clientapp::ClientApp app(connection, options);
    if (app.start()) {
      g_main_loop_run(state.loop);
    } else {
      state.exitCode = kExitUnreachable;
    }
  }
  g_source_remove(term);
  g_source_remove(interrupt);
  g_signal_handlers_disconnect_by_data(connection, &state);
  g_main_loop_unref(state.loop);
  return state.exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine commandLine;
  if (!parseCommandLine(argc, argv, commandLine)) {
    return kExitUsage;
  }
  if (commandLine.bus == statusstore::kNoBus) {
    fprintf(stderr, "chd-client-app: the platform settings do not export the status store on D-Bus; use --bus\n");
    return kExitUnreachable;
  }
  GError* error = nullptr;
  GDBusConnection* connection = statusstore::connectToBus(commandLine.bus, &error);
  if (connection == nullptr) {
    fprintf(stderr, "chd-client-app: cannot reach the bus '%s': %s\n", commandLine.bus.c_str(), error->message);
    g_clear_error(&error);
    return kExitUnreachable;
  }
  clientapp::say("Using the status store on [%s]", commandLine.bus.c_str());
  int exitCode = run(connection, commandLine.options);
  g_dbus_connection_flush_sync(connection, nullptr, nullptr);
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
  return exitCode;
}
