// SPDX-License-Identifier: MIT
#include "host/capture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <future>
#include <utility>

#include "host/failure.h"

namespace host {

using runeflow::CaptureSession;
using runeflow::FileDescriptor;

namespace {

constexpr int kPipeSize = 1 << 20;  // bytes; reader and pump then seldom wait for each other
constexpr std::int64_t kTrimBytes = std::int64_t{16} << 20;
constexpr std::chrono::milliseconds kWaitInterval{100};

runeflow::Timestamp now() {
  return std::chrono::system_clock::now();
}

}  // namespace

void configure(CaptureSession& session) {
  session.setTrimBytes(kTrimBytes);
  session.setFlushesWhenQuiet(true);
}

PumpResult captureStream(CaptureSession& session, Stream& stream, const DecoderWrapper& wrap,
                         int end, const CaptureHooks& hooks) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail("cannot make a pipe: {}", systemError(errno));
  FileDescriptor sink(ends[1]);
  ::fcntl(sink.get(), F_SETPIPE_SZ, kPipeSize);
  auto finished = std::make_shared<std::promise<void>>();
  const auto whenFinished = finished->get_future();
  session.run(
      ends[0],
      [kind = stream.kind, wrap] {
        auto decoder = kind->makeDecoder(now);
        return wrap ? wrap(std::move(decoder)) : std::move(decoder);
      },
      [finished] { finished->set_value(); });
  const auto pumped = pump(stream, sink.get(), end, hooks.tick ? hooks.tick : [] { return true; });
  sink.reset();
  stream.fd.reset();
  if (pumped.end == StreamEnd::interrupted && hooks.onInterrupted) hooks.onInterrupted();
  while (whenFinished.wait_for(kWaitInterval) != std::future_status::ready) {
    if (hooks.onWaiting) hooks.onWaiting();
  }
  return pumped;
}

std::string sentenceFor(const PumpResult& pumped, const Stream& stream,
                        const std::string& database) {
  switch (pumped.end) {
    case StreamEnd::ended:
    case StreamEnd::interrupted:
      return {};
    case StreamEnd::failed:
      return fmt::format("cannot read {} to its end: {}", stream.name, systemError(pumped.error));
    case StreamEnd::endless:
      return fmt::format("{} holds a line of more than {} MB; is it {}?", stream.name,
                         PumpResult::longestRecord >> 20, stream.kind->form);
    case StreamEnd::stopped:
      return fmt::format(
          "{} was deleted or replaced; what is stored from now on would be lost with it", database);
    case StreamEnd::readerGone:
      return fmt::format("the rest of {} is not stored", stream.name);
  }
  return {};
}

}  // namespace host
