// SPDX-License-Identifier: MIT
#include "progress.h"

#include <fmt/format.h>

#include <algorithm>

#include "output.h"
#include "runeflow/platform/app_log.h"
#include "terminal.h"

namespace cli {
namespace {

constexpr std::chrono::milliseconds kRedrawInterval{100};
constexpr std::size_t kRateSamples = 20;  // the rate is measured over the last 2 s
constexpr int kBarColumns = 24;

std::string clock(double seconds) {
  const auto whole = static_cast<std::int64_t>(seconds);
  return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                      : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string megabytes(std::int64_t bytes) {
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

double rate(std::int64_t amount, double seconds) {
  return seconds > 0 ? static_cast<double>(amount) / seconds : 0;
}

}  // namespace

Progress::Progress(const runeflow::CaptureSession& session, std::optional<std::int64_t> totalBytes)
    : session_(session), totalBytes_(totalBytes), draws_(showsColour(stderr)) {
  runeflow::AppLog::attachSink(
      [this](const runeflow::AppLog::Line& line) { logLine(std::string(line.message)); });
}

Progress::~Progress() {
  sayLibraryLog();
  const std::lock_guard lock(mutex_);
  erase();
  flushRepeats();
}

void Progress::tick() {
  if (!draws_) return;
  const std::lock_guard lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (now - lastDrawn_ < kRedrawInterval) return;
  lastDrawn_ = now;
  const auto width = static_cast<std::size_t>(terminalWidth(stderr) - 3);
  const auto done = session_.progress();
  samples_.emplace_back(now, done.rowsStored);
  if (samples_.size() > kRateSamples) samples_.pop_front();
  const auto line = text(done);
  writeError(fmt::format("\r{}\x1b[K", columnsOf(line) > width ? fitted(line, width) : line));
  isDrawn_ = true;
}

std::string Progress::text(const runeflow::CaptureProgress& done) const {
  const double elapsed = seconds();
  const auto& [since, rowsBefore] = samples_.front();
  const double lately = std::chrono::duration<double>(lastDrawn_ - since).count();
  const auto rows = fmt::format("{}  {:.0f} rows/s", counted(done.rowsStored, "record"),
                                rate(done.rowsStored - rowsBefore, lately));
  if (!totalBytes_ || *totalBytes_ <= 0) {
    return fmt::format("{}  {}  {}", rows, megabytes(done.bytesRead), clock(elapsed));
  }
  const double share =
      std::min(1.0, static_cast<double>(done.bytesRead) / static_cast<double>(*totalBytes_));
  const auto left = share > 0 ? clock(elapsed / share - elapsed) : "-:--";
  const auto filled = bar(static_cast<std::int64_t>(share * 1000), 1000, kBarColumns);
  return fmt::format("▕{}▏{:3.0f}%  {}  {}  {} left", fitted(filled, kBarColumns), share * 100,
                     rows, megabytes(done.bytesRead), left);
}

double Progress::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Progress::erase() {
  if (isDrawn_) writeError("\r\x1b[K");
  isDrawn_ = false;
}

void Progress::say(const std::string& line) {
  const std::lock_guard lock(mutex_);
  erase();
  cli::say("{}", line);
}

// Counts repeated lines instead of printing them: a full disk causes the same line for every batch.
void Progress::logLine(std::string line) {
  const std::lock_guard lock(mutex_);
  if (line == lastLogged_) {
    ++repeats_;
    return;
  }
  erase();
  flushRepeats();
  cli::say("{}", line);
  lastLogged_ = std::move(line);
}

void Progress::flushRepeats() {
  if (repeats_ > 0) cli::say("(the same {} more)", counted(repeats_, "time"));
  repeats_ = 0;
}

void Progress::summarise(std::optional<std::int64_t> recordsKept) {
  const auto done = session_.progress();
  const double elapsed = seconds();
  auto summary =
      fmt::format("{}, {} in {:.2f} s, {:.0f} rows/s", counted(done.rowsStored, "record"),
                  counted(done.bytesRead, "byte"), elapsed, rate(done.rowsStored, elapsed));
  if (done.rowsLost > 0) summary += fmt::format(", {} not stored", counted(done.rowsLost, "row"));
  if (recordsKept) summary += fmt::format(", {} kept", counted(*recordsKept, "record"));
  const std::lock_guard lock(mutex_);
  erase();
  flushRepeats();
  cli::say("{}", summary);
}

}  // namespace cli
