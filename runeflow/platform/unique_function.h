// SPDX-License-Identifier: MIT
/// \file
/// A callable object that need not be copyable, for example a lambda that owns a
/// `std::unique_ptr`. It stands in for `std::move_only_function`, which libc++ lacks.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "runeflow/platform/api.h"

namespace runeflow {

template <class Signature>
class UniqueFunction;

/// Owns one callable object. A default-constructed or moved-from UniqueFunction is empty, and so is
/// one made from a null pointer. Two threads must not use the same object at the same time.
template <class Result, class... Arguments>
class UniqueFunction<Result(Arguments...)> {
 public:
  UniqueFunction() = default;
  /// Makes an empty object.
  UniqueFunction(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): as std::function
  /// Takes over `callable`, a function or an object with a call operator.
  template <class Callable>
    requires(!std::same_as<std::decay_t<Callable>, UniqueFunction> &&
             std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
  UniqueFunction(Callable&& callable) {  // NOLINT(google-explicit-constructor): as std::function
    if constexpr (std::is_pointer_v<std::remove_reference_t<Callable>>) {
      if (!callable) return;
    }
    target_ = std::make_unique<Holder<std::decay_t<Callable>>>(std::forward<Callable>(callable));
  }

  /// True if the object can be called.
  explicit operator bool() const { return target_ != nullptr; }

  /// Calls the callable. The object must not be empty.
  Result operator()(Arguments... arguments) {
    return target_->call(std::forward<Arguments>(arguments)...);
  }

 private:
  struct Target {
    Target() = default;
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;
    virtual ~Target() = default;
    virtual Result call(Arguments... arguments) = 0;
  };
  template <class Callable>
  struct Holder final : Target {
    explicit Holder(Callable from) : callable(std::move(from)) {}
    Result call(Arguments... arguments) override {
      if constexpr (std::is_void_v<Result>) {
        callable(std::forward<Arguments>(arguments)...);
      } else {
        return callable(std::forward<Arguments>(arguments)...);
      }
    }
    Callable callable;
  };

  std::unique_ptr<Target> target_;
};

}  // namespace runeflow
