// SPDX-License-Identifier: MIT

// A database of any number of generated records, whose words, tags and levels have known
// frequencies.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/store/event_store.h"

namespace bench {

// Words of the messages and how many records hold them. The rare ones are spread evenly.
//
//     timeout 11 %; surface, surfaceflinger 10 % each (a prefix in 20 %); retried 1 %; stalled 0.1
//     %; rareword 10 records; the tag Component00 10 %, RareTag 20 records; level error and above 2
//     %, fatal 10 records.
//
// Times grow by half a millisecond a record. Each tenth of the records begins 90 s before the end
// of the tenth before, as if a clock had been set back, and one record in 1,000 is an hour late.
inline std::vector<runeflow::LogRow> generatedRows(std::int64_t first, std::int64_t last,
                                                   std::int64_t total) {
  using namespace runeflow;
  constexpr std::string_view kWords[] = {"connect", "wake", "lock", "frame", "window", "disk"};
  std::vector<LogRow> rows;
  rows.reserve(static_cast<std::size_t>(last - first + 1));
  for (auto i = first; i <= last; ++i) {
    std::uint64_t r = static_cast<std::uint64_t>(i) * 0x9e3779b97f4a7c15;
    r = (r ^ (r >> 29)) * 0xbf58476d1ce4e5b9;
    r ^= r >> 32;
    const auto draw = [&r](std::uint64_t sides) {
      const auto value = r % sides;
      r = r / sides * 0x2545f4914f6cdd1d + 0x9e3779b97f4a7c15;
      r ^= r >> 31;
      return value;
    };
    const auto percent = draw(1000);
    const std::string_view kind = percent < 110   ? "timeout"
                                  : percent < 210 ? "surface"
                                  : percent < 310 ? "surfaceflinger"
                                  : percent < 320 ? "retried"
                                  : percent < 321 ? "stalled"
                                                  : "idle";
    const bool isRare = i % (total / 10) == total / 20;
    const auto message = fmt::format("{} {} request {} from uid {} took {} ms {}", kind,
                                     kWords[draw(6)], draw(100'000), 10'000 + draw(200), draw(900),
                                     isRare ? "rareword" : "and went on with it");
    const auto tag =
        draw(10) == 0 ? std::string("Component00") : fmt::format("Component{:02}", 1 + draw(39));
    const auto pid = std::to_string(1'000 + draw(50));
    const auto tid = std::to_string(1'000 + draw(500));
    const auto severity = draw(100);
    const auto level = isRare          ? RuneflowLogLevel::Fatal
                       : severity < 2  ? RuneflowLogLevel::Error
                       : severity < 7  ? RuneflowLogLevel::Warning
                       : severity < 50 ? RuneflowLogLevel::Info
                                       : RuneflowLogLevel::Debug;
    const double tenth = static_cast<double>(i / (total / 10));
    const double late = draw(1'000) == 0 ? 3'600 : 0;
    const double seconds = 1.7e9 + static_cast<double>(i) * 0.0005 - tenth * 90 - late;
    rows.emplace_back(
        Timestamp(std::chrono::duration<double>(seconds)), level, message, std::nullopt,
        LogRow::Slots{i % (total / 20) == 7 ? std::string_view("RareTag") : tag, pid, tid});
  }
  return rows;
}

// Creates the database at `path` with `total` records.
inline void generateStore(const std::string& path, std::int64_t total) {
  auto store = *runeflow::EventStore::open(path, true, runeflow::SourceDescriptor::logcat());
  constexpr std::int64_t kBatch = 10'240;
  for (std::int64_t first = 1; first <= total; first += kBatch) {
    store.insert(generatedRows(first, std::min(total, first + kBatch - 1), total));
  }
}

}  // namespace bench
