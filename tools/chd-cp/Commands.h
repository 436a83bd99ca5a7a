// The subcommands. Each prints its result on stdout and throws a Failure on
// error.
#pragma once

#include "Actions.h"
#include "CommandLine.h"
#include "Discovery.h"

namespace chdcp {

void discoverCommand(Discovery& discovery, const CommandLine& line);
void infoCommand(const Box& box, Actions& actions, const CommandLine& line);
void getCommand(Actions& actions, const CommandLine& line);
void paramsCommand(Actions& actions, const CommandLine& line);
void attrsCommand(Actions& actions, const CommandLine& line);
void setCommand(Actions& actions, const CommandLine& line);

void watchCommand(const Discovery& discovery, const Box& box, Actions& actions, const CommandLine& line);
void logsCommand(const Box& box, Actions& actions, const CommandLine& line);
void blobCommand(const Box& box, Actions& actions, const CommandLine& line);

}  // namespace chdcp
