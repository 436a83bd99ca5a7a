// Printing results: plain text for people, JSON (--json) for scripts.
#pragma once

#include <json/json.h>

#include <string>

namespace chdcp {

// A JSON document, indented, with a final line feed.
void printJson(const Json::Value& value);
// A JSON document on one line (one event of a stream).
void printJsonLine(const Json::Value& value);
// One line of text as it stands.
void printLine(const std::string& line);

}  // namespace chdcp
