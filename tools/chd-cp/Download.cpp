#include "Download.h"

#include <libsoup/soup.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "Failure.h"

namespace chdcp {
namespace {

constexpr gsize kBlockSize = gsize{1} << 20;
// Progress is shown only for files at least this large.
constexpr int64_t kProgressThreshold = int64_t{8} << 20;
constexpr double kMiB = 1048576.0;

class Progress {
 public:
  Progress(const std::string& label, int64_t total)
      : mLabel(label), mTotal(total), mShown(total >= kProgressThreshold && isatty(STDERR_FILENO) != 0) {}
  void update(uint64_t bytes) {
    if (mShown) {
      fprintf(stderr, "\r%s: %3d%% %.1f/%.1f MiB", mLabel.c_str(), static_cast<int>(bytes * 100 / mTotal),
              static_cast<double>(bytes) / kMiB, static_cast<double>(mTotal) / kMiB);
    }
  }
  ~Progress() {
    if (mShown) {
      fprintf(stderr, "\n");
    }
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  std::string mLabel;
  int64_t mTotal;
  bool mShown;
};

}  // namespace

struct Downloader::Impl {
  SoupSession* session;
};

Downloader::Downloader(double timeoutSeconds) : mImpl(new Impl{soup_session_new()}) {
  // The box is on the home network: no proxy.
  soup_session_set_proxy_resolver(mImpl->session, nullptr);
  soup_session_set_timeout(mImpl->session, static_cast<guint>(timeoutSeconds + 0.999));
}

Downloader::~Downloader() {
  g_object_unref(mImpl->session);
  delete mImpl;
}

namespace {

// Sends the request and hands each block of the body to sink; returns what came.
Downloaded fetch(SoupSession* session, const std::string& url, const std::function<void(const char*, gsize)>& sink,
                 const std::function<void(uint64_t, int64_t)>& onBlock) {
  SoupMessage* message = soup_message_new("GET", url.c_str());
  if (message == nullptr) {
    throw Failure(kExitBoxError, "not a valid URL: " + url);
  }
  GError* error = nullptr;
  GInputStream* body = soup_session_send(session, message, nullptr, &error);
  if (body == nullptr) {
    const std::string text = "cannot fetch " + url + ": " + error->message;
    g_clear_error(&error);
    g_object_unref(message);
    throw Failure(kExitNoBox, text);
  }
  const guint status = soup_message_get_status(message);
  Downloaded result;
  result.declaredLength = soup_message_headers_get_content_length(soup_message_get_response_headers(message));
  if (soup_message_headers_get_encoding(soup_message_get_response_headers(message)) != SOUP_ENCODING_CONTENT_LENGTH) {
    result.declaredLength = -1;
  }
  g_object_unref(message);
  if (status != SOUP_STATUS_OK) {
    g_object_unref(body);
    throw Failure(kExitBoxError,
                  "the box answered " + std::to_string(status) + " " + soup_status_get_phrase(status) + " for " + url);
  }
  std::string block(kBlockSize, '\0');
  gssize count = 0;
  while ((count = g_input_stream_read(body, block.data(), kBlockSize, nullptr, &error)) > 0) {
    sink(block.data(), static_cast<gsize>(count));
    result.bytes += static_cast<uint64_t>(count);
    onBlock(result.bytes, result.declaredLength);
  }
  g_object_unref(body);
  if (count < 0) {
    const std::string text =
        "download of " + url + " broke off after " + std::to_string(result.bytes) + " bytes: " + error->message;
    g_clear_error(&error);
    throw Failure(kExitBoxError, text);
  }
  if (result.declaredLength >= 0 && result.bytes != static_cast<uint64_t>(result.declaredLength)) {
    throw Failure(kExitBoxError, url + ": got " + std::to_string(result.bytes) + " bytes of the " +
                                     std::to_string(result.declaredLength) + " announced");
  }
  return result;
}

}  // namespace

Downloaded Downloader::toFile(const std::string& url, const std::string& path, const std::string& label) {
  const std::string partial = path + ".part";
  FILE* file = fopen(partial.c_str(), "wb");
  if (file == nullptr) {
    throw Failure(kExitUsage, "cannot write " + partial);
  }
  Downloaded result;
  try {
    std::unique_ptr<Progress> progress;
    result = fetch(
        mImpl->session, url,
        [file, &partial](const char* data, gsize size) {
          if (fwrite(data, 1, size, file) != size) {
            throw Failure(kExitUsage, "cannot write " + partial);
          }
        },
        [&progress, &label](uint64_t bytes, int64_t total) {
          if (!progress && total > 0) {
            progress = std::make_unique<Progress>(label, total);
          }
          if (progress) {
            progress->update(bytes);
          }
        });
  } catch (...) {
    fclose(file);
    remove(partial.c_str());
    throw;
  }
  if (fclose(file) != 0 || rename(partial.c_str(), path.c_str()) != 0) {
    remove(partial.c_str());
    throw Failure(kExitUsage, "cannot write " + path);
  }
  return result;
}

std::string Downloader::toText(const std::string& url) {
  std::string text;
  fetch(
      mImpl->session, url, [&text](const char* data, gsize size) { text.append(data, size); },
      [](uint64_t /*bytes*/, int64_t /*total*/) {});
  return text;
}

}  // namespace chdcp
