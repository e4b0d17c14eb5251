// SPDX-License-Identifier: MIT

// Questions that a newer one makes pointless: each letter typed into the query line asks anew.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace viewer {

using Cancellation = std::shared_ptr<std::atomic<bool>>;

// All functions may be called from any thread.
class Asks {
 public:
  // Returns a cancellation for the question named `name`, and cancels the one that had this name
  // before. An empty name is no name.
  Cancellation begin(const std::string& name);

  // Cancels all questions, also those to come.
  void cancelAll();

 private:
  static constexpr std::size_t kMostNames = 256;

  std::mutex mutex_;
  std::list<std::pair<std::string, Cancellation>> latest_;  // the most recent name first
  std::list<std::weak_ptr<std::atomic<bool>>> all_;
  bool isEnding_ = false;
};

}  // namespace viewer
