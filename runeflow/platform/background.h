// Blocking work on a background thread, and its result as something to await.
//
//   auto answer = Async<int>([] { return slowSum(); });   // the work has begun
//   int sum = answer.get();                               // plain code blocks here
//   int sum = co_await answer;                            // a coroutine suspends instead
//
// Every piece of work has a thread of its own, so any number may run at once and one that never
// ends holds up none of the others. The threads have utility priority and take no signals. A thread
// ends with its work; it holds its share of the result, so an Async may be dropped at any time
// without waiting, and the work then ends unheard.
#pragma once

#include <cassert>
#include <condition_variable>
#include <coroutine>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace runeflow {

// Runs `work`, which must not throw, on a new thread. False when the system has no thread left; the
// work is then not run.
bool runInBackground(std::move_only_function<void()> work);

// The result of one piece of work. Taken once, by get() or by co_await; an Async whose result was
// taken, or that was moved from, may only be assigned to or destroyed. Not to be used by two
// threads at a time.
template <class T>
class [[nodiscard]] Async {
  struct State;

 public:
  // Starts `work` at once. When no thread can be had the result is T{}.
  explicit Async(std::move_only_function<T()> work) : state_(std::make_shared<State>()) {
    const bool started = runInBackground(
        [state = state_, work = std::move(work)]() mutable { state->deliver(work()); });
    if (!started) state_->deliver(T{});
  }

  // A result that is there already; no thread is involved.
  static Async ready(T value) {
    Async async;
    async.state_->deliver(std::move(value));
    return async;
  }

  Async(Async&&) noexcept = default;
  Async& operator=(Async&&) noexcept = default;

  // Blocks until the work is done.
  T get() {
    assert(state_ && "the result has been taken");
    const auto state = std::exchange(state_, nullptr);
    std::unique_lock lock(state->mutex);
    state->delivered.wait(lock, [&] { return state->value.has_value(); });
    return std::move(*state->value);
  }

  // Suspends until the work is done. The coroutine goes on on the work's thread, or without a pause
  // when the work is done already. A suspended coroutine may be destroyed, and is then not resumed;
  // that this does not happen in the very moment in which the result comes is its owner's care.
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

  // Lives in the frame of the coroutine that waits.
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
      // Once the lock is released the coroutine may run on the other thread, and this object end.
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
