#include "ConfigurationManagementArguments.h"

#include "tolvane/Logging.h"

TL_REGISTER_LOGGING(true, kLogInfo);

namespace cm_arguments {

namespace {

// Arguments are parsed by TinyXML's recursive descent on the service's
// thread: the cap keeps the deepest possible nesting far from the stack limit
// while leaving room for any list this data model can produce.
constexpr size_t kMaxXmlArgumentLength = 32768;

}  // namespace

TiXmlElement* parseFirstElement(TiXmlDocument& document, const std::string& text, const char* refusal) {
  TiXmlElement* element = nullptr;
  if (text.size() <= kMaxXmlArgumentLength) {
    document.Parse(text.c_str());
    element = document.Error() ? nullptr : document.FirstChildElement();
  }
  if (element == nullptr) {
    TL_LOG(kLogError, "%s", refusal);
  }
  return element;
}

TiXmlElement* addTextElement(TiXmlNode* parent, const char* name, const std::string& text) {
  auto* element = new TiXmlElement(name);
  // Always a text child, so that an empty value prints as an open and a close tag.
  element->LinkEndChild(new TiXmlText(text));
  parent->LinkEndChild(element);
  return element;
}

std::string printDocument(const TiXmlDocument& document) {
  TiXmlPrinter printer;
  document.Accept(&printer);
  return printer.Str();
}

const char* pathText(const TiXmlElement* element) {
  if (element->FirstChild() == nullptr) {
    return nullptr;
  }
  const char* text = element->GetText();
  return text != nullptr ? text : "";
}

zuna_upnp::UPnPReturn forEachListedPath(TiXmlElement* element, const char* listName, const char* itemName,
                                        const std::function<zuna_upnp::UPnPReturn(const char*)>& visit) {
  if (hasName(element, listName)) {
    element = element->FirstChildElement(itemName);
  }
  for (; element != nullptr; element = element->NextSiblingElement()) {
    const char* text = pathText(element);
    if (text == nullptr) {
      TL_LOG(kLogError, "No text was given in XML element");
      return invalidXmlArgument();
    }
    if (!hasName(element, itemName)) {
      TL_LOG(kLogError, "Element value should be %s not [%s]", itemName, element->Value());
      return invalidXmlArgument();
    }
    zuna_upnp::UPnPReturn visited = visit(text);
    if (!visited.isSuccess()) {
      return visited;
    }
  }
  return success();
}

}  // namespace cm_arguments
