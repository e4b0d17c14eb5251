// SPDX-License-Identifier: MIT

// Input and databases for the benchmarks. Most benchmarks compare the library with a bare program,
// their yardstick: the least code that does the same work, in plain C++ or with SQLite's C
// interface.
#pragma once

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/platform/file_descriptor.h"
#include "runeflow/store/event_store.h"

namespace bench {

// Returns the environment variable ROWS, which sets the size of the work, or `usual` if it is
// unset.
inline int rowCount(int usual) {
  const char* rows = std::getenv("ROWS");
  return rows ? std::atoi(rows) : usual;
}

// Returns lines of about 112 bytes with the mix of a phone's log: 40 tags, 50 pids, and words of
// different frequencies.
inline std::string logcatLines(int count) {
  constexpr std::string_view kLevels = "VDDDIIIIWE";
  constexpr std::string_view kWords[] = {"connect", "surface", "wake",   "lock",
                                         "frame",   "timeout", "window", "disk"};
  std::string text;
  std::uint32_t random = 1;
  for (int i = 0; i < count; ++i) {
    random = random * 1'664'525 + 1'013'904'223;
    const auto r = random >> 8;
    text += fmt::format(
        "05-{:02} {:02}:{:02}:{:02}.{:03} {:5} {:5} {} Component{:02}: {} {} request {} from uid "
        "{} took {} ms{}\n",
        i / 3'000'000 + 1, i / 120'000 % 24, i / 2'000 % 60, i / 33 % 60, i % 1000, 1000 + r % 50,
        1000 + r % 500, kLevels[r % kLevels.size()], r % 40, kWords[r % 8], kWords[r / 8 % 8],
        r % 100'000, 10'000 + r % 200, r % 900, i % 10'000 == 0 ? " rareword" : " and went on");
  }
  return text;
}

class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "runeflow-bench-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(std::string_view name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// A connection with the settings of the store. Ignores the return codes of SQLite, because the bare
// program checks nothing.
class BareDatabase {
 public:
  explicit BareDatabase(const std::string& path) {
    sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    execute(
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF; PRAGMA temp_store=MEMORY; PRAGMA "
        "busy_timeout=5000;");
  }
  ~BareDatabase() { sqlite3_close_v2(db_); }
  BareDatabase(const BareDatabase&) = delete;
  BareDatabase& operator=(const BareDatabase&) = delete;

  void execute(const char* sql) { sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); }
  sqlite3_stmt* prepare(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
    return statement;
  }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// Stores `rows` with 1,024 rows per transaction, as a capture does. Binds the texts without copying
// them.
inline void insertBare(const std::string& path, const std::vector<runeflow::LogRow>& rows) {
  constexpr std::size_t kBatch = 1'024;
  BareDatabase db(path);
  sqlite3_stmt* row = db.prepare(
      "INSERT INTO events(ts,level,s0,s1,s2,s3,s4,s5,s6,s7,message,ctx) "
      "VALUES(?,?,?,?,?,?,?,?,?,?,?,?)");
  sqlite3_stmt* words = db.prepare("INSERT INTO events_fts(rowid, message) VALUES(?,?)");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (i % kBatch == 0) db.execute("BEGIN;");
    sqlite3_reset(row);
    sqlite3_bind_int64(row, 1, *runeflow::microsecondsSinceEpoch(rows[i].timestamp()));
    sqlite3_bind_int64(row, 2, runeflow::rawValue(rows[i].level()));
    for (int slot = 0; slot < 8; ++slot) {
      const auto text = rows[i].slot(slot);
      sqlite3_bind_text(row, 3 + slot, text ? text->data() : nullptr,
                        text ? static_cast<int>(text->size()) : 0, SQLITE_STATIC);
    }
    const auto message = rows[i].message();
    sqlite3_bind_text(row, 11, message.data(), static_cast<int>(message.size()), SQLITE_STATIC);
    sqlite3_step(row);
    sqlite3_reset(words);
    sqlite3_bind_int64(words, 1, sqlite3_last_insert_rowid(db.handle()));
    sqlite3_bind_text(words, 2, message.data(), static_cast<int>(message.size()), SQLITE_STATIC);
    sqlite3_step(words);
    if (i % kBatch == kBatch - 1 || i + 1 == rows.size()) db.execute("COMMIT;");
  }
  sqlite3_finalize(row);
  sqlite3_finalize(words);
}

inline volatile std::int64_t sink = 0;  // keeps the compiler from removing what is measured

// Prepares `sql`, binds `binds`, steps through all rows, reads every column, and finalizes.
inline void readBare(BareDatabase& db, const std::string& sql,
                     const std::vector<runeflow::Bind>& binds) {
  sqlite3_stmt* statement = db.prepare(sql);
  int index = 1;
  for (const auto& bind : binds) {
    if (const auto* text = std::get_if<std::string>(&bind.value())) {
      sqlite3_bind_text(statement, index++, text->data(), static_cast<int>(text->size()),
                        SQLITE_STATIC);
    } else {
      sqlite3_bind_int64(statement, index++, std::get<std::int64_t>(bind.value()));
    }
  }
  const int columns = sqlite3_column_count(statement);
  std::int64_t sum = 0;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    for (int column = 0; column < columns; ++column) {
      if (columns > 1 && column >= 3) {
        const auto* text = sqlite3_column_text(statement, column);
        sum += text ? *text + sqlite3_column_bytes(statement, column) : 0;
      } else {
        sum += sqlite3_column_int64(statement, column);
      }
    }
  }
  sink = sink + sum;
  sqlite3_finalize(statement);
}

inline void createDatabase(const std::string& path, const runeflow::SourceDescriptor& descriptor) {
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path + suffix);
  runeflow::EventStore::open(path, true, descriptor);
}

}  // namespace bench
