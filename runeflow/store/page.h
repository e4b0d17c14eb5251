// SPDX-License-Identifier: MIT
/// \file
/// What a viewer needs to show a page of a long list: previews of records, and how many records of
/// each block match a query.
#pragma once

#include <cstdint>

#include "runeflow/model/log_row.h"

namespace runeflow {

/// A record whose message may have been cut.
struct RecordPreview {
  std::int64_t seq;                ///< The record's number, its rowid in `events`.
  LogRow row;                      ///< The record; its message may be cut.
  std::int64_t messageCharacters;  ///< The length of the whole message in code points.
  bool operator==(const RecordPreview&) const = default;
};

/// How many records of a block match. With the block size B, a block holds the seqs from
/// n * B + 1 to n * B + B.
struct SeqBlock {
  std::int64_t first;  ///< The smallest seq of the block, whether or not that record matches.
  std::int64_t count;  ///< The number of records that match.
  bool operator==(const SeqBlock&) const = default;
};

}  // namespace runeflow
