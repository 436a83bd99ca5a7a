// Plays the box's client application against the status store on D-Bus:
// publishes the setting statuses, answers settings refreshes and standby
// requests, and delivers the diagnostics blobs as the box's delivery
// component does. Runs on the thread-default main context of the thread that
// created it.
#pragma once

#include <gio/gio.h>

#include <map>
#include <string>
#include <vector>

#include "BlobDelivery.h"

namespace clientapp {

struct ClientAppOptions {
  // Posted as "Settings Refresh Error Event" before each completion, if set.
  bool reportError = false;
  std::string errorText;
  // Wait before answering a refresh.
  unsigned delayMs = 0;
  // Never answer a refresh, as an application that hangs would.
  bool silent = false;
  // GKeyFile whose [settings] group holds the setting statuses; empty for none.
  std::string settingsFile;
  // Directory the diagnostics blobs are written to (the log path); empty for
  // no delivery.
  std::string blobDirectory;
};

class ClientApp {
 public:
  ClientApp(GDBusConnection* connection, ClientAppOptions options);
  ~ClientApp();
  ClientApp(const ClientApp&) = delete;
  ClientApp& operator=(const ClientApp&) = delete;

  // Subscribes to the store's events and watches for the store, publishing
  // the settings each time it appears. False if the bus does not answer.
  bool start();

 private:
  void handleEvent(const std::string& name, const std::string& value);
  void deliverBlob(const std::string& blob);
  void answerSettingsRefresh();
  void completeSettingsRefresh();
  void setStandby(bool inStandby);
  void publishSettings();
  std::map<std::string, std::string> readSettings() const;
  void callStore(const char* method, GVariant* parameters);

  static void onEventPosted(GDBusConnection* connection, const gchar* sender, const gchar* path, const gchar* interface,
                            const gchar* signal, GVariant* parameters, gpointer self);
  static void onStoreAppeared(GDBusConnection* connection, const gchar* name, const gchar* owner, gpointer self);
  static void onStoreVanished(GDBusConnection* connection, const gchar* name, gpointer self);
  static gboolean onRefreshDelayOver(gpointer self);
  static void onCallDone(GObject* connection, GAsyncResult* result, gpointer method);

  GDBusConnection* mConnection;
  ClientAppOptions mOptions;
  BlobDelivery mBlobDelivery;
  guint mSubscription = 0;
  guint mNameWatch = 0;
  // Delayed answers still to be sent, by source id.
  std::vector<guint> mPendingAnswers;
  bool mStorePresent = false;
};

// Writes one line of the application's log to standard output at once.
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace clientapp
