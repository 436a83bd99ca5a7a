// The XML documents that the ConfigurationManagement actions take and give,
// in the one form the box accepts: a list element without namespace.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace chdcp {

using PathValue = std::pair<std::string, std::string>;

struct NodeAttributes {
  std::string path;
  std::string type;
  std::string access;
  std::string eventOnChange;
};

// <ContentPathList><ContentPath>path</ContentPath>...</ContentPathList>
std::string contentPathList(const std::vector<std::string>& paths);
// <NodeAttributePathList><NodeAttributePath>path</NodeAttributePath>...</NodeAttributePathList>
std::string nodeAttributePathList(const std::vector<std::string>& paths);
// <ParameterValueList><Parameter><ParameterPath/><Value/></Parameter>...</ParameterValueList>
std::string parameterValueList(const std::vector<PathValue>& values);

// The answers. The box prints its results as a sequence of top-level elements
// (no single root), so each is read as the content of a wrapping element.
std::vector<PathValue> parseParameterValueList(const std::string& xml);
std::vector<std::string> parseStructurePaths(const std::string& xml);
std::vector<NodeAttributes> parseNodeAttributes(const std::string& xml);
// GetSupportedDataModels: the URI and Location of each SubTree.
std::vector<PathValue> parseSubTrees(const std::string& xml);

}  // namespace chdcp
