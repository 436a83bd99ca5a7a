// A private D-Bus daemon for one test, and a test-side client of the store.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TestProcess.h"
#include "status/StatusManager.h"

namespace statusstore::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return mPath; }
  // Writes a file below the directory and returns its path.
  std::string write(const std::string& name, const std::string& content) const;

 private:
  std::string mPath;
};

// dbus-daemon listening on a socket in a temporary directory; killed at the end.
class PrivateBus {
 public:
  explicit PrivateBus(const TempDir& dir);
  ~PrivateBus();
  // The address printed by the daemon, empty if it did not start.
  const std::string& address() const { return mAddress; }

 private:
  std::unique_ptr<TestProcess> mDaemon;
  std::string mAddress;
};

// A connection of the test to the bus, with the store's signals collected on
// a main context that only the test thread iterates.
class BusClient {
 public:
  explicit BusClient(const std::string& address);
  ~BusClient();
  bool connected() const { return mConnection != nullptr; }

  // Reply of a store method, nullptr (and the error text) on failure.
  GVariant* call(const char* method, GVariant* parameters, const char* replyType, std::string* error = nullptr);
  bool nameHasOwner(const char* name);

  std::vector<StatusMap> statusSignals() const { return mStatusSignals; }
  std::vector<std::pair<std::string, std::string>> eventSignals() const { return mEventSignals; }
  // Runs the client's main context until the condition holds; false after timeoutMs.
  bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 5000);

 private:
  static void onSignal(GDBusConnection* connection, const gchar* sender, const gchar* path, const gchar* interface,
                       const gchar* signal, GVariant* parameters, gpointer self);

  GMainContext* mContext;
  GDBusConnection* mConnection = nullptr;
  guint mSubscription = 0;
  std::vector<StatusMap> mStatusSignals;
  std::vector<std::pair<std::string, std::string>> mEventSignals;
};

}  // namespace statusstore::test
