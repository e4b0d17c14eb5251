// SPDX-License-Identifier: MIT
#include "host/capture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>

#include <chrono>
#include <future>
#include <utility>

#include "host/failure.h"
#include "host/pipe.h"

namespace host {

using runeflow::CaptureSession;

namespace {

constexpr int kPipeSize = 1 << 20;  // bytes; reader and pump then seldom wait for each other
constexpr std::int64_t kTrimBytes = std::int64_t{16} << 20;
constexpr std::chrono::milliseconds kWaitInterval{20};
// On a busy machine, another capture may hold a lock for long. Waiting loses no records.
constexpr std::chrono::seconds kLockWait{30};
constexpr std::chrono::milliseconds kLastLockWait{500};

runeflow::Timestamp now() {
  return std::chrono::system_clock::now();
}

bool isReadable(int fd) {
  pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&waiting, 1, 0) > 0;
}

// Waits until the reader has stored what is in its pipe. After an interrupt, also one that comes
// meanwhile, it waits for the locks of others once more, and no longer after a batch that was lost.
void awaitReader(CaptureSession& session, const std::future<void>& whenFinished, int end,
                 const CaptureHooks& hooks, PumpResult& pumped) {
  bool isEnding = false;
  std::int64_t lostBefore = 0;
  while (whenFinished.wait_for(kWaitInterval) != std::future_status::ready) {
    if (!isEnding && (pumped.end == StreamEnd::interrupted || isReadable(end))) {
      isEnding = true;
      if (pumped.end == StreamEnd::ended) pumped.end = StreamEnd::interrupted;
      if (hooks.onInterrupted) hooks.onInterrupted();
      lostBefore = session.progress().rowsLost;
      session.setLockWait(kLastLockWait);
    }
    if (isEnding && session.progress().rowsLost > lostBefore) {
      session.setLockWait(std::chrono::milliseconds(0));
    }
    if (hooks.onWaiting) hooks.onWaiting();
  }
}

}  // namespace

void configure(CaptureSession& session) {
  session.setTrimBytes(kTrimBytes);
  session.setFlushesWhenQuiet(true);
  session.setLockWait(kLockWait);
}

PumpResult captureStream(CaptureSession& session, Stream& stream, const DecoderWrapper& wrap,
                         int end, const CaptureHooks& hooks) {
  auto [source, sink] = openPipe();
#ifdef F_SETPIPE_SZ  // elsewhere the system chooses the size
  ::fcntl(sink.get(), F_SETPIPE_SZ, kPipeSize);
#endif
  ::fcntl(sink.get(), F_SETFL, O_NONBLOCK);  // a reader may wait for a lock with its pipe full
  const auto failedBefore = session.progress().readersFailed;
  auto finished = std::make_shared<std::promise<void>>();
  const auto whenFinished = finished->get_future();
  session.run(
      source.release(),
      [kind = stream.kind, wrap] {
        auto decoder = kind->makeDecoder(now);
        return wrap ? wrap(std::move(decoder)) : std::move(decoder);
      },
      [finished] { finished->set_value(); });
  auto pumped = pump(stream, sink.get(), end, hooks.tick ? hooks.tick : [] { return true; });
  sink.reset();
  stream.fd.reset();
  awaitReader(session, whenFinished, end, hooks, pumped);
  // The pipe may have accepted bytes after the reader ended. They are lost.
  const bool hasReaderFailed = session.progress().readersFailed > failedBefore;
  if (hasReaderFailed && pumped.end == StreamEnd::ended) pumped.end = StreamEnd::readerGone;
  return pumped;
}

std::string sentenceFor(const PumpResult& pumped, const Stream& stream,
                        const std::string& database) {
  switch (pumped.end) {
    case StreamEnd::ended:
    case StreamEnd::interrupted:
      return {};
    case StreamEnd::failed:
      return fmt::format("cannot read {} to its end: {}", stream.name, pumped.reason);
    case StreamEnd::endless:
      return fmt::format("{} holds a line of more than {} MB; is it {}?", stream.name,
                         PumpResult::longestRecord >> 20, stream.kind->form);
    case StreamEnd::stopped:
      return fmt::format("{} was deleted or replaced; records stored from now on would be lost",
                         database);
    case StreamEnd::readerGone:
      return fmt::format("the rest of {} is not stored", stream.name);
  }
  return {};
}

}  // namespace host
