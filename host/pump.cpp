// SPDX-License-Identifier: MIT
#include "host/pump.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace host {
namespace {

constexpr std::size_t kPieceSize = 65'536;
constexpr int kTickMilliseconds = 200;

bool writeAll(int sink, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto size = ::write(sink, bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(size));
  }
  return true;
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
  const auto pass = [&](std::span<const std::uint8_t> bytes) {
    ends.note(bytes);
    return writeAll(sink, bytes);
  };
  if (!pass(stream.head)) return {StreamEnd::readerGone};
  std::vector<std::uint8_t> piece(kPieceSize);
  std::array<pollfd, 2> waiting = {{{.fd = stream.fd.get(), .events = POLLIN, .revents = 0},
                                    {.fd = end, .events = POLLIN, .revents = 0}}};
  for (;;) {
    if (!tick()) return {StreamEnd::stopped};
    const int ready = ::poll(waiting.data(), waiting.size(), kTickMilliseconds);
    if (ready < 0 && errno != EINTR) return {StreamEnd::failed, errno};
    if (ready <= 0) continue;
    if (waiting[1].revents != 0) return {StreamEnd::interrupted};
    const auto size = ::read(stream.fd.get(), piece.data(), piece.size());
    if (size < 0) return {StreamEnd::failed, errno};
    if (size == 0) {
      if (!stream.isLive) writeAll(sink, ends.missing());
      return {StreamEnd::ended};
    }
    if (!pass(std::span(piece).first(static_cast<std::size_t>(size)))) {
      return {StreamEnd::readerGone};
    }
    if (ends.sinceLast() > PumpResult::longestRecord) return {StreamEnd::endless};
  }
}

}  // namespace host
