// SPDX-License-Identifier: MIT
#include "support.h"

#include <fmt/format.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "runeflow/platform/semaphore_p.h"
#include "runeflow/platform/thread_p.h"

namespace runeflow::test {

static std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

LeavesNothingBehind::LeavesNothingBehind() {
  // ThreadSanitizer starts a background thread when the process creates its first thread. Create
  // one now, so that the count below includes the background thread.
  std::thread([] {}).join();
  threads_ = entriesOf("/proc/self/task");
  descriptors_ = entriesOf("/proc/self/fd");
}

void LeavesNothingBehind::TearDown() {
  // A worker thread may run for a moment after it has delivered its result.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (entriesOf("/proc/self/task") > threads_ && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_LE(entriesOf("/proc/self/task"), threads_);
  EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors_);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "the test left a child process";
}

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "runeflow-test-XXXXXX").string();
  path_ = ::mkdtemp(name.data());
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> sql(const std::string& path, const std::string& statement) {
  sqlite3* opened = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite3_close);
  if (result != SQLITE_OK) return {"error: cannot open"};
  sqlite3_busy_timeout(db.get(), 5000);
  std::vector<std::string> lines;
  const auto collect = [](void* target, int count, char** values, char**) {
    std::string line;
    for (int i = 0; i < count; ++i) {
      line += fmt::format("{}{}", i ? "|" : "", values[i] ? values[i] : "NULL");
    }
    static_cast<std::vector<std::string>*>(target)->push_back(line);
    return 0;
  };
  if (sqlite3_exec(db.get(), statement.c_str(), collect, &lines, nullptr) != SQLITE_OK) {
    return {fmt::format("error: {}", sqlite3_errmsg(db.get()))};
  }
  return lines;
}

OtherConnection::OtherConnection(const std::string& path, const std::string& statements) {
  sqlite3* opened = nullptr;
  EXPECT_EQ(sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
  db_.reset(opened);
  EXPECT_TRUE(execute(statements));
}

bool OtherConnection::execute(const std::string& statements) {
  return sqlite3_exec(db_.get(), statements.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

CapturedLog::CapturedLog(AppLog::Level minimumLevel) {
  AppLog::attachSink(
      [this](const AppLog::Line& line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(fmt::format("{}: {}", line.category, line.message));
      },
      minimumLevel);
}

CapturedLog::~CapturedLog() {
  AppLog::attachSink({});
}

std::vector<std::string> CapturedLog::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

LogRow row(std::string_view message, LogRow::Slot tag, RuneflowLogLevel level,
           std::optional<LogRow::Context> ctx) {
  return {at(1'700'000'000), level, message, std::move(ctx), LogRow::Slots{tag}};
}

std::vector<LogRow> rows(std::string_view stem, int count) {
  std::vector<LogRow> made;
  for (int i = 1; i <= count; ++i) made.push_back(row(fmt::format("{} {}", stem, i)));
  return made;
}

void onStackOf(std::size_t stackSize, UniqueFunction<void()> body) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  stackSize *= 8;
#endif
  Semaphore done;
  UniqueFunction<void()> start = [&] {
    body();
    done.release();
  };
  ASSERT_TRUE(startThread({"small-stack", stackSize}, start));
  done.acquire();
}

}  // namespace runeflow::test
