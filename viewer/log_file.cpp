// SPDX-License-Identifier: MIT
#include "log_file.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "host/database.h"
#include "host/failure.h"

namespace viewer {

namespace fs = std::filesystem;

namespace {

constexpr int kMostNumbers = 100;

bool isNewer(const std::string& database, const std::string& log) {
  std::error_code error;
  const auto stored = fs::last_write_time(database, error);
  if (error) return false;
  // The newest records may still lie in the write-ahead log.
  const auto pending = fs::last_write_time(database + "-wal", error);
  const auto latest = error ? stored : std::max(stored, pending);
  const auto written = fs::last_write_time(log, error);
  return !error && latest >= written;
}

// Makes an empty file. Returns the errno of a failure.
int made(const std::string& path) {
  constexpr mode_t kMode = 0644;
  const runeflow::FileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  return file ? 0 : errno;
}

void useTemporary(LogDatabase& database, const std::string& name) {
  auto folder = (fs::temp_directory_path() / "runeflow-XXXXXX").string();
  if (!::mkdtemp(folder.data())) {
    host::fail("cannot make a folder for a temporary database: {}", host::systemError(errno));
  }
  database.temporaryFolder = folder;
  database.path = (fs::path(folder) / (name + ".db")).string();
}

}  // namespace

bool isDatabase(const std::string& path) {
  if (path == "-") return false;
  std::error_code error;
  const auto status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) return path.ends_with(".db");
  if (!fs::is_regular_file(status)) return false;
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  std::array<char, kMagic.size()> head{};
  std::ifstream(path, std::ios::binary).read(head.data(), head.size());
  const auto size = fs::file_size(path, error);
  return size == 0 || std::string_view(head.data(), head.size()) == kMagic;
}

LogDatabase databaseOf(const std::string& path, const std::string& kind) {
  LogDatabase database;
  database.stream = host::openFile(path, kind.empty() ? nullptr : &host::LogKind::named(kind));
  if (path == "-") {
    useTemporary(database, "standard-input");
    database.note = "the records of standard input are kept in a temporary database";
    return database;
  }
  for (int number = 1; number <= kMostNumbers; ++number) {
    database.path = number == 1 ? path + ".db" : fmt::format("{}.{}.db", path, number);
    const int error = made(database.path);
    if (error == 0) {
      database.note = fmt::format("capturing {} into {}", path, database.path);
      return database;
    }
    if (error != EEXIST) break;
    if (isNewer(database.path, path)) {
      database.stream.reset();
      database.note = fmt::format("{} was captured before; showing {}, delete it to capture again",
                                  path, database.path);
      return database;
    }
  }
  useTemporary(database, fs::path(path).filename().string());
  database.note = fmt::format(
      "{} cannot have a database beside it; its records are kept in a temporary one", path);
  return database;
}

}  // namespace viewer
