// libsoup handlers shared by the stack's own HTTP servers and the private
// listeners of the web server.
#pragma once

#include <libsoup/soup.h>

#include <string>

#include "zuna_http/WebServer.h"

namespace zuna_http::host {

// A provider serving one method below one path of a server. A server made
// with "raw-paths" hands handlers the path as the client escaped it; the
// servers GUPnP makes decode it once first.
struct ProviderRoute {
  WebServiceProvider* provider;
  WebServer::Method method;
  std::string base;
  bool pathsDecoded;
};

// The stream of a stolen connection is libsoup's wrapper around the socket
// connection it was given (ours, from the acceptor): that connection, with a
// reference of the caller's. The wrapper does not close it when it goes.
GIOStream* socketConnectionOf(GIOStream* stolen);

// Adds route's handler at its base ("" serves every path); the server owns
// route afterwards.
void addProviderRoute(SoupServer* server, ProviderRoute* route);
void removeProviderRoute(SoupServer* server, const std::string& base);

// GUPnP guesses the agent of a request without "User-Agent" for every SOAP
// and GENA request, with a netlink neighbour lookup (a socket, a round trip
// to the kernel) that costs about a tenth of a trivial action, although the
// guess is used only by access control lists, which the stack does not set.
// Requests without the header get an empty one before any handler runs.
void skipUserAgentGuesses(SoupServer* server);

// The private listeners serve one request per connection (the web providers
// close theirs after each answer); this tells the clients so.
void closeConnectionsAfterEachResponse(SoupServer* server);

// For servers that decode paths: libsoup refuses a path that decodes to
// "/../" or holds a bad escape with 400 before any handler sees it; such a
// path leaves the root and is answered 404 like every other path that does.
void answerEscapingPathsWithNotFound(SoupServer* server);

}  // namespace zuna_http::host
