// SPDX-License-Identifier: MIT

// Stands in for reads that the library is about to get: correct, but slow on large databases.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/store/event_store.h"

namespace runeflow {

struct RecordPreview {
  std::int64_t seq;
  LogRow row;
  std::int64_t messageCharacters;
};
struct SeqBlock {
  std::int64_t first;
  std::int64_t count;
};
struct TimeSpan {
  std::int64_t from;
  std::int64_t until;
  bool operator==(const TimeSpan&) const = default;
};
struct Timeline {
  TimeSpan span;
  using Bar = std::array<std::int64_t, 6>;
  std::vector<Bar> bars;
};
namespace reads {

using Seqs = std::vector<std::int64_t>;

inline Seqs newestMatching(EventStore& store, const LogQuery& query, std::int64_t below,
                           std::int64_t limit) {
  auto seqs = store.matchingSeqs(query, 0);
  seqs.erase(std::ranges::lower_bound(seqs, below), seqs.end());
  const auto excess = std::max<std::int64_t>(0, static_cast<std::int64_t>(seqs.size()) - limit);
  seqs.erase(seqs.begin(), seqs.begin() + excess);
  return seqs;
}
inline Seqs oldestMatching(EventStore& store, const LogQuery& query, std::int64_t after,
                           std::int64_t limit) {
  auto seqs = store.matchingSeqs(query, after);
  if (static_cast<std::int64_t>(seqs.size()) > limit) seqs.resize(static_cast<std::size_t>(limit));
  return seqs;
}
inline std::vector<SeqBlock> countMatchingPerBlock(EventStore& store, const LogQuery& query,
                                                   std::int64_t first, std::int64_t last,
                                                   std::int64_t size) {
  std::vector<SeqBlock> blocks;
  for (const auto seq : store.matchingSeqs(query, first - 1)) {
    if (seq > last) break;
    const auto start = (seq - 1) / size * size + 1;
    if (blocks.empty() || blocks.back().first != start) blocks.push_back({start, 0});
    ++blocks.back().count;
  }
  return blocks;
}
inline std::size_t bytesOf(std::string_view text, std::int64_t characters) {
  std::size_t end = 0;
  while (end < text.size() && characters-- > 0) {
    do ++end;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80);
  }
  return end;
}
inline std::vector<RecordPreview> previews(std::vector<FetchedRow> rows, std::int64_t characters) {
  std::vector<RecordPreview> previews;
  for (auto& [seq, row] : rows) {
    const auto message = row.message();
    const auto length = std::ranges::count_if(
        message, [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
    previews.push_back(
        {seq,
         LogRow(row.timestamp(), row.level(), message.substr(0, bytesOf(message, characters)),
                row.ctx(), row.slots()),
         length});
  }
  return previews;
}
inline std::vector<RecordPreview> fetchPreviews(EventStore& store,
                                                std::span<const std::int64_t> seqs,
                                                std::int64_t characters) {
  return previews(store.fetch(seqs), characters);
}
inline std::vector<RecordPreview> fetchPreviewRange(EventStore& store, std::int64_t first,
                                                    std::int64_t last, std::int64_t characters) {
  return previews(store.fetchRange(first, last), characters);
}
inline std::optional<std::string> messagePiece(EventStore& store, std::int64_t seq,
                                               std::int64_t from, std::int64_t characters) {
  const auto rows = store.fetchRange(seq, seq);
  if (rows.empty()) return std::nullopt;
  const auto message = rows.front().row.message();
  const auto rest = message.substr(bytesOf(message, from));
  return std::string(rest.substr(0, bytesOf(rest, characters)));
}
inline void setCancellation(EventStore&, std::shared_ptr<const std::atomic<bool>>) {}
inline Timeline timeline(EventStore& store, const LogQuery& query, TimeSpan span,
                         std::size_t bars) {
  Timeline line{span, std::vector<Timeline::Bar>(bars)};
  for (const auto& [seq, row] : store.fetch(store.matchingSeqs(query, 0))) {
    const auto time = microsecondsSinceEpoch(row.timestamp()).value_or(0);
    if (time < span.from || time >= span.until) continue;
    const auto bar = static_cast<std::size_t>(static_cast<double>(time - span.from) /
                                              static_cast<double>(span.until - span.from) *
                                              static_cast<double>(bars));
    ++line.bars[std::min(bar, bars - 1)][static_cast<std::size_t>(rawValue(row.level()))];
  }
  return line;
}
inline std::optional<TimeSpan> timeSpan(EventStore& store, std::int64_t first, std::int64_t last) {
  std::optional<TimeSpan> span;
  for (const auto& [seq, row] : store.fetchRange(first, last)) {
    const auto time = microsecondsSinceEpoch(row.timestamp()).value_or(0);
    if (!span) span = {time, time + 1};
    span = {std::min(span->from, time), std::max(span->until, time + 1)};
  }
  return span;
}
inline std::int64_t firstSeqAtOrAfter(EventStore& store, std::int64_t microseconds) {
  const auto seqs =
      store.matchingSeqs({QueryNode::field({StoreColumn::timestamp(), FieldOp::greaterOrEqual,
                                            Bind::int_(microseconds)})},
                         0);
  return seqs.empty() ? 0 : seqs.front();
}
inline std::vector<ValueCount> distinctValuesWithCounts(EventStore& store,
                                                        const StoreColumn& column,
                                                        const std::optional<LogQuery>& matching,
                                                        const std::optional<std::string>& prefix,
                                                        std::int64_t limit) {
  std::vector<ValueCount> counted;
  const bool isLevel = column == StoreColumn::level();
  std::vector<std::string> values;
  if (isLevel) {
    for (char level = '0'; level < '6'; ++level) values.emplace_back(1, level);
  } else {
    values = store.distinctValues(column, matching, prefix, limit);
  }
  for (auto& value : values) {
    const auto bind = isLevel ? Bind::int_(value.front() - '0') : Bind::text(value);
    const auto has = QueryNode::field({column, FieldOp::equals, bind});
    const auto count =
        store.countMatching({matching ? QueryNode::and_({matching->root, has}) : has});
    if (count > 0) counted.push_back({std::move(value), count});
  }
  return counted;
}

}  // namespace reads
}  // namespace runeflow
