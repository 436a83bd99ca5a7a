#include "zuna_http_host/SoupRouting.h"

#include <fcntl.h>
#include <unistd.h>

#include "tolvane/Logging.h"
#include "zuna_http_host/PathNormalizer.h"
#include "zuna_http_host/RequestPool.h"

TL_REGISTER_LOGGING(true, 2);

namespace zuna_http::host {

namespace {

bool methodMatches(WebServer::Method wanted, const char* method) {
  return wanted == WebServer::getMethod(method != nullptr ? method : "");
}

// The descriptor under a stolen stream.
int duplicateSocketOf(GIOStream* stream) {
  GIOStream* connection = socketConnectionOf(stream);
  const int fd = G_IS_SOCKET_CONNECTION(connection)
                     ? dup(g_socket_get_fd(g_socket_connection_get_socket(G_SOCKET_CONNECTION(connection))))
                     : -1;
  g_object_unref(connection);
  return fd;
}

// The copy of the descriptor survives the stolen stream's close; the
// provider writes to it with blocking calls on its worker.
int stealConnection(SoupServerMessage* msg) {
  GIOStream* stream = soup_server_message_steal_connection(msg);
  if (stream == nullptr) {
    return -1;
  }
  const int fd = duplicateSocketOf(stream);
  g_io_stream_close(stream, nullptr, nullptr);
  g_object_unref(stream);
  if (fd >= 0) {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  }
  return fd;
}

void serveProvider(SoupServer* /*server*/, SoupServerMessage* msg, const char* /*path*/, GHashTable* /*query*/,
                   gpointer data) {
  const ProviderRoute* route = static_cast<const ProviderRoute*>(data);
  const char* method = soup_server_message_get_method(msg);
  if (!methodMatches(route->method, method)) {
    soup_server_message_set_status(msg, SOUP_STATUS_METHOD_NOT_ALLOWED, nullptr);
    return;
  }
  const char* rawPath = g_uri_get_path(soup_server_message_get_uri(msg));
  std::string path = rawPath != nullptr ? rawPath : "";
  const bool safe = route->pathsDecoded ? isSafeDecodedPath(path) : normalizeRequestPath(path, path);
  if (!safe || !isBelow(path, route->base)) {
    TL_LOG(2, "Refused request path [%s]", rawPath != nullptr ? rawPath : "");
    soup_server_message_set_status(msg, SOUP_STATUS_NOT_FOUND, nullptr);
    return;
  }
  const std::string methodName(method);
  const int fd = stealConnection(msg);  // msg may be gone from here on
  if (fd < 0) {
    return;
  }
  if (!RequestPool::instance().submit(route->provider, fd, methodName, path)) {
    static const char kBusy[] = "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    ssize_t ignored = write(fd, kBusy, sizeof kBusy - 1);
    (void)ignored;
    close(fd);
  }
}

void deleteRoute(gpointer data) { delete static_cast<ProviderRoute*>(data); }

void notFoundInsteadOfBadPath(SoupServerMessage* msg, gpointer /*data*/) {
  if (soup_server_message_get_status(msg) != SOUP_STATUS_BAD_REQUEST) {
    return;
  }
  // When libsoup refuses the path it leaves the message's URI undecoded.
  const char* rawPath = g_uri_get_path(soup_server_message_get_uri(msg));
  std::string decoded;
  if (rawPath != nullptr && !normalizeRequestPath(rawPath, decoded)) {
    soup_server_message_set_status(msg, SOUP_STATUS_NOT_FOUND, nullptr);
  }
}

void watchHeaders(SoupServer* /*server*/, SoupServerMessage* msg, gpointer /*data*/) {
  // Connected after libsoup's own handler, so it sees its verdict.
  g_signal_connect(msg, "got-headers", G_CALLBACK(notFoundInsteadOfBadPath), nullptr);
}

void addCloseHeader(SoupServer* /*server*/, SoupServerMessage* msg, gpointer /*data*/) {
  soup_message_headers_replace(soup_server_message_get_response_headers(msg), "Connection", "close");
}

void markMissingUserAgent(SoupServer* /*server*/, SoupServerMessage* msg, gpointer /*data*/) {
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  if (soup_message_headers_get_one(headers, "User-Agent") == nullptr) {
    soup_message_headers_append(headers, "User-Agent", "");
  }
}

}  // namespace

GIOStream* socketConnectionOf(GIOStream* stolen) {
  GIOStream* base = nullptr;
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(stolen), "base-iostream") != nullptr) {
    g_object_get(stolen, "base-iostream", &base, nullptr);
  }
  return base != nullptr ? base : G_IO_STREAM(g_object_ref(stolen));
}

void addProviderRoute(SoupServer* server, ProviderRoute* route) {
  const char* base = route->base.empty() ? nullptr : route->base.c_str();
  soup_server_add_handler(server, base, serveProvider, route, deleteRoute);
}

void removeProviderRoute(SoupServer* server, const std::string& base) {
  soup_server_remove_handler(server, base.empty() ? "" : base.c_str());
}

void skipUserAgentGuesses(SoupServer* server) {
  g_signal_connect(server, "request-read", G_CALLBACK(markMissingUserAgent), nullptr);
}

void closeConnectionsAfterEachResponse(SoupServer* server) {
  g_signal_connect(server, "request-started", G_CALLBACK(addCloseHeader), nullptr);
}

void answerEscapingPathsWithNotFound(SoupServer* server) {
  g_signal_connect(server, "request-started", G_CALLBACK(watchHeaders), nullptr);
}

}  // namespace zuna_http::host
