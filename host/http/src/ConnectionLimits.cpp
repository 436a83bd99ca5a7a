#include "ConnectionLimits.h"

#include <sys/resource.h>

#include <algorithm>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "tolvane/Logging.h"
#include "zuna_http_host/SoupRouting.h"

TL_REGISTER_LOGGING(true, 2);

namespace zuna_http::host {

namespace {

// Descriptors left to the rest of the daemon whatever the limit: its files,
// the collection scripts' pipes, the buses, event notifications, the log
// requests handed to workers.
constexpr size_t kReservedDescriptors = 64;
constexpr size_t kMostConnections = 256;
constexpr size_t kFewestConnections = 8;
// Enough for a head and a body on a slow home network; a peer that takes
// longer is holding the connection, not using it.
constexpr unsigned kRequestTimeoutMs = 10000;
// The largest legitimate request is a SetValues of the whole data model:
// a few kilobytes, escaped. The configuration service refuses arguments
// over 32 KB itself; the bound leaves room for those to be answered so.
constexpr size_t kMaxRequestBodyBytes = size_t{256} * 1024;
constexpr size_t kTrimAfterBytes = size_t{256} * 1024;
// Over the cap, connections being closed still hold their descriptors until
// libsoup lets go of them on its next turn; this bounds how many.
constexpr size_t kMostClosing = 64;
constexpr unsigned kDeadlineCheckMs = 500;
constexpr unsigned kTrimDelayMs = 100;
constexpr const char* kBodyCountKey = "chd-request-body-bytes";
constexpr size_t kMmapThresholdBytes = size_t{128} * 1024;

std::string nativeAddress(GSocketAddress* address) {
  if (address == nullptr) {
    return std::string();
  }
  std::string bytes(static_cast<size_t>(g_socket_address_get_native_size(address)), '\0');
  if (!g_socket_address_to_native(address, bytes.data(), bytes.size(), nullptr)) {
    return std::string();
  }
  return bytes;
}

// glibc raises its mmap threshold each time a large block is freed, up to
// 32 MB, so after one large answer every later block of that size comes from
// the heap and fragments it, staying resident. A fixed threshold keeps large
// blocks in mappings of their own, returned when freed.
void keepLargeBlocksOutOfTheHeap() {
#if defined(__GLIBC__)
  // NOLINTNEXTLINE(concurrency-mt-unsafe): mallopt takes the allocator's lock
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(kMmapThresholdBytes));
#endif
}

}  // namespace

struct ConnectionLimits::State {
  State() { keepLargeBlocksOutOfTheHeap(); }

  struct Tracked {
    GSocket* socket;  // not owned: watched with a weak reference
    SoupServer* server;
    std::string peer;
    gint64 acceptedUs;
    bool requestRead;
    bool closing;
  };
  using Connections = std::list<Tracked>;

  ConnectionLimitSettings settings = defaults();
  Connections connections;  // in the order they were accepted
  std::unordered_map<GSocket*, Connections::iterator> bySocket;
  std::map<std::pair<SoupServer*, std::string>, Connections::iterator> byPeer;
  size_t closing = 0;
  GSource* deadlineTimer = nullptr;
  bool trimScheduled = false;
  std::map<const void*, std::function<void()>> waiters;
  struct Watch {
    int users = 0;
    std::vector<gulong> handlers;
  };
  std::map<SoupServer*, Watch> watched;

  static void socketGone(gpointer data, GObject* where) {
    static_cast<State*>(data)->untrack(reinterpret_cast<GSocket*>(where));  // NOLINT: only the address is used
  }

  void untrack(GSocket* socket) {
    auto found = bySocket.find(socket);
    if (found == bySocket.end()) {
      return;
    }
    Connections::iterator connection = found->second;
    if (connection->closing) {
      --closing;
    }
    byPeer.erase({connection->server, connection->peer});
    connections.erase(connection);
    bySocket.erase(found);
    resumeWaiters();
  }

  void resumeWaiters() {
    if (waiters.empty()) {
      return;
    }
    std::map<const void*, std::function<void()>> resuming;
    resuming.swap(waiters);
    for (auto& waiter : resuming) {
      waiter.second();
    }
  }

  void close(Tracked& connection) {
    connection.closing = true;
    ++closing;
    // libsoup reads the end of the stream, ends the connection and drops
    // the socket; the weak reference then stops the tracking.
    g_socket_shutdown(connection.socket, TRUE, TRUE, nullptr);
  }

  Tracked* oldestWaiting() {
    for (Tracked& connection : connections) {
      if (!connection.requestRead && !connection.closing) {
        return &connection;
      }
    }
    return nullptr;
  }

  bool makeRoom() {
    if (connections.size() - closing < settings.maxConnections && connections.size() < settings.maxConnections) {
      return true;
    }
    if (closing >= kMostClosing) {
      return false;
    }
    Tracked* victim = oldestWaiting();
    if (victim == nullptr) {
      return false;
    }
    TL_LOG(5, "Connection limit [%zu] reached; closing the connection waiting longest for its request",
           settings.maxConnections);
    close(*victim);
    return true;
  }

  void closeOverdue() {
    const gint64 oldest = g_get_monotonic_time() - gint64{settings.requestTimeoutMs} * 1000;
    size_t overdue = 0;
    for (Tracked& connection : connections) {
      if (!connection.requestRead && !connection.closing && connection.acceptedUs < oldest) {
        close(connection);
        ++overdue;
      }
    }
    if (overdue > 0) {
      TL_LOG(5, "Closed [%zu] connections that sent no whole request within [%u] ms", overdue,
             settings.requestTimeoutMs);
    }
  }

  static gboolean onDeadlineCheck(gpointer data) {
    auto* state = static_cast<State*>(data);
    state->closeOverdue();
    if (state->connections.empty()) {
      g_source_unref(state->deadlineTimer);
      state->deadlineTimer = nullptr;
      return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
  }

  void watchDeadlines() {
    if (deadlineTimer != nullptr) {
      return;
    }
    // Runs only while connections are open, so an idle daemon is not woken.
    deadlineTimer = g_timeout_source_new(kDeadlineCheckMs);
    g_source_set_callback(deadlineTimer, onDeadlineCheck, this, nullptr);
    g_source_attach(deadlineTimer, g_main_context_get_thread_default());
  }

  void track(SoupServer* server, GSocket* client, GSocketAddress* remote) {
    connections.push_back(Tracked{client, server, nativeAddress(remote), g_get_monotonic_time(), false, false});
    auto connection = std::prev(connections.end());
    bySocket[client] = connection;
    byPeer[{server, connection->peer}] = connection;
    g_object_weak_ref(G_OBJECT(client), socketGone, this);
    watchDeadlines();
  }

  void requestRead(SoupServer* server, SoupServerMessage* msg) {
    auto found = byPeer.find({server, nativeAddress(soup_server_message_get_remote_address(msg))});
    if (found != byPeer.end()) {
      found->second->requestRead = true;
    }
  }

  // A kept-alive connection waits for its next request: the same limits as
  // a new one (the request time limit is its idle time-out).
  void waitingAgain(GSocket* socket) {
    auto found = bySocket.find(socket);
    if (found != bySocket.end()) {
      found->second->requestRead = false;
      found->second->acceptedUs = g_get_monotonic_time();
      watchDeadlines();
    }
  }

  static gboolean onTrim(gpointer data) {
    auto* state = static_cast<State*>(data);
    state->trimScheduled = false;
#if defined(__GLIBC__)
    // The allocator keeps freed pages of large exchanges resident otherwise
    // (many small blocks, spread over the threads' arenas).
    malloc_trim(0);
#endif
    return G_SOURCE_REMOVE;
  }

  void trimSoon() {
    if (trimScheduled) {
      return;
    }
    trimScheduled = true;
    // After the message and its buffers are freed, later on this turn.
    GSource* source = g_timeout_source_new(kTrimDelayMs);
    g_source_set_callback(source, onTrim, this, nullptr);
    g_source_attach(source, g_main_context_get_thread_default());
    g_source_unref(source);
  }
};

namespace {

ConnectionLimits::State* stateOf(gpointer data) { return static_cast<ConnectionLimits::State*>(data); }

void refuseBody(SoupServerMessage* msg) {
  if (soup_server_message_get_status(msg) != 0) {
    return;
  }
  TL_LOG(2, "Refused a request body over [%zu] bytes", ConnectionLimits::instance().settings().maxRequestBodyBytes);
  soup_server_message_set_status(msg, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, nullptr);
  soup_message_headers_replace(soup_server_message_get_response_headers(msg), "Connection", "close");
  // The rest of the body is read and dropped, within the request's time limit.
  soup_message_body_set_accumulate(soup_server_message_get_request_body(msg), FALSE);
}

void countChunk(SoupServerMessage* msg, GBytes* chunk, gpointer /*data*/) {
  auto* count = static_cast<size_t*>(g_object_get_data(G_OBJECT(msg), kBodyCountKey));
  if (count == nullptr) {
    return;
  }
  *count += g_bytes_get_size(chunk);
  if (*count > ConnectionLimits::instance().settings().maxRequestBodyBytes) {
    refuseBody(msg);
  }
}

void checkDeclaredBody(SoupServerMessage* msg, gpointer /*data*/) {
  SoupMessageHeaders* headers = soup_server_message_get_request_headers(msg);
  const size_t bound = ConnectionLimits::instance().settings().maxRequestBodyBytes;
  switch (soup_message_headers_get_encoding(headers)) {
    case SOUP_ENCODING_CONTENT_LENGTH:
      if (static_cast<guint64>(soup_message_headers_get_content_length(headers)) > bound) {
        refuseBody(msg);
      }
      break;
    case SOUP_ENCODING_CHUNKED:
      g_object_set_data_full(G_OBJECT(msg), kBodyCountKey, g_new0(size_t, 1), g_free);
      g_signal_connect(msg, "got-chunk", G_CALLBACK(countChunk), nullptr);
      break;
    default:
      break;
  }
}

void onRequestStarted(SoupServer* /*server*/, SoupServerMessage* msg, gpointer /*data*/) {
  g_signal_connect(msg, "got-headers", G_CALLBACK(checkDeclaredBody), nullptr);
}

// libsoup 3.2 never frees a kept-alive connection that its client closes
// while it waits for the next request (fixed in 3.3): the message it reads
// the next request into has no completion handler until its first byte
// arrives. So libsoup never holds an idle connection here: when an answer
// has been written on a connection the client keeps alive, the stack takes
// the connection back and hands it to the server as a new one, whose first
// request libsoup does follow to the end, closed or not.
struct KeptAlive {
  SoupServer* server;
  GIOStream* connection;
};

gboolean acceptAgain(gpointer data) {
  std::unique_ptr<KeptAlive> kept(static_cast<KeptAlive*>(data));
  GSocket* socket = G_IS_SOCKET_CONNECTION(kept->connection)
                        ? g_socket_connection_get_socket(G_SOCKET_CONNECTION(kept->connection))
                        : nullptr;
  GSocketAddress* local = socket != nullptr ? g_socket_get_local_address(socket, nullptr) : nullptr;
  GSocketAddress* remote = socket != nullptr ? g_socket_get_remote_address(socket, nullptr) : nullptr;
  if (local != nullptr && remote != nullptr && ConnectionLimits::instance().serves(kept->server)) {
    ConnectionLimits::instance().waitingAgain(socket);
    soup_server_accept_iostream(kept->server, kept->connection, local, remote, nullptr);
  } else {
    g_io_stream_close(kept->connection, nullptr, nullptr);
  }
  g_clear_object(&local);
  g_clear_object(&remote);
  g_object_unref(kept->connection);
  g_object_unref(kept->server);
  return G_SOURCE_REMOVE;
}

// HTTP/1.1 keeps a connection unless either side said "close" (or the answer
// ends with the connection). HTTP/1.0 connections are left to libsoup, which
// closes them, as it closes every connection it is left with here.
bool clientKeepsAlive(SoupServerMessage* msg) {
  SoupMessageHeaders* answer = soup_server_message_get_response_headers(msg);
  return soup_server_message_get_http_version(msg) == SOUP_HTTP_1_1 &&
         soup_message_headers_get_encoding(answer) != SOUP_ENCODING_EOF &&
         !soup_message_headers_header_contains(soup_server_message_get_request_headers(msg), "Connection", "close") &&
         !soup_message_headers_header_contains(answer, "Connection", "close");
}

void keepAliveAfterAnswer(SoupServerMessage* msg, gpointer data) {
  auto* server = static_cast<SoupServer*>(data);
  if (!clientKeepsAlive(msg)) {
    return;  // libsoup closes it
  }
  // A stolen exchange ends without libsoup's request-finished; its watchers
  // (subscriptions, memory) are told here, as libsoup would have.
  g_signal_emit_by_name(server, "request-finished", msg);
  GIOStream* stolen = soup_server_message_steal_connection(msg);
  if (stolen == nullptr) {
    return;
  }
  auto* kept = new KeptAlive{SOUP_SERVER(g_object_ref(server)), socketConnectionOf(stolen)};
  g_object_unref(stolen);
  // After libsoup has unwound from this answer.
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_HIGH);
  g_source_set_callback(source, acceptAgain, kept, nullptr);
  g_source_attach(source, g_main_context_get_thread_default());
  g_source_unref(source);
}

void onRequestStartedKeepingAlive(SoupServer* server, SoupServerMessage* msg, gpointer data) {
  onRequestStarted(server, msg, data);
  g_signal_connect(msg, "wrote-body", G_CALLBACK(keepAliveAfterAnswer), server);
}

void onRequestRead(SoupServer* server, SoupServerMessage* msg, gpointer data) {
  stateOf(data)->requestRead(server, msg);
}

void onRequestEnded(SoupServer* /*server*/, SoupServerMessage* msg, gpointer data) {
  ConnectionLimits::State* state = stateOf(data);
  SoupMessageBody* answer = soup_server_message_get_response_body(msg);
  const goffset declared = soup_message_headers_get_content_length(soup_server_message_get_request_headers(msg));
  const auto large = static_cast<goffset>(state->settings.trimAfterBytes);
  if ((answer != nullptr && answer->length > large) || declared > large) {
    state->trimSoon();
  }
}

}  // namespace

ConnectionLimitSettings ConnectionLimits::defaults() {
  rlimit limit{};
  size_t descriptors = 1024;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    descriptors = static_cast<size_t>(limit.rlim_cur);
  }
  const size_t half = descriptors / 2;
  const size_t connections = half > kReservedDescriptors ? half - kReservedDescriptors : kFewestConnections;
  return ConnectionLimitSettings{std::clamp(connections, kFewestConnections, kMostConnections), kRequestTimeoutMs,
                                 kMaxRequestBodyBytes, kTrimAfterBytes};
}

ConnectionLimits& ConnectionLimits::instance() {
  // Never destroyed: weak references of sockets still open at exit point here.
  static auto* limits = new ConnectionLimits();  // NOLINT(cppcoreguidelines-owning-memory)
  return *limits;
}

ConnectionLimits::ConnectionLimits() : mState(new State()) {}

ConnectionLimits::~ConnectionLimits() { delete mState; }

void ConnectionLimits::configure(const ConnectionLimitSettings& settings) { mState->settings = settings; }

const ConnectionLimitSettings& ConnectionLimits::settings() const { return mState->settings; }

bool ConnectionLimits::admit(SoupServer* server, GSocket* client, GSocketAddress* remote) {
  if (!mState->makeRoom()) {
    return false;
  }
  mState->track(server, client, remote);
  return true;
}

bool ConnectionLimits::hasRoom() {
  const State& state = *mState;
  if (state.connections.size() < state.settings.maxConnections) {
    return true;
  }
  return state.closing < kMostClosing && mState->oldestWaiting() != nullptr;
}

void ConnectionLimits::whenRoom(const void* owner, std::function<void()> resume) {
  mState->waiters[owner] = std::move(resume);
}

void ConnectionLimits::forget(const void* owner) { mState->waiters.erase(owner); }

void ConnectionLimits::relieveDescriptorPressure() {
  if (State::Tracked* victim = mState->oldestWaiting()) {
    mState->close(*victim);
  }
}

void ConnectionLimits::watchServer(SoupServer* server, bool keepAlive) {
  State::Watch& watch = mState->watched[server];
  if (watch.users++ > 0) {
    return;
  }
  GCallback started = keepAlive ? G_CALLBACK(onRequestStartedKeepingAlive) : G_CALLBACK(onRequestStarted);
  watch.handlers = {
      g_signal_connect(server, "request-started", started, mState),
      g_signal_connect(server, "request-read", G_CALLBACK(onRequestRead), mState),
      g_signal_connect(server, "request-finished", G_CALLBACK(onRequestEnded), mState),
      g_signal_connect(server, "request-aborted", G_CALLBACK(onRequestEnded), mState),
  };
}

void ConnectionLimits::unwatchServer(SoupServer* server) {
  auto found = mState->watched.find(server);
  if (found == mState->watched.end() || --found->second.users > 0) {
    return;
  }
  for (gulong handler : found->second.handlers) {
    g_signal_handler_disconnect(server, handler);
  }
  mState->watched.erase(found);
}

size_t ConnectionLimits::openConnections() const { return mState->connections.size(); }

bool ConnectionLimits::serves(SoupServer* server) const { return mState->watched.count(server) > 0; }

void ConnectionLimits::waitingAgain(GSocket* socket) { mState->waitingAgain(socket); }

}  // namespace zuna_http::host
