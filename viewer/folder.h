// SPDX-License-Identifier: MIT

// The folder that `runeflow view` was started in: the only place where the page may open and make
// databases.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace viewer {

class Folder {
 public:
  // The current folder of the process.
  Folder();

  struct File {
    std::string name;
    std::int64_t bytes;
  };
  // Returns the regular files whose names end in ".db", by name; at most 1,000.
  std::vector<File> databases() const;

  // Returns the path of such a file, or fails. A symbolic link is no such file.
  std::string existing(const std::string& name) const;

  // Fails if `name` is not the plain name of a file ("car.db": no folder, no hidden file, at most
  // 100 bytes), or if anything has that name already.
  void requireNew(const std::string& name) const;

  // Makes an empty file and returns its path. Fails as requireNew() does.
  std::string make(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace viewer
