// SPDX-License-Identifier: MIT

// What a read of all records has found: the bounds of their times per block of seqs, and their
// levels. A timeline needs no more of a record whose block lies within one bar.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace runeflow {

class OpenDatabase;

// The difference of two times or seqs may need all 64 bits.
inline std::uint64_t distance(std::int64_t from, std::int64_t to) {
  return static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
}

// The times of a block in microseconds. A block without records has its default bounds.
struct TimeBlock {
  std::int64_t earliest = std::numeric_limits<std::int64_t>::max();
  std::int64_t latest = std::numeric_limits<std::int64_t>::min();
};

class TimeBlocks {
 public:
  // Returns whether there are blocks and the database has not changed since they were made. The
  // caller holds a OneMoment.
  bool areCurrent(OpenDatabase& db) const;

  // In the order of their seqs. Each block covers the same number of seqs.
  const std::vector<TimeBlock>& blocks() const { return blocks_; }

  // The stored levels that occur; empty if the levels of the records are not known.
  const std::vector<std::int64_t>& levels() const { return levels_; }

  struct Place {
    std::size_t block;
    std::size_t level;  // an index of levels()
  };
  // Absent if there is no record with the number, or if its level is not known.
  std::optional<Place> placeOf(std::int64_t seq) const { return placeAt(distance(first_, seq)); }

  // Calls use(seq, place) for every record, in the order of the seqs, if levels() is not empty.
  template <class Use>
  void forEach(Use use) const {
    for (std::uint64_t offset = 0; offset < levelOf_.size() * 2; ++offset) {
      if (const auto place = placeAt(offset)) {
        use(static_cast<std::int64_t>(static_cast<std::uint64_t>(first_) + offset), *place);
      }
    }
  }

  // Collects what is known while the caller reads all records in the order of their seqs.
  class Builder;

 private:
  static constexpr unsigned kNoRecord = 15;

  std::optional<Place> placeAt(std::uint64_t offset) const {
    if (offset / 2 >= levelOf_.size()) return std::nullopt;
    const unsigned pair = levelOf_[offset / 2];
    const unsigned level = pair >> (offset % 2 * 4) & 15U;
    if (level == kNoRecord) return std::nullopt;
    return Place{offset / seqsPerBlock_, level};
  }

  // Changes with every write to the database: those of other connections, and the number of rows
  // that this one has written. Both begin anew with a connection.
  struct Version {
    std::int64_t ofOthers = 0;
    std::int64_t ownRows = 0;
    bool operator==(const Version&) const = default;
  };
  static Version versionOf(OpenDatabase& db);

  Version version_;
  std::int64_t first_ = 0;  // the seq where the first block begins
  std::uint64_t seqsPerBlock_ = 1;
  std::vector<TimeBlock> blocks_;
  std::vector<std::int64_t> levels_;
  std::vector<std::uint8_t> levelOf_;  // the levels of two seqs in each byte, as indexes of levels_
};

class TimeBlocks::Builder {
 public:
  explicit Builder(OpenDatabase& db);
  void add(std::int64_t seq, std::int64_t microseconds, std::int64_t level);
  // Returns the blocks for OpenDatabase::timeBlocks, or none if the read has failed.
  TimeBlocks finish() &&;

 private:
  OpenDatabase& db_;
  TimeBlocks made_;
};

}  // namespace runeflow
