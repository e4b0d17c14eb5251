// SPDX-License-Identifier: MIT

// Following a database that another program fills.
#pragma once

#include <cstdint>
#include <expected>
#include <vector>

#include "runeflow/store/event_store.h"

namespace host {

// Finds out whether records were added, and whether the numbering began anew because the database
// was cleared or a size cap deleted every record. It remembers the newest record. A look reads the
// largest seq and at most two records, whatever the size of the database.
//
// A look does not notice that the database was cleared since the last one if the record with the
// newest seq is the same as before: the same log was captured again.
class NewRecords {
 public:
  enum class Change {
    none,
    added,      // newest() is greater than before; the first look at a database with records
    renumbered  // all records known before are gone; newest() may be 0
  };

  // Compares the store with what the last look found. Returns the error if the store could not be
  // read; the next look then compares with the same state.
  std::expected<Change, runeflow::StoreError> look(runeflow::EventStore& store);

  // Returns the seq of the newest record that the last look found, or 0 if there was none.
  std::int64_t newest() const { return newest_.empty() ? 0 : newest_.front().seq; }

 private:
  using Records = std::vector<runeflow::RecordPreview>;

  Change changeTo(const Records& latest, const Records& sameSeq) const;

  Records newest_;  // one record, or none
};

}  // namespace host
