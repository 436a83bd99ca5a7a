// The process-wide file settings of the settings manager: kept in memory,
// written to the settings file on request.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace zuna_localui::host {

class FileSettingsStore {
 public:
  // The one store of this process.
  static FileSettingsStore& instance();

  // Makes path the settings file, reading it when it differs from the file in
  // use (a missing file means no settings). The values in memory are replaced,
  // and temporary files that killed saves left beside it are removed.
  void useFile(const std::string& path);

  void store(const std::string& key, const std::string& value);
  // Replaces the settings file with every stored setting, atomically: a reader
  // (or a crash) sees either the old file or the new one, never a mixture.
  // The new content goes to a hidden temporary file beside it, locked by this
  // process until it is renamed over the settings file.
  bool save();
  std::string get(const std::string& key);
  std::vector<std::string> keys();

 private:
  FileSettingsStore() = default;
  void load();

  std::mutex mMutex;
  std::string mPath;
  bool mHasFile = false;
  std::map<std::string, std::string> mValues;
};

}  // namespace zuna_localui::host
