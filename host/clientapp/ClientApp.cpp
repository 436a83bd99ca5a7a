#include "ClientApp.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "statusstore_host/StatusStoreBus.h"

namespace clientapp {
namespace {

constexpr char kApplyEvent[] = "Settings Refresh Apply Event";
constexpr char kCompletedEvent[] = "Settings Refresh Completed Event";
constexpr char kErrorEvent[] = "Settings Refresh Error Event";
constexpr char kEnterStandbyEvent[] = "Enter Standby Event";
constexpr char kExitStandbyEvent[] = "Exit Standby Event";
constexpr char kInStandbyKey[] = "In Standby";
constexpr char kWriteBlobEvent[] = "Write CHD Blob Event";
constexpr char kBlobUpdatedEvent[] = "CHD Blob Updated Event";
constexpr char kBlobUrisKey[] = "CHD Blob Uris";
constexpr char kSettingsGroup[] = "settings";
constexpr int kCallTimeoutMs = 5000;

}  // namespace

void say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  gchar* message = g_strdup_vprintf(format, args);
  va_end(args);
  printf("chd-client-app: %s\n", message);
  fflush(stdout);
  g_free(message);
}

ClientApp::ClientApp(GDBusConnection* connection, ClientAppOptions options)
    : mConnection(G_DBUS_CONNECTION(g_object_ref(connection))),
      mOptions(std::move(options)),
      mBlobDelivery(mOptions.blobDirectory) {}

ClientApp::~ClientApp() {
  for (guint answer : mPendingAnswers) {
    g_source_remove(answer);
  }
  if (mNameWatch != 0) {
    g_bus_unwatch_name(mNameWatch);
  }
  if (mSubscription != 0) {
    g_dbus_connection_signal_unsubscribe(mConnection, mSubscription);
  }
  g_object_unref(mConnection);
}

bool ClientApp::start() {
  mSubscription = g_dbus_connection_signal_subscribe(mConnection, nullptr, statusstore::kStoreInterface, "EventPosted",
                                                     statusstore::kStoreObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                     onEventPosted, this, nullptr);
  // The bus handles messages in order: once it has answered, the match rule of
  // the subscription is in force and no event posted afterwards is missed.
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(mConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "GetId", nullptr, G_VARIANT_TYPE("(s)"),
                                                G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (reply == nullptr) {
    say("The bus does not answer: %s", error->message);
    g_clear_error(&error);
    return false;
  }
  g_variant_unref(reply);
  say("Listening for events of the status store");
  mNameWatch = g_bus_watch_name_on_connection(mConnection, statusstore::kStoreBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                              onStoreAppeared, onStoreVanished, this, nullptr);
  return true;
}

void ClientApp::handleEvent(const std::string& name, const std::string& value) {
  if (name == kWriteBlobEvent) {
    deliverBlob(value);
  } else if (name == kApplyEvent) {
    answerSettingsRefresh();
  } else if (name == kEnterStandbyEvent) {
    setStandby(true);
  } else if (name == kExitStandbyEvent) {
    setStandby(false);
  }
}

void ClientApp::answerSettingsRefresh() {
  if (mOptions.silent) {
    say("Settings refresh requested; staying silent");
    return;
  }
  say("Applying settings");
  if (mOptions.delayMs == 0) {
    completeSettingsRefresh();
    return;
  }
  say("Answering the settings refresh in %u ms", mOptions.delayMs);
  mPendingAnswers.push_back(g_timeout_add(mOptions.delayMs, onRefreshDelayOver, this));
}

void ClientApp::completeSettingsRefresh() {
  if (mOptions.reportError) {
    say("Reporting settings refresh error [%s]", mOptions.errorText.c_str());
    callStore("PostEvent", g_variant_new("(ssi)", kErrorEvent, mOptions.errorText.c_str(), 0));
  }
  say("Settings refresh completed");
  callStore("PostEvent", g_variant_new("(ssi)", kCompletedEvent, "", 0));
}

// The status names the file before the event announces it, and both calls go
// out in order on one connection, so the daemon lists the new blob in LogURIs
// before it pulses ChdBlobUpdated.
void ClientApp::deliverBlob(const std::string& blob) {
  if (!mBlobDelivery.enabled()) {
    say("Diagnostics blob of %zu bytes not delivered: no log directory", blob.size());
    return;
  }
  std::string uri;
  std::string error;
  if (!mBlobDelivery.deliver(blob, uri, error)) {
    say("Diagnostics blob of %zu bytes not delivered: %s", blob.size(), error.c_str());
    return;
  }
  say("Delivered diagnostics blob of %zu bytes as [%s]", blob.size(), uri.c_str());
  callStore("SetStatus", g_variant_new("(ss)", kBlobUrisKey, uri.c_str()));
  callStore("PostEvent", g_variant_new("(ssi)", kBlobUpdatedEvent, "", 0));
}

void ClientApp::setStandby(bool inStandby) {
  const char* value = inStandby ? "True" : "False";
  say("%s standby; setting [%s] to [%s]", inStandby ? "Entering" : "Leaving", kInStandbyKey, value);
  callStore("SetStatus", g_variant_new("(ss)", kInStandbyKey, value));
}

void ClientApp::publishSettings() {
  std::map<std::string, std::string> settings = readSettings();
  if (settings.empty()) {
    say("No settings to publish");
    return;
  }
  for (const auto& [key, value] : settings) {
    say("Publishing setting [%s] = [%s]", key.c_str(), value.c_str());
  }
  callStore("SetStatuses", g_variant_new("(@a{ss})", statusstore::statusMapToVariant(settings)));
  say("Published %zu settings", settings.size());
}

std::map<std::string, std::string> ClientApp::readSettings() const {
  std::map<std::string, std::string> settings;
  if (mOptions.settingsFile.empty()) {
    return settings;
  }
  GKeyFile* file = g_key_file_new();
  GError* error = nullptr;
  if (!g_key_file_load_from_file(file, mOptions.settingsFile.c_str(), G_KEY_FILE_NONE, &error)) {
    say("Settings file [%s] not read: %s", mOptions.settingsFile.c_str(), error->message);
    g_clear_error(&error);
    g_key_file_free(file);
    return settings;
  }
  gchar** keys = g_key_file_get_keys(file, kSettingsGroup, nullptr, nullptr);
  for (gchar** key = keys; key != nullptr && *key != nullptr; ++key) {
    gchar* value = g_key_file_get_string(file, kSettingsGroup, *key, nullptr);
    if (value != nullptr) {
      settings[*key] = value;
    }
    g_free(value);
  }
  g_strfreev(keys);
  g_key_file_free(file);
  return settings;
}

// Calls go out in order on one connection and the store handles them in
// order, so an error event always reaches it before its completion event.
void ClientApp::callStore(const char* method, GVariant* parameters) {
  g_dbus_connection_call(mConnection, statusstore::kStoreBusName, statusstore::kStoreObjectPath,
                         statusstore::kStoreInterface, method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                         kCallTimeoutMs, nullptr, onCallDone, const_cast<char*>(method));
}

void ClientApp::onCallDone(GObject* connection, GAsyncResult* result, gpointer method) {
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
  if (reply == nullptr) {
    say("%s failed: %s", static_cast<const char*>(method), error->message);
    g_clear_error(&error);
    return;
  }
  g_variant_unref(reply);
}

void ClientApp::onEventPosted(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                              const gchar* /*interface*/, const gchar* /*signal*/, GVariant* parameters,
                              gpointer self) {
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) {
    return;
  }
  const gchar* name = nullptr;
  const gchar* value = nullptr;
  g_variant_get(parameters, "(&s&s)", &name, &value);
  static_cast<ClientApp*>(self)->handleEvent(name, value);
}

void ClientApp::onStoreAppeared(GDBusConnection* /*connection*/, const gchar* name, const gchar* owner, gpointer self) {
  auto* app = static_cast<ClientApp*>(self);
  say("Status store [%s] is on the bus as [%s]", name, owner);
  app->mStorePresent = true;
  app->publishSettings();
}

void ClientApp::onStoreVanished(GDBusConnection* /*connection*/, const gchar* name, gpointer self) {
  auto* app = static_cast<ClientApp*>(self);
  say(app->mStorePresent ? "Status store [%s] left the bus" : "Waiting for status store [%s]", name);
  app->mStorePresent = false;
}

gboolean ClientApp::onRefreshDelayOver(gpointer self) {
  auto* app = static_cast<ClientApp*>(self);
  guint id = g_source_get_id(g_main_current_source());
  app->mPendingAnswers.erase(std::remove(app->mPendingAnswers.begin(), app->mPendingAnswers.end(), id),
                             app->mPendingAnswers.end());
  app->completeSettingsRefresh();
  return G_SOURCE_REMOVE;
}

}  // namespace clientapp
