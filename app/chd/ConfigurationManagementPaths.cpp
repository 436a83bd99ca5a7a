// The path tree queries: the depth of a path, the paths a node stands for,
// and the actions that list the data model (GetSupportedDataModels,
// GetSupportedParameters, GetInstances).
#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using zuna_upnp::UPnPReturn;
using namespace cm_arguments;

namespace {

const char* const kDataModelRoot = "/vsp/";
const char* const kDataModelUri = "urn:schemas-upnp-org:device:ManageableDevice:1";

}  // namespace

int ConfigurationManagementService::countDepth(std::string path) {
  if (path.empty()) {
    TL_LOG(kLogWarning, "Path was empty returning with a count of -1");
    return -1;
  }
  int count = 0;
  for (size_t slash = path.rfind('/'); slash != std::string::npos; slash = path.rfind('/')) {
    ++count;
    path.resize(slash);
  }
  return count;
}

bool ConfigurationManagementService::getValidPaths(std::string path, std::vector<std::string>& paths, int depthLimit) {
  TL_TRACE();
  if (path.empty() || path.back() != '/') {
    TL_LOG(kLogInfo, "PATH IS LEAF");
    const std::pair<const StringMap*, const char*> sources[] = {
        {&mModel.fileSettings, "mFileSettings"},
        {&mModel.settings, "mSettings"},
        {&mModel.statuses, "mStatuses"},
        {&mModel.upnpToQueryStatus, "mUpnpToQueryStatusMap"},
        {&mModel.upnpToTimerName, "mUpnpToTimerNameMap"},
        {&mModel.upnpToCounterName, "mUpnpToCounterNameMap"},
    };
    for (const auto& source : sources) {
      if (source.first->find(path) != source.first->end()) {
        TL_LOG(kLogInfo, "Path [%s] is a valid key for %s", path.c_str(), source.second);
        paths.push_back(path);
        return true;
      }
    }
    TL_LOG(kLogWarning, "Path [%s] is NOT a valid UPnP path key", path.c_str());
    return false;
  }

  bool found = false;
  const int nodeDepth = countDepth(path);
  for (const std::string& key : mModel.upnpKeys) {
    if (key.compare(0, path.size(), path) != 0) {
      continue;
    }
    if (countDepth(key) <= depthLimit) {
      paths.push_back(key);
      found = true;
      continue;
    }
    // Deeper than the limit: report the key's ancestor that sits at the limit.
    size_t pos = key.rfind('/');
    std::string parent = key.substr(0, pos);
    while (pos != std::string::npos && countDepth(parent) >= nodeDepth) {
      std::string candidate = key.substr(0, pos + 1);
      parent = key.substr(0, pos);
      if (countDepth(parent) <= depthLimit && candidate != path) {
        paths.push_back(candidate);
        found = true;
        break;
      }
      pos = parent.rfind('/');
    }
  }
  return found;
}

UPnPReturn ConfigurationManagementService::GetSupportedDataModels(std::string& supportedDataModels) {
  TL_TRACE();
  TiXmlDocument document;
  TiXmlElement* subTree = new TiXmlElement(kSubTree);
  document.LinkEndChild(subTree);
  addTextElement(subTree, kUri, kDataModelUri);
  addTextElement(subTree, kLocation, kDataModelRoot);
  supportedDataModels = printDocument(document);
  return success();
}

UPnPReturn ConfigurationManagementService::GetSupportedParameters(std::string startingNode, unsigned searchDepth,
                                                                  std::string& result) {
  TL_TRACE();
  // Wide enough not to overflow: a depth just below 2^31 on a deep node still
  // answers, and a limit beyond any path depth is simply no limit.
  int64_t limit = static_cast<int64_t>(searchDepth) - 1 + countDepth(startingNode);
  if (searchDepth == 0) {
    if (limit < 0) {
      return invalidArgumentSyntax();
    }
    limit = mModel.maxDepth;
  }
  // Depths of 2^31 and more are negative to a signed 32-bit reader. An empty
  // node would reach the tree walk without a last character.
  if (static_cast<int32_t>(searchDepth) < 0 || limit < 0 || startingNode.empty()) {
    return invalidArgumentSyntax();
  }
  std::vector<std::string> paths;
  if (!getValidPaths(startingNode, paths, static_cast<int>(std::min<int64_t>(limit, INT32_MAX)))) {
    return noSuchName();
  }
  TiXmlDocument document;
  std::string lastEmitted;
  for (const std::string& path : paths) {
    // Only runs of equal neighbours collapse: a node met again later in load order is listed again.
    if (path != lastEmitted) {
      addTextElement(&document, kStructurePath, path);
      lastEmitted = path;
    }
  }
  result = printDocument(document);
  return success();
}

UPnPReturn ConfigurationManagementService::GetInstances(std::string /*startingNode*/, unsigned /*searchDepth*/,
                                                        std::string& result) {
  TL_TRACE();
  // The data model has no multi-instance nodes.
  result = "";
  return success();
}
