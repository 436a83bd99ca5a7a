// A UPnP controller that runs no stack: it remembers what it was asked to
// run and publish, journals the web provider registrations and routes paths
// to the registered providers as the stack's server would.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "ProviderRegistry.h"
#include "zuna_upnp/Controller.h"

namespace chdtest {

class FakeController : public zuna_upnp::Controller {
 public:
  struct InitCall {
    zuna::net::NetworkManager* monitor;
    Tolvane::StringVector interfaces;
    Tolvane::StringVector serverNames;
  };

  // Registrations go to the given journal (shared with other doubles), or to the controller's own.
  explicit FakeController(CallJournal* journal = nullptr);
  ~FakeController() override = default;
  FakeController(const FakeController&) = delete;
  FakeController& operator=(const FakeController&) = delete;

  bool init(zuna::net::NetworkManager* monitor, Tolvane::StringVector interfaces,
            Tolvane::StringVector serverNames) override;
  // Refuses a null device and one published before.
  bool addRootDevice(zuna_upnp::RootDevice* device) override;
  // Journals "registerWebProvider <method> <path>"; only GET is served.
  bool registerWebProvider(zuna_http::WebServiceProvider* provider, const std::string& method,
                           const std::string& path) override;
  // Journals "unregisterWebProvider".
  void unregisterWebProvider(zuna_http::WebServiceProvider* provider) override;
  std::string getServerString() override;
  void shutdown() override;

  void setServerString(const std::string& server);
  // The provider a GET of the path on the stack's server would reach; null for none.
  zuna_http::WebServiceProvider* providerFor(const std::string& path) const;
  std::vector<InitCall> initCalls() const;
  std::vector<zuna_upnp::RootDevice*> rootDevices() const;
  int shutdownCalls() const;
  CallJournal& journal() { return mRegistry.journal(); }

 private:
  ProviderRegistry mRegistry;
  mutable std::mutex mMutex;
  std::vector<InitCall> mInitCalls;
  std::vector<zuna_upnp::RootDevice*> mRootDevices;
  std::string mServerString = "Linux/6.1 UPnP/1.0 TestStack/2.3";
  int mShutdownCalls = 0;
};

}  // namespace chdtest
