#include "tolvane_host/HostPlatformSettings.h"

#include <glib.h>
#include <net/if.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

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

// Every group and key the file may hold; anything else is most likely a typo
// that would otherwise silently leave a default in place.
const std::map<std::string, std::set<std::string>>& knownKeys() {
  static const std::map<std::string, std::set<std::string>> keys = {
      {"platform",
       {"chd_support", "model", "manufacturer", "manufacturer_id", "locale", "wifi", "log_chunking", "dump_eedid",
        "echo_support", "log_path", "autoip_interface", "ethernet_interface", "upnp_port", "machine_id_file"}},
      {"statusstore", {"bus"}},
      {"settings", {"file"}},
  };
  return keys;
}

// The stack keeps following link changes, so a missing interface may still
// appear later; until then the device is not reachable through it.
void warnIfMissingInterface(const char* key, const std::string& name) {
  if (!name.empty() && if_nametoindex(name.c_str()) == 0) {
    TL_LOG(2, "Interface [%s] named by [%s] does not exist (yet); waiting for it to appear", name.c_str(), key);
  }
}

std::string trimmed(const std::string& text) {
  const char* blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string firstLineOf(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return trimmed(line);
}

bool isUsableMac(const std::string& address) {
  return !address.empty() && address.find_first_not_of("0:") != std::string::npos;
}

// ARPHRD_LOOPBACK in /sys/class/net/<name>/type.
constexpr const char* kLoopbackType = "772";

std::string firstMacAddress(const std::string& netClassDir) {
  GDir* dir = g_dir_open(netClassDir.c_str(), 0, nullptr);
  if (dir == nullptr) {
    return std::string();
  }
  std::vector<std::string> names;
  while (const gchar* name = g_dir_read_name(dir)) {
    names.emplace_back(name);
  }
  g_dir_close(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string base = netClassDir;
    base += "/";
    base += name;
    std::string address = firstLineOf(base + "/address");
    if (firstLineOf(base + "/type") != kLoopbackType && isUsableMac(address)) {
      return address;
    }
  }
  return std::string();
}

}  // namespace

std::vector<std::string> defaultMachineIdFiles() { return {"/etc/machine-id", "/var/lib/dbus/machine-id"}; }

std::string readBoxIdentity(const std::vector<std::string>& machineIdFiles, const std::string& netClassDir) {
  for (const std::string& path : machineIdFiles) {
    const std::string id = firstLineOf(path);
    if (!id.empty()) {
      return "machine-id:" + id;
    }
  }
  const std::string mac = firstMacAddress(netClassDir);
  return mac.empty() ? std::string() : "mac:" + mac;
}

std::string deviceUuid(const std::string& boxIdentity, const std::string& deviceType) {
  GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA1);
  static const char kNamespace[] = "chd.upnp.device";
  const std::string name = boxIdentity + "/" + deviceType;
  g_checksum_update(checksum, reinterpret_cast<const guchar*>(kNamespace), sizeof kNamespace - 1);
  g_checksum_update(checksum, reinterpret_cast<const guchar*>(name.data()), static_cast<gssize>(name.size()));
  guint8 digest[20];
  gsize length = sizeof digest;
  g_checksum_get_digest(checksum, digest, &length);
  g_checksum_free(checksum);
  digest[6] = static_cast<guint8>((digest[6] & 0x0f) | 0x50);
  digest[8] = static_cast<guint8>((digest[8] & 0x3f) | 0x80);
  char text[37];
  g_snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", digest[0],
             digest[1], digest[2], digest[3], digest[4], digest[5], digest[6], digest[7], digest[8], digest[9],
             digest[10], digest[11], digest[12], digest[13], digest[14], digest[15]);
  return text;
}

// Reads typed values from the key file; a missing key keeps the default, a
// present key of the wrong type is fatal.
class HostPlatformSettings::Loader {
 public:
  explicit Loader(const std::string& path) : mPath(path), mFile(g_key_file_new()) {}
  ~Loader() { g_key_file_free(mFile); }
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  // False when the file does not exist and need not.
  bool load(bool mustExist) {
    GError* error = nullptr;
    if (g_key_file_load_from_file(mFile, mPath.c_str(), G_KEY_FILE_NONE, &error)) {
      warnUnknownKeys();
      return true;
    }
    const bool missing = g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT);
    const std::string problem = error->message;
    g_error_free(error);
    if (missing && !mustExist) {
      return false;
    }
    failConfig(mPath, missing ? "named by CHD_PLATFORM_CONFIG but does not exist" : problem);
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
  void warnUnknownKeys() {
    gchar** groups = g_key_file_get_groups(mFile, nullptr);
    for (gchar** group = groups; *group != nullptr; ++group) {
      auto known = knownKeys().find(*group);
      if (known == knownKeys().end()) {
        TL_LOG(2, "Unknown group [%s] in [%s] ignored", *group, mPath.c_str());
        continue;
      }
      gchar** keys = g_key_file_get_keys(mFile, *group, nullptr, nullptr);
      for (gchar** key = keys; key != nullptr && *key != nullptr; ++key) {
        if (known->second.count(*key) == 0) {
          TL_LOG(2, "Unknown key [%s] in group [%s] of [%s] ignored", *key, *group, mPath.c_str());
        }
      }
      g_strfreev(keys);
    }
    g_strfreev(groups);
  }

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

HostPlatformSettings::HostPlatformSettings(const std::string& configPath, bool mustExist) : mConfigPath(configPath) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the environment does not change while the process runs
  const char* sessionBus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  mStatusStoreBus = sessionBus != nullptr && *sessionBus != '\0' ? "session" : "none";
  std::string ethernet;
  std::string machineIdFile;
  Loader loader(configPath);
  if (loader.load(mustExist)) {
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
    loader.read(platform, "machine_id_file", machineIdFile);
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
  warnIfMissingInterface("ethernet_interface", mEthernetInterface);
  warnIfMissingInterface("autoip_interface", mAutoIpInterface);
  mLogPath = withoutTrailingSlashes(mLogPath);
  ensureDirectory(mLogPath);
  const std::vector<std::string> idFiles = machineIdFile.empty() ? defaultMachineIdFiles() : std::vector{machineIdFile};
  mBoxIdentity = readBoxIdentity(idFiles, "/sys/class/net");
}

namespace {

std::atomic<Tolvane::PlatformSettings*> gTestSettings{nullptr};

}  // namespace

HostPlatformSettings* getHostPlatformSettings() {
  // Never destroyed: components may still ask for settings while the process exits.
  static const std::string path = HostPlatformSettings::defaultConfigPath();
  static HostPlatformSettings* const instance = new HostPlatformSettings(path, path != kDefaultConfigPath);
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
