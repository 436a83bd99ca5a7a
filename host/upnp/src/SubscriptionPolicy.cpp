#include "SubscriptionPolicy.h"

#include <algorithm>
#include <memory>
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
// - After a failed delivery to one of several callbacks it sends to the next
//   with one reference too many on the event's text, which is never freed.
// - Nothing limits the number of subscriptions; its event sessions have no
//   I/O time-out.
// The remedies, all from the outside:
// - GUPnP's event messages are pointed, as they are queued, at a relay on
//   this server, which answers at once (200; 412 for a subscription about
//   to go) and passes the event on to the subscriber's callback. So the first
//   event always settles at once in GUPnP's eyes, GUPnP never tries another
//   callback, and only this side sees the subscriber fail.
// - An UNSUBSCRIBE that comes before the first event has settled waits
//   (paused in an early handler) until it has: GUPnP then frees the
//   subscription at once.
// - A subscriber that failed as the limits say is unsubscribed by this side,
//   with an UNSUBSCRIBE to GUPnP's own handler.
// - A SUBSCRIBE beyond the cap is answered 503 before GUPnP sees it.

namespace {

constexpr char kRelayPath[] = "/_gena/relay";
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
  const std::vector<SubscriptionPolicy*> policies = policiesOfThisThread();
  // The relays' own messages are none of any policy's business.
  if (std::any_of(policies.begin(), policies.end(),
                  [session](const SubscriptionPolicy* policy) { return policy->isOwnSession(session); })) {
    return TRUE;
  }
  for (SubscriptionPolicy* policy : policies) {
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

void onRelay(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
             gpointer data) {
  static_cast<SubscriptionPolicy*>(data)->relayEvent(msg);
}

struct RelayJob {
  SubscriptionPolicy* policy;
  std::string sid;
};

struct FirstEventJob {
  SubscriptionPolicy* policy;
  std::string sid;
};

gboolean onFirstEventDue(gpointer data) {
  auto* job = static_cast<FirstEventJob*>(data);
  job->policy->sendHeldFirstEvent(job->sid);  // destroys this source; the job goes with it
  return G_SOURCE_REMOVE;
}

void deleteFirstEventJob(gpointer data) { delete static_cast<FirstEventJob*>(data); }

void onRelayed(GObject* source, GAsyncResult* result, gpointer data) {
  std::unique_ptr<RelayJob> job(static_cast<RelayJob*>(data));
  GError* error = nullptr;
  GBytes* body = soup_session_send_and_read_finish(SOUP_SESSION(source), result, &error);
  if (body != nullptr) {
    g_bytes_unref(body);
  }
  const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);  // subscriber or policy gone
  g_clear_error(&error);
  if (!cancelled) {
    job->policy->relayed(job->sid,
                         soup_message_get_status(soup_session_get_async_result_message(SOUP_SESSION(source), result)));
  }
}

void onOwnRequestDone(GObject* source, GAsyncResult* result, gpointer /*data*/) {
  GBytes* body = soup_session_send_and_read_finish(SOUP_SESSION(source), result, nullptr);
  if (body != nullptr) {
    g_bytes_unref(body);
  }
}

SoupSession* newSession(unsigned timeoutSeconds, int connectionsPerHost) {
  SoupSession* session =
      soup_session_new_with_options("timeout", timeoutSeconds, "max-conns-per-host", connectionsPerHost, nullptr);
  soup_session_set_proxy_resolver(session, nullptr);  // the home network only
  return session;
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
      mBaseUrl("http://" + address + ":" + std::to_string(port)),
      mContext(g_main_context_ref_thread_default()),
      mRelaySession(newSession(limits.deliverySeconds, 1)),
      mOwnSession(newSession(limits.deliverySeconds, 2)),
      mCancellable(g_cancellable_new()) {
  registerPolicy(this, mContext);
  g_signal_connect(mServer, "request-read", G_CALLBACK(onRequestRead), this);
  g_signal_connect(mServer, "request-finished", G_CALLBACK(onRequestDone), this);
  g_signal_connect(mServer, "request-aborted", G_CALLBACK(onRequestDone), this);
  soup_server_add_handler(mServer, kRelayPath, onRelay, this, nullptr);
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
  soup_server_remove_handler(mServer, kRelayPath);
  for (const auto& path : mServicesByPath) {
    // GUPnP's own handler there goes with its service.
    soup_server_remove_handler(mServer, path.first.c_str());
  }
  while (!mSubscribers.empty()) {
    drop(mSubscribers.begin()->first);
  }
  // This side's requests still on their way are dropped with the session.
  g_cancellable_cancel(mCancellable);
  g_object_unref(mCancellable);
  soup_session_abort(mRelaySession);
  g_object_unref(mRelaySession);
  soup_session_abort(mOwnSession);
  g_object_unref(mOwnSession);
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

bool SubscriptionPolicy::isOwnSession(SoupSession* session) const {
  return session == mRelaySession || session == mOwnSession;
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
  // Not sent yet: libsoup picks the connection (and the Host header) when
  // it sends.
  const std::string seq = headerOf(soup_message_get_request_headers(msg), "SEQ");
  char* callback = g_uri_to_string(soup_message_get_uri(msg));
  subscriber->callbackBySeq[seq] = callback;
  g_free(callback);
  GUri* relay = g_uri_parse((mBaseUrl + kRelayPath).c_str(), static_cast<GUriFlags>(SOUP_HTTP_URI_FLAGS), nullptr);
  soup_message_set_uri(msg, relay);
  g_uri_unref(relay);
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
  subscriber->callbackBySeq.erase(headerOf(soup_message_get_request_headers(msg), "SEQ"));
  const guint status = soup_message_get_status(msg);
  if (SOUP_STATUS_IS_SUCCESSFUL(status)) {
    subscriber->settled = true;
  } else if (status == SOUP_STATUS_PRECONDITION_FAILED) {
    drop(sid);  // GUPnP has dropped it itself
    return;
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
  if (const char* sid = soup_message_headers_get_one(headers, "SID")) {
    // A renewal of a subscriber being dropped: GUPnP may not have taken this
    // side's UNSUBSCRIBE in yet, and would renew what is already gone here.
    const Subscriber* subscriber = find(sid);
    if (subscriber != nullptr && subscriber->dropping) {
      soup_server_message_set_status(msg, SOUP_STATUS_PRECONDITION_FAILED, nullptr);
    }
    return;
  }
  if (service == nullptr || soup_message_headers_get_one(headers, "Callback") == nullptr) {
    return;  // what GUPnP refuses anyway
  }
  if (refuseOverCap(msg, service)) {
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
  if (subscribe) {
    mSubscribing = nullptr;  // GUPnP's handler has long returned
  }
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
  if (subscriber->answeredUs == 0) {
    subscriber->answeredUs = g_get_monotonic_time();
    if (subscriber->heldFirstEvent != nullptr) {
      startFirstEventTimer(headerOf(answer, "SID"), *subscriber, mLimits.firstEventGapMs);
    }
  }
  subscriber->service->getBinding()->subscribed(headerOf(answer, "SID"), seconds, this);
}

// --- the relay ---------------------------------------------------------------

void SubscriptionPolicy::relayEvent(SoupServerMessage* msg) {
  const char* peer = soup_server_message_get_remote_host(msg);
  if (g_strcmp0(soup_server_message_get_method(msg), "NOTIFY") != 0 || mAddress != (peer != nullptr ? peer : "")) {
    soup_server_message_set_status(msg, SOUP_STATUS_FORBIDDEN, nullptr);
    return;
  }
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  Subscriber* subscriber = find(headerOf(headers, "SID"));
  if (subscriber == nullptr || subscriber->dropping) {
    // GUPnP drops a subscription whose event is answered 412.
    soup_server_message_set_status(msg, SOUP_STATUS_PRECONDITION_FAILED, nullptr);
    return;
  }
  const std::string seq = headerOf(headers, "SEQ");
  auto callback = subscriber->callbackBySeq.find(seq);
  if (callback != subscriber->callbackBySeq.end() && !subscriber->cancelled) {
    if (SoupMessage* notify = notifyFor(msg, callback->second)) {
      const std::string sid = headerOf(headers, "SID");
      if (seq == "0") {
        holdFirstEvent(notify, sid, *subscriber);
      } else {
        send(notify, sid, *subscriber);
      }
    }
  }
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
}

SoupMessage* SubscriptionPolicy::notifyFor(SoupServerMessage* event, const std::string& callback) {
  SoupMessage* msg = soup_message_new("NOTIFY", callback.c_str());
  if (msg == nullptr) {
    return nullptr;
  }
  SoupMessageHeaders* from = soup_server_message_get_request_headers(event);
  SoupMessageHeaders* to = soup_message_get_request_headers(msg);
  for (const char* name : {"NT", "NTS", "SID", "SEQ"}) {
    soup_message_headers_append(to, name, headerOf(from, name).c_str());
  }
  soup_message_headers_append(to, "Connection", "close");
  GBytes* body = soup_message_body_flatten(soup_server_message_get_request_body(event));
  soup_message_set_request_body_from_bytes(msg, headerOf(from, "Content-Type").c_str(), body);
  g_bytes_unref(body);
  return msg;
}

// Takes msg.
void SubscriptionPolicy::send(SoupMessage* msg, const std::string& sid, Subscriber& subscriber) {
  if (subscriber.deliveries == nullptr) {
    subscriber.deliveries = g_cancellable_new();
  }
  soup_session_send_and_read_async(mRelaySession, msg, G_PRIORITY_DEFAULT, subscriber.deliveries, onRelayed,
                                   new RelayJob{this, sid});
  g_object_unref(msg);
}

// Takes msg. Sent once the SUBSCRIBE answer has been out for the gap; if the
// answer has not been written yet, the gap starts when it is.
void SubscriptionPolicy::holdFirstEvent(SoupMessage* msg, const std::string& sid, Subscriber& subscriber) {
  const gint64 sinceAnswerMs =
      subscriber.answeredUs != 0 ? (g_get_monotonic_time() - subscriber.answeredUs) / 1000 : gint64{-1};
  if (sinceAnswerMs >= mLimits.firstEventGapMs) {
    send(msg, sid, subscriber);
    return;
  }
  if (subscriber.heldFirstEvent != nullptr) {
    g_object_unref(subscriber.heldFirstEvent);
  }
  subscriber.heldFirstEvent = msg;
  if (sinceAnswerMs >= 0) {
    startFirstEventTimer(sid, subscriber, mLimits.firstEventGapMs - static_cast<unsigned>(sinceAnswerMs));
  }
}

void SubscriptionPolicy::startFirstEventTimer(const std::string& sid, Subscriber& subscriber, unsigned delayMs) {
  stopFirstEventTimer(subscriber);
  subscriber.firstEventTimer = g_timeout_source_new(delayMs);
  g_source_set_callback(subscriber.firstEventTimer, onFirstEventDue, new FirstEventJob{this, sid}, deleteFirstEventJob);
  g_source_attach(subscriber.firstEventTimer, mContext);
}

void SubscriptionPolicy::stopFirstEventTimer(Subscriber& subscriber) {
  if (subscriber.firstEventTimer != nullptr) {
    g_source_destroy(subscriber.firstEventTimer);
    g_source_unref(subscriber.firstEventTimer);
    subscriber.firstEventTimer = nullptr;
  }
}

void SubscriptionPolicy::sendHeldFirstEvent(const std::string& sid) {
  Subscriber* subscriber = find(sid);
  if (subscriber == nullptr) {
    return;
  }
  stopFirstEventTimer(*subscriber);
  SoupMessage* held = subscriber->heldFirstEvent;
  subscriber->heldFirstEvent = nullptr;
  if (held != nullptr && !subscriber->cancelled && !subscriber->dropping) {
    send(held, sid, *subscriber);
  } else if (held != nullptr) {
    g_object_unref(held);
  }
}

void SubscriptionPolicy::relayed(const std::string& sid, guint status) {
  Subscriber* subscriber = find(sid);
  if (subscriber == nullptr || subscriber->cancelled || subscriber->dropping) {
    return;
  }
  if (SOUP_STATUS_IS_SUCCESSFUL(status)) {
    subscriber->reached = true;
    subscriber->failedEvents = 0;
    return;
  }
  ++subscriber->failedEvents;
  if (status == SOUP_STATUS_PRECONDITION_FAILED || !subscriber->reached ||
      subscriber->failedEvents >= mLimits.failedEventsBeforeDrop) {
    TL_LOG(4, "Subscriber [%s] %s (status %u): dropped", sid.c_str(),
           subscriber->reached ? "failed its last events" : "took not even its first event", status);
    unsubscribeOnBehalf(sid, *subscriber);
  }
}

void SubscriptionPolicy::unsubscribeOnBehalf(const std::string& sid, Subscriber& subscriber) {
  subscriber.dropping = true;
  cancelDeliveries(subscriber);
  subscriber.service->getBinding()->unsubscribed(sid);
  std::string path;
  for (const auto& entry : mServicesByPath) {
    path = entry.second == subscriber.service ? entry.first : path;
  }
  // Through GUPnP's own handler (and this side's, which holds it until the
  // first event has settled), so GUPnP frees it.
  SoupMessage* msg = soup_message_new("UNSUBSCRIBE", (mBaseUrl + path).c_str());
  soup_message_headers_append(soup_message_get_request_headers(msg), "SID", sid.c_str());
  soup_session_send_and_read_async(mOwnSession, msg, G_PRIORITY_DEFAULT, mCancellable, onOwnRequestDone, nullptr);
  g_object_unref(msg);
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
  // Events still queued for it are not sent.
  cancelDeliveries(it->second);
  mSubscribers.erase(it);
}

void SubscriptionPolicy::cancelDeliveries(Subscriber& subscriber) {
  stopFirstEventTimer(subscriber);
  g_clear_object(&subscriber.heldFirstEvent);
  if (subscriber.deliveries != nullptr) {
    g_cancellable_cancel(subscriber.deliveries);
    g_clear_object(&subscriber.deliveries);
  }
}

}  // namespace zuna_upnp
