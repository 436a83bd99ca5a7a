#include "DescriptionXml.h"

#include <libxml/tree.h>

#include <memory>

#include "zuna_upnp/LocalDevice.h"
#include "zuna_upnp/LocalService.h"

namespace zuna_upnp {

namespace {

struct DocDeleter {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocDeleter>;

const xmlChar* x(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
const xmlChar* x(const std::string& text) { return x(text.c_str()); }

// xmlNewTextChild escapes the content, so any text is safe here.
xmlNode* addText(xmlNode* parent, const char* name, const std::string& content) {
  return xmlNewTextChild(parent, nullptr, x(name), x(content));
}

xmlNode* addElement(xmlNode* parent, const char* name) { return xmlNewChild(parent, nullptr, x(name), nullptr); }

xmlNode* newRoot(xmlDoc* doc, const char* name, const char* xmlns) {
  xmlNode* root = xmlNewDocNode(doc, nullptr, x(name), nullptr);
  xmlDocSetRootElement(doc, root);
  xmlSetNs(root, xmlNewNs(root, x(xmlns), nullptr));
  return root;
}

void addSpecVersion(xmlNode* parent, int major, int minor) {
  xmlNode* version = addElement(parent, "specVersion");
  addText(version, "major", std::to_string(major));
  addText(version, "minor", std::to_string(minor));
}

std::string serialise(xmlDoc* doc) {
  xmlChar* buffer = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(doc, &buffer, &size, "utf-8", 1);
  std::string text(reinterpret_cast<const char*>(buffer), static_cast<size_t>(size));
  xmlFree(buffer);
  return text;
}

void addServiceEntry(xmlNode* list, const LocalService& service) {
  xmlNode* entry = addElement(list, "service");
  addText(entry, "serviceType", service.getServiceTypeIDString());
  addText(entry, "serviceId", service.getServiceID());
  addText(entry, "SCPDURL", service.getSCPDURL());
  addText(entry, "controlURL", service.getControlURL());
  addText(entry, "eventSubURL", service.getEventURL());
}

void addArguments(xmlNode* list, const std::vector<ActionArgument>& arguments, const char* direction) {
  for (const ActionArgument& argument : arguments) {
    xmlNode* node = addElement(list, "argument");
    addText(node, "name", argument.name);
    addText(node, "direction", direction);
    addText(node, "relatedStateVariable", argument.stateVariable);
  }
}

void addAction(xmlNode* list, const Action& action) {
  xmlNode* node = addElement(list, "action");
  addText(node, "name", action.getName());
  if (action.getInArgs().empty() && action.getOutArgs().empty()) {
    return;
  }
  xmlNode* arguments = addElement(node, "argumentList");
  addArguments(arguments, action.getInArgs(), "in");
  addArguments(arguments, action.getOutArgs(), "out");
}

void addStateVariable(xmlNode* table, const Var& var) {
  xmlNode* node = addElement(table, "stateVariable");
  xmlNewProp(node, x("sendEvents"), x(var.isEvented() ? "yes" : "no"));
  addText(node, "name", var.getName());
  addText(node, "dataType", var.getType());
  addText(node, "defaultValue", var.getDefault());
}

}  // namespace

std::string buildDeviceDescription(const LocalDevice& device) {
  DocPtr doc(xmlNewDoc(x("1.0")));
  xmlNode* root = newRoot(doc.get(), "root", "urn:schemas-upnp-org:device-1-0");
  addSpecVersion(root, 1, 0);
  xmlNode* node = addElement(root, "device");
  addText(node, "deviceType", device.getTypeID().toString());
  addText(node, "friendlyName", device.getFriendlyName());
  addText(node, "manufacturer", device.getManufacturer());
  addText(node, "modelDescription", device.getModelDescription());
  addText(node, "modelName", device.getModelName());
  addText(node, "modelNumber", device.getModelNumber());
  addText(node, "UDN", device.getUDN());
  if (device.getPresentation()) {
    // The device has no pages of its own; its description is what it presents.
    addText(node, "presentationURL", device.getDescriptionURL());
  }
  xmlNode* services = addElement(node, "serviceList");
  for (size_t i = 0; i < device.getServiceCount(); ++i) {
    addServiceEntry(services, *device.getService(i));
  }
  return serialise(doc.get());
}

std::string buildServiceDescription(const LocalService& service) {
  DocPtr doc(xmlNewDoc(x("1.0")));
  xmlNode* root = newRoot(doc.get(), "scpd", "urn:schemas-upnp-org:service-1-0");
  addSpecVersion(root, service.getServiceMajorSpec(), service.getServiceMinorSpec());
  xmlNode* actions = addElement(root, "actionList");
  for (const std::unique_ptr<Action>& action : service.getActions()) {
    addAction(actions, *action);
  }
  xmlNode* table = addElement(root, "serviceStateTable");
  for (const Var& var : service.getVars().getAll()) {
    addStateVariable(table, var);
  }
  return serialise(doc.get());
}

}  // namespace zuna_upnp
