// SPDX-License-Identifier: MIT

// What several fuzz targets need: a check that ends the process, and a folder of their own.
#pragma once

#include <stdlib.h>  // NOLINT(modernize-deprecated-headers): mkdtemp is POSIX

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace fuzz {

inline void require(bool holds) {
  if (!holds) std::abort();
}

// A folder in $TMPDIR that is removed with its object. A process that a fault ends leaves it there.
class ScratchFolder {
 public:
  ScratchFolder() {
    auto name = (std::filesystem::temp_directory_path() / "runeflow-fuzz-XXXXXX").string();
    require(::mkdtemp(name.data()) != nullptr);
    path_ = name;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  std::string file(std::string_view name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace fuzz
