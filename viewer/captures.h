// SPDX-License-Identifier: MIT

// The captures that the page started, and the one of a log that `runeflow view` was given.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/stream.h"

namespace viewer {

// How a capture stands.
struct CaptureState {
  std::int64_t id = 0;
  std::string source;          // the name of the stream
  std::string database;        // its path
  bool isRunning = true;       // false: all that it will store is stored
  std::int64_t records = 0;    // stored by this capture
  double rate = 0;             // records a second, over the last two seconds
  std::int64_t usedBytes = 0;  // of the database
  std::int64_t lost = 0;       // records that could not be stored
  std::string error;           // why it ended early, as a sentence
  std::int64_t maxBytes = 0;   // the size cap; 0 is none
};

// All functions may be called from any thread. Each running capture has a thread.
class Captures {
 public:
  // Calls `onChange` from the threads of the captures, a few times a second.
  explicit Captures(std::function<void()> onChange);
  ~Captures() { end(); }
  Captures(const Captures&) = delete;
  Captures& operator=(const Captures&) = delete;

  // Starts to capture `stream` into the database, which is created if it does not exist. Fails with
  // a sentence if that is not possible. Returns the number of the capture.
  std::int64_t start(host::Stream stream, const std::string& database, std::int64_t maxBytes);

  // Ends all captures and waits for them; none can start any more. Their records are stored within
  // a second, or are lost.
  void end();

  // These do nothing for a capture that has ended. Return false if there is no such capture.
  bool end(std::int64_t id);
  bool setMaxBytes(std::int64_t id, std::int64_t maxBytes);

  // Returns the captures in the order of their start: all that run, and the latest that ended.
  std::vector<CaptureState> states() const;

 private:
  class Capture;
  static constexpr std::size_t kMostRunning = 8;
  static constexpr std::size_t kMostKept = 20;

  std::shared_ptr<Capture> find(std::int64_t id) const;

  std::function<void()> onChange_;
  mutable std::mutex mutex_;  // guards the members below
  std::list<std::shared_ptr<Capture>> captures_;
  std::int64_t lastId_ = 0;
  bool isEnding_ = false;
};

}  // namespace viewer
