#include "FileSettingsStore.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

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

// A save writes the whole file under a hidden name beside it and renames that over the settings
// file. The writer holds an exclusive lock on the temporary file until the rename, so a lock that
// can be taken marks a file left behind by a writer that was killed.
std::string temporaryPrefix(const std::string& path) {
  gchar* name = g_path_get_basename(path.c_str());
  std::string prefix = std::string(".") + name + ".saving-";
  g_free(name);
  return prefix;
}

bool writeAll(int fd, const gchar* data, gsize length) {
  while (length > 0) {
    const ssize_t written = ::write(fd, data, length);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    data += written;
    length -= static_cast<gsize>(written);
  }
  return true;
}

// Writes, flushes and renames one temporary file over path; errno tells why it failed.
bool replaceThroughTemporary(const std::string& path, const gchar* data, gsize length) {
  std::string name = directoryOf(path) + "/" + temporaryPrefix(path) + "XXXXXX";
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool written = ::flock(fd, LOCK_EX) == 0 && ::fchmod(fd, kFileMode) == 0 && writeAll(fd, data, length) &&
                       ::fsync(fd) == 0 && ::rename(name.c_str(), path.c_str()) == 0;
  const int writeErrno = errno;
  if (!written) {
    ::unlink(name.c_str());
  }
  ::close(fd);
  errno = writeErrno;
  return written;
}

// Removes the temporary file when no live writer holds it; true when it was removed.
bool removeIfAbandoned(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    return false;
  }
  struct stat opened {};
  struct stat named {};
  // The name must still lead to the locked file: a writer that lost its file in the meantime writes anew.
  const bool abandoned = ::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &opened) == 0 &&
                         ::lstat(file.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
                         opened.st_dev == named.st_dev && ::unlink(file.c_str()) == 0;
  ::close(fd);
  return abandoned;
}

int removeAbandonedTemporaries(const std::string& path) {
  const std::string prefix = temporaryPrefix(path);
  std::error_code error;
  int removed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directoryOf(path), error)) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0 && removeIfAbandoned(entry.path().string())) {
      ++removed;
    }
  }
  return removed;
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
  // Saves that a kill interrupted left their temporary files; the settings file itself is whole.
  const int removed = removeAbandonedTemporaries(mPath);
  if (removed > 0) {
    TL_LOG(2, "Removed [%d] temporary files of interrupted saves of [%s]", removed, mPath.c_str());
  }
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
  bool saved = g_mkdir_with_parents(directory.c_str(), kDirectoryMode) == 0;
  // A starting manager may take a temporary file for abandoned in the instant before its writer locked it;
  // the writer then finds it gone at the rename and writes another.
  saved = saved && (replaceThroughTemporary(mPath, data, length) ||
                    (errno == ENOENT && replaceThroughTemporary(mPath, data, length)));
  int savedErrno = errno;
  g_free(data);
  if (saved && !syncDirectory(directory)) {
    saved = false;
    savedErrno = errno;
  }
  if (!saved) {
    TL_LOG(0, "Cannot save settings file [%s]: [%s]", mPath.c_str(), g_strerror(savedErrno));
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
