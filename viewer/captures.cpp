// SPDX-License-Identifier: MIT
#include "captures.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <filesystem>
#include <thread>
#include <utility>

#include "host/capture.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/pipe.h"
#include "runeflow/platform/file_descriptor.h"

namespace viewer {

using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kTellInterval{250};
constexpr std::size_t kRateSamples = 8;  // two seconds

bool isSameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return a == b || std::filesystem::equivalent(a, b, error);
}

}  // namespace

class Captures::Capture {
 public:
  Capture(std::int64_t id, host::Stream stream, const std::string& database, std::int64_t maxBytes,
          std::function<void()> onChange)
      : stream_(std::move(stream)),
        store_(host::openForCapture(database, stream_.kind->descriptor())),
        session_(database, store_.descriptor()),
        end_(host::openPipe()),
        onChange_(std::move(onChange)) {
    state_.id = id;
    state_.source = stream_.name;
    state_.database = database;
    state_.usedBytes = store_.usedBytes();
    host::configure(session_);
    setMaxBytes(maxBytes);
    thread_ = std::thread([this] { run(); });
  }
  ~Capture() {
    end();
    wait();
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  void end() { [[maybe_unused]] const auto written = ::write(end_.writeEnd.get(), "", 1); }

  // Only one thread at a time may wait.
  void wait() {
    if (thread_.joinable()) thread_.join();
  }

  void setMaxBytes(std::int64_t maxBytes) {
    session_.setMaxBytes(maxBytes);
    const std::lock_guard lock(mutex_);
    state_.maxBytes = maxBytes;
  }

  CaptureState state() const {
    const std::lock_guard lock(mutex_);
    return state_;
  }

 private:
  void run() {
    std::string error;
    try {
      const auto pumped = host::captureStream(session_, stream_, nullptr, end_.readEnd.get(),
                                              {.tick = [this] { return tick(); },
                                               .onInterrupted = nullptr,
                                               .onWaiting = [this] { tick(); }});
      error = host::sentenceFor(pumped, stream_, state_.database);
      if (error.empty() && session_.progress().readersFailed > 0) {
        error = fmt::format("the rest of {} could not be stored", stream_.name);
      }
    } catch (const std::exception& failure) {
      error = failure.what();
    }
    update();
    {
      const std::lock_guard lock(mutex_);
      state_.isRunning = false;
      state_.rate = 0;
      state_.error = error;
    }
    store_.close();
    onChange_();
  }

  // Returns false if the database is gone.
  bool tick() {
    const auto now = Clock::now();
    if (now - told_ < kTellInterval) return true;
    told_ = now;
    update();
    onChange_();
    return !store_.hasLostItsFile();
  }

  void update() {
    const auto done = session_.progress();
    samples_.emplace_back(Clock::now(), done.rowsStored);
    if (samples_.size() > kRateSamples) samples_.pop_front();
    const auto& [since, before] = samples_.front();
    const double seconds = std::chrono::duration<double>(samples_.back().first - since).count();
    const auto usedBytes = store_.usedBytes();
    const std::lock_guard lock(mutex_);
    state_.records = done.rowsStored;
    state_.lost = done.rowsLost;
    state_.usedBytes = usedBytes;
    state_.rate = seconds > 0 ? static_cast<double>(done.rowsStored - before) / seconds : 0;
  }

  // Of the capture's thread alone:
  host::Stream stream_;
  runeflow::EventStore store_;
  runeflow::CaptureSession session_;
  host::Pipe end_;  // a byte in it ends the capture
  std::function<void()> onChange_;
  Clock::time_point told_;
  std::deque<std::pair<Clock::time_point, std::int64_t>> samples_;  // records stored

  mutable std::mutex mutex_;
  CaptureState state_;  // guarded by mutex_, but for the texts that never change

  std::thread thread_;
};

Captures::Captures(std::function<void()> onChange) : onChange_(std::move(onChange)) {}

void Captures::end() {
  std::list<std::shared_ptr<Capture>> captures;
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
    captures = captures_;
  }
  for (const auto& capture : captures) capture->end();  // all, before the first is awaited
  for (const auto& capture : captures) capture->wait();
}

std::int64_t Captures::start(host::Stream stream, const std::string& database,
                             std::int64_t maxBytes) {
  const std::lock_guard lock(mutex_);
  if (isEnding_) host::fail("the server is ending");
  std::size_t running = 0;
  for (const auto& capture : captures_) {
    const auto state = capture->state();
    if (!state.isRunning) continue;
    ++running;
    if (isSameFile(state.database, database)) {
      host::fail("{} already captures into that database; end that capture first", state.source);
    }
  }
  if (running >= kMostRunning) host::fail("{} captures run already; end one first", running);
  captures_.push_back(
      std::make_shared<Capture>(++lastId_, std::move(stream), database, maxBytes, onChange_));
  const auto ended = std::ranges::find_if(
      captures_, [](const auto& capture) { return !capture->state().isRunning; });
  if (captures_.size() > kMostKept && ended != captures_.end()) captures_.erase(ended);
  return lastId_;
}

std::shared_ptr<Captures::Capture> Captures::find(std::int64_t id) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(
      captures_, [id](const auto& capture) { return capture->state().id == id; });
  return found == captures_.end() ? nullptr : *found;
}

bool Captures::end(std::int64_t id) {
  const auto capture = find(id);
  if (capture) capture->end();
  return capture != nullptr;
}

bool Captures::setMaxBytes(std::int64_t id, std::int64_t maxBytes) {
  const auto capture = find(id);
  if (capture) capture->setMaxBytes(maxBytes);
  return capture != nullptr;
}

std::vector<CaptureState> Captures::states() const {
  const std::lock_guard lock(mutex_);
  std::vector<CaptureState> states;
  for (const auto& capture : captures_) states.push_back(capture->state());
  return states;
}

}  // namespace viewer
