// SPDX-License-Identifier: MIT
#include "folder.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "host/failure.h"
#include "runeflow/platform/file_descriptor.h"

namespace viewer {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLongestName = 100;  // bytes
constexpr std::size_t kMostFiles = 1'000;
constexpr std::string_view kEnding = ".db";

bool isPlain(char c) {
  const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter || (c >= '0' && c <= '9') || std::string_view("._-+@ ").contains(c) ||
         static_cast<unsigned char>(c) >= 0x80;
}

void requirePlainName(const std::string& name) {
  const bool isFine = name.size() > kEnding.size() && name.size() <= kLongestName &&
                      name.front() != '.' && name.front() != '-' && name.ends_with(kEnding) &&
                      std::ranges::all_of(name, isPlain);
  if (!isFine) {
    host::fail("'{}' cannot be the name of a database; write letters and digits that end in {}",
               name, kEnding);
  }
}

}  // namespace

Folder::Folder() : path_(fs::current_path().string()) {}

std::vector<Folder::File> Folder::databases() const {
  std::vector<File> files;
  std::error_code error;
  for (fs::directory_iterator entry(path_, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code ignored;
    const bool isFile = entry->symlink_status(ignored).type() == fs::file_type::regular;
    if (!isFile || entry->path().extension() != kEnding || files.size() == kMostFiles) continue;
    const auto size = entry->file_size(ignored);
    files.push_back(
        {entry->path().filename().string(), ignored ? 0 : static_cast<std::int64_t>(size)});
  }
  std::ranges::sort(files, {}, &File::name);
  return files;
}

std::string Folder::existing(const std::string& name) const {
  requirePlainName(name);
  const auto path = fs::path(path_) / name;
  std::error_code error;
  if (fs::symlink_status(path, error).type() != fs::file_type::regular) {
    host::fail("there is no database {} in {}", name, path_);
  }
  return path.string();
}

void Folder::requireNew(const std::string& name) const {
  requirePlainName(name);
  std::error_code error;
  if (fs::symlink_status(fs::path(path_) / name, error).type() != fs::file_type::not_found) {
    host::fail("{} exists already; open it to capture into it, or choose another name", name);
  }
}

std::string Folder::make(const std::string& name) const {
  requireNew(name);
  const auto path = (fs::path(path_) / name).string();
  constexpr mode_t kMode = 0644;
  // Something may have taken the name since.
  const runeflow::FileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMode));
  if (!file) host::fail("cannot make {} in {}: {}", name, path_, host::systemError(errno));
  return path;
}

}  // namespace viewer
