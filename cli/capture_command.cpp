// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "commands.h"
#include "host/capture.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/overlap.h"
#include "host/pump.h"
#include "host/stored_before.h"
#include "host/stream.h"
#include "interrupt.h"
#include "progress.h"
#include "terminal.h"

namespace cli {

using host::fail;
using host::PumpResult;
using host::Stream;
using host::StreamEnd;
using runeflow::CaptureSession;

namespace {

constexpr int kFirstRetrySeconds = 1;
constexpr int kLastRetrySeconds = 30;
constexpr std::chrono::milliseconds kLookInterval{500};

Stream connectLive(const CaptureOptions& options) {
  return options.isAdb ? host::connectToAdb(options.adbTarget, options.serial, options.command)
                       : host::connectToDlt(options.dltTarget);
}

// Captures streams through one session, one after the other, until they end or the user
// interrupts.
class Capture {
 public:
  Capture(const CaptureOptions& options, std::vector<Stream> streams)
      : options_(options),
        streams_(std::move(streams)),
        store_(host::openForCapture(options.database, streams_.front().kind->descriptor())),
        session_(options.database, store_.descriptor()),
        progress_(session_, totalBytes()) {
    if (options.maxBytes) session_.setMaxBytes(*options.maxBytes);
    host::configure(session_);
  }

  int run() {
    if (options_.isAdb && options_.reconnects && !resumes()) {
      progress_.say(
          "--reconnect cannot resume the output of --command; records that the device sends again "
          "after a lost connection are stored twice");
    }
    for (auto& stream : streams_) {
      if (!options_.again && host::isStoredBefore(store_, stream)) {
        progress_.say(fmt::format("{} is captured in {} already; --again captures it once more",
                                  stream.name, options_.database));
        hasFailed_ = true;
        continue;
      }
      if (!runStream(stream, std::nullopt)) break;
      if (options_.reconnects) reconnectUntilInterrupted();
    }
    progress_.summarise(options_.maxBytes ? std::optional(store_.count()) : std::nullopt);
    const auto done = session_.progress();
    const bool isWhole = done.rowsLost == 0 && done.readersFailed == 0 && done.trimsFailed == 0;
    return hasFailed_ || !isWhole ? 2 : 0;
  }

 private:
  std::optional<std::int64_t> totalBytes() const {
    std::int64_t total = 0;
    for (const auto& stream : streams_) {
      if (!stream.size) return std::nullopt;
      total += *stream.size;
    }
    return total;
  }

  // Returns false if the capture is to end.
  bool runStream(Stream& stream, const std::optional<host::Overlap>& stored) {
    if (!stream.note.empty()) progress_.say(stream.note);
    const auto pumped = host::captureStream(
        session_, stream,
        [stored](std::unique_ptr<runeflow::RowDecoder> decoder) {
          return stored ? stored->without(std::move(decoder)) : std::move(decoder);
        },
        interrupt_.fd(),
        {.tick = [this] { return tick(); },
         .onInterrupted =
             [this] {
               // What is left to do ends soon, or at once with a second Ctrl-C.
               interrupt_.restoreSignals();
             },
         .onWaiting = [this] { progress_.tick(); }});
    return goesOnAfter(stream, pumped);
  }

  bool goesOnAfter(const Stream& stream, const PumpResult& pumped) {
    const auto sentence = host::sentenceFor(pumped, stream, options_.database);
    if (!sentence.empty()) {
      progress_.say(pumped.end == StreamEnd::readerGone ? sentence + unread() : sentence);
    }
    switch (pumped.end) {
      case StreamEnd::ended:
        return true;
      case StreamEnd::interrupted:
        return false;
      case StreamEnd::failed:
        hasFailed_ = hasFailed_ || !stream.isLive;  // a live stream may end at any time
        return true;
      case StreamEnd::endless:
      case StreamEnd::stopped:
      case StreamEnd::readerGone:
        hasFailed_ = true;
        return false;
    }
    return false;
  }

  // How much of files was not read, as an addition to a sentence.
  std::string unread() const {
    const auto total = totalBytes();
    const auto read = session_.progress().bytesRead;
    if (!total || *total <= read) return {};
    return fmt::format(": {} not read", counted(*total - read, "byte"));
  }

  // Returns false if the database is gone.
  bool tick() {
    progress_.tick();
    const auto now = std::chrono::steady_clock::now();
    if (now < nextLook_) return true;
    nextLook_ = now + kLookInterval;
    return !store_.hasLostItsFile();
  }

  // Whether a connection that was lost can go on where it ended.
  bool resumes() const { return options_.command == host::kLogcatCommand; }

  void reconnectUntilInterrupted() {
    int delay = kFirstRetrySeconds;
    for (;;) {
      progress_.say(fmt::format("not connected; trying again in {} s", delay));
      for (int waited = 0; waited < delay * 10; ++waited) {
        if (interrupt_.waitFor(100)) return;
        progress_.tick();
      }
      delay = std::min(delay * 2, kLastRetrySeconds);
      try {
        std::optional<host::Overlap> stored;
        if (options_.isAdb && resumes()) stored.emplace(store_);
        auto attempt = connectAside(stored);
        while (attempt.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
          if (interrupt_.isRequested()) return;
        }
        Stream stream = attempt.get();
        progress_.say(fmt::format("connected to {} again", stream.name));
        const auto before = session_.progress().bytesRead;
        if (!runStream(stream, stored)) return;
        if (session_.progress().bytesRead > before) delay = kFirstRetrySeconds;
      } catch (const host::Failure& failure) {
        progress_.say(failure.what());
      }
    }
  }

  // Connects on another thread, because a server may accept the connection and stay silent, and the
  // user must be able to interrupt. A thread that is left waiting ends with the process.
  std::future<Stream> connectAside(const std::optional<host::Overlap>& stored) const {
    auto options = options_;
    const auto start = stored ? stored->startForLogcat() : std::nullopt;
    if (start) options.command += fmt::format(" -T '{}'", *start);
    std::packaged_task<Stream()> connect(
        [options = std::move(options)] { return connectLive(options); });
    auto stream = connect.get_future();
    try {
      std::thread(std::move(connect)).detach();
    } catch (const std::system_error& error) {
      fail("cannot start a thread: {}", error.code().message());
    }
    return stream;
  }

  CaptureOptions options_;
  std::vector<Stream> streams_;
  runeflow::EventStore store_;
  Interrupt interrupt_;
  CaptureSession session_;
  Progress progress_;
  bool hasFailed_ = false;
  std::chrono::steady_clock::time_point nextLook_;
};

std::vector<Stream> openStreams(const CaptureOptions& options) {
  std::vector<Stream> streams;
  if (options.isLive()) {
    streams.push_back(connectLive(options));
    return streams;
  }
  const auto* kind = options.format.empty() ? nullptr : &host::LogKind::named(options.format);
  for (const auto& file : options.files) streams.push_back(host::openFile(file, kind));
  const auto other = std::ranges::find_if(
      streams, [&](const Stream& stream) { return stream.kind != streams.front().kind; });
  if (other != streams.end()) {
    fail("{} holds {} records but {} holds {}; capture them into databases of their own",
         streams.front().name, streams.front().kind->id, other->name, other->kind->id);
  }
  return streams;
}

}  // namespace

int capture(const CaptureOptions& options) {
  const int sources = (options.files.empty() ? 0 : 1) + (options.isAdb ? 1 : 0) +
                      (options.dltTarget.empty() ? 0 : 1);
  if (sources != 1) fail("name one source to capture: files, -, --dlt HOST or --adb");
  if (options.reconnects && !options.isLive()) fail("--reconnect needs --dlt or --adb");
  if (options.maxBytes && *options.maxBytes < host::smallestCap) {
    fail("--max-bytes is below 4M; a smaller database would hold little but its indexes");
  }
  // A reader that ends early closes its pipe. This must end the pump, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  return Capture(options, openStreams(options)).run();
}

}  // namespace cli
