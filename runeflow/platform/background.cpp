// SPDX-License-Identifier: MIT
#include "runeflow/platform/background.h"

#include "runeflow/platform/system_calls_p.h"
#include "runeflow/platform/thread_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kWorkerStack = std::size_t{4} << 20;

}  // namespace

bool runInBackground(UniqueFunction<void()> work) {
  UniqueFunction<void()> body = [work = std::move(work)]() mutable {
    system_calls::makeThisThreadBackground();
    work();
  };
  return startThread({"runeflow.worker", kWorkerStack}, body);
}

}  // namespace runeflow
