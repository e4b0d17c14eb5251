// What several tests need: a folder of their own, a second look at a database, the library's log.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/app_log.h"

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

// Fails a test that leaves descriptors, threads or children of the process behind.
class LeavesNothingBehind : public testing::Test {
 protected:
  LeavesNothingBehind();
  void TearDown() override;

 private:
  std::ptrdiff_t threads_;
  std::ptrdiff_t descriptors_;
};

// The result of a statement on a connection of the test's own: one text a row, columns joined by
// "|", NULL as "NULL". A statement that fails gives one row, "error: …".
std::vector<std::string> sql(const std::string& path, const std::string& statement);

// Collects what the library logs while it lives.
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

// A row with its message, and a tag in slot 0 where one is given.
LogRow row(std::string_view message, LogRow::Slot tag = std::nullopt,
           RuneflowLogLevel level = RuneflowLogLevel::Info,
           std::optional<LogRow::Context> ctx = std::nullopt);

// Rows with the messages "<stem> 1" to "<stem> <count>".
std::vector<LogRow> rows(std::string_view stem, int count);

inline std::span<const std::uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Runs `body` on a thread with a stack of that many bytes, and waits for it. Under a
// sanitizer, whose frames are several times as large, the stack is larger too.
void onStackOf(std::size_t stackSize, std::move_only_function<void()> body);

}  // namespace runeflow::test
