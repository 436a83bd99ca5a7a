#include "StackLoop.h"

#include "DirectProxyResolver.h"

namespace zuna_upnp {

std::shared_ptr<zuna_http::host::MainLoop> acquireStackLoop() {
  zuna_http::host::forwardLibraryLogging({"gupnp-acl", "gupnp-context", "gupnp-device", "gupnp-device-info",
                                          "gupnp-resource-factory", "gupnp-root-device", "gupnp-service",
                                          "gupnp-xml-doc", "gssdp-client", "gssdp-net"});
  useDirectConnections();
  return zuna_http::host::MainLoop::acquire();
}

}  // namespace zuna_upnp
