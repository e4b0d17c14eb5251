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
    if (ready < 0 && errno != EINTR) return PumpResult{StreamEnd::failed, errno};
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

}  // namespace

PumpResult pump(Stream& stream, int sink, int end, const std::function<bool()>& tick) {
  RecordEnds ends(stream.kind->recordEnd);
  const auto pass = [&](std::span<const std::uint8_t> bytes) -> std::optional<PumpResult> {
    ends.note(bytes);
    while (!bytes.empty()) {
      const auto size = ::write(sink, bytes.data(), bytes.size());
      if (size < 0 && errno == EAGAIN) {
        if (auto early = await(sink, POLLOUT, end, tick)) return early;
      } else if (size < 0 && errno != EINTR) {
        return PumpResult{StreamEnd::readerGone};
      } else if (size > 0) {
        bytes = bytes.subspan(static_cast<std::size_t>(size));
      }
    }
    return std::nullopt;
  };
  if (const auto early = pass(stream.head)) return *early;
  std::vector<std::uint8_t> piece(kPieceSize);
  for (;;) {
    if (const auto early = await(stream.fd.get(), POLLIN, end, tick)) return *early;
    const auto size = ::read(stream.fd.get(), piece.data(), piece.size());
    if (size < 0) return {StreamEnd::failed, errno};
    if (size == 0) {
      const auto early = stream.isLive ? std::nullopt : pass(ends.missing());
      return early.value_or(PumpResult{StreamEnd::ended});
    }
    const auto early = pass(std::span(piece).first(static_cast<std::size_t>(size)));
    if (early) return *early;
    if (ends.sinceLast() > PumpResult::longestRecord) return {StreamEnd::endless};
  }
}

}  // namespace host
