#include <dlfcn.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

#include "tolvane/Logging.h"
#include "tolvane/TLCOM.h"

TL_REGISTER_LOGGING(true, 5);

namespace TLCOM {

namespace {

// Directories searched for a component library, in order: those of
// TLCOM_COMPONENT_PATH, then the directory the framework library itself was
// loaded from (components are installed beside it).
std::vector<std::string> componentDirectories() {
  std::vector<std::string> directories;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  if (const char* path = std::getenv("TLCOM_COMPONENT_PATH")) {
    std::istringstream list(path);
    std::string directory;
    while (std::getline(list, directory, ':')) {
      if (!directory.empty()) {
        directories.push_back(directory);
      }
    }
  }
  Dl_info self{};
  if (dladdr(reinterpret_cast<void*>(&getComponentManager), &self) != 0 && self.dli_fname != nullptr) {
    const std::string framework(self.dli_fname);
    const size_t slash = framework.rfind('/');
    if (slash != std::string::npos) {
      directories.push_back(framework.substr(0, slash));
    }
  }
  return directories;
}

class ComponentManager : public IComponentManager {
 public:
  int loadLibrary(const std::string& fileName) override {
    // The registry lock is not held here: the library registers its services
    // from its static initialisers, inside dlopen().
    std::string lastError = "no such library";
    if (fileName.find('/') == std::string::npos) {
      for (const std::string& directory : componentDirectories()) {
        std::string candidate = directory;
        candidate += "/";
        candidate += fileName;
        if (dlopen(candidate.c_str(), RTLD_NOW | RTLD_GLOBAL) != nullptr) {
          return 0;
        }
        lastError = dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps dlerror per thread
      }
    }
    if (dlopen(fileName.c_str(), RTLD_NOW | RTLD_GLOBAL) != nullptr) {
      return 0;
    }
    lastError = dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps dlerror per thread
    TL_LOG(0, "Cannot load component library [%s]: [%s]", fileName.c_str(), lastError.c_str());
    return -1;
  }

  void registerService(const std::string& service, const std::string& interfaceName, ServiceFactory factory) override {
    const std::lock_guard<std::mutex> guard(mMutex);
    mFactories[std::make_pair(service, interfaceName)] = factory;
  }

  Tolvane::SmartPtr<Tolvane::RefCount> getService(const std::string& service,
                                                  const std::string& interfaceName) override {
    ServiceFactory factory = nullptr;
    {
      const std::lock_guard<std::mutex> guard(mMutex);
      auto found = mFactories.find(std::make_pair(service, interfaceName));
      if (found != mFactories.end()) {
        factory = found->second;
      }
    }
    if (factory == nullptr) {
      TL_LOG(2, "No service [%s] with interface [%s]", service.c_str(), interfaceName.c_str());
      return Tolvane::SmartPtr<Tolvane::RefCount>();
    }
    return Tolvane::SmartPtr<Tolvane::RefCount>(factory());
  }

 private:
  std::mutex mMutex;
  std::map<std::pair<std::string, std::string>, ServiceFactory> mFactories;
};

}  // namespace

IComponentManager* getComponentManager() {
  // Never destroyed: component libraries stay loaded until the process ends.
  static ComponentManager* const manager = new ComponentManager;
  return manager;
}

}  // namespace TLCOM
