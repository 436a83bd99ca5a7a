#include "SoupAcceptor.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 2);

namespace zuna_http::host {

namespace {

// Enough to drain a burst without starving the rest of the loop.
constexpr int kMaxAcceptsPerWakeUp = 32;

GSocket* socketFromCopyOf(int fd) {
  const int copy = dup(fd);
  if (copy < 0) {
    return nullptr;
  }
  GError* error = nullptr;
  GSocket* socket = g_socket_new_from_fd(copy, &error);
  if (socket == nullptr) {
    TL_LOG(0, "Cannot use listening socket [%d]: %s", fd, error->message);
    g_error_free(error);
    close(copy);
  }
  return socket;
}

constexpr int kStackListenBacklog = 128;

}  // namespace

SoupAcceptor::SoupAcceptor(SoupServer* server, GSocket* listening)
    : mServer(SOUP_SERVER(g_object_ref(server))), mListening(listening) {
  g_socket_set_blocking(mListening, FALSE);
  mSource = g_socket_create_source(mListening, G_IO_IN, nullptr);
  g_source_set_callback(mSource, G_SOURCE_FUNC(onIncoming), this, nullptr);
  g_source_attach(mSource, g_main_context_get_thread_default());
}

SoupAcceptor::~SoupAcceptor() {
  g_source_destroy(mSource);
  g_source_unref(mSource);
  g_socket_close(mListening, nullptr);
  g_object_unref(mListening);
  g_object_unref(mServer);
}

std::unique_ptr<SoupAcceptor> SoupAcceptor::forSocket(SoupServer* server, int fd) {
  GSocket* listening = socketFromCopyOf(fd);
  return listening == nullptr ? nullptr : std::unique_ptr<SoupAcceptor>(new SoupAcceptor(server, listening));
}

std::vector<std::unique_ptr<SoupAcceptor>> SoupAcceptor::takeOver(SoupServer* server) {
  std::vector<std::unique_ptr<SoupAcceptor>> acceptors;
  GSList* listeners = soup_server_get_listeners(server);
  for (GSList* item = listeners; item != nullptr; item = item->next) {
    if (GSocket* listening = socketFromCopyOf(g_socket_get_fd(G_SOCKET(item->data)))) {
      // GLib listens with a queue of 10; a control point that opens a connection
      // per request from 16 threads overflows it and waits for a SYN retry.
      g_socket_set_listen_backlog(listening, kStackListenBacklog);
      g_socket_listen(listening, nullptr);
      acceptors.emplace_back(new SoupAcceptor(server, listening));
    }
  }
  g_slist_free(listeners);
  // Closes libsoup's copies only; the sockets stay open through ours.
  soup_server_disconnect(server);
  return acceptors;
}

gboolean SoupAcceptor::onIncoming(GSocket* /*listening*/, GIOCondition /*condition*/, gpointer data) {
  static_cast<SoupAcceptor*>(data)->acceptPending();
  return G_SOURCE_CONTINUE;
}

void SoupAcceptor::acceptPending() {
  for (int i = 0; i < kMaxAcceptsPerWakeUp; ++i) {
    GSocket* client = g_socket_accept(mListening, nullptr, nullptr);
    if (client == nullptr) {
      return;
    }
    g_socket_set_option(client, IPPROTO_TCP, TCP_NODELAY, TRUE, nullptr);
    GSocketConnection* connection = g_socket_connection_factory_create_connection(client);
    GSocketAddress* local = g_socket_get_local_address(client, nullptr);
    GSocketAddress* remote = g_socket_get_remote_address(client, nullptr);
    if (local != nullptr && remote != nullptr) {
      soup_server_accept_iostream(mServer, G_IO_STREAM(connection), local, remote, nullptr);
    } else {
      g_io_stream_close(G_IO_STREAM(connection), nullptr, nullptr);
    }
    g_clear_object(&local);
    g_clear_object(&remote);
    g_object_unref(connection);
    g_object_unref(client);
  }
}

}  // namespace zuna_http::host
