// Publishes a LocalStatusManager on D-Bus: its methods for other processes,
// and a signal for every change and event the store sees.
#pragma once

#include <gio/gio.h>

#include <atomic>
#include <string>
#include <thread>

#include "statusstore_host/LocalStatusManager.h"

namespace statusstore {

class StatusStoreExporter : public StoreObserver {
 public:
  explicit StatusStoreExporter(LocalStatusManager& store);
  ~StatusStoreExporter() override;
  StatusStoreExporter(const StatusStoreExporter&) = delete;
  StatusStoreExporter& operator=(const StatusStoreExporter&) = delete;

  // Connects to the bus ("session", "system" or an address) on a thread of
  // the exporter's own, exports the store and asks for its well-known name.
  // Returns once the name was granted or refused; false (and logged) when the
  // bus cannot be reached, after which the store stays in-process only.
  bool start(const std::string& bus);
  // Drops the name and the object and closes the connection. Idempotent.
  void stop();

  void onSharedStatusesChanged(const SharedStatusMap& statuses) override;
  void onEventPosted(const std::string& name, const std::string& value) override;

 private:
  struct StartState;

  void run(const std::string& bus, StartState* state);
  bool exportOnBus(const std::string& bus);
  void waitForNameDecision();
  void teardown();
  void emit(const char* signal, GVariant* parameters);

  static void onMethodCall(GDBusConnection* connection, const gchar* sender, const gchar* objectPath,
                           const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                           GDBusMethodInvocation* invocation, gpointer self);
  static void onNameAcquired(GDBusConnection* connection, const gchar* name, gpointer self);
  static void onNameLost(GDBusConnection* connection, const gchar* name, gpointer self);
  static gboolean onTeardownRequested(gpointer self);
  static void onConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                                 gpointer self);

  LocalStatusManager& mStore;
  // Owned by the exporter's thread from start() to stop(); the signal
  // emitters only read the connection, which GDBus allows from any thread.
  GMainContext* mContext = nullptr;
  GMainLoop* mLoop = nullptr;
  GDBusConnection* mConnection = nullptr;
  guint mRegistrationId = 0;
  guint mOwnerId = 0;
  bool mNameDecided = false;
  std::thread mThread;
  std::atomic<bool> mConnectionLost{false};
};

}  // namespace statusstore
