// SPDX-License-Identifier: MIT
#include "timeline_cache.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace viewer {

using runeflow::EventStore;
using runeflow::LogQuery;
using runeflow::RecordPreview;
using runeflow::Timeline;
using runeflow::TimeSpan;

namespace {

constexpr std::int64_t kAtOnce = 5'000;  // records that are held in memory
constexpr std::int64_t kFewRecords = 5'000;
constexpr std::int64_t kTrimmedShare = 50;  // one fiftieth of the records
// Times that are farther from 1970 are not drawn: 50,000 years.
constexpr std::int64_t kFarthest = std::int64_t{1} << 60;

std::size_t barsOf(TimeSpan span, std::int64_t length) {
  return static_cast<std::size_t>((span.until - span.from) / length);
}

// Adds the bars of a shorter axis to those of one that holds it. The lengths are powers of two.
bool moveBars(const Axis& from, const TimelineCache::Bars& bars, const Axis& to,
              TimelineCache::Bars& moved) {
  if (from == to) {
    moved = bars;
    return true;
  }
  if (from.span.from < to.span.from || from.span.until > to.span.until) {
    return false;
  }
  const auto lengthOf = [](const Axis& axis) {
    const auto length = axis.span.until - axis.span.from;
    const auto count = static_cast<std::int64_t>(axis.bars);
    return length % count == 0 ? length / count : 0;  // 0: the bars have different lengths
  };
  const auto oldLength = lengthOf(from);
  const auto newLength = lengthOf(to);
  const bool fits = oldLength > 0 && newLength > 0 && newLength % oldLength == 0 &&
                    (from.span.from - to.span.from) % oldLength == 0;
  if (!fits) return false;
  for (std::size_t i = 0; i < bars.size(); ++i) {
    const auto begin = from.span.from + static_cast<std::int64_t>(i) * oldLength;
    auto& bar = moved[static_cast<std::size_t>((begin - to.span.from) / newLength)];
    for (std::size_t level = 0; level < bar.size(); ++level) bar[level] += bars[i][level];
  }
  return true;
}

// Returns false if the record lies outside the span.
bool add(Timeline& timeline, const RecordPreview& record) {
  const auto time = runeflow::microsecondsSinceEpoch(record.row.timestamp());
  if (!time || *time < timeline.span.from || *time >= timeline.span.until) return false;
  const std::ranges::iota_view numbers(std::size_t{0}, timeline.bars.size());
  const auto next = std::ranges::partition_point(
      numbers, [&](std::size_t bar) { return timeline.boundary(bar) <= *time; });
  const auto level = static_cast<std::size_t>(runeflow::rawValue(record.row.level()));
  ++timeline.bars[static_cast<std::size_t>(next - numbers.begin()) - 1][level];
  return true;
}

// Counts the records after `after` up to `last`. Returns false if one lies outside the axis.
bool addNew(EventStore& store, const LogQuery& query, std::int64_t after, std::int64_t last,
            const Axis& axis, TimelineCache::Bars& bars) {
  Timeline timeline{axis.span, std::move(bars)};
  bool isWhole = true;
  while (after < last) {
    std::vector<RecordPreview> records;
    auto next = std::min(last, after + kAtOnce);
    if (query.isEmpty()) {
      records = store.fetchPreviewRange(after + 1, next, 0);
    } else {
      const auto seqs = store.oldestMatching(query, after, kAtOnce);
      records = store.fetchPreviews(seqs, 0);
      next = static_cast<std::int64_t>(seqs.size()) < kAtOnce ? last : seqs.back();
    }
    for (const auto& record : records) {
      if (record.seq <= last) isWhole = add(timeline, record) && isWhole;
    }
    after = next;
  }
  bars = std::move(timeline.bars);
  return isWhole;
}

}  // namespace

Axis axisOf(TimeSpan span, std::size_t most) {
  span.from = std::clamp(span.from, -kFarthest, kFarthest - 1);
  span.until = std::clamp(span.until, span.from + 1, kFarthest);
  for (std::int64_t length = 1;; length *= 2) {
    const auto down = [length](std::int64_t time) {
      return (time >= 0 ? time : time - (length - 1)) / length * length;
    };
    const TimeSpan wide{down(span.from), down(span.until - 1) + length};
    if (barsOf(wide, length) <= std::max<std::size_t>(most, 2)) return {wide, barsOf(wide, length)};
  }
}

TimelineCache::Bars TimelineCache::count(EventStore& store, const DatabaseState& state,
                                         const std::string& name, const LogQuery& query,
                                         const Axis& axis,
                                         const std::function<void()>& requireComplete) {
  const auto known = find(name);
  Entry entry{name, state.generation, state.firstSeq,   state.lastSeq,
              axis, Bars(axis.bars),  state.isSpanWhole};
  const auto isCurrent = [&] {
    const auto fresh = state.lastSeq - known->lastSeq;
    const auto total = state.lastSeq - state.firstSeq + 1;
    return known->generation == state.generation && fresh >= 0 &&
           fresh <= std::max(kFewRecords, total / 4) &&
           (state.firstSeq - known->firstSeq) * kTrimmedShare <= total;
  };
  const bool isGrown = known && isCurrent() && (known->isWhole || known->axis == axis) &&
                       moveBars(known->axis, known->bars, axis, entry.bars);
  if (isGrown) {
    entry.firstSeq = known->firstSeq;
    entry.isWhole =
        addNew(store, query, known->lastSeq, state.lastSeq, axis, entry.bars) && known->isWhole;
  } else {
    // Records that are stored meanwhile would be counted twice.
    const EventStore::Snapshot moment(store);
    entry.lastSeq = store.maxSeq();
    entry.bars = store.timeline(query, axis.span, axis.bars).bars;
    Bars newest(axis.bars);  // the axis was made without them
    const bool isFitting = addNew(store, query, state.lastSeq, entry.lastSeq, axis, newest);
    entry.isWhole = state.isSpanWhole && isFitting;
    entry.bars.resize(axis.bars);
  }
  requireComplete();
  auto bars = entry.bars;
  keep(std::move(entry));
  return bars;
}

std::optional<TimelineCache::Entry> TimelineCache::find(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find(entries_, name, &Entry::name);
  return found == entries_.end() ? std::nullopt : std::optional(*found);
}

void TimelineCache::keep(Entry entry) {
  const std::lock_guard lock(mutex_);
  entries_.remove_if([&](const Entry& known) { return known.name == entry.name; });
  entries_.push_front(std::move(entry));
  if (entries_.size() > kMostEntries) entries_.pop_back();
}

}  // namespace viewer
