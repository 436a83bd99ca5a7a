// GetValues: the values behind a list of paths, read from the data model or
// queried from the status store.
#include <cstdint>
#include <string>
#include <vector>

#include "ConfigurationManagement.h"
#include "ConfigurationManagementArguments.h"
#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

using zuna_upnp::UPnPReturn;
using namespace cm_arguments;

namespace {

const char* const kCecActiveSourcePath = "/vsp/CHD/CEC_ACTIVE_SOURCE";

// Enumeration values are stored as dotted keys; the data model shows only
// their last component.
std::string lastComponent(const std::string& value) {
  size_t dot = value.rfind('.');
  return dot == std::string::npos ? value : value.substr(dot + 1);
}

}  // namespace

UPnPReturn ConfigurationManagementService::GetValues(std::string contentPathList, std::string& parameterValueList) {
  TL_TRACE();
  TiXmlDocument request;
  TiXmlElement* element =
      parseFirstElement(request, contentPathList, "Server did not provide us with a proper xml string");
  if (element == nullptr) {
    return invalidXmlArgument();
  }
  std::vector<std::string> paths;
  UPnPReturn listed =
      forEachListedPath(element, kContentPathList, kContentPath, [this, &paths](const char* text) -> UPnPReturn {
        if (!getValidPaths(text, paths, mModel.maxDepth)) {
          TL_LOG(kLogError, "Path[%s] does not exists in our data model", text);
          return noSuchName();
        }
        return success();
      });
  if (!listed.isSuccess()) {
    return listed;
  }

  // Built afresh for every request and gone with it: an answer can be large
  // (paths may repeat), and nothing of it is worth keeping on a small box.
  TiXmlDocument answer;
  TiXmlElement* root = new TiXmlElement(kParameterValueList);
  answer.LinkEndChild(root);
  for (const std::string& path : paths) {
    TiXmlElement* parameter = new TiXmlElement(kParameter);
    root->LinkEndChild(parameter);
    addTextElement(parameter, kParameterPath, path);
    addTextElement(parameter, kValue, readValue(path));
  }
  parameterValueList = printDocument(answer);
  return success();
}

std::string ConfigurationManagementService::readValue(const std::string& path) {
  TL_LOG(kLogDetail, "Value of UPnP Path [%s] queried", path.c_str());
  for (const StringMap* values : {&mModel.fileSettings, &mModel.settings, &mModel.statuses}) {
    auto entry = values->find(path);
    if (entry != values->end()) {
      // The CEC active source is a dotted address and is shown whole.
      const bool whole = (values == &mModel.statuses && path == kCecActiveSourcePath);
      std::string value = whole ? entry->second : lastComponent(entry->second);
      TL_LOG(kLogDetail, "Current value is [%s]", value.c_str());
      return value;
    }
  }
  auto query = mModel.upnpToQueryStatus.find(path);
  if (query != mModel.upnpToQueryStatus.end()) {
    std::string value = statusStore()->getStatus(query->second);
    TL_LOG(kLogDetail, "Queried status [%s] and got value [%s]", query->second.c_str(), value.c_str());
    return value;
  }
  auto timer = mModel.upnpToTimerName.find(path);
  if (timer != mModel.upnpToTimerName.end()) {
    uint64_t elapsed = statusStore()->getTimerElapsed(timer->second);
    TL_LOG(kLogDetail, "Timer [%s] has elapsed time [%llu]", timer->second.c_str(),
           static_cast<unsigned long long>(elapsed));
    return std::to_string(elapsed);
  }
  auto counter = mModel.upnpToCounterName.find(path);
  if (counter != mModel.upnpToCounterName.end()) {
    unsigned count = statusStore()->getCounter(counter->second);
    TL_LOG(kLogDetail, "Counter [%s] has count value [%u]", counter->second.c_str(), count);
    return std::to_string(count);
  }
  TL_LOG(kLogWarning, "Unable to find value for UPnP path [%s]", path.c_str());
  return "";
}
