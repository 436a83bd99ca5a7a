// Subscriptions to the box's evented state variables through GUPnP's service
// proxies.
#pragma once

#include <libgupnp/gupnp.h>

#include <functional>
#include <string>
#include <vector>

#include "Actions.h"

namespace chdcp {

struct Event {
  std::string time;  // local time of arrival, ISO 8601 with milliseconds
  Service service;
  std::string variable;
  std::string value;
};

class EventWatch {
 public:
  using Handler = std::function<void(const Event&)>;

  EventWatch(const Actions& actions, double timeoutSeconds, Handler handler);
  ~EventWatch();
  EventWatch(const EventWatch&) = delete;
  EventWatch& operator=(const EventWatch&) = delete;

  // Subscribes to every evented variable of the service and returns once its
  // initial event has arrived; throws a Failure when it does not come.
  void subscribe(Service service);

  const std::vector<Event>& events() const { return mEvents; }

  // Throws a Failure once a subscription was lost.
  void checkSubscriptions() const;

 private:
  struct Subscription;
  std::vector<std::string> eventedVariables(GUPnPServiceProxy* proxy) const;
  size_t eventCount(Service service) const;
  static void onNotify(GUPnPServiceProxy* proxy, const char* variable, GValue* value, gpointer subscription);
  static void onSubscriptionLost(GUPnPServiceProxy* proxy, GError* reason, gpointer subscription);

  const Actions& mActions;
  double mTimeout;
  Handler mHandler;
  std::vector<Subscription*> mSubscriptions;
  std::vector<Event> mEvents;
};

}  // namespace chdcp
