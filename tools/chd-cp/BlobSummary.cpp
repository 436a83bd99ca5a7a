#include "BlobSummary.h"

#include <memory>
#include <sstream>

#include "Failure.h"

namespace chdcp {
namespace {

const std::string kStep = "  ";

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string scalarText(const std::string& key, const Json::Value& value) {
  if (value.isString()) {
    return value.asString().empty() ? "(empty)" : value.asString();
  }
  if (value.isBool()) {
    return value.asBool() ? "yes" : "no";
  }
  std::string text = value.isUInt64() ? std::to_string(value.asUInt64()) : std::to_string(value.asInt64());
  return endsWith(key, "_duration") ? text + " s" : text;
}

// An entry of a history: [ordinal, time] or [time, data].
std::string entryText(const Json::Value& entry) {
  std::string text;
  for (const Json::Value& part : entry) {
    text += (text.empty() ? "" : "  ") + (part.isString() ? part.asString() : std::to_string(part.asUInt64()));
  }
  return text;
}

void summarise(const std::string& key, const Json::Value& value, const std::string& indent,
               std::vector<std::string>& lines) {
  if (value.isObject()) {
    lines.push_back(indent + key);
    for (const std::string& member : value.getMemberNames()) {
      summarise(member, value[member], indent + kStep, lines);
    }
  } else if (value.isArray()) {
    lines.push_back(indent + key + ": " + std::to_string(value.size()) + (value.size() == 1 ? " entry" : " entries"));
    for (const Json::Value& entry : value) {
      lines.push_back(indent + kStep + entryText(entry));
    }
  } else {
    lines.push_back(indent + key + ": " + scalarText(key, value));
  }
}

}  // namespace

Json::Value parseBlob(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value blob;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &blob, &errors) || !blob.isObject()) {
    throw Failure(kExitBoxError, "the blob is not a JSON object: " + errors.substr(0, errors.find('\n')));
  }
  return blob;
}

std::vector<std::string> summariseBlob(const Json::Value& blob) {
  std::vector<std::string> lines;
  for (const std::string& generated : blob.getMemberNames()) {
    lines.push_back("Diagnostics blob generated " + generated + " (UTC)");
    const Json::Value& body = blob[generated];
    for (const std::string& section : body.getMemberNames()) {
      summarise(section, body[section], kStep, lines);
    }
  }
  return lines;
}

}  // namespace chdcp
