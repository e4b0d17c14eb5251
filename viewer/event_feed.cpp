// SPDX-License-Identifier: MIT
#include "event_feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace viewer {

void EventFeed::send(const std::string& name, std::string json) {
  const std::lock_guard lock(mutex_);
  events_[name] = fmt::format("event: {}\ndata: {}\n\n", name, json);
  wake();
}

void EventFeed::beat() {
  const std::lock_guard lock(mutex_);
  events_.try_emplace("", ":\n\n");
  wake();
}

void EventFeed::close() {
  const std::lock_guard lock(mutex_);
  isClosed_ = true;
  wake();
}

bool EventFeed::isClosed() const {
  const std::lock_guard lock(mutex_);
  return isClosed_;
}

void EventFeed::wake() {
  if (const auto resume = std::exchange(resume_, nullptr)) resume();
}

EventFeed::Read EventFeed::read(std::span<char> buffer, const std::function<void()>& suspend,
                                std::function<void()> resume) {
  const std::lock_guard lock(mutex_);
  if (sent_ == sending_.size()) {
    sending_.clear();
    sent_ = 0;
    for (const auto& [name, text] : events_) sending_ += text;
    events_.clear();
  }
  const auto size = std::min(buffer.size(), sending_.size() - sent_);
  std::copy_n(sending_.data() + sent_, size, buffer.data());
  sent_ += size;
  if (size == 0 && !isClosed_) {
    suspend();
    resume_ = std::move(resume);
  }
  return {size, size == 0 && isClosed_};
}

}  // namespace viewer
