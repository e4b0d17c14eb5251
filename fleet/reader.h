// SPDX-License-Identifier: MIT

// Reads the table of a fleet, as EventStore reads a local database.
//
// Records are in the order of their times; records of the same time are in the order of capture,
// generation and seq. Memory and the cost of a page depend on what is shown: the records are read
// in spans of hours, the first column of the table's sorting key.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fleet/clause.h"
#include "fleet/engine.h"
#include "fleet/table.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/word_tokenizer.h"

namespace fleet {

// A generation of a capture, as `info` describes it.
struct CaptureSummary {
  std::string capture;
  std::uint32_t generation;
  std::string kind;
  std::int64_t records;
  std::int64_t firstSeq;
  std::int64_t lastSeq;
  std::int64_t firstTime;  // microseconds
  std::int64_t lastTime;
};

// Answers questions about the records of one table. One thread at a time may use an object.
class Reader {
 public:
  // Returns false to end the reading.
  using OnRecord = std::function<bool(const Record&)>;

  // The engine must outlive the reader.
  explicit Reader(Engine& engine);

  // Returns the condition of a question, which the functions below take.
  std::string condition(const Question& question) const;

  std::int64_t count(const std::string& condition);

  // Returns the latest time of all records, in microseconds. Absent if there is no record.
  std::optional<std::int64_t> newestTime();

  // Passes on all matches, in order.
  void forEach(const std::string& condition, const OnRecord& onRecord);

  // Passes on the newest `records` matches, the oldest of them first.
  void forNewest(const std::string& condition, std::int64_t records, const OnRecord& onRecord);

  // Returns the most frequent values of a column, as EventStore::distinctValuesWithCounts(). The
  // column is a name of slotFields(), "capture", "kind" or "level".
  std::vector<runeflow::ValueCount> values(const std::string& condition, const std::string& column,
                                           const std::string& prefix, std::int64_t limit);

  // Returns the generations of all captures in the order of their names, at most `limit`.
  std::vector<CaptureSummary> captures(std::int64_t limit);

 private:
  friend class Follower;

  std::string select(const std::string& what, const std::string& condition,
                     const std::string& rest) const;
  // Returns the key of the record with which the newest `records` begin; absent without a match.
  std::optional<RecordKey> keyOfNewest(const std::string& condition, std::int64_t records);
  // Passes on a part that is small enough to be sorted at once. Returns false if onRecord has.
  bool forPart(const std::string& condition, const OnRecord& onRecord);

  Engine& engine_;
  runeflow::WordTokenizer tokenizer_;
};

// Finds the records that arrive, in whatever order the captures ship them and however old they are.
class Follower {
 public:
  // Records that are in the table already are not passed on.
  explicit Follower(Reader& reader);

  // Passes on the matches that have arrived since the last call.
  void poll(const std::string& condition, const Reader::OnRecord& onRecord);

  // Whether the record has arrived since the last call of poll(), which will pass it on.
  bool willPass(const Record& record) const;

 private:
  using Capture = std::pair<std::string, std::uint32_t>;  // with its generation
  struct Span {
    std::int64_t smallest;
    std::int64_t largest;
  };
  std::map<Capture, Span> spansOf(const std::string& recent);

  Reader& reader_;
  std::chrono::steady_clock::time_point polled_ = std::chrono::steady_clock::now();
  std::map<Capture, std::int64_t> seen_;  // the largest seq of each
};

}  // namespace fleet
