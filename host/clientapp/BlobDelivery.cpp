#include "BlobDelivery.h"

#include <glib.h>

#include <utility>

namespace clientapp {
namespace {

constexpr char kBlobFileName[] = "chd-blob.json";
constexpr int kBlobFileMode = 0644;

}  // namespace

BlobDelivery::BlobDelivery(std::string logDirectory) : mLogDirectory(std::move(logDirectory)) {
  while (mLogDirectory.size() > 1 && mLogDirectory.back() == '/') {
    mLogDirectory.pop_back();
  }
}

bool BlobDelivery::deliver(const std::string& blob, std::string& uri, std::string& error) {
  if (!enabled()) {
    error = "no log directory";
    return false;
  }
  gchar* path = g_build_filename(mLogDirectory.c_str(), kBlobFileName, nullptr);
  GError* failure = nullptr;
  // CONSISTENT writes a temporary file and renames it over the old one.
  const bool written = g_file_set_contents_full(path, blob.data(), static_cast<gssize>(blob.size()),
                                                G_FILE_SET_CONTENTS_CONSISTENT, kBlobFileMode, &failure);
  if (written) {
    uri = path;
  } else {
    error = failure->message;
    g_clear_error(&failure);
  }
  g_free(path);
  return written;
}

}  // namespace clientapp
