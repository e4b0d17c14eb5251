// Android logcat text in its threadtime layout, one record a line:
//
//   12-31 23:59:59.999  1234  5678 I ActivityManager: Start proc
//
// fills SourceDescriptor::logcat(): tag in s0, PID in s1, TID in s2. Dates carry no year: they are
// read as local times of this machine, in the year in which the decoder was made. Banners (lines
// beginning with "-") and empty lines give no row; any other line that is not threadtime text
// becomes a row of level Info with the whole line as its message and the current time. The last
// line counts only with its line feed. Invalid UTF-8 becomes U+FFFD.
//
// A day that its month does not have rolls over into the next month. A fraction is a whole number
// of milliseconds (".5" is 5 ms), which a sign may precede; a negative one lies before the second.
// A fraction too large for 64-bit nanoseconds makes the line a raw row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/decoders/row_decoder.h"

namespace runeflow {

class LocalTimeZone;

class LogcatDecoder final : public RowDecoder {
 public:
  // `now` gives the year, once, and the time of every line that is not threadtime text.
  explicit LogcatDecoder(Clock now);
  ~LogcatDecoder() override;

  // A stream without line feeds is kept until one comes, however long that takes.
  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override;

  // How many bytes of a stream looksLikeThreadtime() examines at most.
  static constexpr std::size_t sampleSize = 8'192;

  // Whether the first `sampleSize` bytes of a stream hold a complete line of threadtime text.
  static bool looksLikeThreadtime(std::span<const std::uint8_t> bytes);

 private:
  void appendLine(std::string_view line, std::vector<LogRow>& rows);
  void appendRow(std::string_view text, std::vector<LogRow>& rows);

  std::string carry_;             // what follows the last line feed
  std::size_t expectedRows_ = 0;  // of the next piece, by those of the last
  Clock now_;
  std::int64_t year_;
  std::unique_ptr<LocalTimeZone> zone_;
};

}  // namespace runeflow
