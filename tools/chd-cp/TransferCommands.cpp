// watch, logs and blob: the commands that wait for events or move files.
#include <glib-unix.h>
#include <glib/gstdio.h>

#include <string>
#include <vector>

#include "BlobSummary.h"
#include "Commands.h"
#include "Download.h"
#include "Events.h"
#include "Failure.h"
#include "LogUris.h"
#include "MainLoop.h"
#include "Output.h"

namespace chdcp {
namespace {

constexpr double kForever = 1e9;

gboolean onStopSignal(gpointer stopped) {
  *static_cast<bool*>(stopped) = true;
  return G_SOURCE_CONTINUE;
}

void printEvent(const Event& event, bool json) {
  if (json) {
    Json::Value value;
    value["time"] = event.time;
    value["service"] = serviceName(event.service);
    value["variable"] = event.variable;
    value["value"] = event.value;
    printJsonLine(value);
  } else {
    printLine(event.time + " " + serviceName(event.service) + " " + event.variable + " = " + event.value);
  }
}

bool isTrue(const std::string& value) { return value == "1" || value == "true" || value == "yes"; }

std::vector<std::string> chosenEntries(const std::vector<std::string>& entries, const std::vector<std::string>& names) {
  if (names.empty()) {
    std::vector<std::string> paths;
    for (const std::string& entry : entries) {
      if (entry[0] == '/') {
        paths.push_back(entry);
      }
    }
    return paths;
  }
  std::vector<std::string> chosen;
  for (const std::string& name : names) {
    std::string match;
    for (const std::string& entry : entries) {
      if (entry == name || logName(entry) == name) {
        match = entry;
      }
    }
    if (match.empty()) {
      throw Failure(kExitBoxError, "the box lists no log named '" + name + "'");
    }
    chosen.push_back(match);
  }
  return chosen;
}

}  // namespace

void watchCommand(const Discovery& discovery, const Box& box, Actions& actions, const CommandLine& line) {
  bool stopped = false;
  const guint term = g_unix_signal_add(SIGTERM, onStopSignal, &stopped);
  const guint interrupt = g_unix_signal_add(SIGINT, onStopSignal, &stopped);
  try {
    EventWatch watch(actions, line.timeout, [&line](const Event& event) { printEvent(event, line.json); });
    watch.subscribe(Service::kBasicManagement);
    watch.subscribe(Service::kConfigurationManagement);
    const double end = monotonicSeconds() + (line.forSeconds > 0 ? line.forSeconds : kForever);
    runUntil(
        [&] {
          watch.checkSubscriptions();
          if (!discovery.present(box.udn)) {
            throw Failure(kExitNoBox, "box " + box.udn + " went away");
          }
          return stopped || monotonicSeconds() >= end;
        },
        kForever);
  } catch (...) {
    g_source_remove(term);
    g_source_remove(interrupt);
    throw;
  }
  g_source_remove(term);
  g_source_remove(interrupt);
}

void logsCommand(const Box& box, Actions& actions, const CommandLine& line) {
  const std::vector<std::string> entries =
      chosenEntries(splitLogUris(actions.get(Service::kBasicManagement, "GetLogURIs", "LogURIs")), line.args);
  if (g_mkdir_with_parents(line.outputDirectory.c_str(), 0755) != 0) {
    throw Failure(kExitUsage, "cannot create " + line.outputDirectory);
  }
  Downloader downloader(line.timeout);
  Json::Value list(Json::arrayValue);
  for (const std::string& entry : entries) {
    const std::string name = logName(entry);
    gchar* file = g_build_filename(line.outputDirectory.c_str(), name.c_str(), nullptr);
    const std::string path = file;
    g_free(file);
    const Downloaded got = downloader.toFile(logUrl(box.baseUrl, entry), path, name);
    if (line.json) {
      Json::Value item;
      item["entry"] = entry;
      item["file"] = path;
      item["bytes"] = Json::UInt64(got.bytes);
      list.append(item);
    } else {
      std::string text = entry;
      text += " -> " + path;
      text += " (" + std::to_string(got.bytes) + " bytes)";
      printLine(text);
    }
  }
  if (line.json) {
    printJson(list);
  }
}

void blobCommand(const Box& box, Actions& actions, const CommandLine& line) {
  EventWatch watch(actions, line.timeout, nullptr);
  watch.subscribe(Service::kBasicManagement);
  const size_t before = watch.events().size();
  actions.call(Service::kConfigurationManagement, "GenCHDData", {}, {});
  const bool pulsed = runUntil(
      [&] {
        watch.checkSubscriptions();
        for (size_t i = before; i < watch.events().size(); ++i) {
          const Event& event = watch.events()[i];
          if (event.variable == "ChdBlobUpdated" && isTrue(event.value)) {
            return true;
          }
        }
        return false;
      },
      line.timeout);
  if (!pulsed) {
    throw Failure(kExitBoxError, "no ChdBlobUpdated event within " + std::to_string(int(line.timeout)) +
                                     " s after GenCHDData (does the box deliver its blobs?)");
  }
  const std::string entry = blobEntry(splitLogUris(actions.get(Service::kBasicManagement, "GetLogURIs", "LogURIs")));
  if (entry.empty()) {
    throw Failure(kExitBoxError, "the box pulsed ChdBlobUpdated but lists no blob in LogURIs");
  }
  const Json::Value blob = parseBlob(Downloader(line.timeout).toText(logUrl(box.baseUrl, entry)));
  if (line.json) {
    printJson(blob);
    return;
  }
  printLine("Blob: " + entry);
  for (const std::string& text : summariseBlob(blob)) {
    printLine(text);
  }
}

}  // namespace chdcp
