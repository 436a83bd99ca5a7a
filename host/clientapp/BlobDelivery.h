// Delivers the daemon's diagnostics blobs the way the box's delivery component
// does: each blob becomes one file below the log directory, which the daemon
// serves over HTTP and lists in LogURIs once its path is the "CHD Blob Uris"
// status.
#pragma once

#include <string>

namespace clientapp {

class BlobDelivery {
 public:
  // Blobs are written to a fixed file in logDirectory; an empty directory
  // switches delivery off.
  explicit BlobDelivery(std::string logDirectory);

  bool enabled() const { return !mLogDirectory.empty(); }

  // Replaces the blob file atomically, so that a download running meanwhile
  // still reads the whole previous blob. On success uri is the file's path,
  // which is also its request path on the daemon's HTTP ports.
  bool deliver(const std::string& blob, std::string& uri, std::string& error);

 private:
  std::string mLogDirectory;
};

}  // namespace clientapp
