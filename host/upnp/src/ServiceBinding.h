// The stack's state of one published service: where its changed variables go
// and who is subscribed to them.
#pragma once

#include <glib.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zuna_upnp/LocalService.h"

namespace zuna_upnp {

typedef std::vector<std::pair<std::string, std::string>> VarChanges;

// Receives the changed evented variables of a service (the publishing stack).
class ChangeSink {
 public:
  virtual ~ChangeSink() = default;
  // Called with the binding's lock held: must not block.
  virtual void publishChanges(LocalService* service, VarChanges changes) = 0;
};

struct LocalService::Binding {
  // Any thread reads these; the GLib thread and the controller write them.
  mutable std::mutex mutex;
  ChangeSink* sink = nullptr;
  struct Subscription {
    gint64 expiry;      // monotonic microseconds
    const void* owner;  // the subscription policy (interface) that accepted it
  };
  std::map<std::string, Subscription> subscriptions;

  void setSink(ChangeSink* newSink) {
    std::lock_guard<std::mutex> lock(mutex);
    sink = newSink;
  }
  void subscribed(const std::string& sid, gint64 timeoutSeconds, const void* owner) {
    std::lock_guard<std::mutex> lock(mutex);
    subscriptions[sid] = Subscription{g_get_monotonic_time() + timeoutSeconds * G_USEC_PER_SEC, owner};
  }
  void unsubscribed(const std::string& sid) {
    std::lock_guard<std::mutex> lock(mutex);
    subscriptions.erase(sid);
  }
  bool hasSubscribers() const {
    std::lock_guard<std::mutex> lock(mutex);
    const gint64 now = g_get_monotonic_time();
    for (const auto& subscription : subscriptions) {
      if (subscription.second.expiry > now) {
        return true;
      }
    }
    return false;
  }
};

}  // namespace zuna_upnp
