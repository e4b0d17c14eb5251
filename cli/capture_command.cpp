#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "host/stream.h"
#include "progress.h"
#include "pump.h"

namespace cli {

using host::fail;
using host::Stream;
using host::systemError;
using runeflow::CaptureSession;
using runeflow::FileDescriptor;

namespace {

constexpr int kPipeSize = 1 << 20;  // bytes; reader and pump then seldom wait for each other
constexpr int kFirstRetrySeconds = 1;
constexpr int kLastRetrySeconds = 30;

runeflow::Timestamp now() {
  return std::chrono::system_clock::now();
}

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
  }

  int run() {
    bool hasFailed = false;
    for (auto& stream : streams_) {
      const auto pumped = runStream(stream);
      if (pumped.end == StreamEnd::failed) {
        progress_.say(
            fmt::format("cannot read {} to its end: {}", stream.name, systemError(pumped.error)));
        hasFailed = !options_.isLive();  // a live stream may end at any time
      }
      if (pumped.end == StreamEnd::interrupted) break;
      if (options_.reconnects) reconnectUntilInterrupted();
    }
    progress_.summarise(options_.maxBytes ? std::optional(store_.count()) : std::nullopt);
    return hasFailed || session_.progress().rowsLost > 0 ? 2 : 0;
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

  PumpResult runStream(Stream& stream) {
    if (!stream.note.empty()) progress_.say(stream.note);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail("cannot make a pipe: {}", systemError(errno));
    FileDescriptor sink(ends[1]);
    ::fcntl(sink.get(), F_SETPIPE_SZ, kPipeSize);
    auto finished = std::make_shared<std::promise<void>>();
    const auto whenFinished = finished->get_future();
    session_.run(
        ends[0], [kind = stream.kind] { return kind->makeDecoder(now); },
        [finished] { finished->set_value(); });
    const auto pumped = pump(stream, sink.get(), interrupt_, [this] { progress_.tick(); });
    sink.reset();
    stream.fd.reset();
    if (pumped.end == StreamEnd::interrupted) interrupt_.restoreSignals();
    while (whenFinished.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
      progress_.tick();
    }
    return pumped;
  }

  void reconnectUntilInterrupted() {
    int delay = kFirstRetrySeconds;
    for (;;) {
      progress_.say(fmt::format("not connected; trying again in {} s", delay));
      for (int waited = 0; waited < delay * 10; ++waited) {
        if (interrupt_.waitFor(100)) return;
        progress_.tick();
      }
      delay = std::min(delay * 2, kLastRetrySeconds);
      auto attempt = connectAside();
      while (attempt.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        if (interrupt_.isRequested()) return;
      }
      try {
        Stream stream = attempt.get();
        progress_.say(fmt::format("connected to {} again", stream.name));
        const auto before = session_.progress().bytesRead;
        if (runStream(stream).end == StreamEnd::interrupted) return;
        if (session_.progress().bytesRead > before) delay = kFirstRetrySeconds;
      } catch (const host::Failure& failure) {
        progress_.say(failure.what());
      }
    }
  }

  // Connects on another thread, because a server may accept the connection and then stay silent,
  // and the user must still be able to interrupt the command. A thread that still waits for the
  // server ends with the process.
  std::future<Stream> connectAside() const {
    std::packaged_task<Stream()> connect([options = options_] { return connectLive(options); });
    auto stream = connect.get_future();
    std::thread(std::move(connect)).detach();
    return stream;
  }

  CaptureOptions options_;
  std::vector<Stream> streams_;
  runeflow::EventStore store_;
  Interrupt interrupt_;
  CaptureSession session_;
  Progress progress_;
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
  if (sources != 1) fail("name what to capture: files, -, --dlt HOST or --adb, one of them");
  if (options.reconnects && !options.isLive()) fail("--reconnect goes with --dlt or --adb");
  // A reader that ends early closes its pipe. This must end the pump, not the process.
  std::signal(SIGPIPE, SIG_IGN);
  return Capture(options, openStreams(options)).run();
}

}  // namespace cli
