// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <limits>
#include <string_view>

#include "runeflow/platform/system_calls_p.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/word_function_p.h"

namespace runeflow {
namespace {

// SQLite built with SQLITE_USE_URI parses a name that begins with "file:" as a URI, and ":memory:"
// names a database in memory.
std::string asFileName(const std::string& path) {
  return path.starts_with("file:") || path == ":memory:" ? "./" + path : path;
}

// An empty authority stands before an absolute path, which may begin with two slashes.
std::string asUri(const std::string& path, std::string_view parameters) {
  constexpr std::string_view kPlain = "-._~/";
  std::string uri = path.starts_with('/') ? "file://" : "file:";
  for (const char c : path) {
    const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || kPlain.contains(c);
    if (isPlain) {
      uri += c;
    } else {
      uri += fmt::format("%{:02x}", static_cast<unsigned char>(c));
    }
  }
  return fmt::format("{}?{}", uri, parameters);
}

// SQLite takes the empty name for a temporary database, and a NUL ends the name.
bool namesAFile(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos;
}

}  // namespace

std::optional<std::int64_t> sizeOfFile(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 ? std::optional<std::int64_t>(status.st_size)
                                            : std::nullopt;
}

FileState FileState::of(const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) return {};
  const bool hasLog = sizeOfFile(path + "-wal").value_or(0) > 0 || sizeOfFile(path + "-journal");
  return {status.st_dev, status.st_ino, status.st_size, system_calls::modificationTime(status),
          hasLog};
}

std::unique_ptr<OpenDatabase> OpenDatabase::forWriting(const std::string& path, bool create) {
  if (!namesAFile(path)) return nullptr;
  auto database = std::make_unique<OpenDatabase>();
  auto& connection = database->connection;
  database->path = path;
  connection =
      Connection::open(asFileName(path), SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0));
  if (!connection) return nullptr;
  database->setUpConnection();
  database->openedAs = FileState::of(path);
  return database;
}

std::unique_ptr<OpenDatabase> OpenDatabase::forReading(const std::string& path) {
  if (!namesAFile(path)) return nullptr;
  auto database = std::make_unique<OpenDatabase>();
  database->path = path;
  database->isForReading = true;
  return database->openForReading() ? std::move(database) : nullptr;
}

bool OpenDatabase::openForReading() {
  openedAs = FileState::of(path);
  isUnwatched = !openedAs.hasLog;
  // The index of the log is mapped without the right to write, which also keeps SQLite from
  // creating it. A log without its index, as an incomplete copy leaves it, is read only if it can
  // be created.
  const bool hasIndex = sizeOfFile(path + "-shm").has_value();
  const auto* parameters = isUnwatched ? "immutable=1"
                           : hasIndex  ? "mode=ro&readonly_shm=1"
                                       : "mode=ro";
  connection = Connection::open(asUri(path, parameters), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
  if (!connection) return false;
  setUpConnection();
  connection.execute("PRAGMA temp_store=MEMORY;");
  return true;
}

// Each new connection needs this, also after opening the file anew.
void OpenDatabase::setUpConnection() {
  wordFunction_ = nullptr;  // the old connection has destroyed it
  timeBlocks = {};
  connection.waitForLocks(*lockWait);
  connection.interruptIf(
      [](const void* database) {
        return static_cast<const OpenDatabase*>(database)->isCancelled();
      },
      this);
}

WordFunction* OpenDatabase::wordFunction() {
  if (!wordFunction_) wordFunction_ = WordFunction::defineOn(connection);
  return wordFunction_;
}

bool OpenDatabase::reopenIfChanged(bool hasFailed) {
  if (!isForReading || isInSnapshot || !(isUnwatched || hasFailed)) return false;
  // A capture that begins or ends creates or removes the log between two looks at it.
  constexpr int kPause = 10;  // milliseconds
  const bool isTransient =
      hasFailed && failure &&
      (failure->fault == StoreFault::cannotOpen || failure->fault == StoreFault::readOnly);
  if (isTransient) sqlite3_sleep(kPause);
  const auto now = FileState::of(path);
  return (isTransient || now != openedAs) && now.isSameFile(openedAs) && openForReading();
}

std::optional<std::vector<std::int64_t>> OpenDatabase::levelsFrom(std::int64_t least) {
  constexpr std::size_t kMostLevels = 12;
  std::vector<std::int64_t> levels;
  // Each step finds the next greater level in the index. One lower bound alone: with two, SQLite
  // would seek to one of them and read all entries up to the other.
  Statement next = prepare(
      "SELECT level, typeof(level) = 'integer' FROM events INDEXED BY i_level "
      "WHERE level >= ? ORDER BY level LIMIT 1");
  if (!next) return std::nullopt;
  while (levels.size() < kMostLevels) {
    next.reset();
    next.bind(1, least);
    const auto step = next.step();
    if (step == Statement::Step::done) return levels;
    if (step == Statement::Step::error || next.integer(1) == 0) return std::nullopt;
    levels.push_back(next.integer(0));
    if (levels.back() == std::numeric_limits<std::int64_t>::max()) return levels;
    least = levels.back() + 1;
  }
  return std::nullopt;
}

StoreError OpenDatabase::presentError() const {
  const auto fault = faultOf(connection);
  const bool hasStoppedWaiting = fault == StoreFault::locked && isCancelled();
  return {hasStoppedWaiting ? StoreFault::cancelled : fault, connection.errorText()};
}

void OpenDatabase::note(StoreError error) {
  if (!failure) failure = std::move(error);
}

StoreFault faultOf(const Connection& connection) {
  static constexpr std::pair<int, StoreFault> kFaults[] = {
      {SQLITE_ERROR, StoreFault::refused},     {SQLITE_NOTADB, StoreFault::notADatabase},
      {SQLITE_CORRUPT, StoreFault::damaged},   {SQLITE_CANTOPEN, StoreFault::cannotOpen},
      {SQLITE_READONLY, StoreFault::readOnly}, {SQLITE_BUSY, StoreFault::locked},
      {SQLITE_FULL, StoreFault::diskFull},     {SQLITE_INTERRUPT, StoreFault::cancelled},
  };
  const auto* found =
      std::ranges::find(kFaults, connection.errorCode(), [](const auto& row) { return row.first; });
  return found == std::end(kFaults) ? StoreFault::other : found->second;
}

}  // namespace runeflow
