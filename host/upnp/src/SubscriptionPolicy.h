// What a GENA subscription may cost on one interface's HTTP server, and the
// bookkeeping that makes GUPnP 1.6.3 let go of the subscriptions it no longer
// needs. GUPnP keeps the subscriptions and writes the events; this class
// stands in front of its handlers (SoupServer signals and an early handler on
// each event URL), passes its event messages on to the subscribers (emission
// hooks on SoupSession point them at a relay on this server) and tells it
// with its own UNSUBSCRIBE when a subscriber is to go. libsoup does all the
// HTTP. Lives and dies on the GLib thread with its interface stack.
#pragma once

#include <libsoup/soup.h>

#include <map>
#include <string>

#include "zuna_upnp/LocalService.h"

namespace zuna_upnp {

struct SubscriptionLimits {
  // New subscriptions beyond this many on one service are refused with 503
  // (UDA lets a publisher refuse a SUBSCRIBE it cannot take on). The box's
  // real subscribers are the operator's management server and perhaps a
  // diagnostic tool or two; 32 leaves room for control points that lose
  // their subscription and take a new one before the old expires (300 s),
  // while the worst case stays small: about 6 kB each in GUPnP and libsoup,
  // 200 kB for a service at the cap. Renewals are never refused.
  unsigned perService = 32;
  // A subscriber that took no event at all (its callbacks refused the first
  // one) is dropped then; once it has taken one, it is dropped when this
  // many events in a row reached none of its callbacks.
  unsigned failedEventsBeforeDrop = 3;
  // The first event of a subscription leaves at least this long after the
  // SUBSCRIBE answer: GUPnP's control point (1.6.3, what server boxes are
  // built on) drops an event that it reads before that answer, without a
  // word, and then waits for events that never come.
  unsigned firstEventGapMs = 150;
  // How long one event delivery may take (connect, send, answer). GUPnP's
  // sessions have no time-out: a callback that never answers would hold its
  // delivery, and every later one to that host, for good.
  unsigned deliverySeconds = 10;
};

class SubscriptionPolicy {
 public:
  // server is the interface stack's; address and port are where it listens
  // (GUPnP's event messages pass through there).
  SubscriptionPolicy(SoupServer* server, const std::string& address, unsigned port,
                     const SubscriptionLimits& limits = SubscriptionLimits());
  ~SubscriptionPolicy();
  SubscriptionPolicy(const SubscriptionPolicy&) = delete;
  SubscriptionPolicy& operator=(const SubscriptionPolicy&) = delete;

  // The service's subscriptions arrive at eventPath from now on.
  void watch(LocalService* service, const std::string& eventPath);
  // The service is going (its interface, or the stack): its subscriptions
  // go with it.
  void forget(LocalService* service);

  // A subscription as this side sees it; GUPnP's own state follows it.
  struct Subscriber {
    LocalService* service = nullptr;
    gint64 expiry = 0;  // monotonic microseconds
    unsigned deliveriesInFlight = 0;
    bool settled = false;       // GUPnP frees it at once on UNSUBSCRIBE
    bool reached = false;       // its callback took an event
    unsigned failedEvents = 0;  // in a row, since it last took one
    bool cancelled = false;     // UNSUBSCRIBE seen
    bool dropping = false;      // this side's UNSUBSCRIBE is on its way
    SoupServerMessage* heldUnsubscribe = nullptr;
    std::map<std::string, std::string> callbackBySeq;  // events on their way to the relay
    GCancellable* deliveries = nullptr;                // its events the relay is passing on
    gint64 answeredUs = 0;                             // when its SUBSCRIBE answer was written
    SoupMessage* heldFirstEvent = nullptr;             // waits for the gap after that answer
    GSource* firstEventTimer = nullptr;
  };

  // For the emission hooks and the server's signals (GLib thread).
  void deliveryQueued(SoupSession* session, SoupMessage* msg);
  void deliveryDone(SoupSession* session, SoupMessage* msg);
  void subscribeRead(SoupServerMessage* msg);
  void unsubscribeArrived(SoupServerMessage* msg);
  void requestDone(SoupServerMessage* msg);
  void relayEvent(SoupServerMessage* msg);
  void relayed(const std::string& sid, guint status);
  void sendHeldFirstEvent(const std::string& sid);
  void releaseHeldUnsubscribes();
  void dropExpired();
  void heldUnsubscribeGone(SoupServerMessage* msg);
  bool isOwnSession(SoupSession* session) const;

 private:
  Subscriber* find(const std::string& sid);
  Subscriber* claim(SoupMessage* msg);
  unsigned countOf(const LocalService* service) const;
  void drop(const std::string& sid);
  void releaseHold(Subscriber& subscriber);
  void scheduleRelease();
  LocalService* serviceAt(SoupServerMessage* msg) const;
  bool refuseOverCap(SoupServerMessage* msg, LocalService* service);
  static SoupMessage* notifyFor(SoupServerMessage* event, const std::string& callback);
  void send(SoupMessage* msg, const std::string& sid, Subscriber& subscriber);
  void holdFirstEvent(SoupMessage* msg, const std::string& sid, Subscriber& subscriber);
  void startFirstEventTimer(const std::string& sid, Subscriber& subscriber, unsigned delayMs);
  static void stopFirstEventTimer(Subscriber& subscriber);
  static void cancelDeliveries(Subscriber& subscriber);
  void unsubscribeOnBehalf(const std::string& sid, Subscriber& subscriber);

  SoupServer* mServer;
  SubscriptionLimits mLimits;
  std::string mAddress;
  std::string mBaseUrl;
  GMainContext* mContext;
  // Events to the subscribers, one connection per host at a time as GUPnP
  // does (in order); and this side's UNSUBSCRIBE requests to GUPnP.
  SoupSession* mRelaySession;
  SoupSession* mOwnSession;
  GCancellable* mCancellable;
  GSource* mSweep = nullptr;
  GSource* mRelease = nullptr;
  std::map<std::string, LocalService*> mServicesByPath;
  std::map<std::string, Subscriber> mSubscribers;  // by SID
  // The service whose SUBSCRIBE GUPnP's handler is answering right now: its
  // first event, sent from inside the handler, names the new SID.
  LocalService* mSubscribing = nullptr;
  unsigned long mRefused = 0;
};

}  // namespace zuna_upnp
