#include "Events.h"

#include <algorithm>

#include "Failure.h"
#include "MainLoop.h"

namespace chdcp {
namespace {

// GUPnP drops a NOTIFY that it reads before the answer to its SUBSCRIBE, which
// on a fast network can be the initial event; after this long without it the
// subscription is made once more, and its initial event must then come.
constexpr double kInitialEventSeconds = 3.0;

std::string nowText() {
  GDateTime* now = g_date_time_new_now_local();
  gchar* text = g_date_time_format(now, "%FT%T.%f");
  std::string result(text, 23);  // microseconds cut to milliseconds
  g_free(text);
  g_date_time_unref(now);
  return result;
}

struct Introspection {
  bool finished = false;
  GUPnPServiceIntrospection* result = nullptr;
  GError* error = nullptr;
};

void onIntrospected(GObject* info, GAsyncResult* result, gpointer data) {
  auto* introspection = static_cast<Introspection*>(data);
  introspection->result = gupnp_service_info_introspect_finish(GUPNP_SERVICE_INFO(info), result, &introspection->error);
  introspection->finished = true;
}

}  // namespace

struct EventWatch::Subscription {
  EventWatch* watch;
  Service service;
  GUPnPServiceProxy* proxy;
  std::vector<std::string> variables;
  std::string lostReason;
};

EventWatch::EventWatch(const Actions& actions, double timeoutSeconds, Handler handler)
    : mActions(actions), mTimeout(timeoutSeconds), mHandler(std::move(handler)) {}

EventWatch::~EventWatch() {
  for (Subscription* subscription : mSubscriptions) {
    for (const std::string& variable : subscription->variables) {
      gupnp_service_proxy_remove_notify(subscription->proxy, variable.c_str(), onNotify, subscription);
    }
    g_signal_handlers_disconnect_by_data(subscription->proxy, subscription);
    gupnp_service_proxy_set_subscribed(subscription->proxy, FALSE);
    g_object_unref(subscription->proxy);
    delete subscription;
  }
  // Lets the UNSUBSCRIBE requests leave before the process ends.
  runFor(0.1);
}

std::vector<std::string> EventWatch::eventedVariables(GUPnPServiceProxy* proxy) const {
  Introspection introspection;
  GCancellable* cancellable = g_cancellable_new();
  gupnp_service_info_introspect_async(GUPNP_SERVICE_INFO(proxy), cancellable, onIntrospected, &introspection);
  if (!runUntil([&introspection] { return introspection.finished; }, mTimeout)) {
    g_cancellable_cancel(cancellable);
    runUntil([&introspection] { return introspection.finished; }, mTimeout);
  }
  g_object_unref(cancellable);
  if (introspection.result == nullptr) {
    const std::string reason = introspection.error != nullptr ? introspection.error->message : "no answer";
    g_clear_error(&introspection.error);
    throw Failure(kExitNoBox, "cannot read the service description: " + reason);
  }
  std::vector<std::string> variables;
  const GList* all = gupnp_service_introspection_list_state_variables(introspection.result);
  for (const GList* item = all; item != nullptr; item = item->next) {
    const auto* variable = static_cast<const GUPnPServiceStateVariableInfo*>(item->data);
    if (variable->send_events) {
      variables.emplace_back(variable->name);
    }
  }
  g_object_unref(introspection.result);
  return variables;
}

size_t EventWatch::eventCount(Service service) const {
  return static_cast<size_t>(std::count_if(mEvents.begin(), mEvents.end(),
                                           [service](const Event& event) { return event.service == service; }));
}

void EventWatch::subscribe(Service service) {
  auto* subscription = new Subscription{this, service, mActions.proxy(service), {}, {}};
  mSubscriptions.push_back(subscription);
  subscription->variables = eventedVariables(subscription->proxy);
  for (const std::string& variable : subscription->variables) {
    gupnp_service_proxy_add_notify(subscription->proxy, variable.c_str(), G_TYPE_STRING, onNotify, subscription);
  }
  g_signal_connect(subscription->proxy, "subscription-lost", G_CALLBACK(onSubscriptionLost), subscription);
  gupnp_service_proxy_set_subscribed(subscription->proxy, TRUE);
  auto initialCame = [this, service] { return eventCount(service) > 0; };
  if (!runUntil(initialCame, std::min(kInitialEventSeconds, mTimeout))) {
    gupnp_service_proxy_set_subscribed(subscription->proxy, FALSE);
    gupnp_service_proxy_set_subscribed(subscription->proxy, TRUE);
    if (!runUntil(initialCame, mTimeout)) {
      throw Failure(kExitNoBox, std::string("no initial event from ") + serviceName(service) + " within " +
                                    std::to_string(int(mTimeout)) + " s");
    }
  }
  checkSubscriptions();
}

void EventWatch::checkSubscriptions() const {
  for (const Subscription* subscription : mSubscriptions) {
    if (!subscription->lostReason.empty()) {
      throw Failure(kExitNoBox, std::string("subscription to ") + serviceName(subscription->service) +
                                    " lost: " + subscription->lostReason);
    }
  }
}

void EventWatch::onNotify(GUPnPServiceProxy* /*proxy*/, const char* variable, GValue* value, gpointer data) {
  auto* subscription = static_cast<Subscription*>(data);
  const char* text = g_value_get_string(value);
  Event event{nowText(), subscription->service, variable, text != nullptr ? text : ""};
  subscription->watch->mEvents.push_back(event);
  if (subscription->watch->mHandler) {
    subscription->watch->mHandler(event);
  }
}

void EventWatch::onSubscriptionLost(GUPnPServiceProxy* /*proxy*/, GError* reason, gpointer data) {
  static_cast<Subscription*>(data)->lostReason = reason != nullptr ? reason->message : "unknown reason";
}

}  // namespace chdcp
