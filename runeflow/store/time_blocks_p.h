// SPDX-License-Identifier: MIT

// What is known of the times of all records: their bounds per block of seqs. A timeline whose bar
// holds a whole block counts its records in the index of levels and does not read their times.
#pragma once

#include <cstdint>
#include <vector>

namespace runeflow {

class OpenDatabase;

// The difference of two times or seqs may need all 64 bits.
inline std::uint64_t distance(std::int64_t from, std::int64_t to) {
  return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

struct TimeBlock {
  std::int64_t first;  // seqs
  std::int64_t last;
  std::int64_t earliest;  // times in microseconds
  std::int64_t latest;
};

class TimeBlocks {
 public:
  // Returns the blocks in the order of their seqs, or null if there are none or the database has
  // changed since they were made. The caller holds a OneMoment.
  const std::vector<TimeBlock>* current(OpenDatabase& db) const;

  // Collects the blocks while the caller reads all records in the order of their seqs.
  class Builder {
   public:
    explicit Builder(OpenDatabase& db);
    void add(std::int64_t seq, std::int64_t microseconds);
    // Returns the blocks for OpenDatabase::timeBlocks, or none if the read has failed.
    TimeBlocks finish() &&;

   private:
    OpenDatabase& db_;
    std::uint64_t seqsPerBlock_;
    std::uint64_t end_ = 0;  // of the present block, as a distance from the first seq
    std::vector<TimeBlock> blocks_;
  };

 private:
  // Changes with every write to the database: those of other connections, and the number of rows
  // that this one has written. Both begin anew with a connection.
  struct Version {
    std::int64_t ofOthers = 0;
    std::int64_t ownRows = 0;
    bool operator==(const Version&) const = default;
  };
  static Version versionOf(OpenDatabase& db);

  Version version_;
  std::vector<TimeBlock> blocks_;
};

}  // namespace runeflow
