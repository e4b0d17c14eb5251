// SPDX-License-Identifier: MIT
#include "host/log_layout.h"

#include <fmt/format.h>
#include <re2/re2.h>
#include <re2/set.h>

#include <algorithm>
#include <vector>

namespace host {
namespace {

using std::string_view_literals::operator""sv;

std::string_view asText(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

struct Layout {
  const char* name;  // empty: threadtime, which is what the decoder reads
  const char* pattern;
};

// The formats of logcat's option -v and their modifiers. \T is a date and time, \L a level.
constexpr Layout kLayouts[] = {
    {"brief", R"(\L/.*?\( *\d+\): )"},
    {"process", R"(\L\( *\d+\) )"},
    {"thread", R"(\L\( *\d+: *\d+\) )"},
    {"time", R"(\T\.\d{3} \L/.*?\( *\d+\): )"},
    {"long", R"(\[ \T\.\d+ +\d+: *\d+ \L/.* \])"},
    {"tag", R"(\L/[^ ]* *: )"},
    {"year", R"(\d{4}-\T\.\d+ .*)"},
    {"nsec", R"(\T\.\d{9} .*)"},
    {"usec", R"(\T\.\d{6} .*)"},
    {"zone", R"(\T\.\d{3} [+-]\d{4} .*)"},
    {"uid", R"(\T\.\d{3} +[a-z0-9_]+ +\d+ +\d+ \L .*)"},
    {"epoch", R"( *\d{9,}\.\d+ +\d+ +\d+ \L .*)"},
    {"monotonic", R"( *\d{1,8}\.\d+ +\d+ +\d+ \L .*)"},
    {"", R"(\T\.\d+ +\d+ +\d+ \L .*)"},
};

std::string expanded(std::string pattern) {
  RE2::GlobalReplace(&pattern, R"(\\T)", R"(\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)");
  RE2::GlobalReplace(&pattern, R"(\\L)", "[VDIWEFAS]");
  return pattern;
}

// Finds the layout of a line.
class LayoutPatterns {
 public:
  LayoutPatterns() : set_(RE2::Latin1, RE2::ANCHOR_START) {
    for (const auto& layout : kLayouts) set_.Add(expanded(layout.pattern), nullptr);
    set_.Compile();
  }

  // Returns the first of the layouts, or null.
  const Layout* layoutOf(std::string_view line) const {
    std::vector<int> found;
    if (!set_.Match(re2::StringPiece(line.data(), line.size()), &found)) return nullptr;
    return &kLayouts[std::ranges::min(found)];
  }

 private:
  RE2::Set set_;
};

// Compressed files and archives that this library does not unpack.
struct Archive {
  std::string_view mark;  // the first bytes
  const char* name;
  const char* unpack;  // a command that writes the log to standard output
};

constexpr Archive kArchives[] = {
    {"PK\x03\x04"sv, "a zip archive", "unzip -p {} LOG"},
    {"\xFD"
     "7zXZ\0"sv,
     "compressed with xz", "xz -dc {}"},
    {"\x28\xB5\x2F\xFD"sv, "compressed with zstd", "zstd -dc {}"},
    {"BZh"sv, "compressed with bzip2", "bzip2 -dc {}"},
};

}  // namespace

std::string_view otherLogcatLayout(std::span<const std::uint8_t> sample) {
  static const LayoutPatterns patterns;
  auto text = asText(sample);
  for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    if (const auto* layout = patterns.layoutOf(text.substr(0, end))) return layout->name;
    text.remove_prefix(end + 1);
  }
  return {};
}

std::string reasonToRefuse(std::span<const std::uint8_t> sample, const std::string& name) {
  constexpr std::size_t kStorageHeader = 16;  // bytes, before the standard header
  constexpr int kVersionShift = 5;            // HTYP bits 5 to 7
  constexpr int kVersion2 = 2;
  const auto text = asText(sample);
  if (text.starts_with("SQLite format 3\0"sv)) {
    return fmt::format(
        "is a database, not a log; runeflow query {0} asks it, and runeflow capture LOG --db {0} "
        "adds to it",
        name);
  }
  const bool isVersion2 = text.starts_with("DLT\x02"sv) ||
                          (text.starts_with("DLT\x01"sv) && sample.size() > kStorageHeader &&
                           sample[kStorageHeader] >> kVersionShift == kVersion2);
  if (isVersion2) {
    return "is a recording of DLT protocol version 2, which cannot be read; record it with "
           "version 1";
  }
  const auto* archive = std::ranges::find_if(
      kArchives, [text](const Archive& known) { return text.starts_with(known.mark); });
  if (archive == std::end(kArchives)) return {};
  return fmt::format("is {}; unpack it into the command: {} | runeflow capture - --db DB",
                     archive->name, fmt::format(fmt::runtime(archive->unpack), name));
}

}  // namespace host
