// Component manager of the Tolvane framework: loads component libraries and
// hands out the named services that they register.
//
// Contract:
// - getComponentManager() is one process-wide manager, never null; its
//   operations are safe from any thread. The daemon loads one library,
//   "libzunalui_settingsmanager.so", and asks for the service
//   "SettingsManagerProxy" with interface "localui::ISettingsManager".
// - Threads: the daemon loads the library and gets the service on its main
//   thread, in the configuration management service's constructor; a
//   library's registration code runs inside loadLibrary, on the caller's
//   thread.
// - Ownership: getService returns a new counted reference; the caller's
//   SmartPtr owns it. Loaded libraries stay loaded until the process exits.
// - Errors: loadLibrary returns non-zero and getService null; the manager
//   logs the reason (the host manager names the library and dlerror()).
#pragma once

#include <string>

#include "tolvane/RefCount.h"

namespace TLCOM {

// A component library registers each service it offers from its start-up
// code (a static initialiser) with registerService(). The factory is called
// once per getService() and returns an object of the named interface.
typedef Tolvane::RefCount* (*ServiceFactory)();

class IComponentManager {
 public:
  virtual ~IComponentManager() = default;
  // Loads a component library by file name; 0 on success.
  virtual int loadLibrary(const std::string& fileName) = 0;
  virtual void registerService(const std::string& service, const std::string& interfaceName,
                               ServiceFactory factory) = 0;
  // Null when no loaded library offers that service with that interface.
  virtual Tolvane::SmartPtr<Tolvane::RefCount> getService(const std::string& service,
                                                          const std::string& interfaceName) = 0;
};

IComponentManager* getComponentManager();

// Fetches a service as an interface. Interface must derive from RefCount, and
// the factory registered under interfaceName must create an Interface.
template <class Interface>
void GetServiceHelper(const std::string& service, const std::string& interfaceName, Tolvane::SmartPtr<Interface>& out) {
  Tolvane::SmartPtr<Tolvane::RefCount> object = getComponentManager()->getService(service, interfaceName);
  out = Tolvane::SmartPtr<Interface>(static_cast<Interface*>(object.get()));
}

}  // namespace TLCOM
