#include "Output.h"

#include <cstdio>
#include <memory>

namespace chdcp {
namespace {

void write(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  const std::string text = Json::writeString(builder, value) + "\n";
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
}

}  // namespace

void printJson(const Json::Value& value) { write(value, "  "); }

void printJsonLine(const Json::Value& value) { write(value, ""); }

void printLine(const std::string& line) {
  fwrite(line.data(), 1, line.size(), stdout);
  fputc('\n', stdout);
  fflush(stdout);
}

}  // namespace chdcp
