// The stack's limits on GENA subscriptions, seen from a libsoup subscriber
// in the same process on loopback: the cap per service, renewals past it,
// subscribers whose callbacks refuse events, and hasSubscribers() following
// all of it.
#include <gtest/gtest.h>
#include <libsoup/soup.h>

#include <memory>
#include <string>
#include <vector>

#include "LoopbackStackTest.h"

namespace {

constexpr unsigned kCap = 32;  // the stack's default per service

// One GENA request with the given headers: (status, SID answered).
std::pair<unsigned, std::string> gena(const char* method, const std::string& url,
                                      const std::vector<std::pair<const char*, std::string>>& headers) {
  SoupSession* session = soup_session_new();
  SoupMessage* msg = soup_message_new(method, url.c_str());
  for (const auto& header : headers) {
    soup_message_headers_append(soup_message_get_request_headers(msg), header.first, header.second.c_str());
  }
  GBytes* body = soup_session_send_and_read(session, msg, nullptr, nullptr);
  if (body != nullptr) {
    g_bytes_unref(body);
  }
  const char* sid = soup_message_headers_get_one(soup_message_get_response_headers(msg), "SID");
  std::pair<unsigned, std::string> result(soup_message_get_status(msg), sid != nullptr ? sid : "");
  g_object_unref(msg);
  g_object_unref(session);
  return result;
}

unsigned renew(const std::string& url, const std::string& sid) {
  return gena("SUBSCRIBE", url, {{"SID", sid}, {"Timeout", "Second-300"}}).first;
}

// A port on loopback that refuses connections.
std::string refusingCallback() {
  GSocket* socket = g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr);
  GInetAddress* loopback = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);
  GSocketAddress* any = g_inet_socket_address_new(loopback, 0);
  g_socket_bind(socket, any, FALSE, nullptr);
  GSocketAddress* bound = g_socket_get_local_address(socket, nullptr);
  const guint16 port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
  g_object_unref(bound);
  g_object_unref(any);
  g_object_unref(loopback);
  g_object_unref(socket);  // closed without listening
  return "<http://127.0.0.1:" + std::to_string(port) + "/events>";
}

class SubscriptionLimitTest : public upnp_it::LoopbackStackTest {
 protected:
  static std::string eventUrl(zuna_upnp::LocalService* service) { return base + service->getEventURL(); }
};

TEST_F(SubscriptionLimitTest, NewSubscriptionsPastTheCapAreRefusedRenewalsAreNot) {
  const std::string url = eventUrl(device->calculator);
  upnp_it::EventSubscriber subscriber(*controlPoint);
  std::vector<std::string> sids;
  for (unsigned i = 0; i < kCap; ++i) {
    unsigned status = 0;
    sids.push_back(subscriber.subscribe(url, status));
    ASSERT_EQ(status, 200u) << i;
  }
  ASSERT_TRUE(controlPoint->runUntil([&] { return subscriber.events().size() >= kCap; }, 10000));
  unsigned status = 0;
  EXPECT_EQ(subscriber.subscribe(url, status), "");
  EXPECT_EQ(status, 503u);
  for (const std::string& sid : sids) {
    EXPECT_EQ(renew(url, sid), 200u);
  }
  // Another service has places of its own.
  const std::string other = subscriber.subscribe(eventUrl(device->holder), status);
  EXPECT_EQ(status, 200u);
  ASSERT_TRUE(controlPoint->runUntil([&] { return subscriber.events().size() >= kCap + 1; }, 10000));
  EXPECT_EQ(subscriber.unsubscribe(eventUrl(device->holder), other), 200u);

  for (const std::string& sid : sids) {
    EXPECT_EQ(subscriber.unsubscribe(url, sid), 200u);
  }
  EXPECT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 5000));
  const std::string again = subscriber.subscribe(url, status);
  EXPECT_EQ(status, 200u);
  ASSERT_TRUE(controlPoint->runUntil([&] { return subscriber.events().size() >= kCap + 2; }, 10000));
  EXPECT_EQ(subscriber.unsubscribe(url, again), 200u);
}

TEST_F(SubscriptionLimitTest, SubscriberWhoseCallbackRefusesIsDroppedAndNoLongerCounts) {
  const std::string url = eventUrl(device->calculator);
  ASSERT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 5000));
  std::vector<std::string> sids;
  for (unsigned i = 0; i < kCap; ++i) {
    const auto answer = gena("SUBSCRIBE", url, {{"Callback", refusingCallback()}, {"NT", "upnp:event"}});
    ASSERT_EQ(answer.first, 200u);
    sids.push_back(answer.second);
  }
  // Their first events fail: every one of them goes.
  EXPECT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 10000));
  for (const std::string& sid : sids) {
    EXPECT_EQ(renew(url, sid), 412u);
  }
  upnp_it::EventSubscriber subscriber(*controlPoint);
  unsigned status = 0;
  const std::string sid = subscriber.subscribe(url, status);
  EXPECT_EQ(status, 200u);
  ASSERT_TRUE(controlPoint->runUntil([&] { return !subscriber.events().empty(); }, 10000));
  EXPECT_EQ(subscriber.unsubscribe(url, sid), 200u);
}

TEST_F(SubscriptionLimitTest, UnsubscribeBeforeTheFirstEventIsTakenEndsTheSubscription) {
  const std::string url = eventUrl(device->calculator);
  upnp_it::EventSubscriber subscriber(*controlPoint);
  unsigned status = 0;
  // This thread serves the subscriber's callback only in runUntil: the first
  // event cannot be taken before the UNSUBSCRIBE is answered.
  const std::string sid = subscriber.subscribe(url, status);
  ASSERT_EQ(status, 200u);
  EXPECT_EQ(subscriber.unsubscribe(url, sid), 200u);
  EXPECT_TRUE(controlPoint->runUntil([&] { return !device->calculator->hasSubscribers(); }, 5000));
  // The first event may still be on its way: it left before the UNSUBSCRIBE
  // was answered (on a kept-alive connection it leaves sooner).
  controlPoint->runUntil([] { return false; }, 300);
  const size_t seen = subscriber.events().size();
  EXPECT_LE(seen, 1u);
  device->calculator->getVars().setValue("Total", "21");
  device->calculator->sendChangedVars();
  controlPoint->runUntil([] { return false; }, 500);  // an event would arrive in this time
  EXPECT_EQ(subscriber.events().size(), seen);
  EXPECT_EQ(renew(url, sid), 412u);
}

TEST_F(SubscriptionLimitTest, TheRelayTakesOnlyEventsOfKnownSubscriptions) {
  // Only events from the stack's own address are taken there (the test runs
  // on that address), and only for subscriptions the stack holds: any other
  // is answered as GUPnP answers an unknown subscription.
  EXPECT_EQ(gena("NOTIFY", base + "/_gena/relay", {{"SID", "uuid:x"}, {"NT", "upnp:event"}}).first, 412u);
  EXPECT_EQ(gena("GET", base + "/_gena/relay", {}).first, 403u);
}

}  // namespace
