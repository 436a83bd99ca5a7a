#include "zuna_http_host/PathNormalizer.h"

#include <glib.h>

namespace zuna_http::host {

namespace {

bool isSafeSegment(const std::string& segment) {
  if (segment.empty() || segment == "." || segment == "..") {
    return false;
  }
  for (unsigned char c : segment) {
    if (c < 0x20 || c == 0x7f || c == '\\') {
      return false;
    }
  }
  return true;
}

bool allSegmentsSafe(const std::string& path, bool allowTrailingSlash) {
  if (path.empty() || path[0] != '/') {
    return false;
  }
  if (path == "/") {
    return true;
  }
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    const bool last = end == path.size();
    const std::string segment = path.substr(start, end - start);
    if (!(last && segment.empty() && allowTrailingSlash) && !isSafeSegment(segment)) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

}  // namespace

bool normalizeRequestPath(const std::string& target, std::string& out) {
  const std::string raw = target.substr(0, target.find_first_of("?#"));
  // The raw form is checked as well, so an escaped "/" cannot hide a segment.
  if (!allSegmentsSafe(raw, true)) {
    return false;
  }
  char* decoded = g_uri_unescape_string(raw.c_str(), nullptr);
  if (decoded == nullptr) {
    return false;  // a malformed escape or an escaped NUL
  }
  std::string path(decoded);
  g_free(decoded);
  if (!allSegmentsSafe(path, true)) {
    return false;
  }
  out = path;
  return true;
}

bool isSafeDecodedPath(const std::string& path) { return allSegmentsSafe(path, true); }

bool isBelow(const std::string& path, const std::string& base) {
  if (base.empty() || base == "/") {
    return true;
  }
  std::string root = base;
  if (root.back() == '/') {
    root.pop_back();
  }
  if (path.compare(0, root.size(), root) != 0) {
    return false;
  }
  return path.size() == root.size() || path[root.size()] == '/';
}

}  // namespace zuna_http::host
