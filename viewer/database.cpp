// SPDX-License-Identifier: MIT
#include "database.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <utility>

#include "host/database.h"

namespace viewer {

using runeflow::EventStore;

namespace {

constexpr std::chrono::milliseconds kLookInterval{200};
constexpr std::int64_t kSpannedAtOnce = 500'000;  // records; a fraction of a second

void widen(std::optional<runeflow::TimeSpan>& span,
           const std::optional<runeflow::TimeSpan>& other) {
  if (!other) return;
  if (!span) span = other;
  span = {std::min(span->from, other->from), std::max(span->until, other->until)};
}

}  // namespace

std::string DatabaseState::name() const {
  return std::filesystem::path(path).filename().string();
}

Database::Database(std::function<void(const DatabaseState&)> onChange)
    : onChange_(std::move(onChange)), follower_([this] { follow(); }) {}

void Database::end() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  ending_.notify_all();
  if (follower_.joinable()) follower_.join();
}

DatabaseState Database::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void Database::open(const std::string& path, const std::string& source) {
  auto store = host::openDatabase(path, source);
  DatabaseState next;
  next.path = path;
  next.kind = &host::LogKind::named(store.descriptor().id());
  next.firstSeq = store.minSeq();
  next.lastSeq = store.maxSeq();
  next.count = next.lastSeq > 0 ? next.lastSeq - next.firstSeq + 1 : 0;
  next.usedBytes = store.usedBytes();
  next.hasFullText = EventStore::inspect(path).hasFullText;
  next.span = store.timeSpan(next.firstSeq, next.firstSeq);
  widen(next.span, store.timeSpan(next.lastSeq, next.lastSeq));
  host::failIfIncomplete(store, path);
  {
    const std::lock_guard lock(mutex_);
    next.opened = state_.opened + 1;
    next.generation = state_.generation + 1;
    state_ = next;
  }
  onChange_(next);
}

void Database::follow() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    lock.unlock();
    look();
    lock.lock();
    ending_.wait_for(lock, kLookInterval, [this] { return isEnding_; });
  }
}

void Database::look() {
  const auto before = state();
  if (!before.kind || !before.error.empty()) return;
  auto after = before;
  lookAt(after);
  if (after == before) return;
  {
    const std::lock_guard lock(mutex_);
    if (state_.opened != before.opened) return;
    state_ = after;
  }
  onChange_(after);
}

void Database::lookAt(DatabaseState& state) {
  if (storeOpened_ != state.opened) {
    storeOpened_ = state.opened;
    news_ = {};
    missing_.reset();
    spannedTo_ = 0;
    store_ = EventStore::openForReading(state.path, state.kind->descriptor());
  }
  if (!store_ || store_->hasLostItsFile()) {
    state.error = fmt::format(
        "{} was deleted or replaced while it was shown; open it again if it is back", state.name());
    store_.reset();
    return;
  }
  const auto change = news_.look(*store_);
  if (!change) return;  // a lock, for example; the next look tells
  if (*change == host::NewRecords::Change::renumbered) {
    ++state.generation;
    missing_ = 0;
    spannedTo_ = 0;
  }
  state.lastSeq = news_.newest();
  state.firstSeq = state.lastSeq > 0 ? store_->minSeq() : 0;
  state.usedBytes = store_->usedBytes();
  const auto span = state.lastSeq > 0 ? state.lastSeq - state.firstSeq + 1 : 0;
  // Captures and trims leave no gaps, so that one count per database is enough.
  if (!missing_) missing_ = span - store_->count();
  if (*missing_ != 0 && *change != host::NewRecords::Change::none)
    missing_ = span - store_->count();
  state.count = span - *missing_;
  growSpan(state);
  static_cast<void>(store_->takeError());
}

// The times of records are not in the order of their seqs, and there is no index on them: each
// record is read once, some of them at a time.
void Database::growSpan(DatabaseState& state) {
  const auto trimmed = state.firstSeq - spannedFrom_;
  const bool isOver = state.lastSeq == 0 || trimmed > (state.lastSeq - state.firstSeq) / 20;
  if (spannedTo_ == 0 || isOver) {
    spannedFrom_ = state.firstSeq;
    spannedTo_ = state.firstSeq - 1;
    state.span.reset();
    widen(state.span, store_->timeSpan(state.firstSeq, state.firstSeq));
  }
  const auto last = std::min(state.lastSeq, spannedTo_ + kSpannedAtOnce);
  if (last > spannedTo_) widen(state.span, store_->timeSpan(spannedTo_ + 1, last));
  if (store_->takeError()) return;  // the next look reads the same records again
  widen(state.span, store_->timeSpan(state.lastSeq, state.lastSeq));
  spannedTo_ = last;
  state.isSpanWhole = last == state.lastSeq;
}

}  // namespace viewer
