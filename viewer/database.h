// SPDX-License-Identifier: MIT

// The database that the page shows, and the thread that follows it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "host/log_kind.h"
#include "host/new_records.h"
#include "runeflow/store/event_store.h"

namespace viewer {

// What is known of the database. Two records with the same seq are the same record if they were
// read under the same generation.
struct DatabaseState {
  std::string path;                     // empty if no database is open
  const host::LogKind* kind = nullptr;  // null if no database is open
  std::int64_t opened = 0;              // counts the databases that were opened
  std::int64_t generation = 0;          // grows when one is opened, cleared or renumbered
  std::int64_t firstSeq = 0;            // 0 if there is no record
  std::int64_t lastSeq = 0;
  std::int64_t count = 0;  // records
  // Of the times of all records. Until a database has been read through, of some of them.
  std::optional<runeflow::TimeSpan> span;
  bool isSpanWhole = false;
  std::int64_t usedBytes = 0;
  bool hasFullText = false;
  std::string error;  // why it is no longer followed, as a sentence; the records stay readable

  bool operator==(const DatabaseState&) const = default;

  // The file name without its folder.
  std::string name() const;
};

// All functions may be called from any thread.
class Database {
 public:
  // Calls `onChange` from the following thread when the state has changed, at most five times a
  // second, and from open().
  explicit Database(std::function<void(const DatabaseState&)> onChange);
  ~Database() { end(); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Shows this database from now on. `source` names its kind if its indexes do not tell. Fails with
  // a sentence, and then goes on with the present one.
  void open(const std::string& path, const std::string& source);

  DatabaseState state() const;

  // Ends the following.
  void end();

 private:
  void follow();
  void look();
  void lookAt(DatabaseState& state);
  void growSpan(DatabaseState& state);

  std::function<void(const DatabaseState&)> onChange_;

  mutable std::mutex mutex_;  // guards the members below
  DatabaseState state_;
  bool isEnding_ = false;
  std::condition_variable ending_;

  // Of the following thread alone:
  std::optional<runeflow::EventStore> store_;
  std::int64_t storeOpened_ = 0;
  host::NewRecords news_;
  std::optional<std::int64_t> missing_;  // seqs between the first and the last without a record

  std::int64_t spannedFrom_ = 0;  // `span` holds the times of these seqs, and of the newest record
  std::int64_t spannedTo_ = 0;

  std::thread follower_;
};

}  // namespace viewer
