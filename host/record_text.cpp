// SPDX-License-Identifier: MIT
#include "host/record_text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <system_error>
#include <utility>
#include <variant>

#include "host/terminal_text.h"

namespace host {
namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

// Returns whole seconds since 1970, rounded down, and the microseconds after them. A time that is
// stored as the nearest count to an instant beyond 64 bits reads back as a double beyond them.
std::pair<std::time_t, std::int64_t> split(runeflow::Timestamp timestamp) {
  constexpr auto kFarthest = std::numeric_limits<std::int64_t>::max();
  const auto nearest = timestamp.time_since_epoch().count() > 0 ? kFarthest : -kFarthest;
  const auto total = runeflow::microsecondsSinceEpoch(timestamp).value_or(nearest);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(std::chrono::microseconds(total));
  return {seconds.count(), total - seconds.count() * kMicrosecondsPerSecond};
}

// The name in the zone database, or else the abbreviation that is in force.
std::string zoneName(const std::tm& now) {
  const char* variable = std::getenv("TZ");  // NOLINT(concurrency-mt-unsafe)
  std::string name = variable ? variable : "";
  if (name.starts_with(':')) name.erase(0, 1);
  std::error_code error;
  if (name.empty() && !variable) {
    name = std::filesystem::read_symlink("/etc/localtime", error).string();
  }
  constexpr std::string_view kFolder = "zoneinfo/";
  if (const auto at = name.find(kFolder); at != std::string::npos)
    name.erase(0, at + kFolder.size());
  const bool isName = name.find('/') != std::string::npos && !name.starts_with('/');
  return isName ? name : now.tm_zone;
}

}  // namespace

std::string localZone() {
  constexpr long kMinute = 60;
  const auto now = fmt::localtime(std::time(nullptr));
  const auto minutes = std::abs(now.tm_gmtoff) / kMinute;
  auto offset = fmt::format("UTC{}{}", now.tm_gmtoff < 0 ? "-" : "+", minutes / 60);
  if (minutes % 60 != 0) offset += fmt::format(":{:02}", minutes % 60);
  const auto name = zoneName(now);
  return name == "UTC" ? name : fmt::format("{} ({})", terminalText(name), offset);
}

std::string_view levelName(runeflow::RuneflowLogLevel level) {
  constexpr std::string_view kNames[] = {"Trace", "Debug", "Info", "Warning", "Error", "Fatal"};
  return kNames[runeflow::rawValue(level)];
}

std::string utcTime(runeflow::Timestamp timestamp) {
  const auto [seconds, fraction] = split(timestamp);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), fraction);
}

std::string localTime(runeflow::Timestamp timestamp, TimeDigits digits) {
  const auto [seconds, fraction] = split(timestamp);
  const auto time = fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(seconds));
  return digits == TimeDigits::milliseconds ? fmt::format("{}.{:03}", time, fraction / 1000)
                                            : fmt::format("{}.{:06}", time, fraction);
}

std::string plainLine(const runeflow::FetchedRow& record,
                      const runeflow::SourceDescriptor& descriptor) {
  std::string line = fmt::format("{}\t{}\t{}", record.seq, utcTime(record.row.timestamp()),
                                 levelName(record.row.level()));
  for (const auto& field : descriptor.fields()) {
    if (const auto* slot = std::get_if<runeflow::StoreColumn::Slot>(&field.column().value())) {
      line += '\t';
      line += terminalField(record.row.slot(slot->index).value_or(std::string_view()));
    }
  }
  line += '\t';
  return line += terminalField(record.row.message());
}

}  // namespace host
