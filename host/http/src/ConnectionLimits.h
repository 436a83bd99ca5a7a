// What one HTTP connection may cost the daemon, over all of the stack's
// servers together (each interface's UPnP server and the private listeners).
//
// A box lives beside peers that open connections and never send a request,
// send one byte at a time, or send bodies of any size. Every connection takes
// a descriptor and libsoup's buffers, so:
// - a request (head and body) must be read within a time limit from the
//   connection's accept, or the connection is closed;
// - the open connections are capped, below the descriptor limit, so the
//   daemon always keeps descriptors for its own files, scripts and buses;
//   when the cap is reached the connection that has waited longest for its
//   request is closed to make room, and when every connection is busy with
//   a request, accepting pauses until one ends (never a busy loop);
// - a request body above a bound is answered 413 without being kept;
// - after an exchange with a large request or answer, freed memory is given
//   back to the system, so one large answer does not stay resident;
// - a connection kept alive by its client waits for its next request under
//   the same time limit, and costs nothing once the client closes it.
//
// GLib thread only: the acceptors and libsoup's signals all run there.
#pragma once

#include <gio/gio.h>
#include <libsoup/soup.h>

#include <cstddef>
#include <functional>

namespace zuna_http::host {

struct ConnectionLimitSettings {
  size_t maxConnections;
  unsigned requestTimeoutMs;
  size_t maxRequestBodyBytes;
  size_t trimAfterBytes;
};

class ConnectionLimits {
 public:
  static ConnectionLimits& instance();
  // Defaults for the process's descriptor limit (RLIMIT_NOFILE).
  static ConnectionLimitSettings defaults();

  // For tests; applies to connections accepted from then on.
  void configure(const ConnectionLimitSettings& settings);
  const ConnectionLimitSettings& settings() const;

  // A connection just accepted for server from remote, tracked until libsoup
  // lets go of its socket. False when there is no room: the caller closes it.
  bool admit(SoupServer* server, GSocket* client, GSocketAddress* remote);
  // Whether a connection could be admitted now (making room if need be).
  bool hasRoom();
  // Called once, the next time a connection ends, to resume accepting.
  void whenRoom(const void* owner, std::function<void()> resume);
  void forget(const void* owner);
  // The descriptor limit was hit: close the longest-waiting connection.
  void relieveDescriptorPressure();

  // Watches the requests of server: marks when each is read, refuses large
  // bodies, gives memory back after large exchanges, and with keepAlive
  // keeps the connections that clients keep alive (see ConnectionLimits.cpp
  // for why the stack, not libsoup, holds them between requests). Counted:
  // the last unwatchServer for a server removes the handlers.
  void watchServer(SoupServer* server, bool keepAlive);
  void unwatchServer(SoupServer* server);
  bool serves(SoupServer* server) const;
  // A kept-alive connection of that socket waits for its next request.
  void waitingAgain(GSocket* socket);

  size_t openConnections() const;

  ConnectionLimits(const ConnectionLimits&) = delete;
  ConnectionLimits& operator=(const ConnectionLimits&) = delete;

  struct State;  // the implementation's, shared with its signal handlers

 private:
  ConnectionLimits();
  ~ConnectionLimits();
  State* mState;
};

}  // namespace zuna_http::host
