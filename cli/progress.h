// SPDX-License-Identifier: MIT

// A line on standard error that shows the progress of a capture. The lines of the library's log are
// printed above it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "runeflow/capture/capture_session.h"

namespace cli {

// Redraws the line a few times a second. Draws nothing if standard error is not a terminal or
// NO_COLOR is set. While the object exists, it prints the lines of the library's log. If a line
// repeats, it prints only the number of repeats.
class Progress {
 public:
  // `totalBytes` is absent if the length of a stream is unknown.
  Progress(const runeflow::CaptureSession& session, std::optional<std::int64_t> totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void tick();

  // Prints a line above the progress.
  void say(const std::string& line);

  // Erases the line and prints the totals of the capture. `recordsKept` is the number of records
  // left in a database with a size cap.
  void summarise(std::optional<std::int64_t> recordsKept);

 private:
  std::string text(const runeflow::CaptureProgress& done) const;
  double seconds() const;
  void erase();
  void logLine(std::string line);
  void flushRepeats();

  const runeflow::CaptureSession& session_;
  std::optional<std::int64_t> totalBytes_;
  bool draws_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();

  std::mutex mutex_;  // guards the members below; the log comes from the reader's thread
  std::chrono::steady_clock::time_point lastDrawn_;
  std::deque<std::pair<std::chrono::steady_clock::time_point, std::int64_t>>
      samples_;  // rows stored
  bool isDrawn_ = false;
  std::string lastLogged_;
  std::int64_t repeats_ = 0;
};

}  // namespace cli
