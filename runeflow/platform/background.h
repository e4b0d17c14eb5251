// SPDX-License-Identifier: MIT
/// \file
/// Runs blocking work on a background thread and lets the caller wait for its result.
///
///     auto answer = Async<int>([] { return slowSum(); });   // starts the work
///     const int sum = answer.get();                         // blocks until the work is done
///
/// A coroutine waits with `co_await answer` instead of get(), which suspends it without blocking a
/// thread.
///
/// Each piece of work runs on its own thread, which exits when the work is done. Any number of
/// threads can run at once, and work that never ends does not delay other work. The threads run at
/// utility priority (on Linux a niceness of at least 10), have a stack of 4 MiB and receive no
/// asynchronous signals.
///
/// An Async may be destroyed at any time without waiting, because the thread shares ownership of
/// the result. The work then runs to its end and its result is discarded.
#pragma once

#include <cassert>
#include <condition_variable>
#include <coroutine>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "runeflow/platform/api.h"
#include "runeflow/platform/unique_function.h"

namespace runeflow {

/// Runs `work`, which must not throw, on a new thread, and does not wait for it. Returns false,
/// without running `work`, if the system cannot create a thread. Async is built on this function.
RUNEFLOW_EXPORT bool runInBackground(UniqueFunction<void()> work);

/// The result of one piece of work. The caller takes it once, with get() or with co_await. An Async
/// that was moved from, or whose result was taken, may only be assigned to or destroyed. Two
/// threads must not use the same Async at the same time.
template <class T>
class [[nodiscard]] Async {
  struct State;

 public:
  /// Starts `work`, which must not throw, at once. If the system cannot create a thread, `work`
  /// does not run and the result is T{}.
  explicit Async(UniqueFunction<T()> work) : state_(std::make_shared<State>()) {
    const bool started = runInBackground(
        [state = state_, work = std::move(work)]() mutable { state->deliver(work()); });
    if (!started) state_->deliver(T{});
  }

  /// Returns an Async that already holds `value`. Creates no thread.
  static Async ready(T value) {
    Async async;
    async.state_->deliver(std::move(value));
    return async;
  }

  /// A moved-from object may only be assigned to or destroyed.
  Async(Async&&) noexcept = default;
  /// Discards the present result, if there is one.
  Async& operator=(Async&&) noexcept = default;

  /// Blocks until the work is done and returns its result.
  T get() {
    assert(state_ && "the result has been taken");
    const auto state = std::exchange(state_, nullptr);
    std::unique_lock lock(state->mutex);
    state->delivered.wait(lock, [&] { return state->value.has_value(); });
    return std::move(*state->value);
  }

  /// Suspends the coroutine until the work is done, then resumes it on the work's thread with the
  /// result. If the work is already done, the coroutine continues at once on its own thread.
  ///
  /// A suspended coroutine may be destroyed and is then not resumed. The caller that destroys it
  /// must ensure that the work does not end at the same moment, because the work's thread may
  /// already be resuming the coroutine.
  auto operator co_await() {
    assert(state_ && "the result has been taken");
    return Awaiter(std::exchange(state_, nullptr));
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable delivered;
    std::optional<T> value;             // guarded by mutex
    std::coroutine_handle<> suspended;  // guarded by mutex

    void deliver(T result) {
      std::coroutine_handle<> waiting;
      {
        const std::lock_guard lock(mutex);
        value = std::move(result);
        waiting = std::exchange(suspended, nullptr);
        delivered.notify_all();
      }
      if (waiting) waiting.resume();
    }
  };

  // Lives in the frame of the coroutine that waits, and unregisters it if the frame is destroyed.
  class Awaiter {
   public:
    explicit Awaiter(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~Awaiter() {
      const std::lock_guard lock(state_->mutex);
      state_->suspended = nullptr;
    }
    Awaiter(const Awaiter&) = delete;
    Awaiter& operator=(const Awaiter&) = delete;

    // NOLINTBEGIN(readability-identifier-naming): the language names these three.
    bool await_ready() const { return false; }
    bool await_suspend(std::coroutine_handle<> coroutine) {
      // As soon as the lock is released, the coroutine may resume on the other thread and destroy
      // this object. The local copy keeps the mutex alive until it is unlocked.
      const auto state = state_;
      const std::lock_guard lock(state->mutex);
      if (state->value) return false;
      state->suspended = coroutine;
      return true;
    }
    T await_resume() {
      const std::lock_guard lock(state_->mutex);
      return std::move(*state_->value);
    }
    // NOLINTEND(readability-identifier-naming)

   private:
    std::shared_ptr<State> state_;
  };

  Async() : state_(std::make_shared<State>()) {}

  std::shared_ptr<State> state_;
};

}  // namespace runeflow
