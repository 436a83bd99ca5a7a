// discover, info, get, params, attrs and set.
#include <string>
#include <vector>

#include "ArgumentXml.h"
#include "Commands.h"
#include "Failure.h"
#include "LogUris.h"
#include "Output.h"

namespace chdcp {
namespace {

Json::Value boxJson(const Box& box) {
  Json::Value value;
  value["udn"] = box.udn;
  value["friendlyName"] = box.friendlyName;
  value["clientId"] = box.clientId;
  value["model"] = box.model;
  value["manufacturer"] = box.manufacturer;
  value["descriptionUrl"] = box.location;
  value["address"] = box.host;
  return value;
}

void printBox(const Box& box) {
  printLine(box.udn);
  printLine("  friendly name: " + box.friendlyName);
  printLine("  client id:     " + box.clientId);
  printLine("  model:         " + box.model);
  printLine("  manufacturer:  " + box.manufacturer);
  printLine("  description:   " + box.location);
}

Json::Value serviceJson(Actions& actions, Service service) {
  GUPnPServiceProxy* proxy = actions.proxy(service);
  auto* info = GUPNP_SERVICE_INFO(proxy);
  auto owned = [](char* text) {
    std::string value = text != nullptr ? text : "";
    g_free(text);
    return value;
  };
  Json::Value value;
  value["serviceType"] = gupnp_service_info_get_service_type(info);
  value["serviceId"] = owned(gupnp_service_info_get_id(info));
  value["controlUrl"] = owned(gupnp_service_info_get_control_url(info));
  value["eventUrl"] = owned(gupnp_service_info_get_event_subscription_url(info));
  value["scpdUrl"] = owned(gupnp_service_info_get_scpd_url(info));
  g_object_unref(proxy);
  return value;
}

Json::Value infoJson(const Box& box, Actions& actions) {
  Json::Value info = boxJson(box);
  for (Service service : {Service::kBasicManagement, Service::kConfigurationManagement}) {
    info["services"].append(serviceJson(actions, service));
  }
  info["deviceStatus"] = actions.get(Service::kBasicManagement, "GetDeviceStatus", "DeviceStatus");
  info["logUris"] = Json::Value(Json::arrayValue);
  for (const std::string& uri : splitLogUris(actions.get(Service::kBasicManagement, "GetLogURIs", "LogURIs"))) {
    info["logUris"].append(uri);
  }
  const Service cm = Service::kConfigurationManagement;
  info["configurationVersion"] = actions.get(cm, "GetCurrentConfigurationVersion", "StateVariableValue");
  info["configurationUpdate"] = actions.get(cm, "GetConfigurationUpdate", "StateVariableValue");
  info["supportedParametersUpdate"] = actions.get(cm, "GetSupportedParametersUpdate", "StateVariableValue");
  for (const PathValue& tree : parseSubTrees(actions.get(cm, "GetSupportedDataModels", "SupportedDataModels"))) {
    Json::Value model;
    model["uri"] = tree.first;
    model["location"] = tree.second;
    info["dataModels"].append(model);
  }
  return info;
}

void printInfo(const Json::Value& info) {
  for (const char* key : {"udn", "friendlyName", "clientId", "model", "manufacturer", "address", "descriptionUrl"}) {
    printLine(std::string(key) + ": " + info[key].asString());
  }
  for (const Json::Value& service : info["services"]) {
    printLine("service: " + service["serviceType"].asString());
    for (const char* key : {"serviceId", "controlUrl", "eventUrl", "scpdUrl"}) {
      printLine(std::string("  ") + key + ": " + service[key].asString());
    }
  }
  printLine("deviceStatus: " + info["deviceStatus"].asString());
  printLine("logUris:");
  for (const Json::Value& uri : info["logUris"]) {
    printLine("  " + uri.asString());
  }
  for (const char* key : {"configurationVersion", "configurationUpdate", "supportedParametersUpdate"}) {
    printLine(std::string(key) + ": " + info[key].asString());
  }
  for (const Json::Value& model : info["dataModels"]) {
    printLine("dataModel: " + model["uri"].asString() + " at " + model["location"].asString());
  }
}

}  // namespace

void discoverCommand(Discovery& discovery, const CommandLine& line) {
  const std::vector<Box> boxes = discovery.listFor(line.wait);
  if (boxes.empty()) {
    throw Failure(kExitNoBox, "no ManageableDevice answered within " + std::to_string(int(line.wait)) + " s");
  }
  Json::Value list(Json::arrayValue);
  for (const Box& box : boxes) {
    if (line.json) {
      list.append(boxJson(box));
    } else {
      printBox(box);
    }
  }
  if (line.json) {
    printJson(list);
  }
}

void infoCommand(const Box& box, Actions& actions, const CommandLine& line) {
  const Json::Value info = infoJson(box, actions);
  if (line.json) {
    printJson(info);
  } else {
    printInfo(info);
  }
}

void getCommand(Actions& actions, const CommandLine& line) {
  const std::vector<std::string> paths = line.args.empty() ? std::vector<std::string>{"/vsp/"} : line.args;
  const std::string answer =
      actions.call(Service::kConfigurationManagement, "GetValues", {{"Parameters", contentPathList(paths)}},
                   {"ParameterValueList"})["ParameterValueList"];
  Json::Value list(Json::arrayValue);
  for (const PathValue& value : parseParameterValueList(answer)) {
    if (line.json) {
      Json::Value entry;
      entry["path"] = value.first;
      entry["value"] = value.second;
      list.append(entry);
    } else {
      printLine(value.first + " = " + value.second);
    }
  }
  if (line.json) {
    printJson(list);
  }
}

void paramsCommand(Actions& actions, const CommandLine& line) {
  const std::string node = line.args.empty() ? "/vsp/" : line.args[0];
  ActionInput depth{"SearchDepth", "", line.depth, true};
  const std::string answer = actions.call(Service::kConfigurationManagement, "GetSupportedParameters",
                                          {{"StartingNode", node}, depth}, {"Result"})["Result"];
  Json::Value list(Json::arrayValue);
  for (const std::string& path : parseStructurePaths(answer)) {
    if (line.json) {
      list.append(path);
    } else {
      printLine(path);
    }
  }
  if (line.json) {
    printJson(list);
  }
}

void attrsCommand(Actions& actions, const CommandLine& line) {
  const std::string answer = actions.call(Service::kConfigurationManagement, "GetAttributes",
                                          {{"Parameters", nodeAttributePathList(line.args)}},
                                          {"NodeAttributeValueList"})["NodeAttributeValueList"];
  Json::Value list(Json::arrayValue);
  for (const NodeAttributes& node : parseNodeAttributes(answer)) {
    if (line.json) {
      Json::Value entry;
      entry["path"] = node.path;
      entry["type"] = node.type;
      entry["access"] = node.access;
      entry["eventOnChange"] = node.eventOnChange;
      list.append(entry);
    } else {
      printLine(node.path + "  " + node.type + "  " + node.access + "  eventOnChange=" + node.eventOnChange);
    }
  }
  if (line.json) {
    printJson(list);
  }
}

void setCommand(Actions& actions, const CommandLine& line) {
  std::vector<PathValue> values;
  for (const std::string& pair : line.args) {
    const size_t equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw Failure(kExitUsage, "'" + pair + "' is not PATH=VALUE");
    }
    values.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
  }
  const std::string status = actions.call(Service::kConfigurationManagement, "SetValues",
                                          {{"ParameterValueList", parameterValueList(values)}}, {"Status"})["Status"];
  if (line.json) {
    Json::Value answer;
    answer["status"] = status;
    printJson(answer);
  } else {
    printLine(status);
  }
}

}  // namespace chdcp
