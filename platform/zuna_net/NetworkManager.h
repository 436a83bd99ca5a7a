// Network interface monitor of the box.
//
// Contract:
// - Reference-counted: created with new and held by SmartPtr; the last
//   reference deletes it. The daemon creates one on the main thread, calls
//   init() then start(), hands it to zuna_upnp::Controller::init(), and calls
//   stop() on its SIGTERM thread before the process exits.
// - Every operation is safe from any thread. init(), start() and stop()
//   return true on success; the daemon logs nothing on false and carries on
//   (a box without a monitor runs on the interfaces that exist at start).
// - Observers are not owned. They are called on the monitor's own thread;
//   after removeObserver returns the observer is not called again and may be
//   destroyed (called on another thread during a callback, it waits for the
//   callback to return). An observer must return promptly and must not wait
//   for a thread that may be calling removeObserver: the host controller's
//   observer only posts the change to the stack's GLib thread.
#pragma once

#include <memory>
#include <string>

#include "tolvane/File.h"
#include "tolvane/RefCount.h"

namespace zuna {
namespace net {

// Follows the box's network interfaces (appearing, going up or down,
// changing address). The UPnP controller takes it as its interface monitor.
class NetworkManager : public Tolvane::RefCount {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;
    // Called on the monitor's own thread when the interfaces changed.
    virtual void interfacesChanged() = 0;
  };

  NetworkManager();
  // Prepares the monitor (sockets, initial interface list). Called once.
  bool init();
  // Starts watching; observers hear of changes from now on.
  bool start();
  // Stops watching and joins the monitor's thread. Idempotent.
  bool stop();

  // Names of the interfaces that are up and have an IPv4 address. Any thread.
  Tolvane::StringVector getActiveInterfaces();
  // Any thread, an observer's callback included. The host UPnP controller
  // adds its observer in init() and removes it in shutdown().
  void addObserver(Observer* observer);
  void removeObserver(Observer* observer);

 protected:
  ~NetworkManager() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace net
}  // namespace zuna
