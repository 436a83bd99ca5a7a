#include "SubscriptionPolicy.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "ServiceBinding.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 4);

namespace zuna_upnp {

// Why GUPnP 1.6.3 alone keeps what it should free (gupnp-service.c):
// - UNSUBSCRIBE frees a subscription only once one event has been delivered
//   to it ("initial_state_sent"); before that it is only marked, and the mark
//   is never acted upon: the subscription lives on until its 300 s time-out,
//   and if its first event failed, every later event is still sent to it.
//   A SUBSCRIBE answered by an UNSUBSCRIBE at once (before the first event's
//   answer) therefore leaves about 6 kB behind for five minutes.
// - A delivery that fails for any reason but 412 keeps the subscription
//   (GUPnP only emits "notify-failed"), until its time-out, for good if the
//   subscriber renews.
// - Nothing limits the number of subscriptions.
// - Its event sessions have no I/O time-out.
// The remedies, all from the outside:
// - Every new subscription gets one more callback at the end of its list,
//   on this server: GUPnP tries it only when all of the subscriber's own
//   callbacks failed, so each event settles there or at the subscriber, and
//   the answer given there (200 keep, 412 drop) decides as GUPnP itself
//   would for a subscriber's 412.
// - An UNSUBSCRIBE that comes before the subscription's first event has
//   settled waits (paused in an early handler) until it has: GUPnP then
//   frees the subscription at once.
// - A SUBSCRIBE beyond the cap is answered 503 before GUPnP sees it.

namespace {

constexpr char kFallbackPath[] = "/_gena/undelivered";
// GUPnP reads at most six entries of a CALLBACK header.
constexpr int kGupnpCallbackEntries = 6;
constexpr guint kSweepSeconds = 30;

struct Registered {
  SubscriptionPolicy* policy;
  GMainContext* context;
};
std::mutex gPoliciesMutex;
std::vector<Registered>* gPolicies = nullptr;  // under gPoliciesMutex

std::string headerOf(SoupMessageHeaders* headers, const char* name) {
  const char* value = soup_message_headers_get_one(headers, name);
  return value != nullptr ? value : std::string();
}

// The policies whose GLib thread is this one: GUPnP's sessions emit on it,
// a test's own sessions on other threads are none of their business.
std::vector<SubscriptionPolicy*> policiesOfThisThread() {
  std::vector<SubscriptionPolicy*> mine;
  const std::lock_guard<std::mutex> lock(gPoliciesMutex);
  for (const Registered& registered : *gPolicies) {
    if (g_main_context_is_owner(registered.context)) {
      mine.push_back(registered.policy);
    }
  }
  return mine;
}

template <void (SubscriptionPolicy::*Handle)(SoupSession*, SoupMessage*)>
gboolean onSessionSignal(GSignalInvocationHint* /*hint*/, guint count, const GValue* values, gpointer /*data*/) {
  if (count < 2 || !G_VALUE_HOLDS(&values[1], SOUP_TYPE_MESSAGE)) {
    return TRUE;
  }
  SoupMessage* msg = SOUP_MESSAGE(g_value_get_object(&values[1]));
  if (msg == nullptr || g_strcmp0(soup_message_get_method(msg), "NOTIFY") != 0) {
    return TRUE;
  }
  SoupSession* session = SOUP_SESSION(g_value_get_object(&values[0]));
  for (SubscriptionPolicy* policy : policiesOfThisThread()) {
    (policy->*Handle)(session, msg);
  }
  return TRUE;  // stays
}

void installSessionHooks() {
  static std::once_flag once;
  std::call_once(once, [] {
    gpointer sessionClass = g_type_class_ref(SOUP_TYPE_SESSION);
    g_signal_add_emission_hook(g_signal_lookup("request-queued", SOUP_TYPE_SESSION), 0,
                               onSessionSignal<&SubscriptionPolicy::deliveryQueued>, nullptr, nullptr);
    g_signal_add_emission_hook(g_signal_lookup("request-unqueued", SOUP_TYPE_SESSION), 0,
                               onSessionSignal<&SubscriptionPolicy::deliveryDone>, nullptr, nullptr);
    g_type_class_unref(sessionClass);
  });
}

void registerPolicy(SubscriptionPolicy* policy, GMainContext* context) {
  installSessionHooks();
  const std::lock_guard<std::mutex> lock(gPoliciesMutex);
  if (gPolicies == nullptr) {
    gPolicies = new std::vector<Registered>();  // lives as long as the hooks
  }
  gPolicies->push_back(Registered{policy, context});
}

void unregisterPolicy(SubscriptionPolicy* policy) {
  const std::lock_guard<std::mutex> lock(gPoliciesMutex);
  gPolicies->erase(std::remove_if(gPolicies->begin(), gPolicies->end(),
                                  [policy](const Registered& registered) { return registered.policy == policy; }),
                   gPolicies->end());
}

// "Second-1800" -> 1800; "infinite" lasts as long as the stack.
gint64 grantedSeconds(const std::string& timeout) {
  if (g_str_has_prefix(timeout.c_str(), "Second-")) {
    return g_ascii_strtoll(timeout.c_str() + 7, nullptr, 10);
  }
  return G_MAXINT32;
}

// GUPnP's own time-out of a subscription (SUBSCRIPTION_TIMEOUT, whatever the
// subscriber asks for).
constexpr gint64 kGupnpSubscriptionSeconds = 300;

void onRequestRead(SoupServer* /*server*/, SoupServerMessage* msg, gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->subscribeRead(msg);
}

void onRequestDone(SoupServer* /*server*/, SoupServerMessage* msg, gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->requestDone(msg);
}

void onEventPathHeaders(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
                        gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->unsubscribeArrived(msg);
}

void onFallback(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
                gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->undeliveredEvent(msg);
}

gboolean onSweep(gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->dropExpired();
  return G_SOURCE_CONTINUE;
}

gboolean onRelease(gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->releaseHeldUnsubscribes();
  return G_SOURCE_REMOVE;
}

void onHeldMessageGone(SoupServerMessage* msg, gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->heldUnsubscribeGone(msg);
}

}  // namespace

SubscriptionPolicy::SubscriptionPolicy(SoupServer* server, const std::string& address, unsigned port,
                                       const SubscriptionLimits& limits)
    : mServer(server),
      mLimits(limits),
      mAddress(address),
      mPort(port),
      mFallbackUrl("http://" + address + ":" + std::to_string(port) + kFallbackPath),
      mContext(g_main_context_ref_thread_default()) {
  registerPolicy(this, mContext);
  g_signal_connect(mServer, "request-read", G_CALLBACK(onRequestRead), this);
  g_signal_connect(mServer, "request-finished", G_CALLBACK(onRequestDone), this);
  g_signal_connect(mServer, "request-aborted", G_CALLBACK(onRequestDone), this);
  soup_server_add_handler(mServer, kFallbackPath, onFallback, this, nullptr);
  mSweep = g_timeout_source_new_seconds(kSweepSeconds);
  g_source_set_callback(mSweep, onSweep, this, nullptr);
  g_source_attach(mSweep, mContext);
}

SubscriptionPolicy::~SubscriptionPolicy() {
  unregisterPolicy(this);
  g_source_destroy(mSweep);
  g_source_unref(mSweep);
  if (mRelease != nullptr) {
    g_source_destroy(mRelease);
    g_source_unref(mRelease);
  }
  g_signal_handlers_disconnect_by_data(mServer, this);
  soup_server_remove_handler(mServer, kFallbackPath);
  for (const auto& path : mServicesByPath) {
    // GUPnP's own handler there goes with its service.
    soup_server_remove_handler(mServer, path.first.c_str());
  }
  while (!mSubscribers.empty()) {
    drop(mSubscribers.begin()->first);
  }
  g_main_context_unref(mContext);
}

void SubscriptionPolicy::watch(LocalService* service, const std::string& eventPath) {
  mServicesByPath[eventPath] = service;
  soup_server_add_early_handler(mServer, eventPath.c_str(), onEventPathHeaders, this, nullptr);
}

void SubscriptionPolicy::forget(LocalService* service) {
  // The path stays in the map: the early handler there goes with the policy.
  std::vector<std::string> sids;
  for (const auto& subscriber : mSubscribers) {
    if (subscriber.second.service == service) {
      sids.push_back(subscriber.first);
    }
  }
  for (const std::string& sid : sids) {
    drop(sid);
  }
}

SubscriptionPolicy::Subscriber* SubscriptionPolicy::find(const std::string& sid) {
  auto it = mSubscribers.find(sid);
  return it != mSubscribers.end() ? &it->second : nullptr;
}

unsigned SubscriptionPolicy::countOf(const LocalService* service) const {
  return static_cast<unsigned>(std::count_if(mSubscribers.begin(), mSubscribers.end(),
                                             [service](const auto& entry) { return entry.second.service == service; }));
}

LocalService* SubscriptionPolicy::serviceAt(SoupServerMessage* msg) const {
  auto it = mServicesByPath.find(g_uri_get_path(soup_server_message_get_uri(msg)));
  return it != mServicesByPath.end() ? it->second : nullptr;
}

bool SubscriptionPolicy::isFallback(SoupMessage* msg) const {
  GUri* uri = soup_message_get_uri(msg);
  return g_strcmp0(g_uri_get_path(uri), kFallbackPath) == 0 && mAddress == g_uri_get_host(uri) &&
         static_cast<unsigned>(g_uri_get_port(uri)) == mPort;
}

// --- GUPnP's event deliveries --------------------------------------------

SubscriptionPolicy::Subscriber* SubscriptionPolicy::claim(SoupMessage* msg) {
  SoupMessageHeaders* headers = soup_message_get_request_headers(msg);
  const std::string sid = headerOf(headers, "SID");
  Subscriber* subscriber = find(sid);
  if (subscriber != nullptr || mSubscribing == nullptr || headerOf(headers, "SEQ") != "0" || sid.empty()) {
    return subscriber;
  }
  // The first event of the subscription GUPnP is granting now.
  Subscriber& added = mSubscribers[sid];
  added.service = mSubscribing;
  added.expiry = g_get_monotonic_time() + kGupnpSubscriptionSeconds * G_USEC_PER_SEC;
  mSubscribing->getBinding()->subscribed(sid, kGupnpSubscriptionSeconds, this);
  mSubscribing = nullptr;
  return &added;
}

void SubscriptionPolicy::deliveryQueued(SoupSession* session, SoupMessage* msg) {
  Subscriber* subscriber = claim(msg);
  if (subscriber == nullptr) {
    return;
  }
  ++subscriber->deliveriesInFlight;
  // GUPnP's event session of the service; each delivery opens a connection
  // of its own, which takes the time-out.
  if (soup_session_get_timeout(session) != mLimits.deliverySeconds) {
    soup_session_set_timeout(session, mLimits.deliverySeconds);
  }
}

void SubscriptionPolicy::deliveryDone(SoupSession* /*session*/, SoupMessage* msg) {
  const std::string sid = headerOf(soup_message_get_request_headers(msg), "SID");
  Subscriber* subscriber = find(sid);
  if (subscriber == nullptr) {
    return;
  }
  if (subscriber->deliveriesInFlight > 0) {
    --subscriber->deliveriesInFlight;
  }
  const guint status = soup_message_get_status(msg);
  if (!isFallback(msg)) {
    if (SOUP_STATUS_IS_SUCCESSFUL(status)) {
      subscriber->settled = true;
      subscriber->reached = true;
      subscriber->failedEvents = 0;
    } else if (status == SOUP_STATUS_PRECONDITION_FAILED) {
      // GUPnP drops it itself.
      TL_LOG(5, "Subscriber [%s] refused an event with 412: dropped", sid.c_str());
      drop(sid);
      return;
    }
  }
  if (subscriber->heldUnsubscribe != nullptr) {
    scheduleRelease();
  }
}

// --- requests to the event URLs --------------------------------------------

void SubscriptionPolicy::subscribeRead(SoupServerMessage* msg) {
  mSubscribing = nullptr;
  if (g_strcmp0(soup_server_message_get_method(msg), "SUBSCRIBE") != 0) {
    return;
  }
  LocalService* service = serviceAt(msg);
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  if (service == nullptr || soup_message_headers_get_one(headers, "Callback") == nullptr ||
      soup_message_headers_get_one(headers, "SID") != nullptr) {
    return;  // renewals, and what GUPnP refuses anyway
  }
  if (refuseOverCap(msg, service) || !addFallbackCallback(msg)) {
    return;
  }
  mSubscribing = service;
}

bool SubscriptionPolicy::refuseOverCap(SoupServerMessage* msg, LocalService* service) {
  if (countOf(service) < mLimits.perService) {
    return false;
  }
  soup_server_message_set_status(msg, SOUP_STATUS_SERVICE_UNAVAILABLE, nullptr);
  // A flood would flood the log too: the first refusal, then every 1024th.
  if (mRefused++ % 1024 == 0) {
    TL_LOG(3, "Refused a subscription to [%s]: %u subscriptions already (%lu refused so far)",
           service->getServiceID().c_str(), mLimits.perService, mRefused);
  }
  return true;
}

bool SubscriptionPolicy::addFallbackCallback(SoupServerMessage* msg) {
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  const std::string callback = headerOf(headers, "Callback");
  if (callback.find("<http://") == std::string::npos) {
    return false;  // GUPnP finds no callback in it and answers 412
  }
  if (std::count(callback.begin(), callback.end(), '<') >= kGupnpCallbackEntries) {
    // GUPnP would not read the added entry; five of the subscriber's own is
    // plenty.
    soup_server_message_set_status(msg, SOUP_STATUS_PRECONDITION_FAILED, "Too many callbacks");
    return false;
  }
  soup_message_headers_replace(headers, "Callback", (callback + "<" + mFallbackUrl + ">").c_str());
  return true;
}

void SubscriptionPolicy::unsubscribeArrived(SoupServerMessage* msg) {
  if (g_strcmp0(soup_server_message_get_method(msg), "UNSUBSCRIBE") != 0) {
    return;
  }
  Subscriber* subscriber = find(headerOf(soup_server_message_get_request_headers(msg), "SID"));
  if (subscriber == nullptr || subscriber->settled || subscriber->heldUnsubscribe != nullptr) {
    return;  // GUPnP frees it at once, or does not know it
  }
  subscriber->cancelled = true;
  subscriber->heldUnsubscribe = SOUP_SERVER_MESSAGE(g_object_ref(msg));
  g_signal_connect(msg, "disconnected", G_CALLBACK(onHeldMessageGone), this);
  soup_server_message_pause(msg);
}

void SubscriptionPolicy::requestDone(SoupServerMessage* msg) {
  const char* method = soup_server_message_get_method(msg);
  const bool subscribe = g_strcmp0(method, "SUBSCRIBE") == 0;
  if (!subscribe && g_strcmp0(method, "UNSUBSCRIBE") != 0) {
    return;
  }
  LocalService* service = serviceAt(msg);
  if (service == nullptr) {
    return;
  }
  if (!subscribe) {
    const std::string sid = headerOf(soup_server_message_get_request_headers(msg), "SID");
    const Subscriber* subscriber = find(sid);
    const guint status = soup_server_message_get_status(msg);
    // 200: GUPnP has freed it; 412: GUPnP did not know it. Anything else
    // (an UNSUBSCRIBE cut off before GUPnP saw it) leaves it.
    if (subscriber != nullptr && subscriber->heldUnsubscribe == nullptr &&
        (status == SOUP_STATUS_OK || status == SOUP_STATUS_PRECONDITION_FAILED)) {
      drop(sid);
    }
    return;
  }
  SoupMessageHeaders* answer = soup_server_message_get_response_headers(msg);
  Subscriber* subscriber = find(headerOf(answer, "SID"));
  if (soup_server_message_get_status(msg) != SOUP_STATUS_OK || subscriber == nullptr) {
    return;
  }
  const gint64 seconds = grantedSeconds(headerOf(answer, "Timeout"));
  subscriber->expiry = g_get_monotonic_time() + seconds * G_USEC_PER_SEC;
  subscriber->service->getBinding()->subscribed(headerOf(answer, "SID"), seconds, this);
}

// --- events no callback of the subscriber took --------------------------------

void SubscriptionPolicy::undeliveredEvent(SoupServerMessage* msg) {
  const char* peer = soup_server_message_get_remote_host(msg);
  if (g_strcmp0(soup_server_message_get_method(msg), "NOTIFY") != 0 || mAddress != (peer != nullptr ? peer : "")) {
    soup_server_message_set_status(msg, SOUP_STATUS_FORBIDDEN, nullptr);
    return;
  }
  const std::string sid = headerOf(soup_server_message_get_request_headers(msg), "SID");
  Subscriber* subscriber = find(sid);
  if (subscriber == nullptr) {
    soup_server_message_set_status(msg, SOUP_STATUS_PRECONDITION_FAILED, nullptr);
    return;
  }
  if (!subscriber->cancelled) {
    ++subscriber->failedEvents;
    if (!subscriber->reached || subscriber->failedEvents >= mLimits.failedEventsBeforeDrop) {
      TL_LOG(4, "Subscriber [%s] took %s: dropped", sid.c_str(),
             subscriber->reached ? "none of the last events" : "not even its first event");
      // GUPnP drops a subscription whose event is answered 412.
      soup_server_message_set_status(msg, SOUP_STATUS_PRECONDITION_FAILED, nullptr);
      drop(sid);
      return;
    }
  }
  // Kept for now (or about to be freed by its UNSUBSCRIBE): GUPnP counts
  // this as its first delivery.
  subscriber->settled = true;
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
}

// --- held UNSUBSCRIBE requests ----------------------------------------------

void SubscriptionPolicy::scheduleRelease() {
  if (mRelease != nullptr) {
    return;
  }
  // After GUPnP has read the delivery's answer (its callbacks run at
  // default priority): only then does it free on UNSUBSCRIBE.
  mRelease = g_idle_source_new();
  g_source_set_priority(mRelease, G_PRIORITY_DEFAULT_IDLE);
  g_source_set_callback(mRelease, onRelease, this, nullptr);
  g_source_attach(mRelease, mContext);
}

void SubscriptionPolicy::releaseHeldUnsubscribes() {
  g_source_unref(mRelease);
  mRelease = nullptr;
  for (auto& subscriber : mSubscribers) {
    if (subscriber.second.heldUnsubscribe != nullptr && subscriber.second.settled &&
        subscriber.second.deliveriesInFlight == 0) {
      releaseHold(subscriber.second);
    }
  }
}

void SubscriptionPolicy::releaseHold(Subscriber& subscriber) {
  SoupServerMessage* msg = subscriber.heldUnsubscribe;
  subscriber.heldUnsubscribe = nullptr;
  g_signal_handlers_disconnect_by_data(msg, this);
  soup_server_message_unpause(msg);
  g_object_unref(msg);
}

void SubscriptionPolicy::heldUnsubscribeGone(SoupServerMessage* msg) {
  for (auto& subscriber : mSubscribers) {
    if (subscriber.second.heldUnsubscribe == msg) {
      // GUPnP never saw it: the subscription stays, and so does its policing.
      subscriber.second.heldUnsubscribe = nullptr;
      subscriber.second.cancelled = false;
      g_signal_handlers_disconnect_by_data(msg, this);
      g_object_unref(msg);
      return;
    }
  }
}

// --- the end of a subscription ---------------------------------------------

void SubscriptionPolicy::dropExpired() {
  const gint64 now = g_get_monotonic_time();
  std::vector<std::string> expired;
  for (const auto& subscriber : mSubscribers) {
    if (subscriber.second.expiry <= now) {
      expired.push_back(subscriber.first);
    }
  }
  // GUPnP's own timer has freed them already.
  for (const std::string& sid : expired) {
    drop(sid);
  }
}

void SubscriptionPolicy::drop(const std::string& sid) {
  auto it = mSubscribers.find(sid);
  if (it == mSubscribers.end()) {
    return;
  }
  if (it->second.heldUnsubscribe != nullptr) {
    // GUPnP no longer has it: its answer is 412.
    releaseHold(it->second);
  }
  it->second.service->getBinding()->unsubscribed(sid);
  mSubscribers.erase(it);
}

}  // namespace zuna_upnp
