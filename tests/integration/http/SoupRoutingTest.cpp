// The adapter's libsoup request handlers on a server of their own on
// loopback, driven by a libsoup client in the same thread.
#include <gtest/gtest.h>
#include <libsoup/soup.h>

#include <string>

#include "zuna_http_host/SoupRouting.h"

namespace {

struct SeenAgent {
  bool asked = false;
  bool present = false;
  std::string value;
};

void recordAgent(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
                 gpointer data) {
  auto* seen = static_cast<SeenAgent*>(data);
  const char* agent = soup_message_headers_get_one(soup_server_message_get_request_headers(msg), "User-Agent");
  seen->asked = true;
  seen->present = agent != nullptr;
  seen->value = agent != nullptr ? agent : "";
  soup_server_message_set_status(msg, SOUP_STATUS_OK, nullptr);
}

class SoupRoutingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mContext = g_main_context_new();
    g_main_context_push_thread_default(mContext);
    mServer = soup_server_new(nullptr, nullptr);
    zuna_http::host::skipUserAgentGuesses(mServer);
    soup_server_add_handler(mServer, "/agent", recordAgent, &mSeen, nullptr);
    GError* error = nullptr;
    ASSERT_TRUE(soup_server_listen_local(mServer, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, &error));
    GSList* uris = soup_server_get_uris(mServer);
    ASSERT_NE(uris, nullptr);
    mUrl = "http://127.0.0.1:" + std::to_string(g_uri_get_port(static_cast<GUri*>(uris->data))) + "/agent";
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    // A session sends no User-Agent unless it is given one.
    mSession = soup_session_new();
  }

  void TearDown() override {
    g_clear_object(&mSession);
    if (mServer != nullptr) {
      soup_server_disconnect(mServer);
    }
    g_clear_object(&mServer);
    g_main_context_pop_thread_default(mContext);
    g_main_context_unref(mContext);
  }

  // The server answers on this thread's context, so the request is made
  // asynchronously and the context turned until the answer is in.
  guint get(const char* userAgent) {
    SoupMessage* msg = soup_message_new("GET", mUrl.c_str());
    if (userAgent != nullptr) {
      soup_message_headers_replace(soup_message_get_request_headers(msg), "User-Agent", userAgent);
    }
    bool done = false;
    soup_session_send_and_read_async(
        mSession, msg, G_PRIORITY_DEFAULT, nullptr,
        [](GObject* session, GAsyncResult* result, gpointer data) {
          GBytes* body = soup_session_send_and_read_finish(SOUP_SESSION(session), result, nullptr);
          if (body != nullptr) {
            g_bytes_unref(body);
          }
          *static_cast<bool*>(data) = true;
        },
        &done);
    const gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!done && g_get_monotonic_time() < deadline) {
      g_main_context_iteration(mContext, TRUE);
    }
    const guint status = soup_message_get_status(msg);
    g_object_unref(msg);
    return status;
  }

  GMainContext* mContext = nullptr;
  SoupServer* mServer = nullptr;
  SoupSession* mSession = nullptr;
  std::string mUrl;
  SeenAgent mSeen;
};

TEST_F(SoupRoutingTest, RequestWithoutUserAgentReachesHandlersWithAnEmptyOne) {
  ASSERT_EQ(get(nullptr), 200u);
  ASSERT_TRUE(mSeen.asked);
  EXPECT_TRUE(mSeen.present);
  EXPECT_EQ(mSeen.value, "");
}

TEST_F(SoupRoutingTest, UserAgentOfTheRequestIsKept) {
  ASSERT_EQ(get("Linux/6.1 UPnP/1.0 ServerBox/2.0"), 200u);
  ASSERT_TRUE(mSeen.asked);
  EXPECT_EQ(mSeen.value, "Linux/6.1 UPnP/1.0 ServerBox/2.0");
}

}  // namespace
