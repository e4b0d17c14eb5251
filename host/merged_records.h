// SPDX-License-Identifier: MIT

// The matches of several databases as one list in the order of time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/record_search.h"
#include "runeflow/store/event_store.h"

namespace host {

// A database, and the search in it. Both must outlive the list.
struct MergeSource {
  runeflow::EventStore* store;
  RecordSearch* search;
  std::string path;  // for failures
};

// A record, and the index of its source.
struct MergedRecord {
  std::size_t source;
  runeflow::FetchedRow record;
};

// Reads the matches of every source in the order of their seqs and takes the one with the earliest
// time next, or from the other end the latest. Records of one source keep their order where its
// clock jumped. At equal times the source that is named first comes first. Reads little more of
// each source than is taken, whatever the number of its matches.
class MergedRecords {
 public:
  enum class Direction { up, down };

  MergedRecords(std::vector<MergeSource> sources, Direction direction);

  // Returns the next record; absent at the end. Fails if a match is missing in its database.
  std::optional<MergedRecord> next();

 private:
  struct Cursor {
    MergeSource source;
    std::int64_t edge;  // the seq behind which the search goes on
    PageSize pageSize = {};
    std::deque<std::int64_t> seqs = {};  // found, and not fetched yet
    std::deque<runeflow::FetchedRow> records = {};
    std::size_t fetched = 1;  // how many records to fetch next
    bool isAtEnd = false;     // the search has no more
  };

  bool fill(Cursor& cursor) const;

  Direction direction_;
  std::vector<Cursor> cursors_;
};

}  // namespace host
