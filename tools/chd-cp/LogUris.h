// The LogURIs list of BasicManagement: comma-separated entries, each either a
// path on the box's HTTP ports (below its log directory) or a full URL.
#pragma once

#include <string>
#include <vector>

namespace chdcp {

// The non-empty entries, in order.
std::vector<std::string> splitLogUris(const std::string& list);

// The URL that fetches the entry: a path is joined to the box's base URL.
std::string logUrl(const std::string& baseUrl, const std::string& entry);

// The last part of the entry's path.
std::string logName(const std::string& entry);

// The diagnostics blob among the entries: the last path ending in ".json";
// empty when there is none.
std::string blobEntry(const std::vector<std::string>& entries);

}  // namespace chdcp
