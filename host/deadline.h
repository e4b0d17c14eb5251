// SPDX-License-Identifier: MIT

// Ends the reads of a store when a time is up, for what is worth only a short search.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "runeflow/store/event_store.h"

namespace host {

// While an object exists, the store has a cancellation of its own. Reads that it ends, and other
// failures of them, are not reported by EventStore::takeError() later.
class Deadline {
 public:
  // The store must outlive the object.
  Deadline(runeflow::EventStore& store, std::chrono::milliseconds time) : store_(store) {
    store_.setCancellation(isOver_);
    timer_ = std::jthread([this, time](const std::stop_token& stop) {
      std::unique_lock lock(mutex_);
      if (!ended_.wait_for(lock, stop, time, [&stop] { return stop.stop_requested(); })) {
        isOver_->store(true);
      }
    });
  }
  ~Deadline() {
    timer_.request_stop();
    timer_.join();
    store_.setCancellation(nullptr);
    store_.takeError();
  }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

 private:
  runeflow::EventStore& store_;
  std::shared_ptr<std::atomic<bool>> isOver_ = std::make_shared<std::atomic<bool>>(false);
  std::mutex mutex_;
  std::condition_variable_any ended_;
  std::jthread timer_;
};

}  // namespace host
