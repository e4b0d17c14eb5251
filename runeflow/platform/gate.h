// A counting semaphore with a timed wait.
//
// libstdc++ 12's std::counting_semaphore can sleep through a release (GCC PR 104928), hence this
// one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace runeflow {

class Gate {
 public:
  void signal() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_one();
  }

  // Takes one signal; false when none came in time.
  template <class Rep, class Period>
  bool waitFor(std::chrono::duration<Rep, Period> timeout) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [this] { return count_ > 0; })) return false;
    --count_;
    return true;
  }

  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return count_ > 0; });
    --count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t count_ = 0;  // guarded by mutex_
};

}  // namespace runeflow
