// SPDX-License-Identifier: MIT
#include "host/stream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <vector>

#include "host/failure.h"
#include "host/target.h"
#include "runeflow/transports/adb_transport.h"
#include "runeflow/transports/file_transport.h"
#include "runeflow/transports/socket_transport.h"

namespace host {

using runeflow::FileDescriptor;
namespace ADBTransport = runeflow::ADBTransport;

namespace {

constexpr std::uint16_t kDltPort = 3490;
constexpr double kDltConnectSeconds = 5;

// Returns the kind that recognises `head`, or null.
const LogKind* recognised(Bytes head) {
  const auto kinds = LogKind::all();
  const auto found =
      std::ranges::find_if(kinds, [head](const LogKind& kind) { return kind.recognises(head); });
  return found == kinds.end() ? nullptr : &*found;
}

// Reads until a kind recognises the stream. Fails if none does at the end of the stream or after
// the largest sample.
void recogniseStream(Stream& stream) {
  const auto most = std::ranges::max(LogKind::all(), {}, &LogKind::sampleSize).sampleSize;
  std::vector<std::uint8_t> piece(most);
  while (stream.head.size() < most) {
    const auto size = ::read(stream.fd.get(), piece.data(), most - stream.head.size());
    if (size < 0) fail("cannot read {}: {}", stream.name, systemError(errno));
    if (size == 0) {
      auto ended = stream.head;
      ended.push_back('\n');  // the last line of a file may lack its line feed
      stream.kind = recognised(ended);
      if (stream.kind) return;
      break;
    }
    stream.head.insert(stream.head.end(), piece.begin(), piece.begin() + size);
    stream.kind = recognised(stream.head);
    if (stream.kind) return;
  }
  fail("{} is neither {}; name what it holds with --format {}", stream.name,
       joinKinds(&LogKind::form, " nor "), joinKinds(&LogKind::id, " or --format "));
}

// A peer that is gone without a word, such as a target without power, is noticed within a minute.
void findDeadPeers(int socket) {
  constexpr std::tuple<int, int, int> kOptions[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                                                    {IPPROTO_TCP, TCP_KEEPIDLE, 30},
                                                    {IPPROTO_TCP, TCP_KEEPINTVL, 10},
                                                    {IPPROTO_TCP, TCP_KEEPCNT, 3}};
  for (const auto& [level, name, value] : kOptions) {
    ::setsockopt(socket, level, name, &value, sizeof value);
  }
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
  return *device;
}

}  // namespace

Stream openFile(const std::string& path, const LogKind* kind) {
  const bool isStandardInput = path == "-";
  Stream stream{
      .fd = FileDescriptor(isStandardInput ? ::dup(STDIN_FILENO)
                                           : runeflow::FileTransport::openForReading(path)),
      .name = isStandardInput ? "standard input" : path,
      .kind = kind};
  if (!stream.fd) fail("cannot open {}: {}", stream.name, systemError(errno));
  struct stat status{};
  if (::fstat(stream.fd.get(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) fail("{} is a directory; name the files in it", stream.name);
    if (S_ISREG(status.st_mode)) stream.size = status.st_size;
  }
  if (!stream.kind) recogniseStream(stream);
  return stream;
}

Stream connectToDlt(const std::string& target) {
  const auto [host, port] = parseTarget(target, kDltPort);
  const auto socket = runeflow::SocketTransport::connect(host, port, kDltConnectSeconds);
  if (!socket) fail("{}:{}: {}", host, port, socket.error().message());
  findDeadPeers(*socket);
  return {.fd = FileDescriptor(*socket),
          .name = fmt::format("{}:{}", host, port),
          .kind = &LogKind::dlt(),
          .isLive = true};
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
  findDeadPeers(*socket);
  Stream stream{.fd = FileDescriptor(*socket),
                .name = device.displayName(),
                .kind = &LogKind::logcat(),
                .isLive = true};
  if (serial.empty() && devices->size() > 1) {
    stream.note = fmt::format("taking {} of {} devices; --serial names another", stream.name,
                              devices->size());
  }
  return stream;
}

}  // namespace host
