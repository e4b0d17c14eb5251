// SPDX-License-Identifier: MIT
#include <sqlite3.h>

#include <string_view>
#include <utility>

#include "runeflow/query/log_query.h"
#include "runeflow/store/sqlite_p.h"
#include "runeflow/store/sqlite_process.h"

namespace runeflow {
namespace {

// Returns absence for NULL; the view is valid until the next step. Reading text and length from the
// value, not through the statement, saves a fifth of the time of fetching a record. Two threads
// must not read such a value at once; no statement is used by two threads.
std::optional<std::string_view> textOf(sqlite3_stmt* statement, int column) {
  sqlite3_value* value = sqlite3_column_value(statement, column);
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (!bytes) return std::nullopt;
  return std::string_view(bytes, static_cast<std::size_t>(sqlite3_value_bytes(value)));
}

int bindText(sqlite3_stmt* statement, int index, const std::optional<std::string_view>& text,
             sqlite3_destructor_type ownership) {
  if (!text) return sqlite3_bind_null(statement, index);
  const char* bytes = text->data() ? text->data() : "";  // SQLite takes a null pointer for NULL
  return sqlite3_bind_text64(statement, index, bytes, text->substr(0, text->find('\0')).size(),
                             ownership, SQLITE_UTF8);
}

}  // namespace

bool turnOffSQLiteMemoryStatistics() {
  return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) == SQLITE_OK;
}

void Statement::Finalize::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

void Statement::noteBind(int result) {
  if (result != SQLITE_OK) isBound_ = false;
}

void Statement::bind(int index, std::int64_t value) {
  noteBind(sqlite3_bind_int64(handle_.get(), index, value));
}

void Statement::bind(int index, const std::optional<std::string_view>& text) {
  noteBind(bindText(handle_.get(), index, text, SQLITE_TRANSIENT));
}

void Statement::bindInPlace(int index, const std::optional<std::string_view>& text) {
  noteBind(bindText(handle_.get(), index, text, SQLITE_STATIC));
}

void Statement::bind(int index, const Bind& value) {
  std::visit([&](const auto& content) { bind(index, content); }, value.value());
}

void Statement::bindNull(int index) {
  noteBind(sqlite3_bind_null(handle_.get(), index));
}

Statement::Step Statement::step() {
  if (!isBound_) return Step::error;
  const int result = sqlite3_step(handle_.get());
  if (result == SQLITE_ROW) return Step::row;
  return result == SQLITE_DONE ? Step::done : Step::error;
}

void Statement::reset() {
  sqlite3_reset(handle_.get());
  isBound_ = true;
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(handle_.get(), column);
}

std::optional<std::string> Statement::optionalText(int column) const {
  const auto text = textOf(handle_.get(), column);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

void Statement::readTexts(int column, std::span<std::optional<std::string_view>> texts) const {
  for (auto& text : texts) text = textOf(handle_.get(), column++);
}

void Connection::Close::operator()(sqlite3* connection) const {
  sqlite3_close_v2(connection);
}

Connection Connection::open(const std::string& name, int flags) {
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(name.c_str(), &handle, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  Connection connection;
  connection.handle_.reset(handle);  // a failed open may leave a handle that must be closed
  return result == SQLITE_OK ? std::move(connection) : Connection();
}

void Connection::waitForLocks(const LockWait& wait) {
  if (!handle_) return;
  // Reads the clock, because pauses last longer than requested on a busy machine.
  const auto waitOnceMore = [](void* context, int pauses) {
    constexpr int kPause = 5;  // milliseconds
    auto& patience = *static_cast<Patience*>(context);
    const auto now = std::chrono::steady_clock::now();
    if (pauses == 0) patience.since = now;
    if (now - patience.since >= std::chrono::milliseconds(patience.longest->load()) ||
        patience.isInterrupted(patience.context)) {
      return 0;
    }
    sqlite3_sleep(kPause);
    return 1;
  };
  patience_->longest = &wait;
  sqlite3_busy_handler(handle_.get(), waitOnceMore, patience_.get());
}

void Connection::interruptIf(IsInterrupted isInterrupted, const void* context) {
  if (!handle_) return;
  constexpr int kOpcodesBetween = 100;  // ten records; the text of each may be long
  patience_->isInterrupted = isInterrupted;
  patience_->context = context;
  const auto ask = [](void* opaque) {
    const auto& patience = *static_cast<const Patience*>(opaque);
    return patience.isInterrupted(patience.context) ? 1 : 0;
  };
  sqlite3_progress_handler(handle_.get(), kOpcodesBetween, ask, patience_.get());
}

bool Connection::execute(const char* sql) {
  return handle_ && sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement Connection::prepare(const std::string& sql) {
  if (!handle_) return {};
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(handle_.get(), sql.c_str(), -1, &statement, nullptr);
  return Statement(statement);
}

std::int64_t Connection::lastInsertRowId() const {
  return handle_ ? sqlite3_last_insert_rowid(handle_.get()) : 0;
}

std::int64_t Connection::largestRecord() const {
  return sqlite3_limit(handle_.get(), SQLITE_LIMIT_LENGTH, -1);
}

bool Connection::emptyLog() {
  return sqlite3_wal_checkpoint_v2(handle_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                   nullptr) == SQLITE_OK;
}

fts5_api* Connection::fullTextInterface() {
  fts5_api* api = nullptr;
  Statement statement = prepare("SELECT fts5(?1)");
  if (!statement) return nullptr;
  sqlite3_bind_pointer(statement.handle_.get(), 1, static_cast<void*>(&api), "fts5_api_ptr",
                       nullptr);
  statement.step();
  return api;
}

int Connection::errorCode() const {
  constexpr int kPrimaryCode = 0xff;
  return handle_ ? sqlite3_errcode(handle_.get()) & kPrimaryCode : SQLITE_MISUSE;
}

std::string Connection::errorText() const {
  return sqlite3_errmsg(handle_.get());
}

Transaction::Transaction(Connection& connection, const char* begin)
    : connection_(connection), isOpen_(connection.execute(begin)) {}

Transaction::~Transaction() {
  if (isOpen_) connection_.execute("ROLLBACK;");
}

bool Transaction::commit() {
  if (!connection_.execute("COMMIT;")) return false;
  isOpen_ = false;
  return true;
}

}  // namespace runeflow
