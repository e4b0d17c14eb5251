// SPDX-License-Identifier: MIT
#include "host/new_records.h"

#include <utility>

namespace host {

using runeflow::EventStore;
using runeflow::StoreError;

namespace {
// A message of megabytes is read in part: its length and its beginning tell it from others.
constexpr std::int64_t kComparedCharacters = 1'000;
}  // namespace

std::expected<NewRecords::Change, StoreError> NewRecords::look(EventStore& store) {
  const auto recordAt = [&](std::int64_t seq) {
    return store.fetchPreviewRange(seq, seq, kComparedCharacters);
  };
  const auto largest = store.maxSeq();
  auto latest = recordAt(largest);
  const auto sameSeq = largest > newest() && newest() > 0 ? recordAt(newest()) : Records();
  if (auto error = store.takeError()) return std::unexpected(std::move(*error));
  const auto change = changeTo(latest, sameSeq);
  newest_ = std::move(latest);
  return change;
}

// `sameSeq` is the record that has the seq of the newest one known; it is not read if `latest` has
// that seq. A record that a size cap has deleted is no sign of a new numbering.
NewRecords::Change NewRecords::changeTo(const Records& latest, const Records& sameSeq) const {
  if (latest == newest_) return Change::none;
  if (newest_.empty()) return Change::added;
  if (latest.empty() || latest.front().seq <= newest()) return Change::renumbered;
  return sameSeq.empty() || sameSeq == newest_ ? Change::added : Change::renumbered;
}

}  // namespace host
