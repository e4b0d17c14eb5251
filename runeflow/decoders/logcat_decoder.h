// SPDX-License-Identifier: MIT
/// \file
/// Decodes Android logcat text in the threadtime format, one record per line:
///
///     12-31 23:59:59.999  1234  5678 I ActivityManager: Start proc
///
/// The records fit SourceDescriptor::logcat(): slot 0 holds the tag, slot 1 the process ID and slot
/// 2 the thread ID. Invalid UTF-8 becomes U+FFFD.
///
/// Dates carry no year. They are read as local times of this machine, in the year in which the
/// decoder was created. A date with a day that its month does not have counts on into the next
/// month: 30 February is 1 or 2 March. The fraction of a second is a whole number of milliseconds
/// (".5" is 5 ms). It may have a sign; a negative fraction is subtracted from the second. A
/// fraction that is not a whole number counts as 0.
///
/// Empty lines and banners (lines that begin with "-") give no record. Any other line that is not
/// threadtime text gives a raw row: a record of level Info with the whole line as its message and
/// the current time. A line whose fraction, in nanoseconds, does not fit 64 bits also gives a raw
/// row. The last line of a stream is lost unless it ends with a line feed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/decoders/row_decoder.h"
#include "runeflow/platform/api.h"

namespace runeflow {

class LogcatLineReader;

/// Decodes one logcat stream.
class RUNEFLOW_EXPORT LogcatDecoder final : public RowDecoder {
 public:
  /// Creates a decoder for a new stream. Calls `now` once to find out the year of the dates. Later
  /// the decoder calls `now` once for each raw row and uses the result as the row's time.
  explicit LogcatDecoder(Clock now);
  ~LogcatDecoder() override;

  /// Returns the records of the lines that `bytes` completes. The decoder keeps an unfinished line,
  /// whose length has no limit: a stream without line feeds fills the memory.
  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override;

  /// The largest number of bytes at the start of a stream that looksLikeThreadtime() examines.
  static constexpr std::size_t sampleSize = 8'192;

  /// Returns true if the first `sampleSize` bytes of `bytes`, the start of a stream, hold a
  /// complete line of threadtime text, its line feed included.
  static bool looksLikeThreadtime(std::span<const std::uint8_t> bytes);

 private:
  void appendLine(std::string_view line, std::vector<LogRow>& rows);
  void appendText(std::string_view line, std::vector<LogRow>& rows);

  std::string carry_;             // the bytes after the last line feed
  std::size_t expectedRows_ = 0;  // estimate for the next piece, from the rows of the last one
  Clock now_;
  std::unique_ptr<LogcatLineReader> lines_;
};

}  // namespace runeflow
