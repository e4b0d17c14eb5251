// SPDX-License-Identifier: MIT
#include "asks.h"

#include <algorithm>

namespace viewer {

Cancellation Asks::begin(const std::string& name) {
  const std::lock_guard lock(mutex_);
  auto cancellation = std::make_shared<std::atomic<bool>>(isEnding_);
  all_.remove_if([](const auto& known) { return known.expired(); });
  all_.push_back(cancellation);
  if (name.empty()) return cancellation;
  const auto known =
      std::ranges::find(latest_, name, [](const auto& entry) { return entry.first; });
  if (known != latest_.end()) {
    known->second->store(true);
    latest_.erase(known);
  }
  latest_.emplace_front(name, cancellation);
  if (latest_.size() > kMostNames) latest_.pop_back();
  return cancellation;
}

void Asks::cancelAll() {
  const std::lock_guard lock(mutex_);
  isEnding_ = true;
  for (const auto& known : all_) {
    if (const auto cancellation = known.lock()) cancellation->store(true);
  }
}

}  // namespace viewer
