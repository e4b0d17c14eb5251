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
#include "host/log_layout.h"
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

// Returns the kind that recognises the whole of a stream.
const LogKind* recognisedAtEnd(std::vector<std::uint8_t> head) {
  head.push_back('\n');  // the last line of a file may lack its line feed
  return recognised(head);
}

// Reads once, and appends the bytes of the log to the stream's head. Returns false at the end.
bool readHead(Stream& stream, std::size_t most) {
  std::vector<std::uint8_t> piece(most);
  const auto size = ::read(stream.fd.get(), piece.data(), piece.size());
  if (size < 0) fail("cannot read {}: {}", stream.name, systemError(errno));
  const auto append = [&stream](Bytes bytes) {
    stream.head.insert(stream.head.end(), bytes.begin(), bytes.end());
    return true;
  };
  const bool goesOn = size > 0 ? stream.unpacker.take(
                                     std::span(piece).first(static_cast<std::size_t>(size)), append)
                               : stream.unpacker.end(append);
  if (!goesOn && stream.head.empty())
    fail("cannot read {}: {}", stream.name, stream.unpacker.fault());
  return size > 0 && goesOn;
}

// Returns why the stream should not be captured as it is, as the end of a sentence; empty if it
// should.
std::string layoutToRefuse(Bytes head) {
  const auto layout = otherLogcatLayout(head);
  if (layout.empty()) return {};
  return fmt::format("is logcat text in the layout '{}'; print it with logcat -v threadtime",
                     layout);
}

// Reads until a kind recognises the stream. Fails if none does at the end of the stream or after
// the largest sample.
void recogniseStream(Stream& stream) {
  const auto most = std::ranges::max(LogKind::all(), {}, &LogKind::sampleSize).sampleSize;
  bool goesOn = true;
  while (!stream.kind && goesOn && stream.head.size() < most) {
    goesOn = readHead(stream, most - stream.head.size());
    stream.kind = goesOn ? recognised(stream.head) : recognisedAtEnd(stream.head);
    if (const auto reason = reasonToRefuse(stream.head, stream.name); !reason.empty()) {
      fail("{} {}", stream.name, reason);
    }
    const auto layout = layoutToRefuse(stream.head);
    if (!layout.empty()) {
      fail("{} {}, or store its lines as they are with --format logcat", stream.name, layout);
    }
  }
  if (stream.kind) return;
  if (stream.head.empty()) fail("{} is empty; there is nothing to capture", stream.name);
  fail("{} is neither {}; name its kind with --format {}", stream.name,
       joinKinds(&LogKind::form, " nor "), joinKinds(&LogKind::id, " or --format "));
}

// Looks at the first bytes of a stream whose kind the user has named.
void warnOfStream(Stream& stream) {
  const auto& kind = *stream.kind;
  const bool goesOn = readHead(stream, LogKind::logcat().sampleSize);
  const auto* found = goesOn ? recognised(stream.head) : recognisedAtEnd(stream.head);
  const auto reason = reasonToRefuse(stream.head, stream.name);
  const auto layout = &kind == &LogKind::logcat() ? layoutToRefuse(stream.head) : std::string();
  if (!reason.empty()) {
    stream.note = fmt::format("{} {}", stream.name, reason);
  } else if (!layout.empty()) {
    stream.note = fmt::format("{} {}; other lines are stored as they are", stream.name, layout);
  } else if (stream.head.empty()) {
    stream.note = fmt::format("{} is empty", stream.name);
  } else if (found && found != &kind) {
    stream.note = fmt::format("{} looks like {}, not {}", stream.name, found->form, kind.form);
  }
}

// Detects within a minute a peer that is gone without closing the connection, such as a target
// without power.
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
    if (S_ISREG(status.st_mode) && !isStandardInput) stream.path = path;
  }
  if (stream.kind) {
    warnOfStream(stream);
  } else {
    recogniseStream(stream);
  }
  if (stream.unpacker.changesBytes()) stream.size.reset();
  return stream;
}

const LogKind* kindOfFile(const std::string& path) {
  struct stat status{};
  // A pipe would be read from, or waited for.
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  try {
    return openFile(path, nullptr).kind;
  } catch (const Failure&) {
    return nullptr;
  }
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
    stream.note = fmt::format("using {}, one of {} devices; --serial selects another", stream.name,
                              devices->size());
  }
  return stream;
}

}  // namespace host
