// Network interface monitor of the box.
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
  bool init();
  bool start();
  bool stop();

  // Names of the interfaces that are up and have an IPv4 address.
  Tolvane::StringVector getActiveInterfaces();
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
