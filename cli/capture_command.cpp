#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <future>
#include <limits>
#include <memory>
#include <thread>

#include "capture_source.h"
#include "commands.h"
#include "database.h"
#include "failure.h"
#include "progress.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/decoders/logcat_decoder.h"

namespace cli {

using runeflow::CaptureSession;
using runeflow::FileDescriptor;

namespace {

constexpr int kPipeSize = 1 << 20;  // so that reader and pump seldom wait for each other
constexpr const char* kLogcatCommand = "logcat -v threadtime -b all";
constexpr int kFirstRetrySeconds = 1;
constexpr int kLastRetrySeconds = 30;

struct CaptureOptions {
  std::vector<std::string> files;
  std::string database;
  std::string format;
  std::string maxBytes;
  std::string dltTarget;
  std::string adbTarget;
  std::string serial;
  std::string command = kLogcatCommand;
  bool isAdb = false;
  bool reconnects = false;

  bool isLive() const { return isAdb || !dltTarget.empty(); }
};

std::int64_t parseByteCount(const std::string& text) {
  std::int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  const std::string_view unit(parsed.ptr, end);
  const auto shift = unit.empty() ? 0 : unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : -1;
  const bool fits = shift >= 0 && number <= (std::numeric_limits<std::int64_t>::max() >> shift);
  if (parsed.ec != std::errc() || number < 1 || !fits) {
    fail("'{}' is no size; write a number of bytes such as 1000000, 500K, 20M or 2G", text);
  }
  return number << shift;
}

runeflow::Timestamp now() {
  return std::chrono::system_clock::now();
}

std::unique_ptr<runeflow::RowDecoder> makeDecoder(const std::string& kind) {
  if (kind == "dlt") return std::make_unique<runeflow::DLTDecoder>(now);
  return std::make_unique<runeflow::LogcatDecoder>(now);
}

Stream connectLive(const CaptureOptions& options) {
  return options.isAdb ? connectToAdb(options.adbTarget, options.serial, options.command)
                       : connectToDlt(options.dltTarget);
}

// Runs streams through one session, one after the other, until they end or the user interrupts.
class Capture {
 public:
  Capture(const CaptureOptions& options, std::vector<Stream> streams)
      : options_(options),
        streams_(std::move(streams)),
        store_(openForCapture(options.database, descriptorNamed(streams_.front().kind))),
        session_(options.database, store_.descriptor()),
        progress_(session_, totalBytes()) {
    if (!options.maxBytes.empty()) session_.setMaxBytes(parseByteCount(options.maxBytes));
  }

  int run() {
    bool hasFailed = false;
    for (auto& stream : streams_) {
      const auto pumped = runStream(stream);
      if (pumped.end == StreamEnd::failed) {
        progress_.say(
            fmt::format("cannot read {} to its end: {}", stream.name, systemError(pumped.error)));
        hasFailed = !options_.isLive();  // a live stream ends as it likes
      }
      if (pumped.end == StreamEnd::interrupted) break;
      if (options_.reconnects) reconnectUntilInterrupted();
    }
    const bool isCapped = !options_.maxBytes.empty();
    progress_.summarise(isCapped ? std::optional(store_.count()) : std::nullopt);
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

  Pumped runStream(Stream& stream) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail("cannot make a pipe: {}", systemError(errno));
    FileDescriptor sink(ends[1]);
    ::fcntl(sink.get(), F_SETPIPE_SZ, kPipeSize);
    auto finished = std::make_shared<std::promise<void>>();
    const auto whenFinished = finished->get_future();
    session_.run(
        ends[0], [kind = stream.kind] { return makeDecoder(kind); },
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
      } catch (const Failure& failure) {
        progress_.say(failure.what());
      }
    }
  }

  // On a thread of its own: a server may accept and then keep silent for ever, which must not keep
  // the user from interrupting. One that is left behind ends with the process.
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
  for (const auto& file : options.files) streams.push_back(openFile(file, options.format));
  const auto other = std::ranges::find_if(
      streams, [&](const Stream& stream) { return stream.kind != streams.front().kind; });
  if (other != streams.end()) {
    fail("{} holds {} records but {} holds {}; capture them into databases of their own",
         streams.front().name, streams.front().kind, other->name, other->kind);
  }
  return streams;
}

int capture(const CaptureOptions& options) {
  const int sources = (options.files.empty() ? 0 : 1) + (options.isAdb ? 1 : 0) +
                      (options.dltTarget.empty() ? 0 : 1);
  if (sources != 1) fail("name what to capture: files, -, --dlt HOST or --adb, one of them");
  if (options.reconnects && !options.isLive()) fail("--reconnect goes with --dlt or --adb");
  if (!options.maxBytes.empty()) parseByteCount(options.maxBytes);
  // A reader that gives up closes its pipe; that must end the pump and not the process.
  std::signal(SIGPIPE, SIG_IGN);
  return Capture(options, openStreams(options)).run();
}

}  // namespace

void addCaptureCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("capture", "Store the records of a log stream in a database");
  auto options = std::make_shared<CaptureOptions>();
  command->add_option("FILE", options->files, "Logcat text or DLT recordings; - is standard input")
      ->type_name("");
  command->add_option("--db", options->database, "The database, made if missing")
      ->required()
      ->type_name("PATH");
  command
      ->add_option("--format", options->format,
                   "What the files hold, when their first bytes do not say")
      ->type_name("KIND")
      ->check(CLI::IsMember({"logcat", "dlt"}));
  command
      ->add_option("--max-bytes", options->maxBytes,
                   "Keep the database below that many bytes by deleting its oldest records")
      ->type_name("N[K|M|G]");
  command->add_option("--dlt", options->dltTarget, "A DLT daemon (port 3490)")
      ->type_name("HOST[:PORT]");
  auto* adb = command->add_option("--adb", options->adbTarget, "An adb server (127.0.0.1:5037)");
  adb->type_name("[HOST[:PORT]]")->expected(0, 1);
  command->add_option("--serial", options->serial, "The Android device, when several are attached")
      ->type_name("NAME")
      ->needs(adb);
  command->add_option("--command", options->command, "What runs on the Android device")
      ->type_name("TEXT")
      ->needs(adb)
      ->capture_default_str();
  command->add_flag("--reconnect", options->reconnects, "Keep trying when a live stream has ended");
  command->callback([=, &exitCode] {
    options->isAdb = adb->count() > 0;
    exitCode = capture(*options);
  });
}

}  // namespace cli
