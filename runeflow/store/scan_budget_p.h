// SPDX-License-Identifier: MIT

// Decides how long records are read one after another before the full-text index is asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

namespace runeflow {

// The index costs time for each match of the whole store, also if only 50 are wanted; reading
// records costs time for each record until enough match. For frequent matches reading is cheaper,
// for rare ones the index is. A scan that finds little ends after `base`, or a little later if it
// can then read all. One that finds matches goes on as long as the rest of it takes less time than
// the index is expected to take. The estimate counts the matches in the later half of the records
// read, so that matches which lie close together do not mislead it for long.
class ScanBudget {
 public:
  using Duration = std::chrono::duration<double>;

  static constexpr Duration usualBase = std::chrono::microseconds(2'500);
  // What the index takes for a match: it reads the entry and puts it into a list.
  static constexpr Duration indexTimePerMatch = std::chrono::nanoseconds(300);

  // `wanted` matches are wanted. The index would be asked about `records` records.
  ScanBudget(std::int64_t wanted, std::int64_t records, Duration base)
      : wanted_(wanted), records_(records), base_(base) {}

  // Counts a record. Returns whether to read another one, `elapsed` after the start of the scan, if
  // at most `left` records are left.
  bool count(bool isMatch, Duration elapsed, std::uint64_t left);

 private:
  double recentShare() const;

  static constexpr std::int64_t kStride = 64;

  std::int64_t wanted_;
  std::int64_t records_;
  Duration base_;
  std::int64_t read_ = 0;
  std::int64_t found_ = 0;
  std::vector<std::int64_t> foundBefore_;  // every kStride records
};

}  // namespace runeflow
