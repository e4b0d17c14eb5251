#include "pump.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace cli {
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

}  // namespace

PumpResult pump(host::Stream& stream, int sink, const Interrupt& interrupt,
                const std::function<void()>& tick) {
  if (!writeAll(sink, stream.head)) return {StreamEnd::readerGone};
  std::vector<std::uint8_t> piece(kPieceSize);
  std::array<pollfd, 2> waiting = {{{.fd = stream.fd.get(), .events = POLLIN, .revents = 0},
                                    {.fd = interrupt.fd(), .events = POLLIN, .revents = 0}}};
  for (;;) {
    tick();
    const int ready = ::poll(waiting.data(), waiting.size(), kTickMilliseconds);
    if (ready < 0 && errno != EINTR) return {StreamEnd::failed, errno};
    if (ready <= 0) continue;
    if (waiting[1].revents != 0) return {StreamEnd::interrupted};
    const auto size = ::read(stream.fd.get(), piece.data(), piece.size());
    if (size < 0) return {StreamEnd::failed, errno};
    if (size == 0) return {StreamEnd::ended};
    if (!writeAll(sink, std::span(piece).first(static_cast<std::size_t>(size)))) {
      return {StreamEnd::readerGone};
    }
  }
}

}  // namespace cli
