// SPDX-License-Identifier: MIT
#include "runeflow/decoders/logcat_decoder.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "runeflow/decoders/logcat_line_p.h"
#include "runeflow/platform/local_time_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kMostRowsReserved = 4096;
constexpr std::size_t kLargestIdleCarry = std::size_t{1} << 20;

std::string_view asText(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Calls `use` with every complete line except empty lines and banners, without its line end, until
// `use` returns false. Returns the number of bytes up to and including the last line feed found.
template <class Use>
std::size_t forEachLine(std::string_view bytes, Use use) {
  std::size_t start = 0;
  for (auto end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n', start)) {
    auto line = bytes.substr(start, end - start);
    start = end + 1;
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.front() == '-') continue;
    if (!use(line)) break;
  }
  return start;
}

void appendRow(const LogcatLine& line, std::vector<LogRow>& rows) {
  rows.emplace_back(line.timestamp, line.level, line.message,
                    std::array{line.tag, line.pid, line.tid});
}

}  // namespace

LogcatDecoder::LogcatDecoder(Clock now)
    : now_(std::move(now)),
      lines_(std::make_unique<LogcatLineReader>(localYear(now_().time_since_epoch().count()))) {}

LogcatDecoder::~LogcatDecoder() = default;

std::vector<LogRow> LogcatDecoder::consume(std::span<const std::uint8_t> bytes) {
  std::vector<LogRow> rows;
  auto input = asText(bytes);
  rows.reserve(expectedRows_);
  const auto append = [&](std::string_view line) {
    appendLine(line, rows);
    return true;
  };
  if (!carry_.empty()) {
    // Only the new bytes are searched, because the carry holds no line feed.
    const auto end = input.find('\n');
    const auto restOfLine = input.substr(0, end == std::string_view::npos ? end : end + 1);
    carry_ += restOfLine;
    if (end == std::string_view::npos) return rows;
    forEachLine(carry_, append);
    carry_.clear();
    if (carry_.capacity() > kLargestIdleCarry) carry_.shrink_to_fit();
    input.remove_prefix(restOfLine.size());
  }
  carry_ = input.substr(forEachLine(input, append));
  expectedRows_ = std::min(kMostRowsReserved, rows.size() + rows.size() / 8);
  return rows;
}

void LogcatDecoder::appendLine(std::string_view line, std::vector<LogRow>& rows) {
  if (const auto usual = lines_->readUsual(line)) {
    appendRow(*usual, rows);
  } else if (unicode::isValidUtf8(line)) {
    appendText(line, rows);
  } else {
    appendText(unicode::decodeLossily(line), rows);
  }
}

void LogcatDecoder::appendText(std::string_view line, std::vector<LogRow>& rows) {
  if (const auto fields = lines_->read(line)) {
    appendRow(*fields, rows);
  } else {
    rows.emplace_back(now_(), RuneflowLogLevel::Info, line, std::nullopt, LogRow::Slots());
  }
}

bool LogcatDecoder::looksLikeThreadtime(std::span<const std::uint8_t> bytes) {
  constexpr std::int64_t kLeapYear = 2000;  // 29 February needs no rollover
  LogcatLineReader lines(kLeapYear);
  bool found = false;
  forEachLine(asText(bytes.first(std::min(bytes.size(), sampleSize))), [&](std::string_view line) {
    found = lines.read(unicode::decodeLossily(line)).has_value();
    return !found;
  });
  return found;
}

}  // namespace runeflow
