// What the ConfigurationManagement actions share in reading their XML
// arguments and writing their answers: the element names, the results and
// the TinyXML helpers.
#pragma once

#include <tinyxml.h>

#include <functional>
#include <string>

#include "UPnPResultCodes.h"
#include "status/StatusManager.h"
#include "zuna_upnp/Types.h"

namespace cm_arguments {

// XML element names of the action arguments and results.
constexpr const char* kContentPathList = "ContentPathList";
constexpr const char* kContentPath = "ContentPath";
constexpr const char* kNodeAttributePathList = "NodeAttributePathList";
constexpr const char* kNodeAttributePath = "NodeAttributePath";
constexpr const char* kParameterPath = "ParameterPath";
constexpr const char* kParameterValueList = "ParameterValueList";
constexpr const char* kParameter = "Parameter";
constexpr const char* kValue = "Value";
constexpr const char* kNode = "Node";
constexpr const char* kType = "Type";
constexpr const char* kAccess = "Access";
constexpr const char* kEventOnChange = "EventOnChange";
constexpr const char* kStructurePath = "StructurePath";
constexpr const char* kSubTree = "SubTree";
constexpr const char* kUri = "URI";
constexpr const char* kLocation = "Location";

inline zuna_upnp::UPnPReturn success() { return zuna_upnp::UPnPReturn(kResultKindSuccess, "", kUpnpNoError); }
inline zuna_upnp::UPnPReturn invalidArgumentSyntax() {
  return zuna_upnp::UPnPReturn(kResultKindBadArgument, "Invalid Argument Syntax", kUpnpInvalidArgumentSyntax);
}
inline zuna_upnp::UPnPReturn invalidXmlArgument() {
  return zuna_upnp::UPnPReturn(kResultKindBadArgument, "Invalid XML Argument", kUpnpInvalidXmlArgument);
}
inline zuna_upnp::UPnPReturn noSuchName() {
  return zuna_upnp::UPnPReturn(kResultKindBadArgument, "No Such Name", kUpnpNoSuchName);
}
inline zuna_upnp::UPnPReturn invalidValueType() {
  return zuna_upnp::UPnPReturn(kResultKindBadArgument, "Invalid Value Type", kUpnpInvalidValueType);
}
inline zuna_upnp::UPnPReturn invalidValue() {
  return zuna_upnp::UPnPReturn(kResultKindBadArgument, "Invalid Value", kUpnpInvalidValue);
}

inline StatusManager* statusStore() { return StatusManager::getInstance(false); }

// The first element of the argument, or null when the text is not a well
// formed document with at least one element (or is too long to be parsed);
// then the refusal is logged as an error.
TiXmlElement* parseFirstElement(TiXmlDocument& document, const std::string& text, const char* refusal);

TiXmlElement* addTextElement(TiXmlNode* parent, const char* name, const std::string& text);

std::string printDocument(const TiXmlDocument& document);

inline bool hasName(const TiXmlElement* element, const char* name) { return element->ValueStr() == name; }

// The text of a path element; null when the element is empty. Any content
// counts as text here, so that a list element under another name (such as a
// namespaced cms:ContentPathList) is refused for its name, not as empty.
const char* pathText(const TiXmlElement* element);

// Walks a path list argument: a <listName> of <itemName> elements, or the
// <itemName> elements alone. Every item must be a non-empty <itemName>
// (Invalid XML Argument otherwise); visit sees each item's text in order and
// ends the walk with the first failure it returns.
zuna_upnp::UPnPReturn forEachListedPath(TiXmlElement* element, const char* listName, const char* itemName,
                                        const std::function<zuna_upnp::UPnPReturn(const char*)>& visit);

}  // namespace cm_arguments
