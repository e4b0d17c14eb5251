// SPDX-License-Identifier: MIT
#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "runeflow/store/open_database_p.h"
#include "runeflow/store/time_blocks_p.h"

namespace runeflow {
namespace {

// 4 MB. Small blocks, so that few hold a record whose time is out of order.
constexpr std::uint64_t kMostBlocks = 262'144;
constexpr std::uint64_t kFewestSeqs = 16;

// 16 MB. The levels of larger stores are not kept.
constexpr std::uint64_t kMostLevelsKept = std::uint64_t{1} << 25;

}  // namespace

TimeBlocks::Version TimeBlocks::versionOf(OpenDatabase& db) {
  return {db.scalar("PRAGMA data_version"), sqlite3_total_changes64(db.connection.handle())};
}

bool TimeBlocks::areCurrent(OpenDatabase& db) const {
  return !blocks_.empty() && version_ == versionOf(db);
}

TimeBlocks::Builder::Builder(OpenDatabase& db) : db_(db) {
  made_.first_ = db.scalar("SELECT min(seq) FROM events");
  const auto length = distance(made_.first_, db.scalar("SELECT max(seq) FROM events"));
  made_.seqsPerBlock_ = std::max(kFewestSeqs, length / kMostBlocks + 1);
  made_.blocks_.resize(length / made_.seqsPerBlock_ + 1);
  if (length >= kMostLevelsKept) return;
  made_.levels_ =
      db.levelsFrom(std::numeric_limits<std::int64_t>::min()).value_or(std::vector<std::int64_t>());
  if (!made_.levels_.empty()) made_.levelOf_.resize(length / 2 + 1, kNoRecord << 4 | kNoRecord);
}

void TimeBlocks::Builder::add(std::int64_t seq, std::int64_t microseconds, std::int64_t level) {
  const auto offset = distance(made_.first_, seq);
  // Only the seqs of a damaged file lie outside.
  auto& block =
      made_
          .blocks_[std::min<std::uint64_t>(offset / made_.seqsPerBlock_, made_.blocks_.size() - 1)];
  block.earliest = std::min(block.earliest, microseconds);
  block.latest = std::max(block.latest, microseconds);
  if (offset / 2 >= made_.levelOf_.size()) return;
  const auto known = std::ranges::find(made_.levels_, level);
  if (known == made_.levels_.end()) return;
  const auto index = static_cast<unsigned>(known - made_.levels_.begin());
  const auto shift = static_cast<unsigned>(offset % 2 * 4);
  auto& pair = made_.levelOf_[offset / 2];
  pair = static_cast<std::uint8_t>((pair & ~(15U << shift)) | index << shift);
}

TimeBlocks TimeBlocks::Builder::finish() && {
  if (db_.failure) return {};
  made_.version_ = versionOf(db_);
  return std::move(made_);
}

}  // namespace runeflow
