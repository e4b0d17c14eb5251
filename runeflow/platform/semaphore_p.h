// SPDX-License-Identifier: MIT

// A counting semaphore with a timed wait.
//
// It replaces std::counting_semaphore, which can miss a release in libstdc++ 12 (GCC PR 104928).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace runeflow {

// All members may be called from any thread.
class Semaphore {
 public:
  // Adds one to the count and wakes one waiting thread.
  void release() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_one();
  }

  // Waits until the count is above 0 and takes one from it.
  void acquire() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return count_ > 0; });
    --count_;
  }

  // Waits as acquire() does, but for at most `timeout`. Returns false if the count stayed 0.
  template <class Rep, class Period>
  bool tryAcquireFor(std::chrono::duration<Rep, Period> timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return count_ > 0; })) return false;
    --count_;
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t count_ = 0;  // guarded by mutex_
};

}  // namespace runeflow
