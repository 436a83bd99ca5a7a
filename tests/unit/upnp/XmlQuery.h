// XPath queries over a description document parsed by libxml2.
#pragma once

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <string>
#include <vector>

namespace upnp_test {

class XmlQuery {
 public:
  // ns is bound to the prefix "u".
  XmlQuery(const std::string& text, const char* ns) {
    mDoc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, XML_PARSE_NONET);
    if (mDoc != nullptr) {
      mContext = xmlXPathNewContext(mDoc);
      xmlXPathRegisterNs(mContext, reinterpret_cast<const xmlChar*>("u"), reinterpret_cast<const xmlChar*>(ns));
    }
  }
  ~XmlQuery() {
    if (mContext != nullptr) {
      xmlXPathFreeContext(mContext);
    }
    if (mDoc != nullptr) {
      xmlFreeDoc(mDoc);
    }
  }
  XmlQuery(const XmlQuery&) = delete;
  XmlQuery& operator=(const XmlQuery&) = delete;

  bool parsed() const { return mDoc != nullptr; }

  // Text content of every node the expression selects, in document order.
  std::vector<std::string> all(const std::string& expression) const {
    std::vector<std::string> texts;
    if (mContext == nullptr) {
      return texts;
    }
    xmlXPathObject* result = xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(expression.c_str()), mContext);
    if (result != nullptr && result->nodesetval != nullptr) {
      for (int i = 0; i < result->nodesetval->nodeNr; ++i) {
        xmlChar* content = xmlNodeGetContent(result->nodesetval->nodeTab[i]);
        texts.emplace_back(content != nullptr ? reinterpret_cast<const char*>(content) : "");
        xmlFree(content);
      }
    }
    xmlXPathFreeObject(result);
    return texts;
  }

  std::string one(const std::string& expression) const {
    std::vector<std::string> texts = all(expression);
    return texts.size() == 1 ? texts[0] : "<" + std::to_string(texts.size()) + " matches>";
  }

 private:
  xmlDoc* mDoc = nullptr;
  xmlXPathContext* mContext = nullptr;
};

}  // namespace upnp_test
