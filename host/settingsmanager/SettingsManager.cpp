#include "FileSettingsStore.h"
#include "tolvane/Logging.h"
#include "tolvane/TLCOM.h"
#include "tolvane_host/HostPlatformSettings.h"
#include "zuna_localui/ISettingsManager.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_localui::host {

namespace {

// The settings file comes from the host platform settings in use: the
// process's file-backed ones, or host settings that a test installed.
std::string settingsFilePath() {
  auto* installed = dynamic_cast<Tolvane::host::HostPlatformSettings*>(Tolvane::PlatformSettings::getInstance());
  Tolvane::host::HostPlatformSettings* settings =
      installed != nullptr ? installed : Tolvane::host::getHostPlatformSettings();
  return settings->getSettingsFile();
}

// Every instance works on the one process-wide store, so a setting stored
// through one proxy is saved by any other.
class SettingsManager : public ISettingsManager {
 public:
  SettingsManager() { FileSettingsStore::instance().useFile(settingsFilePath()); }

  bool storeFileSetting(const std::string& key, const std::string& value) override {
    TL_LOG(6, "Storing file setting [%s] = [%s]", key.c_str(), value.c_str());
    FileSettingsStore::instance().store(key, value);
    return true;
  }

  bool saveFileSettings() override { return FileSettingsStore::instance().save(); }

  std::string getFileSetting(const std::string& key) override { return FileSettingsStore::instance().get(key); }

  Tolvane::StringVector getFileSettingKeys() override { return FileSettingsStore::instance().keys(); }
};

Tolvane::RefCount* createSettingsManager() { return new SettingsManager; }

// Offers the service as soon as the component manager loads this library.
struct ServiceRegistration {
  ServiceRegistration() {
    TLCOM::getComponentManager()->registerService("SettingsManagerProxy", "localui::ISettingsManager",
                                                  &createSettingsManager);
  }
};

const ServiceRegistration kServiceRegistration;

}  // namespace

}  // namespace zuna_localui::host
