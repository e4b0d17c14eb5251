#include "capture_source.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <span>
#include <string_view>

#include "failure.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/transports/adb_transport.h"
#include "runeflow/transports/file_transport.h"
#include "runeflow/transports/socket_transport.h"

namespace cli {

using runeflow::FileDescriptor;
namespace ADBTransport = runeflow::ADBTransport;

namespace {

constexpr std::size_t kPieceSize = 65'536;
constexpr std::size_t kSampleSize = 8'192;
constexpr int kTickMilliseconds = 200;
constexpr std::uint16_t kDltPort = 3490;
constexpr double kDltConnectSeconds = 5;

// Absent while more bytes are needed to tell.
std::optional<std::string> recognise(std::span<const std::uint8_t> head) {
  constexpr std::array<std::uint8_t, 4> kStorageHeader = {'D', 'L', 'T', 0x01};
  if (head.size() >= 4 && std::ranges::equal(head.first(4), kStorageHeader)) return "dlt";
  if (runeflow::LogcatDecoder::looksLikeThreadtime(head)) return "logcat";
  return std::nullopt;
}

// Reads until the stream is recognised, the sample is full or the stream ends.
void recogniseStream(Stream& stream) {
  std::array<std::uint8_t, kSampleSize> piece{};
  while (stream.head.size() < kSampleSize) {
    const auto size = ::read(stream.fd.get(), piece.data(), kSampleSize - stream.head.size());
    if (size < 0) fail("cannot read {}: {}", stream.name, systemError(errno));
    if (size == 0) break;
    stream.head.insert(stream.head.end(), piece.begin(), piece.begin() + size);
    if (const auto kind = recognise(stream.head)) {
      stream.kind = *kind;
      return;
    }
  }
  fail(
      "{} is neither logcat threadtime text nor a DLT recording; name what it holds with --format "
      "logcat or --format dlt",
      stream.name);
}

struct HostAndPort {
  std::string host;
  std::uint16_t port;
};

HostAndPort parseTarget(const std::string& target, std::uint16_t defaultPort) {
  std::string_view host = target;
  std::string_view port;
  const auto bracket = target.starts_with('[') ? target.find(']') : std::string::npos;
  if (bracket != std::string::npos) {
    host = std::string_view(target).substr(1, bracket - 1);
    port = std::string_view(target).substr(bracket + 1);
  } else if (std::ranges::count(target, ':') == 1) {  // more of them make a bare IPv6 address
    host = host.substr(0, target.find(':'));
    port = std::string_view(target).substr(host.size());
  }
  if (host.empty()) fail("'{}' names no host; write HOST or HOST:PORT", target);
  if (port.empty()) return {std::string(host), defaultPort};
  std::uint16_t number = 0;
  const char* end = port.data() + port.size();
  const auto parsed = std::from_chars(port.data() + 1, end, number);
  if (port.front() != ':' || parsed.ec != std::errc() || parsed.ptr != end || number == 0) {
    fail("'{}' has no valid port; ports go from 1 to 65535", target);
  }
  return {std::string(host), number};
}

ADBTransport::Device pickDevice(const std::vector<ADBTransport::Device>& devices,
                                const std::string& serial) {
  if (devices.empty()) fail("{}", ADBTransport::ADBError::noDevices().message());
  const auto device = ADBTransport::pickTarget(devices, serial);
  if (!device) {
    std::string serials;
    for (const auto& known : devices) serials += (serials.empty() ? "" : ", ") + known.serial;
    fail("no device has the serial '{}'; attached: {}", serial, serials);
  }
  if (!device->isReady()) {
    fail("{}", ADBTransport::ADBError::deviceNotReady(device->serial, device->state).message());
  }
  if (serial.empty() && devices.size() > 1) {
    fmt::print(stderr, "runeflow: taking {} of {} devices; --serial names another\n",
               device->displayName(), devices.size());
  }
  return *device;
}

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

Stream openFile(const std::string& path, const std::string& format) {
  const bool isStandardInput = path == "-";
  Stream stream{
      .fd = FileDescriptor(isStandardInput ? ::dup(STDIN_FILENO)
                                           : runeflow::FileTransport::openForReading(path)),
      .name = isStandardInput ? "standard input" : path,
      .kind = format};
  if (!stream.fd) fail("cannot open {}: {}", stream.name, systemError(errno));
  struct stat status{};
  if (::fstat(stream.fd.get(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) fail("{} is a directory; name the files in it", stream.name);
    if (S_ISREG(status.st_mode)) stream.size = status.st_size;
  }
  if (stream.kind.empty()) recogniseStream(stream);
  return stream;
}

Stream connectToDlt(const std::string& target) {
  const auto [host, port] = parseTarget(target, kDltPort);
  const auto socket = runeflow::SocketTransport::connect(host, port, kDltConnectSeconds);
  if (!socket) fail("{}:{}: {}", host, port, socket.error().message());
  return {.fd = FileDescriptor(*socket), .name = fmt::format("{}:{}", host, port), .kind = "dlt"};
}

Stream connectToAdb(const std::string& target, const std::string& serial,
                    const std::string& command) {
  const auto [host, port] = target.empty() ? HostAndPort{std::string(ADBTransport::defaultHost),
                                                         ADBTransport::defaultPort}
                                           : parseTarget(target, ADBTransport::defaultPort);
  const auto devices = ADBTransport::devices(host, port);
  if (!devices) fail("{}", devices.error().message());
  const auto device = pickDevice(*devices, serial);
  const auto socket = ADBTransport::connectLogcat(device.serial, host, port, command);
  if (!socket) fail("{}", socket.error().message());
  return {.fd = FileDescriptor(*socket), .name = device.displayName(), .kind = "logcat"};
}

Pumped pump(Stream& stream, int sink, const Interrupt& interrupt,
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
