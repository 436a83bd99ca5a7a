#include "BusFixture.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "statusstore_host/StatusStoreBus.h"

namespace statusstore::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "statusstore-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) {
    mPath = pattern;
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::string path = mPath + "/" + name;
  std::ofstream(path) << content;
  return path;
}

PrivateBus::PrivateBus(const TempDir& dir) {
  mDaemon = std::make_unique<TestProcess>(std::vector<std::string>{"dbus-daemon", "--session", "--nofork",
                                                                   "--nopidfile", "--print-address",
                                                                   "--address=unix:path=" + dir.path() + "/bus"});
  if (std::optional<std::string> line = mDaemon->readLine(TestProcess::kStdout, 10000)) {
    mAddress = *line;
  }
}

PrivateBus::~PrivateBus() {
  mDaemon->sendSignal(SIGTERM);
  mDaemon->waitForExit(5000);
}

BusClient::BusClient(const std::string& address) : mContext(g_main_context_new()) {
  GError* error = nullptr;
  mConnection = connectToBus(address, &error);
  g_clear_error(&error);
  if (mConnection == nullptr) {
    return;
  }
  g_main_context_push_thread_default(mContext);
  mSubscription = g_dbus_connection_signal_subscribe(mConnection, nullptr, kStoreInterface, nullptr, kStoreObjectPath,
                                                     nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onSignal, this, nullptr);
  g_main_context_pop_thread_default(mContext);
  // Once the bus has answered, the subscription's match rule is in force.
  nameHasOwner(kStoreBusName);
}

BusClient::~BusClient() {
  if (mConnection != nullptr) {
    g_dbus_connection_signal_unsubscribe(mConnection, mSubscription);
    g_dbus_connection_close_sync(mConnection, nullptr, nullptr);
    g_object_unref(mConnection);
  }
  while (g_main_context_iteration(mContext, FALSE)) {
  }
  g_main_context_unref(mContext);
}

GVariant* BusClient::call(const char* method, GVariant* parameters, const char* replyType, std::string* error) {
  GError* failure = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(mConnection, kStoreBusName, kStoreObjectPath, kStoreInterface, method,
                                                parameters, replyType != nullptr ? G_VARIANT_TYPE(replyType) : nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &failure);
  if (failure != nullptr && error != nullptr) {
    *error = failure->message;
  }
  g_clear_error(&failure);
  return reply;
}

bool BusClient::nameHasOwner(const char* name) {
  GVariant* reply = g_dbus_connection_call_sync(mConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", name),
                                                G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
  gboolean owned = FALSE;
  if (reply != nullptr) {
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
  }
  return owned;
}

bool BusClient::waitUntil(const std::function<bool()>& condition, int timeoutMs) {
  bool timedOut = false;
  GSource* timeout = g_timeout_source_new(static_cast<guint>(timeoutMs));
  g_source_set_callback(
      timeout,
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &timedOut, nullptr);
  g_source_attach(timeout, mContext);
  while (!condition() && !timedOut) {
    g_main_context_iteration(mContext, TRUE);
  }
  g_source_destroy(timeout);
  g_source_unref(timeout);
  return condition();
}

void BusClient::onSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                         const gchar* /*interface*/, const gchar* signal, GVariant* parameters, gpointer self) {
  auto* client = static_cast<BusClient*>(self);
  if (g_strcmp0(signal, "StatusesChanged") == 0) {
    GVariantIter* iter = nullptr;
    const gchar* key = nullptr;
    const gchar* value = nullptr;
    StatusMap statuses;
    g_variant_get(parameters, "(a{ss})", &iter);
    while (g_variant_iter_loop(iter, "{&s&s}", &key, &value)) {
      statuses[key] = value;
    }
    g_variant_iter_free(iter);
    client->mStatusSignals.push_back(statuses);
  } else if (g_strcmp0(signal, "EventPosted") == 0) {
    const gchar* name = nullptr;
    const gchar* value = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &value);
    client->mEventSignals.emplace_back(name, value);
  }
}

}  // namespace statusstore::test
