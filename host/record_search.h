// SPDX-License-Identifier: MIT

// The records that a query finds and a regular expression keeps, a page at a time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "host/message_filter.h"
#include "runeflow/store/event_store.h"

namespace host {

// The numbers of matches to ask for, page after page. The first page is small, so that the first
// matches come soon; the later ones are large, so that a long answer takes few reads.
class PageSize {
 public:
  PageSize() = default;
  explicit PageSize(std::int64_t first) : size_(first) {}

  std::int64_t next() { return std::exchange(size_, std::min(size_ * 4, kLargest)); }

 private:
  static constexpr std::int64_t kLargest = 1'024'000;  // 8 MB of seqs
  std::int64_t size_ = 250;
};

// Reads matches from both ends, counts them and divides them by time. Without a filter, every
// function is one read of the store. With a filter, the matches of the query are fetched in pages
// and their messages are matched, so that memory does not grow with their number.
//
// The store must outlive the search. Failures are reported as by EventStore: a result is then what
// was found before, and EventStore::takeError() tells.
class RecordSearch {
 public:
  RecordSearch(runeflow::EventStore& store, runeflow::LogQuery query,
               std::optional<MessageFilter> filter)
      : store_(store), query_(std::move(query)), filter_(std::move(filter)) {}

  const runeflow::LogQuery& query() const { return query_; }

  // Returns the seqs of the newest `limit` matches below the seq `below`, in ascending order.
  std::vector<std::int64_t> newest(std::int64_t below, std::int64_t limit);

  // Returns the seqs of the oldest `limit` matches above the seq `after`, in ascending order.
  std::vector<std::int64_t> oldest(std::int64_t after, std::int64_t limit);

  // Returns the number of matches above the seq `after`.
  std::int64_t count(std::int64_t after);

  // Returns the matches by time and level; see EventStore::timeline().
  runeflow::Timeline timeline(runeflow::TimeSpan span, std::size_t bars);

 private:
  // Returns false to end the search.
  using Visit = std::function<bool(const runeflow::FetchedRow&)>;

  // Call `visit` for the matches above `after` in ascending order, and for those below `below` in
  // descending order.
  void visitUp(std::int64_t after, const Visit& visit);
  void visitDown(std::int64_t below, const Visit& visit);

  // Calls `visit` for the records of `seqs` that the filter keeps. Returns false if it ended the
  // search.
  bool visitKept(std::span<const std::int64_t> seqs, bool isDown, const Visit& visit);

  runeflow::EventStore& store_;
  runeflow::LogQuery query_;
  std::optional<MessageFilter> filter_;
};

}  // namespace host
