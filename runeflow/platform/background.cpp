// SPDX-License-Identifier: MIT
#include "runeflow/platform/background.h"

#include <sys/resource.h>
#include <unistd.h>

#include "runeflow/platform/thread_p.h"

namespace runeflow {
namespace {

constexpr std::size_t kWorkerStack = std::size_t{4} << 20;
constexpr int kUtilityNiceness = 10;

}  // namespace

bool runInBackground(std::move_only_function<void()> work) {
  std::move_only_function<void()> body = [work = std::move(work)]() mutable {
    // On Linux, niceness is a property of the thread. A failure is ignored: the work must run
    // anyway.
    const auto thread = static_cast<id_t>(::gettid());
    if (::getpriority(PRIO_PROCESS, thread) < kUtilityNiceness) {
      ::setpriority(PRIO_PROCESS, thread, kUtilityNiceness);
    }
    work();
  };
  return startThread({"runeflow.worker", kWorkerStack}, body);
}

}  // namespace runeflow
