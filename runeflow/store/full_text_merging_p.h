// SPDX-License-Identifier: MIT

// When FTS5 merges the segments of the full-text index. It writes each batch as a segment.
#pragma once

#include <cstdint>

#include "runeflow/store/sqlite_p.h"

namespace runeflow {

struct Merging {
  std::int64_t automerge;    // segments of one level that are merged, in portions
  std::int64_t crisismerge;  // segments of one level that are merged at once

  bool operator==(const Merging&) const = default;
};

// What FTS5 does unless told otherwise.
inline constexpr Merging kUsualMerging{4, 16};

// Saves an eighth of the time of a capture. The entries of deleted records stay in the index until
// they are merged, so that an index whose records are trimmed needs the usual merging.
// `crisismerge` must stay above `automerge`, or single batches take a quarter of a second.
inline constexpr Merging kRareMerging{16, 32};

// Sets one of the two in the database unless somebody has chosen other values. A failure is
// harmless: the setting only saves time or space.
void setMerging(Connection& connection, const Merging& merging);

}  // namespace runeflow
