#include <sqlite3.h>

#include <string_view>
#include <utility>

#include "runeflow/query/log_query.h"
#include "runeflow/store/sqlite_p.h"

namespace runeflow {
namespace {

// SQLite built with SQLITE_USE_URI parses a name that begins with "file:" as a URI, and ":memory:"
// names a database in memory.
std::string asFileName(const std::string& path) {
  return path.starts_with("file:") || path == ":memory:" ? "./" + path : path;
}

constexpr int kBusyMilliseconds = 5000;

// Returns absence for NULL; the view is valid until the next step. Reading text and length from the
// value, not through the statement, saves a fifth of the time of fetching a record. Two threads
// must not read such a value at once; no statement is used by two threads.
std::optional<std::string_view> textOf(sqlite3_stmt* statement, int column) {
  sqlite3_value* value = sqlite3_column_value(statement, column);
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
  if (!bytes) return std::nullopt;
  return std::string_view(bytes, static_cast<std::size_t>(sqlite3_value_bytes(value)));
}

}  // namespace

void Statement::Finalize::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

void Statement::bind(int index, std::int64_t value) {
  sqlite3_bind_int64(handle_.get(), index, value);
}

void Statement::bind(int index, const std::optional<std::string_view>& text) {
  if (!text) return bindNull(index);
  const char* bytes = text->data() ? text->data() : "";  // SQLite binds a null pointer as NULL
  sqlite3_bind_text64(handle_.get(), index, bytes, text->substr(0, text->find('\0')).size(),
                      SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Statement::bind(int index, const Bind& value) {
  std::visit([&](const auto& content) { bind(index, content); }, value.value());
}

void Statement::bindInt32(int index, std::int32_t value) {
  sqlite3_bind_int(handle_.get(), index, value);
}

void Statement::bindNull(int index) {
  sqlite3_bind_null(handle_.get(), index);
}

Statement::Step Statement::step() {
  const int result = sqlite3_step(handle_.get());
  if (result == SQLITE_ROW) return Step::row;
  return result == SQLITE_DONE ? Step::done : Step::error;
}

void Statement::reset() {
  sqlite3_reset(handle_.get());
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

Connection Connection::open(const std::string& path, int flags) {
  sqlite3* handle = nullptr;
  const int result = sqlite3_open_v2(asFileName(path).c_str(), &handle, flags, nullptr);
  Connection connection;
  connection.handle_.reset(handle);  // a failed open may leave a handle that must be closed
  if (result != SQLITE_OK) return {};
  sqlite3_busy_timeout(handle, kBusyMilliseconds);
  return connection;
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

int Connection::errorCode() const {
  constexpr int kPrimaryCode = 0xff;
  return handle_ ? sqlite3_errcode(handle_.get()) & kPrimaryCode : SQLITE_MISUSE;
}

std::string Connection::errorText() const {
  return sqlite3_errmsg(handle_.get());
}

Transaction::Transaction(Connection& connection)
    : connection_(connection), isOpen_(connection.execute("BEGIN;")) {}

Transaction::~Transaction() {
  if (isOpen_) connection_.execute("ROLLBACK;");
}

bool Transaction::commit() {
  if (!connection_.execute("COMMIT;")) return false;
  isOpen_ = false;
  return true;
}

}  // namespace runeflow
