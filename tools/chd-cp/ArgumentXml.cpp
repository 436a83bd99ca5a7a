#include "ArgumentXml.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <functional>

#include "Failure.h"

namespace chdcp {
namespace {

const xmlChar* name(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

std::string print(xmlDocPtr document) {
  xmlChar* text = nullptr;
  int length = 0;
  xmlDocDumpFormatMemoryEnc(document, &text, &length, "UTF-8", 0);
  std::string result(reinterpret_cast<char*>(text), static_cast<size_t>(length));
  xmlFree(text);
  xmlFreeDoc(document);
  // The box takes the list element alone; the declaration is dropped.
  const size_t root = result.find("?>");
  if (root != std::string::npos) {
    result.erase(0, result.find('<', root));
  }
  while (!result.empty() && (result.back() == '\n' || result.back() == ' ')) {
    result.pop_back();
  }
  return result;
}

std::string pathList(const char* listName, const char* itemName, const std::vector<std::string>& paths) {
  xmlDocPtr document = xmlNewDoc(name("1.0"));
  xmlNodePtr list = xmlNewDocNode(document, nullptr, name(listName), nullptr);
  xmlDocSetRootElement(document, list);
  for (const std::string& path : paths) {
    xmlNewTextChild(list, nullptr, name(itemName), name(path.c_str()));
  }
  return print(document);
}

std::string textOf(xmlNodePtr node) {
  xmlChar* text = xmlNodeGetContent(node);
  std::string result = text != nullptr ? reinterpret_cast<char*>(text) : "";
  xmlFree(text);
  return result;
}

bool named(xmlNodePtr node, const char* wanted) {
  return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, name(wanted)) == 0;
}

std::string childText(xmlNodePtr parent, const char* child) {
  for (xmlNodePtr node = parent->children; node != nullptr; node = node->next) {
    if (named(node, child)) {
      return textOf(node);
    }
  }
  return "";
}

// Calls visit with every element of that name at the top level of xml, or
// directly inside a top-level list element.
void forEachElement(const std::string& xml, const char* wanted, const std::function<void(xmlNodePtr)>& visit) {
  const std::string wrapped = "<answer>" + xml + "</answer>";
  xmlDocPtr document = xmlReadMemory(wrapped.data(), static_cast<int>(wrapped.size()), "answer.xml", nullptr,
                                     XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (document == nullptr) {
    throw Failure(kExitBoxError, "the box's answer is not XML: " + xml.substr(0, 80));
  }
  for (xmlNodePtr node = xmlDocGetRootElement(document)->children; node != nullptr; node = node->next) {
    if (named(node, wanted)) {
      visit(node);
    } else if (node->type == XML_ELEMENT_NODE) {
      for (xmlNodePtr item = node->children; item != nullptr; item = item->next) {
        if (named(item, wanted)) {
          visit(item);
        }
      }
    }
  }
  xmlFreeDoc(document);
}

}  // namespace

std::string contentPathList(const std::vector<std::string>& paths) {
  return pathList("ContentPathList", "ContentPath", paths);
}

std::string nodeAttributePathList(const std::vector<std::string>& paths) {
  return pathList("NodeAttributePathList", "NodeAttributePath", paths);
}

std::string parameterValueList(const std::vector<PathValue>& values) {
  xmlDocPtr document = xmlNewDoc(name("1.0"));
  xmlNodePtr list = xmlNewDocNode(document, nullptr, name("ParameterValueList"), nullptr);
  xmlDocSetRootElement(document, list);
  for (const PathValue& value : values) {
    xmlNodePtr parameter = xmlNewChild(list, nullptr, name("Parameter"), nullptr);
    xmlNewTextChild(parameter, nullptr, name("ParameterPath"), name(value.first.c_str()));
    xmlNewTextChild(parameter, nullptr, name("Value"), name(value.second.c_str()));
  }
  return print(document);
}

std::vector<PathValue> parseParameterValueList(const std::string& xml) {
  std::vector<PathValue> values;
  forEachElement(xml, "Parameter", [&values](xmlNodePtr parameter) {
    values.emplace_back(childText(parameter, "ParameterPath"), childText(parameter, "Value"));
  });
  return values;
}

std::vector<std::string> parseStructurePaths(const std::string& xml) {
  std::vector<std::string> paths;
  forEachElement(xml, "StructurePath", [&paths](xmlNodePtr path) { paths.push_back(textOf(path)); });
  return paths;
}

std::vector<NodeAttributes> parseNodeAttributes(const std::string& xml) {
  std::vector<NodeAttributes> nodes;
  forEachElement(xml, "Node", [&nodes](xmlNodePtr node) {
    nodes.push_back({childText(node, "NodeAttributePath"), childText(node, "Type"), childText(node, "Access"),
                     childText(node, "EventOnChange")});
  });
  return nodes;
}

std::vector<PathValue> parseSubTrees(const std::string& xml) {
  std::vector<PathValue> trees;
  forEachElement(xml, "SubTree", [&trees](xmlNodePtr tree) {
    trees.emplace_back(childText(tree, "URI"), childText(tree, "Location"));
  });
  return trees;
}

}  // namespace chdcp
