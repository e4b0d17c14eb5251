// SPDX-License-Identifier: MIT
// Reads one line of Android logcat text in the threadtime format. LogcatDecoder cuts the stream
// into lines.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "runeflow/model/log_row.h"
#include "runeflow/platform/local_time_p.h"

namespace runeflow {

// The fields of one line. The texts are views into the line.
struct LogcatLine {
  Timestamp timestamp;
  RuneflowLogLevel level;
  std::string_view tag;
  std::string_view pid;
  std::string_view tid;
  std::string_view message;
};

// Reads the lines of one stream. It remembers the second of the last line, because most lines have
// the same second as the line before.
class LogcatLineReader {
 public:
  // The dates of the lines are local times in `year`.
  explicit LogcatLineReader(std::int64_t year) : year_(year) {}

  // Returns the fields of a line of valid UTF-8, without its line end. Absent if the line is not
  // threadtime text.
  std::optional<LogcatLine> read(std::string_view line);

  // The same for an ASCII line in exactly the layout that logcat prints, in a fraction of the time.
  // Absent for all other lines; the caller then passes the line to read(). `line` may hold any
  // bytes.
  std::optional<LogcatLine> readUsual(std::string_view line);

 private:
  static constexpr std::size_t kSecondSize = 14;  // "MM-DD hh:mm:ss"

  bool rememberSecond(std::string_view line);

  std::int64_t year_;
  LocalTimeZone zone_;
  std::array<char, kSecondSize> lastSecondText_{'\xff'};  // at first not ASCII: equals no line
  std::int64_t lastSecond_ = 0;                           // seconds since 1970
};

}  // namespace runeflow
