// The UPnP stack's controller: runs the stack on the box's interfaces and
// publishes root devices and web providers.
//
// Contract:
// - One instance per process (getInstance(), never null, never destroyed by
//   the daemon). Every operation is safe from any thread.
// - SSDP, device and service descriptions, SOAP control and GENA eventing are
//   the stack's: the daemon hands it devices, services, typed actions and
//   state variables, and never sees the protocols.
// - Ownership: devices and web providers are not owned; they must outlive
//   shutdown() (the daemon's do: they live until the process exits).
// - Errors: operations return false and log; the daemon does not stop on a
//   false from init() or addRootDevice() (a box may get its interface later).
// - Threads: the daemon calls init(), addRootDevice() and
//   registerWebProvider() on the main thread while it starts, shutdown() on
//   its SIGTERM thread, getServerString() on the web server's worker threads.
//   The stack runs the network on threads of its own (the host stack: one
//   GLib thread, to which the operations hand their work and wait for it,
//   and which itself waits for no other thread) and calls the daemon back
//   only through the services' dispatchers (actions) and the web server's
//   worker threads (providers).
#pragma once

#include <memory>
#include <string>

#include "tolvane/File.h"
#include "zuna_http/WebServer.h"

namespace zuna {
namespace net {
class NetworkManager;
}
}  // namespace zuna

namespace zuna_upnp {

class RootDevice;

class Controller {
 public:
  // Called first on the main thread, before init(); afterwards from any thread.
  static Controller* getInstance();

  // Runs the stack on every listed interface that exists (empty names are
  // skipped), following them as the monitor reports changes. serverNames are
  // the device names of the servers the box works with.
  virtual bool init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
                    Tolvane::StringVector serverNames) = 0;
  // Publishes the device and its services; it answers control points from
  // now on. The device must outlive the controller's shutdown().
  virtual bool addRootDevice(RootDevice* device) = 0;
  // GET requests below path on the stack's own HTTP server go to provider,
  // whose handleRequest runs on a worker thread of the web server, as for
  // zuna_http::WebServer::registerProvider.
  virtual bool registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                                   const std::string& path) = 0;
  // Removes the provider and waits for its running requests: never called
  // from the provider's own handleRequest.
  virtual void unregisterWebProvider(zuna_http::WebServiceProvider* provider) = 0;
  // The HTTP Server header value of the stack. Returns at once, on any thread.
  virtual std::string getServerString() = 0;
  // Says goodbye on the network and stops all publishing; returns when the
  // stack has stopped. Actions still queued on a service's dispatcher may run
  // afterwards, but their answers are dropped.
  virtual void shutdown() = 0;

 protected:
  virtual ~Controller() = default;
};

}  // namespace zuna_upnp
