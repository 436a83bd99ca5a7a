#include "LogUris.h"

#include <glib.h>

namespace chdcp {

std::vector<std::string> splitLogUris(const std::string& list) {
  std::vector<std::string> entries;
  gchar** parts = g_strsplit(list.c_str(), ",", -1);
  for (gchar** part = parts; *part != nullptr; ++part) {
    if (**part != '\0') {
      entries.emplace_back(*part);
    }
  }
  g_strfreev(parts);
  return entries;
}

std::string logUrl(const std::string& baseUrl, const std::string& entry) {
  if (entry.empty() || entry[0] != '/') {
    return entry;
  }
  // The path travels as it is, its characters escaped where a URL needs it.
  gchar* escaped = g_uri_escape_string(entry.c_str(), "/", FALSE);
  std::string url = baseUrl + escaped;
  g_free(escaped);
  return url;
}

std::string logName(const std::string& entry) {
  const size_t slash = entry.rfind('/');
  return slash == std::string::npos ? entry : entry.substr(slash + 1);
}

std::string blobEntry(const std::vector<std::string>& entries) {
  std::string found;
  for (const std::string& entry : entries) {
    const std::string suffix = ".json";
    if (!entry.empty() && entry[0] == '/' && entry.size() > suffix.size() &&
        entry.compare(entry.size() - suffix.size(), suffix.size(), suffix) == 0) {
      found = entry;
    }
  }
  return found;
}

}  // namespace chdcp
