#include "zuna_upnp/Action.h"

#include <charconv>
#include <sstream>
#include <utility>

namespace zuna_upnp {

namespace {

bool isReference(const std::string& type) { return !type.empty() && type.back() == '&'; }

// "string &", "string&" and " string & " all name the same parameter type.
std::string withoutBlanks(const std::string& text) {
  std::string compact;
  for (char c : text) {
    if (c != ' ' && c != '\t') {
      compact.push_back(c);
    }
  }
  return compact;
}

std::vector<std::string> splitSignature(const std::string& signature) {
  std::vector<std::string> types;
  std::string item;
  std::istringstream stream(signature);
  while (std::getline(stream, item, ',')) {
    types.push_back(withoutBlanks(item));
  }
  return types;
}

std::vector<ActionArgument> parseDeclaration(const std::string& declaration) {
  std::vector<ActionArgument> arguments;
  std::istringstream stream(declaration);
  std::string pair;
  while (stream >> pair) {
    size_t colon = pair.find(':');
    if (colon == std::string::npos) {
      arguments.push_back(ActionArgument{pair, std::string()});
    } else {
      arguments.push_back(ActionArgument{pair.substr(0, colon), pair.substr(colon + 1)});
    }
  }
  return arguments;
}

}  // namespace

Action::Action(std::string name) : mName(std::move(name)) {}

Action::~Action() = default;

void Action::setInArgs(const std::string& declaration) { mInArgs = parseDeclaration(declaration); }

void Action::setOutArgs(const std::string& declaration) { mOutArgs = parseDeclaration(declaration); }

bool Action::checkTypes(const std::string& signature) const {
  const std::vector<std::string> types = parameterTypes();
  if (types.empty()) {
    return true;
  }
  const std::vector<std::string> declared = splitSignature(signature);
  if (declared.size() != types.size()) {
    return false;
  }
  size_t inputs = 0;
  for (size_t i = 0; i < types.size(); ++i) {
    if (declared[i] != withoutBlanks(types[i])) {
      return false;
    }
    inputs += isReference(types[i]) ? 0 : 1;
  }
  return inputs == mInArgs.size() && types.size() - inputs == mOutArgs.size();
}

UPnPReturn Action::invoke(const std::vector<std::string>& inputs, std::vector<std::string>& outputs) {
  const std::vector<std::string> types = parameterTypes();
  std::vector<std::string> args;
  args.reserve(types.size());
  size_t nextInput = 0;
  for (const std::string& type : types) {
    if (isReference(type)) {
      args.emplace_back();
    } else if (nextInput < inputs.size()) {
      args.push_back(inputs[nextInput++]);
    } else {
      return detail::invalidArgs();
    }
  }
  if (nextInput != inputs.size()) {
    return detail::invalidArgs();
  }
  UPnPReturn result = call(args);
  outputs.clear();
  for (size_t i = 0; i < types.size(); ++i) {
    if (isReference(types[i])) {
      outputs.push_back(std::move(args[i]));
    }
  }
  return result;
}

namespace detail {

bool ArgType<unsigned>::parse(const std::string& text, unsigned& out) {
  // from_chars takes no sign and no blanks, exactly the ui4 lexical form.
  unsigned value = 0;
  const char* end = text.data() + text.size();
  std::from_chars_result result = std::from_chars(text.data(), end, value, 10);
  if (text.empty() || result.ec != std::errc() || result.ptr != end) {
    return false;
  }
  out = value;
  return true;
}

UPnPReturn invalidArgs() { return UPnPReturn(1, "Invalid Args", 402); }

}  // namespace detail

}  // namespace zuna_upnp
