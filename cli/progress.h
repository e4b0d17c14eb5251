// The one line about a running capture that a terminal shows, and the library's log beside it.
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

// Draws on standard error when that is a terminal (and NO_COLOR is not set), a few times a second;
// otherwise draws nothing.
// The library's log lines are printed above it while it lives; repeats of a line are only counted.
class Progress {
 public:
  // `totalBytes` is absent for a stream whose length nobody knows.
  Progress(const runeflow::CaptureSession& session, std::optional<std::int64_t> totalBytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void tick();

  // Prints a line of its own above the progress.
  void say(const std::string& line);

  // Takes the drawing away and prints what the capture came to; of a capped database, what it
  // holds.
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

  std::mutex mutex_;  // the log comes from the reader's thread; guards what follows
  std::chrono::steady_clock::time_point lastDrawn_;
  std::deque<std::pair<std::chrono::steady_clock::time_point, std::int64_t>> samples_;  // of rows
  bool isDrawn_ = false;
  std::string lastLogged_;
  std::int64_t repeats_ = 0;
};

}  // namespace cli
