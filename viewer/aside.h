// SPDX-License-Identifier: MIT

// Work that other servers and programs may delay for long, such as connecting.
#pragma once

#include <chrono>
#include <exception>
#include <expected>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "asks.h"
#include "host/failure.h"
#include "runeflow/platform/background.h"
#include "runeflow/platform/unique_function.h"

namespace viewer {

// Runs `work` on a thread of its own and waits for its result or the cancellation. Returns absence
// if it was cancelled; the work then goes on by itself, and may only use what it owns. Throws a
// host::Failure with the sentence of the exception that `work` throws: the exception itself ends on
// its thread.
template <class Result>
std::optional<Result> aside(const Cancellation& cancellation,
                            runeflow::UniqueFunction<Result()> work) {
  constexpr std::chrono::milliseconds kInterval{50};
  auto promise = std::make_shared<std::promise<std::expected<Result, std::string>>>();
  auto future = promise->get_future();
  const bool hasStarted = runeflow::runInBackground([promise, work = std::move(work)]() mutable {
    try {
      promise->set_value(work());
    } catch (const std::exception& exception) {
      promise->set_value(std::unexpected(exception.what()));
    }
  });
  if (!hasStarted) return std::nullopt;
  while (future.wait_for(kInterval) != std::future_status::ready) {
    if (cancellation->load()) return std::nullopt;
  }
  auto result = future.get();
  if (!result) throw host::Failure(result.error());
  return *std::move(result);
}

}  // namespace viewer
