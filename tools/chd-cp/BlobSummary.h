// A readable summary of a diagnostics blob.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace chdcp {

// Parses the blob text; throws a Failure (kExitBoxError) when it is not a
// JSON object.
Json::Value parseBlob(const std::string& text);

// The lines of the summary: the generation time, then each section with its
// counters, durations and statuses, and each history with its entries.
std::vector<std::string> summariseBlob(const Json::Value& blob);

}  // namespace chdcp
