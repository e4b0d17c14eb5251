// SPDX-License-Identifier: MIT
#include "host/pump.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "host/failure.h"

namespace host {
namespace {

constexpr std::size_t kPieceSize = 65'536;
constexpr int kTickMilliseconds = 200;

// Waits until `fd` has `events`, calling `tick` a few times a second. Returns why the pump has to
// end, if it has to.
std::optional<PumpResult> await(int fd, short events, int end, const std::function<bool()>& tick) {
  std::array<pollfd, 2> waiting = {
      {{.fd = fd, .events = events, .revents = 0}, {.fd = end, .events = POLLIN, .revents = 0}}};
  for (;;) {
    if (!tick()) return PumpResult{StreamEnd::stopped};
    const int ready = ::poll(waiting.data(), waiting.size(), kTickMilliseconds);
    if (ready < 0 && errno != EINTR) return PumpResult{StreamEnd::failed, systemError(errno)};
    if (ready <= 0) continue;
    if (waiting[1].revents != 0) return PumpResult{StreamEnd::interrupted};
    return std::nullopt;
  }
}

// Follows where the records of a stream end, for kinds whose records end with a byte.
class RecordEnds {
 public:
  explicit RecordEnds(std::string_view end) : end_(end) {}

  void note(std::span<const std::uint8_t> bytes) {
    if (end_.empty()) return;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const auto last = text.rfind(end_);
    sinceLast_ = last == std::string_view::npos ? sinceLast_ + text.size() : text.size() - last - 1;
  }

  std::size_t sinceLast() const { return sinceLast_; }

  // The bytes that end the last record; empty if it has ended.
  std::span<const std::uint8_t> missing() const {
    const auto text = sinceLast_ > 0 ? end_ : std::string_view();
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
  }

 private:
  std::string_view end_;
  std::size_t sinceLast_ = 0;
};

// Writes pieces to the sink of a pump.
class PipeWriter {
 public:
  PipeWriter(std::string_view recordEnd, int sink, int end, const std::function<bool()>& tick)
      : ends_(recordEnd), sink_(sink), end_(end), tick_(tick) {}

  // Returns false if the pump has to end; result() then tells why.
  bool write(std::span<const std::uint8_t> bytes) {
    ends_.note(bytes);
    while (!bytes.empty() && !result_) {
      const auto size = ::write(sink_, bytes.data(), bytes.size());
      if (size < 0 && errno == EAGAIN) {
        result_ = await(sink_, POLLOUT, end_, tick_);
      } else if (size < 0 && errno != EINTR) {
        result_ = PumpResult{StreamEnd::readerGone};
      } else if (size > 0) {
        bytes = bytes.subspan(static_cast<std::size_t>(size));
      }
    }
    if (!result_ && ends_.sinceLast() > PumpResult::longestRecord) {
      result_ = PumpResult{StreamEnd::endless};
    }
    return !result_;
  }

  void endRecord() { write(ends_.missing()); }

  const std::optional<PumpResult>& result() const { return result_; }

 private:
  RecordEnds ends_;
  int sink_;
  int end_;
  const std::function<bool()>& tick_;
  std::optional<PumpResult> result_;
};

}  // namespace

PumpResult pump(Stream& stream, int sink, int end, const std::function<bool()>& tick) {
  PipeWriter out(stream.kind->recordEnd, sink, end, tick);
  const auto write = [&out](std::span<const std::uint8_t> bytes) { return out.write(bytes); };
  write(stream.head);
  std::vector<std::uint8_t> piece(kPieceSize);
  while (!out.result()) {
    if (const auto early = await(stream.fd.get(), POLLIN, end, tick)) return *early;
    const auto size = ::read(stream.fd.get(), piece.data(), piece.size());
    if (size < 0) return {StreamEnd::failed, systemError(errno)};
    const auto bytes = std::span(piece).first(static_cast<std::size_t>(size));
    if (stream.isLive) {
      if (size == 0) return {StreamEnd::ended};
      write(bytes);
      continue;
    }
    const bool goesOn = size > 0 ? stream.unpacker.take(bytes, write) : stream.unpacker.end(write);
    if (size == 0 || !goesOn) out.endRecord();
    if (out.result()) break;
    if (!goesOn) return {StreamEnd::failed, stream.unpacker.fault()};
    if (size == 0) return {StreamEnd::ended};
  }
  return *out.result();
}

}  // namespace host
