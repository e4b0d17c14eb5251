// SPDX-License-Identifier: MIT

// Helpers that several test files share: a temporary folder, SQL on a second connection to a
// database, the lines of the library's log, and a thread with a small stack.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/app_log.h"
#include "runeflow/platform/unique_function.h"

namespace runeflow::test {

class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  std::string file(std::string_view name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// Fails a test that leaves open descriptors, running threads or child processes behind.
class LeavesNothingBehind : public testing::Test {
 protected:
  LeavesNothingBehind();
  void TearDown() override;

 private:
  std::ptrdiff_t threads_;
  std::ptrdiff_t descriptors_;
};

// Runs `statement` on a connection of its own and returns one text per result row: the columns
// joined by "|", NULL as "NULL". Does not create a missing file. If the statement fails, returns
// the single text "error: …".
std::vector<std::string> sql(const std::string& path, const std::string& statement);

// A connection of the test's own that stays open after its statements, such as "BEGIN IMMEDIATE".
class OtherConnection {
 public:
  OtherConnection(const std::string& path, const std::string& statements);
  bool execute(const std::string& statements);

 private:
  std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db_{nullptr, sqlite3_close};
};

// Collects the lines that the library logs while this object exists. The library has one log sink;
// at most one CapturedLog may exist at a time.
class CapturedLog {
 public:
  explicit CapturedLog(AppLog::Level minimumLevel = AppLog::Level::error);
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  std::vector<std::string> lines() const;  // "category: message"

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

inline Timestamp at(double seconds) {
  return Timestamp(std::chrono::duration<double>(seconds));
}

// Returns a row with the time 1,700,000,000 s after 1970 and, if `tag` is given, a tag in slot 0.
LogRow row(std::string_view message, LogRow::Slot tag = std::nullopt,
           RuneflowLogLevel level = RuneflowLogLevel::Info,
           std::optional<LogRow::Context> ctx = std::nullopt);

// Returns rows with the messages "<stem> 1" to "<stem> <count>".
std::vector<LogRow> rows(std::string_view stem, int count);

inline std::span<const std::uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Runs `body` on a thread with a stack of `stackSize` bytes and waits until it returns. Under a
// sanitizer the stack is eight times as large, because the stack frames are larger as well.
void onStackOf(std::size_t stackSize, runeflow::UniqueFunction<void()> body);

}  // namespace runeflow::test
