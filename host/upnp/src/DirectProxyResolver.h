// The stack's HTTP clients (GUPnP fetching each new service's description
// from its own server, and the event notifications to subscribers) talk to
// the local network, never through a proxy.
#pragma once

namespace zuna_upnp {

// Makes GIO's default proxy resolver of the process one that answers
// "direct://" for every address, ahead of the desktop's and libproxy's
// (which follow http_proxy and the desktop settings, and would send a
// NOTIFY for a subscriber on the home network to a proxy). GIO_USE_PROXY_RESOLVER
// still chooses another one. Call before the first HTTP client connects;
// idempotent.
void useDirectConnections();

}  // namespace zuna_upnp
