// SPDX-License-Identifier: MIT
#include "host/record_search.h"

#include <algorithm>
#include <span>

namespace host {

using runeflow::FetchedRow;
using runeflow::Timeline;
using runeflow::TimeSpan;

namespace {

constexpr std::size_t kFetchedRecords = 100;  // at once; a record may be large
constexpr std::int64_t kBlock = std::int64_t{1} << 40;

// Returns the bar of the timeline that holds the time, which must lie in its span.
std::size_t barOf(const Timeline& timeline, std::int64_t time) {
  std::size_t first = 0;
  std::size_t last = timeline.bars.size();
  while (last - first > 1) {
    const auto middle = first + (last - first) / 2;
    (timeline.boundary(middle) <= time ? first : last) = middle;
  }
  return first;
}

// Returns the last seqs of `rest` if `isDown` is true, otherwise the first, and removes them.
std::span<const std::int64_t> take(std::span<const std::int64_t>& rest, bool isDown) {
  const auto count = std::min(rest.size(), kFetchedRecords);
  const auto taken = isDown ? rest.last(count) : rest.first(count);
  rest = isDown ? rest.first(rest.size() - count) : rest.subspan(count);
  return taken;
}

}  // namespace

std::vector<std::int64_t> RecordSearch::newest(std::int64_t below, std::int64_t limit) {
  if (!filter_) return store_.newestMatching(query_, below, limit);
  std::vector<std::int64_t> found;
  if (limit <= 0) return found;
  visitDown(below, [&](const FetchedRow& record) {
    found.push_back(record.seq);
    return std::ssize(found) < limit;
  });
  std::ranges::reverse(found);
  return found;
}

std::vector<std::int64_t> RecordSearch::oldest(std::int64_t after, std::int64_t limit) {
  if (!filter_) return store_.oldestMatching(query_, after, limit);
  std::vector<std::int64_t> found;
  if (limit <= 0) return found;
  visitUp(after, [&](const FetchedRow& record) {
    found.push_back(record.seq);
    return std::ssize(found) < limit;
  });
  return found;
}

std::int64_t RecordSearch::count(std::int64_t after) {
  std::int64_t count = 0;
  if (filter_) {
    visitUp(after, [&](const FetchedRow&) { return ++count > 0; });
  } else if (after <= 0) {
    count = store_.countMatching(query_);
  } else {
    const auto last = store_.maxSeq();
    if (after >= last) return 0;
    for (const auto& block : store_.countMatchingPerBlock(query_, after + 1, last, kBlock)) {
      count += block.count;
    }
  }
  return count;
}

Timeline RecordSearch::timeline(TimeSpan span, std::size_t bars) {
  if (!filter_) return store_.timeline(query_, span, bars);
  Timeline timeline{span, std::vector<Timeline::Bar>(bars)};
  visitUp(0, [&](const FetchedRow& record) {
    const auto time = runeflow::microsecondsSinceEpoch(record.row.timestamp());
    if (time && *time >= span.from && *time < span.until) {
      const auto level = static_cast<std::size_t>(runeflow::rawValue(record.row.level()));
      ++timeline.bars[barOf(timeline, *time)][level];
    }
    return true;
  });
  return timeline;
}

void RecordSearch::visitUp(std::int64_t after, const Visit& visit) {
  PageSize size;
  for (;;) {
    const auto limit = size.next();
    const auto page = store_.oldestMatching(query_, after, limit);
    if (!visitKept(page, false, visit) || std::ssize(page) < limit) return;
    after = page.back();
  }
}

void RecordSearch::visitDown(std::int64_t below, const Visit& visit) {
  PageSize size;
  for (;;) {
    const auto limit = size.next();
    const auto page = store_.newestMatching(query_, below, limit);
    if (!visitKept(page, true, visit) || std::ssize(page) < limit) return;
    below = page.front();
  }
}

bool RecordSearch::visitKept(std::span<const std::int64_t> seqs, bool isDown, const Visit& visit) {
  while (!seqs.empty()) {
    auto records = store_.fetch(take(seqs, isDown));
    if (isDown) std::ranges::reverse(records);
    for (const auto& record : records) {
      if (filter_->matches(record.row.message()) && !visit(record)) return false;
    }
  }
  return true;
}

}  // namespace host
