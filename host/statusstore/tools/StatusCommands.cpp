#include "StatusCommands.h"

#include <glib-unix.h>
#include <json/json.h>

#include <cstdio>
#include <ctime>

#include "statusstore_host/StatusStoreBus.h"

namespace statusstore::tool {
namespace {

constexpr int kCallTimeoutMs = 5000;

// The reply of one store method, or nullptr after telling the user why not.
GVariant* callStore(GDBusConnection* connection, const char* method, GVariant* parameters, const char* replyType) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(connection, kStoreBusName, kStoreObjectPath, kStoreInterface, method,
                                                parameters, replyType != nullptr ? G_VARIANT_TYPE(replyType) : nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (reply == nullptr) {
    fprintf(stderr, "chd-status: the status store cannot be reached: %s\n", error->message);
    g_clear_error(&error);
  }
  return reply;
}

int callWithoutReply(GDBusConnection* connection, const char* method, GVariant* parameters) {
  GVariant* reply = callStore(connection, method, parameters, nullptr);
  if (reply == nullptr) {
    return kExitUnreachable;
  }
  g_variant_unref(reply);
  return kExitOk;
}

int runGet(GDBusConnection* connection, const std::vector<std::string>& args) {
  GVariant* reply = callStore(connection, "GetStatus", g_variant_new("(s)", args[0].c_str()), "(s)");
  if (reply == nullptr) {
    return kExitUnreachable;
  }
  const gchar* value = nullptr;
  g_variant_get(reply, "(&s)", &value);
  printf("%s\n", value);
  g_variant_unref(reply);
  return kExitOk;
}

int runSet(GDBusConnection* connection, const std::vector<std::string>& args) {
  return callWithoutReply(connection, "SetStatus", g_variant_new("(ss)", args[0].c_str(), args[1].c_str()));
}

int runPost(GDBusConnection* connection, const std::vector<std::string>& args) {
  const char* value = args.size() > 1 ? args[1].c_str() : "";
  return callWithoutReply(connection, "PostEvent", g_variant_new("(ssi)", args[0].c_str(), value, 0));
}

std::string formatWallTime(gint64 unixTime) {
  if (unixTime == 0) {
    return "never";
  }
  time_t time = static_cast<time_t>(unixTime);
  struct tm local {};
  char text[32] = "";
  localtime_r(&time, &local);
  strftime(text, sizeof(text), "%Y-%m-%dT%T", &local);
  return std::to_string(unixTime) + " (" + text + ")";
}

int runTimer(GDBusConnection* connection, const std::vector<std::string>& args) {
  GVariant* elapsed = callStore(connection, "GetTimerElapsed", g_variant_new("(s)", args[0].c_str()), "(t)");
  if (elapsed == nullptr) {
    return kExitUnreachable;
  }
  GVariant* start = callStore(connection, "GetTimerStartTime", g_variant_new("(s)", args[0].c_str()), "(x)");
  if (start == nullptr) {
    g_variant_unref(elapsed);
    return kExitUnreachable;
  }
  guint64 seconds = 0;
  gint64 startTime = 0;
  g_variant_get(elapsed, "(t)", &seconds);
  g_variant_get(start, "(x)", &startTime);
  printf("elapsed %llu s, started %s\n", static_cast<unsigned long long>(seconds), formatWallTime(startTime).c_str());
  g_variant_unref(elapsed);
  g_variant_unref(start);
  return kExitOk;
}

int runCounter(GDBusConnection* connection, const std::vector<std::string>& args) {
  GVariant* reply = callStore(connection, "GetCounter", g_variant_new("(s)", args[0].c_str()), "(u)");
  if (reply == nullptr) {
    return kExitUnreachable;
  }
  guint32 value = 0;
  g_variant_get(reply, "(u)", &value);
  printf("%u\n", value);
  g_variant_unref(reply);
  return kExitOk;
}

struct WatchState {
  GMainLoop* loop;
  int exitCode;
};

void printLine(const std::string& line) {
  printf("%s\n", line.c_str());
  fflush(stdout);
}

void onStoreSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                   const gchar* /*interface*/, const gchar* signal, GVariant* parameters, gpointer /*state*/) {
  if (g_strcmp0(signal, "StatusesChanged") == 0 && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(a{ss})"))) {
    GVariant* statuses = g_variant_get_child_value(parameters, 0);
    printLine(formatStatusesChanged(statuses));
    g_variant_unref(statuses);
  } else if (g_strcmp0(signal, "EventPosted") == 0 && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) {
    const gchar* name = nullptr;
    const gchar* value = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &value);
    printLine(formatEventPosted(name, value));
  }
}

gboolean onStopSignal(gpointer state) {
  g_main_loop_quit(static_cast<WatchState*>(state)->loop);
  return G_SOURCE_CONTINUE;
}

void onConnectionClosed(GDBusConnection* /*connection*/, gboolean /*vanished*/, GError* /*error*/, gpointer state) {
  fprintf(stderr, "chd-status: the bus went away\n");
  static_cast<WatchState*>(state)->exitCode = kExitUnreachable;
  g_main_loop_quit(static_cast<WatchState*>(state)->loop);
}

bool storeIsOnBus(GDBusConnection* connection, GError** error) {
  GVariant* reply =
      g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "NameHasOwner", g_variant_new("(s)", kStoreBusName), G_VARIANT_TYPE("(b)"),
                                  G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, error);
  if (reply == nullptr) {
    return false;
  }
  gboolean owned = FALSE;
  g_variant_get(reply, "(b)", &owned);
  g_variant_unref(reply);
  return owned;
}

int runWatch(GDBusConnection* connection, const std::vector<std::string>& /*args*/) {
  WatchState state{g_main_loop_new(nullptr, FALSE), kExitOk};
  guint subscription =
      g_dbus_connection_signal_subscribe(connection, nullptr, kStoreInterface, nullptr, kStoreObjectPath, nullptr,
                                         G_DBUS_SIGNAL_FLAGS_NONE, onStoreSignal, &state, nullptr);
  g_signal_connect(connection, "closed", G_CALLBACK(onConnectionClosed), &state);
  // The bus handles messages in order, so once this answer is in the match
  // rule of the subscription is in force: nothing posted from now on is missed.
  GError* error = nullptr;
  bool present = storeIsOnBus(connection, &error);
  if (error != nullptr) {
    fprintf(stderr, "chd-status: the bus does not answer: %s\n", error->message);
    g_clear_error(&error);
    state.exitCode = kExitUnreachable;
  } else {
    fprintf(stderr, present ? "chd-status: watching the status store\n"
                            : "chd-status: watching; the status store is not on the bus yet\n");
    guint term = g_unix_signal_add(SIGTERM, onStopSignal, &state);
    guint interrupt = g_unix_signal_add(SIGINT, onStopSignal, &state);
    g_main_loop_run(state.loop);
    g_source_remove(term);
    g_source_remove(interrupt);
  }
  g_signal_handlers_disconnect_by_data(connection, &state);
  g_dbus_connection_signal_unsubscribe(connection, subscription);
  g_main_loop_unref(state.loop);
  return state.exitCode;
}

std::string toJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace

const std::vector<Command>& commands() {
  static const std::vector<Command> table = {
      {"get", 1, 1, runGet},     {"set", 2, 2, runSet},     {"post", 1, 2, runPost},
      {"watch", 0, 0, runWatch}, {"timer", 1, 1, runTimer}, {"counter", 1, 1, runCounter},
  };
  return table;
}

const Command* findCommand(const std::string& name) {
  for (const Command& command : commands()) {
    if (name == command.name) {
      return &command;
    }
  }
  return nullptr;
}

std::string formatStatusesChanged(GVariant* statuses) {
  Json::Value object(Json::objectValue);
  GVariantIter iter;
  const gchar* key = nullptr;
  const gchar* value = nullptr;
  g_variant_iter_init(&iter, statuses);
  while (g_variant_iter_next(&iter, "{&s&s}", &key, &value)) {
    object[key] = value;
  }
  return "StatusesChanged " + toJson(object);
}

std::string formatEventPosted(const char* name, const char* value) {
  return "EventPosted " + toJson(Json::Value(name)) + " " + toJson(Json::Value(value));
}

}  // namespace statusstore::tool
