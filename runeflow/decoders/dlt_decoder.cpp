#include "runeflow/decoders/dlt_decoder.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "runeflow/decoders/dlt_payload_p.h"
#include "runeflow/platform/unicode.h"

namespace runeflow {
namespace {

using dlt::Bytes;
using dlt::load;

constexpr std::size_t kStorageHeaderSize = 16;
constexpr std::size_t kStandardHeaderSize = 4;  // without its optional fields
constexpr std::size_t kOptionalFieldSize = 4;   // ECU ID, session ID and timestamp alike
constexpr std::size_t kExtendedHeaderSize = 10;

// DLT standard header, HTYP.
constexpr std::uint8_t kUseExtendedHeader = 1U << 0;
constexpr std::uint8_t kMostSignificantByteFirst = 1U << 1;  // of the payload; headers always are
constexpr std::uint8_t kWithEcuId = 1U << 2;
constexpr std::uint8_t kWithSessionId = 1U << 3;
constexpr std::uint8_t kWithTimestamp = 1U << 4;

// DLT extended header, MSIN: bit 0 VERB, bits 1 to 3 MSTP, bits 4 to 7 MTIN.
constexpr std::uint8_t kVerbose = 1U << 0;

// What the next bytes of a stream are, by their lengths alone.
struct Frame {
  std::size_t size = 0;  // how far to move on; 0 when more bytes are needed to tell
  Bytes storageHeader;   // empty when there is none
  Bytes message;         // from the standard header on; empty when the bytes are to be skipped
};

Frame cutFrame(Bytes stream) {
  constexpr std::array<std::uint8_t, 4> pattern{'D', 'L', 'T', 0x01};
  const bool stored =
      stream.size() >= pattern.size() && std::equal(pattern.begin(), pattern.end(), stream.begin());
  const std::size_t start = stored ? kStorageHeaderSize : 0;
  if (stream.size() < start + kStandardHeaderSize) return {};

  const std::size_t length = load<std::uint16_t>(stream.subspan(start + 2), std::endian::big);
  if (length < kStandardHeaderSize) return {.size = start + 1, .storageHeader = {}, .message = {}};
  if (stream.size() - start < length) return {};
  return {.size = start + length,
          .storageHeader = stream.first(start),
          .message = stream.subspan(start, length)};
}

std::size_t countFrames(Bytes stream) {
  std::size_t count = 0;
  for (Frame frame = cutFrame(stream); frame.size > 0; frame = cutFrame(stream)) {
    if (!frame.message.empty()) ++count;
    stream = stream.subspan(frame.size);
  }
  return count;
}

struct ExtendedHeader {
  std::uint8_t messageInfo;
  std::uint8_t argumentCount;
  Bytes applicationId;
  Bytes contextId;
};

struct Message {
  std::uint8_t counter;
  std::endian payloadOrder;
  Bytes payload;
  std::optional<Bytes> ecuId = std::nullopt;
  std::optional<std::uint32_t> sessionId = std::nullopt;
  std::optional<std::uint32_t> timestamp = std::nullopt;  // in units of 0.1 ms
  std::optional<ExtendedHeader> extended = std::nullopt;
};

std::size_t headersSize(std::uint8_t headerType) {
  std::size_t size = kStandardHeaderSize;
  for (const std::uint8_t field : {kWithEcuId, kWithSessionId, kWithTimestamp}) {
    if (headerType & field) size += kOptionalFieldSize;
  }
  return headerType & kUseExtendedHeader ? size + kExtendedHeaderSize : size;
}

// Absent when the header fields that HTYP announces do not fit into the message.
std::optional<Message> readMessage(Bytes bytes) {
  const std::uint8_t headerType = bytes[0];
  const std::size_t headers = headersSize(headerType);
  if (bytes.size() < headers) return std::nullopt;

  const bool bigEndian = headerType & kMostSignificantByteFirst;
  Message message{.counter = bytes[1],
                  .payloadOrder = bigEndian ? std::endian::big : std::endian::little,
                  .payload = bytes.subspan(headers)};
  Bytes fields = bytes.subspan(kStandardHeaderSize);
  const auto take = [&fields](std::size_t size) {
    const Bytes field = fields.first(size);
    fields = fields.subspan(size);
    return field;
  };
  const auto takeNumber = [&] { return load<std::uint32_t>(take(4), std::endian::big); };
  if (headerType & kWithEcuId) message.ecuId = take(4);
  if (headerType & kWithSessionId) message.sessionId = takeNumber();
  if (headerType & kWithTimestamp) message.timestamp = takeNumber();
  if (headerType & kUseExtendedHeader) {
    message.extended = ExtendedHeader{.messageInfo = fields[0],
                                      .argumentCount = fields[1],
                                      .applicationId = fields.subspan(2, 4),
                                      .contextId = fields.subspan(6, 4)};
  }
  return message;
}

// Absent when nothing but padding is there.
LogRow::Slot identifier(Bytes field) {
  constexpr std::string_view padding("\0 ", 2);
  const std::string_view id = dlt::asText(field);
  const std::size_t last = id.find_last_not_of(padding);
  if (last == std::string_view::npos) return std::nullopt;
  return unicode::decodeLossily(id.substr(0, last + 1));
}

LogRow::Slot ecuOf(const Message& message, Bytes storageHeader) {
  LogRow::Slot ecu;
  if (message.ecuId) ecu = identifier(*message.ecuId);
  if (!ecu && !storageHeader.empty()) ecu = identifier(storageHeader.subspan(12, 4));
  return ecu;
}

LogRow::Slot typeName(std::uint8_t messageInfo) {
  switch (messageInfo >> 1 & 0x7) {
    case 0:
      return "Log";
    case 1:
      return "AppTrace";
    case 2:
      return "NwTrace";
    case 3:
      return "Control";
    default:
      return std::nullopt;
  }
}

RuneflowLogLevel levelOf(std::uint8_t messageInfo) {
  using enum RuneflowLogLevel;
  constexpr std::array levels{Info, Fatal, Error, Warning, Info, Debug, Trace};
  const bool isLog = (messageInfo >> 1 & 0x7) == 0;
  const std::size_t typeInfo = messageInfo >> 4;
  return isLog && typeInfo < levels.size() ? levels[typeInfo] : Info;
}

// Units of 0.1 ms as seconds with four decimals, without the detour over binary fractions.
std::string secondsText(std::uint32_t timestamp) {
  constexpr std::size_t decimals = 4;
  std::string text = fmt::format_int(timestamp).str();
  if (text.size() <= decimals) text.insert(0, decimals + 1 - text.size(), '0');
  return text.insert(text.size() - decimals, 1, '.');
}

std::string messageText(const Message& message) {
  dlt::TextBuffer text;
  if (!message.extended) {
    dlt::appendHexPreview(text, message.payload);
  } else if (message.extended->messageInfo & kVerbose) {
    dlt::appendVerbose(text, message.payload, message.extended->argumentCount,
                       message.payloadOrder);
  } else {
    dlt::appendNonVerbose(text, message.payload, message.payloadOrder);
  }
  return {text.data(), text.size()};
}

Timestamp storageTime(Bytes storageHeader) {
  const auto seconds = load<std::uint32_t>(storageHeader.subspan(4), std::endian::little);
  const auto microseconds = load<std::uint32_t>(storageHeader.subspan(8), std::endian::little);
  return Timestamp(std::chrono::duration<double>(seconds + microseconds / 1e6));
}

LogRow::Slots slotsOf(const Message& message, Bytes storageHeader) {
  LogRow::Slots slots;
  slots[0] = ecuOf(message, storageHeader);
  if (message.extended) {
    slots[1] = identifier(message.extended->applicationId);
    slots[2] = identifier(message.extended->contextId);
    slots[3] = typeName(message.extended->messageInfo);
  }
  slots[4] = fmt::format_int(message.counter).str();
  if (message.sessionId) slots[5] = fmt::format_int(*message.sessionId).str();
  if (message.timestamp) slots[6] = secondsText(*message.timestamp);
  return slots;
}

void appendRow(std::vector<LogRow>& rows, const Frame& frame, const Clock& now) {
  const auto message = readMessage(frame.message);
  if (!message) return;
  rows.emplace_back(
      frame.storageHeader.empty() ? now() : storageTime(frame.storageHeader),
      message->extended ? levelOf(message->extended->messageInfo) : RuneflowLogLevel::Info,
      messageText(*message), std::nullopt, slotsOf(*message, frame.storageHeader));
}

// Returns how many bytes the complete messages at the front of the stream take up.
std::size_t decode(Bytes stream, const Clock& now, std::vector<LogRow>& rows) {
  rows.reserve(countFrames(stream));
  std::size_t offset = 0;
  for (Frame frame = cutFrame(stream); frame.size > 0; frame = cutFrame(stream.subspan(offset))) {
    if (!frame.message.empty()) appendRow(rows, frame, now);
    offset += frame.size;
  }
  return offset;
}

}  // namespace

DLTDecoder::DLTDecoder(Clock now) : now_(std::move(now)) {}

std::vector<LogRow> DLTDecoder::consume(std::span<const std::uint8_t> bytes) {
  std::vector<LogRow> rows;
  if (carry_.empty()) {
    const Bytes rest = bytes.subspan(decode(bytes, now_, rows));
    carry_.assign(rest.begin(), rest.end());
  } else {
    carry_.insert(carry_.end(), bytes.begin(), bytes.end());
    const std::size_t used = decode(carry_, now_, rows);
    carry_.erase(carry_.begin(), carry_.begin() + static_cast<std::ptrdiff_t>(used));
  }
  return rows;
}

}  // namespace runeflow
