// SPDX-License-Identifier: MIT

// The files of viewer/page/, which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

namespace viewer {

struct PageFile {
  std::string_view name;  // below viewer/page/, with "/" between folders
  std::string_view content;
};

std::span<const PageFile> pageFiles();

}  // namespace viewer
