#include <libsoup/soup.h>

#include "zuna_http/WebServer.h"

namespace zuna_http {

bool WebHeaderBase::send(ReaderWriter* stream) const {
  if (stream == nullptr) {
    return false;
  }
  std::string head = getFirstLine() + "\r\n";
  for (const auto& field : mFields) {
    head += field.first + ": " + field.second + "\r\n";
  }
  head += "\r\n";
  return stream->write(head.data(), head.size()) == static_cast<int64_t>(head.size());
}

std::string WebResponse::getFirstLine() const {
  return "HTTP/1.1 " + std::to_string(mStatus) + " " + soup_status_get_phrase(static_cast<guint>(mStatus));
}

WebServer::Method WebServer::getMethod(const std::string& name) {
  // Methods are case-sensitive tokens.
  if (name == "GET") {
    return METHOD_GET;
  }
  if (name == "HEAD") {
    return METHOD_HEAD;
  }
  if (name == "POST") {
    return METHOD_POST;
  }
  return METHOD_UNKNOWN;
}

}  // namespace zuna_http
