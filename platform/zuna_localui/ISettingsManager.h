// The client application's settings manager, offered by the component
// library "libzunalui_settingsmanager.so" as service "SettingsManagerProxy"
// with interface "localui::ISettingsManager".
//
// Contract:
// - Reference-counted; the daemon holds the one it obtains through
//   TLCOM::GetServiceHelper for the life of the process. Without it the
//   daemon cannot run: it logs and exits with status 1.
// - Every operation is safe from any thread. The daemon obtains it on the
//   main thread and calls storeFileSetting and saveFileSettings on the
//   configuration management service's dispatcher (SetValues).
// - Errors: false (storeFileSetting, saveFileSettings) or "" (an unknown key);
//   nothing is thrown. saveFileSettings writes all stored settings or none.
#pragma once

#include <string>

#include "tolvane/File.h"
#include "tolvane/RefCount.h"

namespace zuna_localui {

class ISettingsManager : public Tolvane::RefCount {
 public:
  // Stores one file setting in memory (not yet written).
  virtual bool storeFileSetting(const std::string& key, const std::string& value) = 0;
  // Writes every stored file setting to the settings file at once, atomically.
  virtual bool saveFileSettings() = 0;
  // The stored value, "" when unknown.
  virtual std::string getFileSetting(const std::string& key) = 0;
  virtual Tolvane::StringVector getFileSettingKeys() = 0;

 protected:
  ~ISettingsManager() override = default;
};

}  // namespace zuna_localui
