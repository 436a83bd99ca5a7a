#include "zuna_http_host/SoupAcceptor.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "ConnectionLimits.h"
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

// Out of descriptors: try again after this long rather than at once.
constexpr unsigned kDescriptorPauseMs = 100;

}  // namespace

SoupAcceptor::SoupAcceptor(SoupServer* server, GSocket* listening, bool keepAlive)
    : mServer(SOUP_SERVER(g_object_ref(server))), mListening(listening) {
  g_socket_set_blocking(mListening, FALSE);
  ConnectionLimits::instance().watchServer(mServer, keepAlive);
  listen();
}

SoupAcceptor::~SoupAcceptor() {
  ConnectionLimits::instance().forget(this);
  pause();
  ConnectionLimits::instance().unwatchServer(mServer);
  g_socket_close(mListening, nullptr);
  g_object_unref(mListening);
  g_object_unref(mServer);
}

void SoupAcceptor::listen() {
  if (mSource != nullptr) {
    return;
  }
  mSource = g_socket_create_source(mListening, G_IO_IN, nullptr);
  g_source_set_callback(mSource, G_SOURCE_FUNC(onIncoming), this, nullptr);
  g_source_attach(mSource, g_main_context_get_thread_default());
}

void SoupAcceptor::pause() {
  for (GSource** source : {&mSource, &mPauseTimer}) {
    if (*source != nullptr) {
      g_source_destroy(*source);
      g_source_unref(*source);
      *source = nullptr;
    }
  }
}

void SoupAcceptor::pauseUntilRoom() {
  TL_LOG(5, "No room for another connection; accepting pauses until one ends");
  pause();
  ConnectionLimits::instance().whenRoom(this, [this] { listen(); });
}

void SoupAcceptor::pauseForDescriptors() {
  TL_LOG(2, "Out of descriptors; accepting pauses for [%u] ms", kDescriptorPauseMs);
  ConnectionLimits::instance().relieveDescriptorPressure();
  pause();
  mPauseTimer = g_timeout_source_new(kDescriptorPauseMs);
  g_source_set_callback(mPauseTimer, onPauseOver, this, nullptr);
  g_source_attach(mPauseTimer, g_main_context_get_thread_default());
}

gboolean SoupAcceptor::onPauseOver(gpointer data) {
  auto* acceptor = static_cast<SoupAcceptor*>(data);
  g_source_unref(acceptor->mPauseTimer);
  acceptor->mPauseTimer = nullptr;
  acceptor->listen();
  return G_SOURCE_REMOVE;
}

std::unique_ptr<SoupAcceptor> SoupAcceptor::forSocket(SoupServer* server, int fd) {
  GSocket* listening = socketFromCopyOf(fd);
  // The private listeners' providers close each connection after their answer.
  return listening == nullptr ? nullptr : std::unique_ptr<SoupAcceptor>(new SoupAcceptor(server, listening, false));
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
      acceptors.emplace_back(new SoupAcceptor(server, listening, true));
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
  for (int i = 0; i < kMaxAcceptsPerWakeUp && mSource != nullptr; ++i) {
    if (!ConnectionLimits::instance().hasRoom()) {
      pauseUntilRoom();
      return;
    }
    if (!acceptOne()) {
      return;
    }
  }
}

// False when nothing more can be accepted on this wake-up.
bool SoupAcceptor::acceptOne() {
  GError* error = nullptr;
  GSocket* client = g_socket_accept(mListening, nullptr, &error);
  if (client == nullptr) {
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES)) {
      pauseForDescriptors();
    }
    g_error_free(error);
    return false;
  }
  GSocketAddress* local = g_socket_get_local_address(client, nullptr);
  GSocketAddress* remote = g_socket_get_remote_address(client, nullptr);
  if (local != nullptr && remote != nullptr && ConnectionLimits::instance().admit(mServer, client, remote)) {
    g_socket_set_option(client, IPPROTO_TCP, TCP_NODELAY, TRUE, nullptr);
    GSocketConnection* connection = g_socket_connection_factory_create_connection(client);
    soup_server_accept_iostream(mServer, G_IO_STREAM(connection), local, remote, nullptr);
    g_object_unref(connection);
  } else {
    g_socket_close(client, nullptr);
  }
  g_clear_object(&local);
  g_clear_object(&remote);
  g_object_unref(client);
  return true;
}

}  // namespace zuna_http::host
