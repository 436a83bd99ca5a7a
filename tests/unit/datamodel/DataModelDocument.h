// Renders docs/data-model.md from what the configuration management service
// loaded on each platform variant, so the document cannot drift from the
// compiled tables.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace datamodel {

struct PathEntry {
  std::string path;
  std::string source;  // file setting, setting, status, queried status, timer, counter
  std::string key;     // settings key, status key, timer or counter name
  // For a status key that two paths share: the path its changes reach, when
  // not this one.
  std::string keyReaches;
  bool settable = false;
  std::vector<std::string> upnpValues;  // what the server reads and writes, when listed
  std::vector<std::string> boxValues;   // the box's value for each, same order (may be empty)
};

struct Variant {
  int locale = 0;
  bool wifi = false;
  std::vector<PathEntry> paths;  // in the service's load order
};

// The variants a box can be: the locale codes that change the data model,
// each with and without Wi-Fi.
std::vector<std::pair<int, bool>> platformVariants();

std::string renderDocument(const std::vector<Variant>& variants);

}  // namespace datamodel
