// chd-cp: a command-line control point for the ManageableDevice of CHD client
// boxes, for the engineers of the server box.
#include <cstdio>
#include <exception>

#include "Actions.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Discovery.h"
#include "Failure.h"

namespace {

void runOnBox(chdcp::Discovery& discovery, const chdcp::CommandLine& line) {
  const chdcp::Box box = discovery.find(line.box, line.timeout);
  chdcp::Actions actions(box, line.timeout);
  if (line.command == "info") {
    chdcp::infoCommand(box, actions, line);
  } else if (line.command == "get") {
    chdcp::getCommand(actions, line);
  } else if (line.command == "params") {
    chdcp::paramsCommand(actions, line);
  } else if (line.command == "attrs") {
    chdcp::attrsCommand(actions, line);
  } else if (line.command == "set") {
    chdcp::setCommand(actions, line);
  } else if (line.command == "watch") {
    chdcp::watchCommand(discovery, box, actions, line);
  } else if (line.command == "logs") {
    chdcp::logsCommand(box, actions, line);
  } else if (line.command == "blob") {
    chdcp::blobCommand(box, actions, line);
  }
}

int run(int argc, char** argv) {
  const chdcp::CommandLine line = chdcp::parseCommandLine(argc, argv);
  if (line.help) {
    fputs(chdcp::usageText().c_str(), stdout);
    return chdcp::kExitOk;
  }
  chdcp::Discovery discovery(line.interfaceName);
  if (line.command == "discover") {
    chdcp::discoverCommand(discovery, line);
  } else {
    runOnBox(discovery, line);
  }
  return chdcp::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const chdcp::Failure& failure) {
    fprintf(stderr, "chd-cp: %s\n", failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    fprintf(stderr, "chd-cp: the box's answer cannot be read: %s\n", error.what());
    return chdcp::kExitBoxError;
  }
}
