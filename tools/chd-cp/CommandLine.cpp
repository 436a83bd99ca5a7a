#include "CommandLine.h"

#include <glib.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <map>
#include <set>

#include "Failure.h"

namespace chdcp {
namespace {

// A number option left out.
constexpr double kUnset = -1e300;

struct CommandShape {
  bool takesBox;
  size_t minArgs;
  std::set<std::string> options;  // options besides --interface, --timeout, --help
};

const std::map<std::string, CommandShape>& shapes() {
  static const std::map<std::string, CommandShape> kShapes = {
      {"discover", {false, 0, {"wait", "json"}}},
      {"info", {true, 0, {"json"}}},
      {"get", {true, 0, {"json"}}},
      {"params", {true, 0, {"depth", "json"}}},
      {"attrs", {true, 1, {"json"}}},
      {"set", {true, 1, {"json"}}},
      {"watch", {true, 0, {"for", "json"}}},
      {"logs", {true, 0, {"output", "json"}}},
      {"blob", {true, 0, {"json"}}},
  };
  return kShapes;
}

struct RawOptions {
  gchar* interfaceName = nullptr;
  gchar* output = nullptr;
  gdouble timeout = kUnset;
  gdouble wait = kUnset;
  gdouble forSeconds = kUnset;
  gint depth = G_MININT;
  gboolean json = FALSE;
  gboolean help = FALSE;
};

std::vector<std::string> givenOptions(const RawOptions& raw) {
  std::vector<std::string> given;
  if (raw.output != nullptr) {
    given.emplace_back("output");
  }
  if (raw.wait != kUnset) {
    given.emplace_back("wait");
  }
  if (raw.forSeconds != kUnset) {
    given.emplace_back("for");
  }
  if (raw.depth != G_MININT) {
    given.emplace_back("depth");
  }
  if (raw.json != FALSE) {
    given.emplace_back("json");
  }
  return given;
}

std::vector<std::string> parseOptions(int argc, char** argv, RawOptions& raw) {
  const GOptionEntry entries[] = {{"interface", 'i', 0, G_OPTION_ARG_STRING, &raw.interfaceName, "", nullptr},
                                  {"timeout", 't', 0, G_OPTION_ARG_DOUBLE, &raw.timeout, "", nullptr},
                                  {"wait", 'w', 0, G_OPTION_ARG_DOUBLE, &raw.wait, "", nullptr},
                                  {"for", 0, 0, G_OPTION_ARG_DOUBLE, &raw.forSeconds, "", nullptr},
                                  {"depth", 'd', 0, G_OPTION_ARG_INT, &raw.depth, "", nullptr},
                                  {"output", 'o', 0, G_OPTION_ARG_FILENAME, &raw.output, "", nullptr},
                                  {"json", 'j', 0, G_OPTION_ARG_NONE, &raw.json, "", nullptr},
                                  {"help", 'h', 0, G_OPTION_ARG_NONE, &raw.help, "", nullptr},
                                  {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext* context = g_option_context_new(nullptr);
  g_option_context_set_help_enabled(context, FALSE);
  g_option_context_add_main_entries(context, entries, nullptr);
  GError* error = nullptr;
  const bool parsed = g_option_context_parse(context, &argc, &argv, &error);
  g_option_context_free(context);
  if (!parsed) {
    const std::string text = error->message;
    g_clear_error(&error);
    throw Failure(kExitUsage, text);
  }
  return std::vector<std::string>(argv + 1, argv + argc);
}

void checkNumbers(const RawOptions& raw) {
  const auto badSeconds = [](double value, double least) {
    return value != kUnset && (!(value >= least) || std::isinf(value));
  };
  if (badSeconds(raw.timeout, 0.001) || badSeconds(raw.forSeconds, 0.001) || badSeconds(raw.wait, 0)) {
    throw Failure(kExitUsage, "--timeout and --for take a positive number of seconds, --wait zero or more");
  }
  if (raw.depth != G_MININT && raw.depth < 0) {
    throw Failure(kExitUsage, "--depth takes a number of levels, 0 or more");
  }
}

void fill(const RawOptions& raw, CommandLine& line) {
  line.interfaceName = raw.interfaceName != nullptr ? raw.interfaceName : "";
  line.outputDirectory = raw.output != nullptr ? raw.output : ".";
  line.timeout = raw.timeout != kUnset ? raw.timeout : line.timeout;
  line.wait = raw.wait != kUnset ? raw.wait : line.wait;
  line.forSeconds = raw.forSeconds != kUnset ? raw.forSeconds : 0;
  line.depth = raw.depth != G_MININT ? static_cast<unsigned>(raw.depth) : 0;
  line.json = raw.json != FALSE;
  line.help = raw.help != FALSE;
}

void checkShape(const CommandLine& line, const std::vector<std::string>& given) {
  auto shape = shapes().find(line.command);
  if (shape == shapes().end()) {
    throw Failure(kExitUsage, "unknown command '" + line.command + "' (try --help)");
  }
  for (const std::string& option : given) {
    if (shape->second.options.count(option) == 0) {
      throw Failure(kExitUsage, "--" + option + " does not apply to " + line.command);
    }
  }
  if (shape->second.takesBox && line.box.empty()) {
    throw Failure(kExitUsage, line.command + " needs a BOX (UDN, friendly name, client id or IP address)");
  }
  if (line.args.size() < shape->second.minArgs) {
    throw Failure(kExitUsage, line.command + (line.command == "set" ? " needs PATH=VALUE" : " needs a PATH"));
  }
  if (line.command == "params" && line.args.size() > 1) {
    throw Failure(kExitUsage, "params takes one starting NODE");
  }
  if ((line.command == "info" || line.command == "watch" || line.command == "blob") && !line.args.empty()) {
    throw Failure(kExitUsage, line.command + " takes no argument after BOX");
  }
}

}  // namespace

CommandLine parseCommandLine(int argc, char** argv) {
  RawOptions raw;
  std::vector<std::string> words;
  try {
    words = parseOptions(argc, argv, raw);
    checkNumbers(raw);
  } catch (...) {
    g_free(raw.interfaceName);
    g_free(raw.output);
    throw;
  }
  CommandLine line;
  fill(raw, line);
  g_free(raw.interfaceName);
  g_free(raw.output);
  if (line.help) {
    return line;
  }
  if (words.empty()) {
    throw Failure(kExitUsage, "no command given (try --help)");
  }
  line.command = words[0];
  const bool takesBox = shapes().count(line.command) != 0 && shapes().at(line.command).takesBox;
  if (takesBox && words.size() > 1) {
    line.box = words[1];
  }
  const auto firstArg = static_cast<std::ptrdiff_t>(std::min<size_t>(words.size(), takesBox ? 2 : 1));
  line.args.assign(words.begin() + firstArg, words.end());
  if (!takesBox && !line.args.empty() && shapes().count(line.command) != 0) {
    throw Failure(kExitUsage, line.command + " takes no argument");
  }
  checkShape(line, givenOptions(raw));
  return line;
}

std::string usageText() {
  return "Usage: chd-cp COMMAND [BOX] [ARGUMENTS] [OPTIONS]\n"
         "A control point for the ManageableDevice of CHD client boxes.\n"
         "\n"
         "Commands:\n"
         "  discover [--wait S]            every ManageableDevice on the network\n"
         "  info BOX                       description, services, device status, log URIs, versions\n"
         "  get BOX [PATH...]              values (default the whole tree /vsp/), one 'path = value' each\n"
         "  params BOX [NODE] [--depth N]  supported parameters below NODE (default /vsp/; depth 0: all)\n"
         "  attrs BOX PATH...              attributes of each path\n"
         "  set BOX PATH=VALUE...          one SetValues with every pair\n"
         "  watch BOX [--for S]            every event of both services, the initial ones included\n"
         "  logs BOX [NAME...] [-o DIR]    download the log files the box lists (all, or those named)\n"
         "  blob BOX                       generate a diagnostics blob, download it and summarise it\n"
         "\n"
         "BOX: a UDN, a friendly name, a client id (model description) or an IP address. A name other than\n"
         "a UDN must fit one box only; the boxes' answers to the search are awaited (about 2 s) to know.\n"
         "Options: --interface IFACE (default: that of the default route, else lo), --timeout S (default\n"
         "10: how long to look for the box and wait for each answer), --json (machine-readable output).\n"
         "Exit status: 0 success, 1 the box answered with an error, 2 bad usage, 3 no box found or it did\n"
         "not answer. Errors are one line on stderr.\n";
}

}  // namespace chdcp
