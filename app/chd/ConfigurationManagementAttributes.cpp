// GetAttributes: the attributes of the paths a request names.
#include <string>
#include <vector>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using zuna_upnp::UPnPReturn;
using namespace cm_arguments;

UPnPReturn ConfigurationManagementService::GetAttributes(std::string parameters, std::string& nodeAttributeValueList) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element = parseFirstElement(request, parameters, "Server didn't provide us with a proper xml string");
  if (element == nullptr) {
    return invalidXmlArgument();
  }
  std::vector<std::string> accepted;
  UPnPReturn listed = forEachListedPath(element, kNodeAttributePathList, kNodeAttributePath,
                                        [this, &accepted](const char* text) -> UPnPReturn {
                                          acceptAttributePath(text, accepted);
                                          return success();
                                        });
  if (!listed.isSuccess()) {
    return listed;
  }
  if (accepted.empty()) {
    return noSuchName();
  }
  TiXmlDocument answer;
  for (const std::string& path : accepted) {
    TiXmlElement* node = new TiXmlElement(kNode);
    answer.LinkEndChild(node);
    addTextElement(node, kNodeAttributePath, path);
    addTextElement(node, kType, "string(32)");
    addTextElement(node, kAccess, "readOnly");
    addTextElement(node, kEventOnChange, "0");
  }
  nodeAttributeValueList = printDocument(answer);
  return success();
}

// A prefix test on purpose: any text that starts with a loaded key is
// answered, echoed with its extra characters, once for every such key.
void ConfigurationManagementService::acceptAttributePath(const std::string& path,
                                                         std::vector<std::string>& accepted) const {
  for (const std::string& key : mModel.upnpKeys) {
    if (path.compare(0, key.size(), key) == 0) {
      accepted.push_back(path);
    }
  }
}
