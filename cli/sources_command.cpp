// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "host/terminal_text.h"
#include "json_line.h"
#include "output.h"
#include "runeflow/devices/device_catalog.h"
#include "runeflow/transports/adb_transport.h"
#include "terminal.h"

namespace cli {

using runeflow::SourceRef;
namespace ADBTransport = runeflow::ADBTransport;
namespace DeviceCatalog = runeflow::DeviceCatalog;

namespace {

struct Source {
  std::string kind;
  std::string id;
  std::string name;
  std::optional<std::string> os;
  std::optional<std::string> model;
  bool streamable;
};

std::string kindName(SourceRef::Kind kind) {
  switch (kind) {
    case SourceRef::Kind::mac:
      return "machine";
    case SourceRef::Kind::simulator:
      return "simulator";
    case SourceRef::Kind::device:
      return "device";
  }
  return {};
}

void add(std::vector<Source>& sources, const std::vector<SourceRef>& found) {
  for (const auto& ref : found) {
    sources.push_back(
        {kindName(ref.kind), ref.id, ref.name, ref.osVersion, ref.model, ref.streamable});
  }
}

// Returns the name of this system as it calls itself, such as "Debian GNU/Linux 12 (bookworm)".
std::string systemName(const utsname& system) {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  std::ifstream release("/etc/os-release");
  for (std::string line; std::getline(release, line);) {
    if (!line.starts_with(kKey)) continue;
    line.erase(0, kKey.size());
    std::erase_if(line, [](char c) { return c == '"' || c == '\''; });
    return line;
  }
  return fmt::format("{} {}", system.sysname, system.release);
}

// The machine that this runs on. Only a Mac has a log that can be captured.
void addMachine(std::vector<Source>& sources) {
  utsname system{};
  if (::uname(&system) != 0 || system.sysname == std::string_view("Darwin")) {
    return add(sources, {SourceRef::thisMac()});
  }
  sources.push_back(
      {"machine", "machine", system.nodename, systemName(system), system.machine, false});
}

void addApple(std::vector<Source>& sources) {
  auto hasSimulators = DeviceCatalog::toolExists("simctl");
  auto hasDevices = DeviceCatalog::toolExists("devicectl");
  const bool listsSimulators = hasSimulators.get();
  const bool listsDevices = hasDevices.get();
  if (!listsSimulators || !listsDevices) {
    const auto* missing = listsSimulators ? "devices"
                          : listsDevices  ? "simulators"
                                          : "simulators or devices";
    say("no Apple {}: the developer tools for them (xcrun) are not installed", missing);
  }
  auto simulators = DeviceCatalog::discoverSimulators(listsSimulators);
  auto devices = DeviceCatalog::discoverDevices(listsDevices);
  add(sources, simulators.get());
  add(sources, devices.get());
}

void addAndroid(std::vector<Source>& sources) {
  const auto devices =
      ADBTransport::devices(std::string(ADBTransport::defaultHost), ADBTransport::defaultPort);
  if (!devices) {
    say("no Android devices: {}", devices.error().message());
    return;
  }
  for (const auto& device : *devices) {
    sources.push_back({device.isEmulator() ? "emulator" : "android", device.serial,
                       device.displayName(), std::nullopt, device.model, device.isReady()});
  }
}

void printJson(const Source& source) {
  const auto text = [](const std::optional<std::string>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
  };
  const nlohmann::ordered_json object = {
      {"kind", source.kind},         {"id", source.id},
      {"name", source.name},         {"os", text(source.os)},
      {"model", text(source.model)}, {"streamable", source.streamable}};
  fmt::print("{}\n", jsonLine(object, isTerminal(stdout)));
}

void printTable(const std::vector<Source>& sources) {
  std::size_t nameWidth = 4;
  std::size_t osWidth = 2;
  for (const auto& source : sources) {
    nameWidth = std::max(nameWidth, columnsOf(host::terminalText(source.name)));
    osWidth = std::max(osWidth, columnsOf(host::terminalText(source.os.value_or(""))));
  }
  const auto line = [&](std::string_view kind, const std::string& name, const std::string& os,
                        std::string_view logs, const std::string& id) {
    printLine("{:<10} {}  {}  {:<4}  {}", kind, fitted(host::terminalText(name), nameWidth),
              fitted(host::terminalText(os), osWidth), logs, id);
  };
  line("KIND", "NAME", "OS", "LOGS", "ID");
  for (const auto& source : sources) {
    line(source.kind, source.name, source.os.value_or(""), source.streamable ? "yes" : "no",
         source.id);
  }
}

}  // namespace

int sources(const SourcesOptions& options) {
  std::vector<Source> sources;
  addMachine(sources);
  addApple(sources);
  addAndroid(sources);
  if (options.isJson) {
    for (const auto& source : sources) printJson(source);
  } else {
    printTable(sources);
  }
  return 0;
}

}  // namespace cli
