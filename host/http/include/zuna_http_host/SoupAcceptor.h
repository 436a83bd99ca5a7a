// Accepts the connections of a listening socket for a libsoup server.
//
// libsoup 3.2's own listener never frees the GSocket of a connection it
// accepts (about 350 bytes per connection; fixed in libsoup 3.4). The
// stack's servers therefore take their connections from here and hand them
// over with soup_server_accept_iostream(), which frees everything.
//
// Each connection is admitted against ConnectionLimits first; when there is
// no room, or no descriptor, accepting pauses instead of spinning on a
// listening socket that stays readable.
#pragma once

#include <libsoup/soup.h>

#include <memory>
#include <vector>

namespace zuna_http::host {

class SoupAcceptor {
 public:
  // Serves fd (a listening TCP socket, duplicated here) for server, on the
  // calling thread's default main context.
  static std::unique_ptr<SoupAcceptor> forSocket(SoupServer* server, int fd);
  // Moves server's listening sockets over from libsoup's listeners. The
  // server keeps its handlers; it must not be asked for its URIs afterwards.
  static std::vector<std::unique_ptr<SoupAcceptor>> takeOver(SoupServer* server);

  ~SoupAcceptor();
  SoupAcceptor(const SoupAcceptor&) = delete;
  SoupAcceptor& operator=(const SoupAcceptor&) = delete;

 private:
  SoupAcceptor(SoupServer* server, GSocket* listening, bool keepAlive);
  static gboolean onIncoming(GSocket* listening, GIOCondition condition, gpointer data);
  static gboolean onPauseOver(gpointer data);
  void acceptPending();
  bool acceptOne();
  void listen();
  void pause();
  void pauseUntilRoom();
  void pauseForDescriptors();

  SoupServer* mServer;
  GSocket* mListening;
  GSource* mSource = nullptr;
  GSource* mPauseTimer = nullptr;
};

}  // namespace zuna_http::host
