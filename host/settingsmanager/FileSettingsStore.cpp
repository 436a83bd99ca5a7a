#include "FileSettingsStore.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, 5);

namespace zuna_localui::host {

namespace {

constexpr const char* kGroup = "settings";
constexpr int kDirectoryMode = 0755;
constexpr int kFileMode = 0644;

std::string directoryOf(const std::string& path) {
  gchar* directory = g_path_get_dirname(path.c_str());
  std::string result(directory);
  g_free(directory);
  return result;
}

// The rename that replaced the file is durable only once its directory is on disk.
bool syncDirectory(const std::string& directory) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced;
}

// The error's text (or the C library's for errno when there is none); frees the error.
std::string takeMessage(GError** error, int errnoValue) {
  std::string message = *error != nullptr ? (*error)->message : g_strerror(errnoValue);
  g_clear_error(error);
  return message;
}

}  // namespace

FileSettingsStore& FileSettingsStore::instance() {
  // Never destroyed: settings managers may outlive static destruction.
  static FileSettingsStore* const store = new FileSettingsStore;
  return *store;
}

void FileSettingsStore::useFile(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mMutex);
  if (mHasFile && path == mPath) {
    return;
  }
  mPath = path;
  mHasFile = true;
  load();
}

void FileSettingsStore::load() {
  mValues.clear();
  GKeyFile* file = g_key_file_new();
  GError* error = nullptr;
  if (!g_key_file_load_from_file(file, mPath.c_str(), G_KEY_FILE_NONE, &error)) {
    if (!g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
      TL_LOG(0, "Cannot read settings file [%s]: [%s]", mPath.c_str(), takeMessage(&error, 0).c_str());
    }
    g_clear_error(&error);
    g_key_file_free(file);
    return;
  }
  gsize count = 0;
  gchar** keys = g_key_file_get_keys(file, kGroup, &count, nullptr);
  for (gsize i = 0; keys != nullptr && i < count; ++i) {
    gchar* value = g_key_file_get_string(file, kGroup, keys[i], nullptr);
    if (value != nullptr) {
      mValues[keys[i]] = value;
      g_free(value);
    }
  }
  g_strfreev(keys);
  g_key_file_free(file);
  TL_LOG(6, "Loaded [%zu] file settings from [%s]", mValues.size(), mPath.c_str());
}

void FileSettingsStore::store(const std::string& key, const std::string& value) {
  const std::lock_guard<std::mutex> guard(mMutex);
  mValues[key] = value;
}

bool FileSettingsStore::save() {
  const std::lock_guard<std::mutex> guard(mMutex);
  GKeyFile* file = g_key_file_new();
  for (const auto& [key, value] : mValues) {
    g_key_file_set_string(file, kGroup, key.c_str(), value.c_str());
  }
  gsize length = 0;
  gchar* data = g_key_file_to_data(file, &length, nullptr);
  g_key_file_free(file);

  const std::string directory = directoryOf(mPath);
  GError* error = nullptr;
  bool saved = g_mkdir_with_parents(directory.c_str(), kDirectoryMode) == 0;
  int savedErrno = errno;
  // Written to a temporary file in the same directory, flushed, and renamed
  // over the old file.
  saved = saved && g_file_set_contents_full(
                       mPath.c_str(), data, static_cast<gssize>(length),
                       static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE),
                       kFileMode, &error);
  g_free(data);
  if (saved && !syncDirectory(directory)) {
    saved = false;
    savedErrno = errno;
  }
  if (!saved) {
    TL_LOG(0, "Cannot save settings file [%s]: [%s]", mPath.c_str(), takeMessage(&error, savedErrno).c_str());
    return false;
  }
  TL_LOG(6, "Saved [%zu] file settings to [%s]", mValues.size(), mPath.c_str());
  return true;
}

std::string FileSettingsStore::get(const std::string& key) {
  const std::lock_guard<std::mutex> guard(mMutex);
  auto found = mValues.find(key);
  return found != mValues.end() ? found->second : std::string();
}

std::vector<std::string> FileSettingsStore::keys() {
  const std::lock_guard<std::mutex> guard(mMutex);
  std::vector<std::string> result;
  result.reserve(mValues.size());
  for (const auto& entry : mValues) {
    result.push_back(entry.first);
  }
  return result;
}

}  // namespace zuna_localui::host
