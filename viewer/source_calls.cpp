// SPDX-License-Identifier: MIT

// The calls about sources, databases and captures.
#include "source_calls.h"

#include <fmt/format.h>

#include <cmath>
#include <filesystem>
#include <utility>

#include "api.h"
#include "aside.h"
#include "host/capture.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/terminal_text.h"
#include "runeflow/devices/device_catalog.h"
#include "runeflow/transports/adb_transport.h"

namespace viewer {

using host::terminalText;
using runeflow::SourceRef;
namespace ADBTransport = runeflow::ADBTransport;
namespace DeviceCatalog = runeflow::DeviceCatalog;

namespace {

constexpr std::size_t kLongestText = 300;  // bytes of a host or a serial

std::string_view kindOf(SourceRef::Kind kind) {
  switch (kind) {
    case SourceRef::Kind::mac:
      return "this-machine";
    case SourceRef::Kind::simulator:
      return "simulator";
    case SourceRef::Kind::device:
      return "apple-device";
  }
  return {};
}

void add(Json& sources, const std::vector<SourceRef>& found) {
  for (const auto& ref : found) {
    sources.push_back({{"kind", kindOf(ref.kind)},
                       {"name", terminalText(ref.name)},
                       {"detail", terminalText(ref.model.value_or(ref.osVersion))},
                       {"canCapture", false}});
  }
}

void addAndroid(Json& sources, Json& errors) {
  const auto devices =
      ADBTransport::devices(std::string(ADBTransport::defaultHost), ADBTransport::defaultPort);
  if (!devices) {
    errors.push_back(
        terminalText(fmt::format("no Android devices: {}", devices.error().message())));
    return;
  }
  for (const auto& device : *devices) {
    sources.push_back({{"kind", "adb"},
                       {"name", terminalText(device.displayName())},
                       {"detail", terminalText(device.state)},
                       {"serial", device.serial},
                       {"canCapture", device.isReady()}});
  }
}

Json listSources() {
  auto sources = Json::array();
  auto errors = Json::array();
  add(sources, {SourceRef::thisMac()});
  auto hasSimulators = DeviceCatalog::toolExists("simctl");
  auto hasDevices = DeviceCatalog::toolExists("devicectl");
  const bool listsSimulators = hasSimulators.get();
  const bool listsDevices = hasDevices.get();
  if (!listsSimulators && !listsDevices) {
    errors.push_back(
        "no Apple simulators or devices: the developer tools for them (xcrun) are not installed");
  }
  auto simulators = DeviceCatalog::discoverSimulators(listsSimulators);
  auto devices = DeviceCatalog::discoverDevices(listsDevices);
  add(sources, simulators.get());
  add(sources, devices.get());
  addAndroid(sources, errors);
  return {{"sources", std::move(sources)}, {"errors", std::move(errors)}};
}

// A member of the body that is a text. Refuses other types and long texts.
std::string textOf(const Json& body, const char* name) {
  const auto found = body.find(name);
  if (found == body.end() || found->is_null()) return {};
  if (!found->is_string() || found->get_ref<const std::string&>().size() > kLongestText) {
    throw Refusal(400, fmt::format("{} must be a text of at most {} bytes", name, kLongestText));
  }
  auto text = found->get<std::string>();
  if (text.find('\0') != std::string::npos) throw Refusal(400, fmt::format("{} holds a NUL", name));
  return text;
}

// The member maxBytes: 0 is no cap.
std::int64_t capOf(const Json& body) {
  const auto found = body.find("maxBytes");
  if (found == body.end() || found->is_null()) return 0;
  const auto bytes = found->is_number_integer() ? found->get<std::int64_t>() : -1;
  if (bytes != 0 && bytes < host::smallestCap) {
    throw Refusal(400, fmt::format("a size cap is at least {} bytes, or 0 for none; a smaller "
                                   "database would hold little but its indexes",
                                   host::smallestCap));
  }
  return bytes;
}

template <class Result>
Result waitedFor(const Call& call, runeflow::UniqueFunction<Result()> work) {
  auto result = aside<Result>(call.cancellation(), std::move(work));
  if (!result) throw Refusal(409, "the question was cancelled", {{"cancelled", true}});
  return std::move(*result);
}

HttpAnswer sources(const Call& call) {
  return jsonAnswer(waitedFor<Json>(call, listSources));
}

host::Stream connected(const Call& call, const Json& body) {
  const auto source = textOf(body, "source");
  const auto server = textOf(body, "host");
  const auto serial = textOf(body, "serial");
  if (source == "dlt") {
    return waitedFor<host::Stream>(call, [server] { return host::connectToDlt(server); });
  }
  if (source == "adb") {
    return waitedFor<host::Stream>(
        call, [=] { return host::connectToAdb(server, serial, host::kLogcatCommand); });
  }
  throw Refusal(400, "source must be adb or dlt");
}

std::int64_t idOf(const Call& call) {
  const std::string_view path = call.request().path;
  constexpr std::string_view kBefore = "/captures/";
  const auto digits = path.substr(path.find(kBefore) + kBefore.size());
  std::int64_t id = 0;
  for (std::size_t i = 0; i < digits.size() && digits[i] != '/' && i < 15; ++i) {
    id = id * 10 + (digits[i] - '0');
  }
  return id;
}

}  // namespace

Json capturesJson(const std::vector<CaptureState>& states) {
  auto list = Json::array();
  for (const auto& state : states) {
    list.push_back(
        {{"id", state.id},
         {"source", terminalText(state.source)},
         {"database", terminalText(std::filesystem::path(state.database).filename().string())},
         {"running", state.isRunning},
         {"records", state.records},
         {"rate", std::round(state.rate)},
         {"usedBytes", state.usedBytes},
         {"lost", state.lost},
         {"error", state.error.empty() ? Json(nullptr) : Json(terminalText(state.error))},
         {"maxBytes", state.maxBytes == 0 ? Json(nullptr) : Json(state.maxBytes)}});
  }
  return list;
}

std::vector<Route> SourceCalls::routes() {
  return {{"GET", "sources", Lane::outside, sources},
          {"GET", "databases", Lane::quick, [this](const Call& call) { return databases(call); }},
          {"POST", "open", Lane::outside, [this](const Call& call) { return open(call); }},
          {"GET", "captures", Lane::quick, [this](const Call&) { return list(); }},
          {"POST", "captures", Lane::outside, [this](const Call& call) { return start(call); }},
          {"POST", "captures/#/end", Lane::quick, [this](const Call& call) { return end(call); }},
          {"POST", "captures/#/cap", Lane::quick, [this](const Call& call) { return cap(call); }},
          {"POST", "clear", Lane::outside, [this](const Call& call) { return clear(call); }}};
}

HttpAnswer SourceCalls::databases(const Call& call) {
  auto list = Json::array();
  for (const auto& [name, bytes] : folder_.databases()) {
    std::error_code error;
    const bool isOpen = call.state().kind && std::filesystem::equivalent(folder_.existing(name),
                                                                         call.state().path, error);
    list.push_back({{"name", name}, {"bytes", bytes}, {"open", isOpen}});
  }
  return jsonAnswer({{"databases", std::move(list)}});
}

HttpAnswer SourceCalls::open(const Call& call) {
  database_.open(folder_.existing(textOf(call.body(), "database")), "");
  return jsonAnswer({{"generation", database_.state().generation}});
}

// The path of the opened database if the body names it. Absent if it names another one.
std::optional<std::string> SourceCalls::openedPath(const std::string& name) const {
  const auto state = database_.state();
  if (state.kind && state.error.empty() && terminalText(state.name()) == name) return state.path;
  return std::nullopt;
}

HttpAnswer SourceCalls::start(const Call& call) {
  const auto body = call.body();
  const auto name = textOf(body, "database");
  const auto maxBytes = capOf(body);
  if (!openedPath(name)) folder_.requireNew(name);  // before somebody waits for a connection
  auto stream = connected(call, body);
  const auto opened = openedPath(name);
  const auto path = opened ? *opened : folder_.make(name);
  std::int64_t id = 0;
  try {
    id = captures_.start(std::move(stream), path, maxBytes);
  } catch (...) {
    std::error_code ignored;
    if (!opened) std::filesystem::remove(path, ignored);
    throw;
  }
  if (!opened) database_.open(path, "");
  return jsonAnswer({{"id", id}, {"generation", database_.state().generation}});
}

HttpAnswer SourceCalls::list() {
  return jsonAnswer({{"captures", capturesJson(captures_.states())}});
}

HttpAnswer SourceCalls::end(const Call& call) {
  if (!captures_.end(idOf(call))) throw Refusal(404, "there is no such capture");
  return jsonAnswer(Json::object());
}

HttpAnswer SourceCalls::cap(const Call& call) {
  const auto maxBytes = capOf(call.body());
  if (!captures_.setMaxBytes(idOf(call), maxBytes)) throw Refusal(404, "there is no such capture");
  return jsonAnswer(Json::object());
}

HttpAnswer SourceCalls::clear(const Call& call) {
  const auto body = call.body();
  const auto sure = body.find("sure");
  if (sure == body.end() || *sure != true) throw Refusal(400, "clearing needs sure: true");
  const auto path = openedPath(textOf(body, "database"));
  if (!path) throw Refusal(400, "only the database that is open can be cleared");
  auto store = host::openForWriting(*path);
  const auto count = store.count();
  store.clear();
  host::failIfIncomplete(store, *path);
  return jsonAnswer({{"deleted", count}});
}

}  // namespace viewer
