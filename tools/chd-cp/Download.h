// HTTP downloads from the box with libsoup.
#pragma once

#include <cstdint>
#include <string>

namespace chdcp {

struct Downloaded {
  uint64_t bytes = 0;
  int64_t declaredLength = -1;  // Content-Length, -1 when absent
};

class Downloader {
 public:
  explicit Downloader(double timeoutSeconds);
  ~Downloader();
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  // Streams url into the file at path (replaced only when the whole body came
  // and its length is the declared one); shows progress on a terminal.
  // Throws a Failure: kExitBoxError for an HTTP error or a short body,
  // kExitNoBox when the box cannot be reached.
  Downloaded toFile(const std::string& url, const std::string& path, const std::string& label);

  // The whole body as text.
  std::string toText(const std::string& url);

 private:
  struct Impl;
  Impl* mImpl;
};

}  // namespace chdcp
