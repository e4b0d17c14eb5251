// SPDX-License-Identifier: MIT
#include "host/merged_records.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "host/database.h"

namespace host {
namespace {

constexpr std::size_t kMostFetched = 100;  // records of a source at once; they may be large

}  // namespace

MergedRecords::MergedRecords(std::vector<MergeSource> sources, Direction direction)
    : direction_(direction) {
  const auto edge = direction == Direction::up ? 0 : std::numeric_limits<std::int64_t>::max();
  for (auto& source : sources) cursors_.push_back({.source = std::move(source), .edge = edge});
}

std::optional<MergedRecord> MergedRecords::next() {
  Cursor* best = nullptr;
  for (auto& cursor : cursors_) {
    if (!fill(cursor)) continue;
    const auto time = cursor.records.front().row.timestamp();
    if (!best || (direction_ == Direction::up ? time < best->records.front().row.timestamp()
                                              : time >= best->records.front().row.timestamp())) {
      best = &cursor;
    }
  }
  if (!best) return std::nullopt;
  MergedRecord result{static_cast<std::size_t>(best - cursors_.data()),
                      std::move(best->records.front())};
  best->records.pop_front();
  return result;
}

// Makes the next record of the source the front of its records. Returns false if there is none.
bool MergedRecords::fill(Cursor& cursor) const {
  auto& [source, edge, pageSize, seqs, records, fetched, isAtEnd] = cursor;
  while (records.empty()) {
    if (seqs.empty()) {
      if (isAtEnd) return false;
      const auto limit = pageSize.next();
      auto page = direction_ == Direction::up ? source.search->oldest(edge, limit)
                                              : source.search->newest(edge, limit);
      isAtEnd = std::ssize(page) < limit;
      if (page.empty()) return false;
      if (direction_ == Direction::down) std::ranges::reverse(page);
      edge = page.back();
      seqs.assign(page.begin(), page.end());
    }
    std::vector<std::int64_t> wanted;
    for (; !seqs.empty() && wanted.size() < fetched; seqs.pop_front()) {
      wanted.push_back(seqs.front());
    }
    fetched = std::min(fetched * 4, kMostFetched);
    std::ranges::sort(wanted);
    auto rows = source.store->fetch(wanted);
    failIfMissing(*source.store, source.search->query(), wanted, rows, source.path);
    if (direction_ == Direction::down) std::ranges::reverse(rows);
    std::ranges::move(rows, std::back_inserter(records));
  }
  return true;
}

}  // namespace host
