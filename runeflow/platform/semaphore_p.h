// A counting semaphore with a timed wait.
//
// std::counting_semaphore of libstdc++ 12 can miss a release (GCC PR 104928), hence this one.
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

  // Returns false if the count stays 0 until the timeout has passed.
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
