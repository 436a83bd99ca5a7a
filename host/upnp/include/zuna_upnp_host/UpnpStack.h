// The host UPnP stack on GUPnP: one GUPnP context per configured interface,
// all owned by one GLib main-loop thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zuna_upnp/Controller.h"

namespace zuna_upnp::host {

struct StackOptions {
  // TCP port of the stack's HTTP server; -1 takes the platform settings'
  // UPnP port (whose 0 means any free port).
  int httpPort = -1;
  // Gap between two SSDP messages of a device. GSSDP's own 120 ms holds the
  // first alive back behind the initial byebyes for about half a second.
  unsigned ssdpMessageDelayMs = 10;
};

class HostController : public zuna_upnp::Controller {
 public:
  explicit HostController(const StackOptions& options = StackOptions());
  ~HostController() override;  // shutdown()
  HostController(const HostController&) = delete;
  HostController& operator=(const HostController&) = delete;

  bool init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
            Tolvane::StringVector serverNames) override;
  bool addRootDevice(RootDevice* device) override;
  bool registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                           const std::string& path) override;
  void unregisterWebProvider(zuna_http::WebServiceProvider* provider) override;
  std::string getServerString() override;
  void shutdown() override;

  // For tests and tools: the interfaces the stack runs on now, and the
  // description location of a root device on one of them ("" if none).
  std::vector<std::string> getRunningInterfaces();
  std::string getDescriptionLocation(const std::string& interfaceName, RootDevice* device);
  // Looks at the interfaces again now (otherwise done when the monitor
  // reports a change).
  void refreshInterfaces();

  struct Core;

 private:
  std::shared_ptr<Core> mCore;
};

}  // namespace zuna_upnp::host
