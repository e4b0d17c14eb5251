// SPDX-License-Identifier: MIT
#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "runeflow/store/open_database_p.h"
#include "runeflow/store/time_blocks_p.h"

namespace runeflow {
namespace {

// 2 MB. Small blocks, so that few hold a record whose time is out of order.
constexpr std::uint64_t kMostBlocks = 65'536;
constexpr std::uint64_t kFewestSeqs = 16;

}  // namespace

TimeBlocks::Version TimeBlocks::versionOf(OpenDatabase& db) {
  return {db.scalar("PRAGMA data_version"), sqlite3_total_changes64(db.connection.handle())};
}

const std::vector<TimeBlock>* TimeBlocks::current(OpenDatabase& db) const {
  return !blocks_.empty() && version_ == versionOf(db) ? &blocks_ : nullptr;
}

TimeBlocks::Builder::Builder(OpenDatabase& db)
    : db_(db),
      seqsPerBlock_(std::max(kFewestSeqs, distance(db.scalar("SELECT min(seq) FROM events"),
                                                   db.scalar("SELECT max(seq) FROM events")) /
                                                  kMostBlocks +
                                              1)) {}

void TimeBlocks::Builder::add(std::int64_t seq, std::int64_t microseconds) {
  const auto offset = blocks_.empty() ? 0 : distance(blocks_.front().first, seq);
  // Only a damaged file has more blocks: its seqs are not in order.
  if (blocks_.empty() || (offset >= end_ && blocks_.size() <= kMostBlocks)) {
    blocks_.push_back({seq, seq, microseconds, microseconds});
    end_ = offset - offset % seqsPerBlock_ + seqsPerBlock_;
    return;
  }
  auto& block = blocks_.back();
  block.last = seq;
  block.earliest = std::min(block.earliest, microseconds);
  block.latest = std::max(block.latest, microseconds);
}

TimeBlocks TimeBlocks::Builder::finish() && {
  TimeBlocks result;
  if (db_.failure) return result;
  result.version_ = versionOf(db_);
  result.blocks_ = std::move(blocks_);
  return result;
}

}  // namespace runeflow
