// What a GENA subscription may cost on one interface's HTTP server, and the
// bookkeeping that makes GUPnP 1.6.3 let go of the subscriptions it no longer
// needs. GUPnP keeps the subscriptions and sends the events; this class
// stands in front of its handlers (SoupServer signals and an early handler on
// each event URL) and watches its event deliveries (emission hooks on
// SoupSession), so nothing of GENA itself is done here. Lives and dies on the
// GLib thread with its interface stack.
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
  // How long one event delivery may take (connect, send, answer): GUPnP's
  // sessions have no time-out of their own, so a callback that never
  // answers would hold its delivery, and every later one to that host, for
  // good.
  unsigned deliverySeconds = 10;
};

class SubscriptionPolicy {
 public:
  // server is the interface stack's; address and port are where it listens
  // (deliveries GUPnP cannot make come back there).
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
    bool reached = false;       // one of its own callbacks took an event
    unsigned failedEvents = 0;  // in a row, since it last took one
    bool cancelled = false;     // UNSUBSCRIBE seen
    SoupServerMessage* heldUnsubscribe = nullptr;
  };

  // For the emission hooks and the server's signals (GLib thread).
  void deliveryQueued(SoupSession* session, SoupMessage* msg);
  void deliveryDone(SoupSession* session, SoupMessage* msg);
  void subscribeRead(SoupServerMessage* msg);
  void unsubscribeArrived(SoupServerMessage* msg);
  void requestDone(SoupServerMessage* msg);
  void undeliveredEvent(SoupServerMessage* msg);
  void releaseHeldUnsubscribes();
  void dropExpired();
  void heldUnsubscribeGone(SoupServerMessage* msg);

 private:
  Subscriber* find(const std::string& sid);
  Subscriber* claim(SoupMessage* msg);
  unsigned countOf(const LocalService* service) const;
  void drop(const std::string& sid);
  void releaseHold(Subscriber& subscriber);
  void scheduleRelease();
  bool isFallback(SoupMessage* msg) const;
  LocalService* serviceAt(SoupServerMessage* msg) const;
  bool refuseOverCap(SoupServerMessage* msg, LocalService* service);
  bool addFallbackCallback(SoupServerMessage* msg);

  SoupServer* mServer;
  SubscriptionLimits mLimits;
  std::string mAddress;
  unsigned mPort;
  std::string mFallbackUrl;
  GMainContext* mContext;
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
