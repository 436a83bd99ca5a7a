#include "tolvane_host/HostPlatformSettings.h"

#include <glib.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

namespace Tolvane::host {

namespace {

constexpr const char* kDefaultConfigPath = "/etc/chd/platform.conf";
constexpr int kConfigErrorExitStatus = 2;
constexpr int kMaxPort = 65535;

[[noreturn]] void failConfig(const std::string& path, const std::string& problem) {
  std::fprintf(stderr, "chd: platform configuration %s: %s\n", path.c_str(), problem.c_str());
  std::exit(kConfigErrorExitStatus);  // NOLINT(concurrency-mt-unsafe): before any thread starts
}

// The interface of the default IPv4 route: the /proc/net/route line whose
// destination and mask are both zero.
std::string defaultRouteInterface() {
  std::ifstream routes("/proc/net/route");
  std::string line;
  std::getline(routes, line);  // column titles
  while (std::getline(routes, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway, flags, refCount, use, metric, mask;
    if ((fields >> iface >> destination >> gateway >> flags >> refCount >> use >> metric >> mask) &&
        destination == "00000000" && mask == "00000000") {
      return iface;
    }
  }
  return "lo";
}

std::string withoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

void ensureDirectory(const std::string& path) {
  if (!path.empty() && g_mkdir_with_parents(path.c_str(), 0755) != 0) {
    std::fprintf(stderr, "chd: cannot create log directory %s\n", path.c_str());
  }
}

bool isBusSetting(const std::string& bus) {
  return bus == "none" || bus == "session" || bus == "system" || bus.find(':') != std::string::npos;
}

}  // namespace

// Reads typed values from the key file; a missing key keeps the default, a
// present key of the wrong type is fatal.
class HostPlatformSettings::Loader {
 public:
  explicit Loader(const std::string& path) : mPath(path), mFile(g_key_file_new()) {}
  ~Loader() { g_key_file_free(mFile); }
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  // False when the file does not exist.
  bool load() {
    GError* error = nullptr;
    if (g_key_file_load_from_file(mFile, mPath.c_str(), G_KEY_FILE_NONE, &error)) {
      return true;
    }
    const bool missing = g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT);
    const std::string problem = error->message;
    g_error_free(error);
    if (missing) {
      return false;
    }
    failConfig(mPath, problem);
  }

  void read(const char* group, const char* key, bool& value) {
    readWith(group, key, [&](GError** error) { value = g_key_file_get_boolean(mFile, group, key, error); });
  }

  void read(const char* group, const char* key, int& value) {
    readWith(group, key, [&](GError** error) { value = g_key_file_get_integer(mFile, group, key, error); });
  }

  void read(const char* group, const char* key, std::string& value) {
    readWith(group, key, [&](GError** error) {
      gchar* text = g_key_file_get_string(mFile, group, key, error);
      if (text != nullptr) {
        value = text;
        g_free(text);
      }
    });
  }

  [[noreturn]] void fail(const char* group, const char* key, const std::string& problem) {
    failConfig(mPath, std::string("[") + group + "] " + key + ": " + problem);
  }

 private:
  template <class Getter>
  void readWith(const char* group, const char* key, Getter get) {
    if (!g_key_file_has_key(mFile, group, key, nullptr)) {
      return;
    }
    GError* error = nullptr;
    get(&error);
    if (error != nullptr) {
      const std::string problem = error->message;
      g_error_free(error);
      fail(group, key, problem);
    }
  }

  std::string mPath;
  GKeyFile* mFile;
};

std::string HostPlatformSettings::defaultConfigPath() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  const char* path = std::getenv("CHD_PLATFORM_CONFIG");
  return path != nullptr && *path != '\0' ? path : kDefaultConfigPath;
}

HostPlatformSettings::HostPlatformSettings(const std::string& configPath) : mConfigPath(configPath) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  const char* sessionBus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  mStatusStoreBus = sessionBus != nullptr && *sessionBus != '\0' ? "session" : "none";
  std::string ethernet;
  Loader loader(configPath);
  if (loader.load()) {
    const char* platform = "platform";
    loader.read(platform, "chd_support", mChdSupport);
    loader.read(platform, "model", mModel);
    loader.read(platform, "manufacturer", mManufacturer);
    loader.read(platform, "manufacturer_id", mManufacturerId);
    loader.read(platform, "locale", mLocale);
    loader.read(platform, "wifi", mWifi);
    loader.read(platform, "log_chunking", mLogChunking);
    loader.read(platform, "dump_eedid", mDumpEedid);
    loader.read(platform, "echo_support", mEchoSupport);
    loader.read(platform, "log_path", mLogPath);
    loader.read(platform, "autoip_interface", mAutoIpInterface);
    loader.read(platform, "ethernet_interface", ethernet);
    loader.read(platform, "upnp_port", mUpnpPort);
    loader.read("statusstore", "bus", mStatusStoreBus);
    loader.read("settings", "file", mSettingsFile);
    if (mUpnpPort < 0 || mUpnpPort > kMaxPort) {
      loader.fail(platform, "upnp_port", "not a port number: " + std::to_string(mUpnpPort));
    }
    if (!isBusSetting(mStatusStoreBus)) {
      loader.fail("statusstore", "bus", "not none, session, system or a D-Bus address: " + mStatusStoreBus);
    }
  }
  mEthernetInterface = ethernet.empty() ? defaultRouteInterface() : ethernet;
  mLogPath = withoutTrailingSlashes(mLogPath);
  ensureDirectory(mLogPath);
}

namespace {

std::atomic<Tolvane::PlatformSettings*> gTestSettings{nullptr};

}  // namespace

HostPlatformSettings* getHostPlatformSettings() {
  // Never destroyed: components may still ask for settings while the process exits.
  static HostPlatformSettings* const instance = new HostPlatformSettings(HostPlatformSettings::defaultConfigPath());
  return instance;
}

void setPlatformSettingsForTest(Tolvane::PlatformSettings* settings) {
  gTestSettings.store(settings, std::memory_order_release);
}

}  // namespace Tolvane::host

namespace Tolvane {

PlatformSettings* PlatformSettings::getInstance() {
  PlatformSettings* forTest = host::gTestSettings.load(std::memory_order_acquire);
  return forTest != nullptr ? forTest : host::getHostPlatformSettings();
}

}  // namespace Tolvane
