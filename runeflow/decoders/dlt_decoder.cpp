// SPDX-License-Identifier: MIT
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
#include "runeflow/platform/unicode_p.h"

namespace runeflow {
namespace {

using dlt::Bytes;
using dlt::load;

constexpr std::size_t kStorageHeaderSize = 16;
constexpr std::size_t kStandardHeaderSize = 4;  // without the optional fields
constexpr std::size_t kOptionalFieldSize = 4;   // the same for ECU ID, session ID and timestamp
constexpr std::size_t kExtendedHeaderSize = 10;

// DLT standard header, HTYP. The byte order bit applies to the payload; the standard and extended
// headers are always big-endian.
constexpr std::uint8_t kUseExtendedHeader = 1U << 0;
constexpr std::uint8_t kMostSignificantByteFirst = 1U << 1;
constexpr std::uint8_t kWithEcuId = 1U << 2;
constexpr std::uint8_t kWithSessionId = 1U << 3;
constexpr std::uint8_t kWithTimestamp = 1U << 4;

// DLT extended header, MSIN: bit 0 VERB, bits 1 to 3 MSTP, bits 4 to 7 MTIN.
constexpr std::uint8_t kVerbose = 1U << 0;

// The extent of the next message of a stream, according to its length field.
struct Frame {
  std::size_t size;         // bytes to remove from the stream as soon as it holds that many
  std::size_t storageSize;  // of the storage header; 0 if there is none
  // If false, the bytes are skipped.
  bool holdsMessage() const { return size - storageSize >= kStandardHeaderSize; }
};

bool beginsWithStorageHeader(Bytes stream) {
  constexpr std::array<std::uint8_t, DLTDecoder::sampleSize> kPattern{'D', 'L', 'T', 0x01};
  return stream.size() >= kPattern.size() &&
         std::equal(kPattern.begin(), kPattern.end(), stream.begin());
}

Frame cutFrame(Bytes stream) {
  const bool stored = beginsWithStorageHeader(stream);
  const std::size_t start = stored ? kStorageHeaderSize : 0;
  if (stream.size() < start + kStandardHeaderSize) return {start + kStandardHeaderSize, start};

  const std::size_t length = load<std::uint16_t>(stream.subspan(start + 2), std::endian::big);
  return {start + (length < kStandardHeaderSize ? 1 : length), start};
}

std::size_t countMessages(Bytes stream) {
  std::size_t count = 0;
  for (Frame frame = cutFrame(stream); frame.size <= stream.size(); frame = cutFrame(stream)) {
    if (frame.holdsMessage()) ++count;
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

// Returns nothing if the message is shorter than the header fields that HTYP announces.
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

bool isAscii(std::uint32_t fourBytes) {
  return (fourBytes & 0x8080'8080U) == 0;
}

// The slots of one message. They are views into the bytes of the message and into `texts_`, valid
// until the next read(). A text in `texts_` has at most 12 bytes. All texts of a message fit into
// the buffer's inline storage, and therefore `texts_` never moves.
class SlotTexts {
 public:
  SlotTexts() = default;
  SlotTexts(const SlotTexts&) = delete;
  SlotTexts& operator=(const SlotTexts&) = delete;

  const LogRow::Slots& read(const Message& message, Bytes storageHeader) {
    texts_.clear();
    slots_[0] = message.ecuId ? identifier(*message.ecuId) : std::nullopt;
    if (!slots_[0] && !storageHeader.empty()) slots_[0] = identifier(storageHeader.subspan(12, 4));
    const auto& extended = message.extended;
    slots_[1] = extended ? identifier(extended->applicationId) : std::nullopt;
    slots_[2] = extended ? identifier(extended->contextId) : std::nullopt;
    slots_[3] = extended ? typeName(extended->messageInfo) : std::nullopt;
    slots_[4] = number(message.counter);
    slots_[5] = message.sessionId ? LogRow::Slot(number(*message.sessionId)) : std::nullopt;
    slots_[6] = message.timestamp ? LogRow::Slot(seconds(*message.timestamp)) : std::nullopt;
    return slots_;
  }

 private:
  // Absent if the field holds only padding.
  LogRow::Slot identifier(Bytes field) {
    std::size_t size = field.size();
    while (size > 0 && (field[size - 1] == '\0' || field[size - 1] == ' ')) --size;
    if (size == 0) return std::nullopt;
    const std::string_view id = dlt::asText(field.first(size));
    if (isAscii(load<std::uint32_t>(field, std::endian::native))) return id;
    return keep(unicode::decodeLossily(id));
  }

  static LogRow::Slot typeName(std::uint8_t messageInfo) {
    constexpr std::array<std::string_view, 4> names{"Log", "AppTrace", "NwTrace", "Control"};
    const std::size_t type = messageInfo >> 1 & 0x7;
    return type < names.size() ? LogRow::Slot(names[type]) : std::nullopt;
  }

  std::string_view number(std::uint32_t number) {
    const fmt::format_int digits(number);
    return keep({digits.data(), digits.size()});
  }

  // Formats a number of 0.1 ms units as seconds with four decimals. Integer arithmetic keeps the
  // decimals exact.
  std::string_view seconds(std::uint32_t timestamp) {
    constexpr std::uint32_t perSecond = 10'000;
    const fmt::format_int seconds(timestamp / perSecond);
    const fmt::format_int fraction(perSecond + timestamp % perSecond);  // "1" and the decimals
    const std::size_t size = seconds.size() + fraction.size();
    keep({seconds.data(), seconds.size()});
    keep(".");
    keep({fraction.data() + 1, fraction.size() - 1});
    return {texts_.end() - size, size};
  }

  std::string_view keep(std::string_view text) {
    texts_.append(text);
    return {texts_.end() - text.size(), text.size()};
  }

  LogRow::Slots slots_;
  dlt::TextBuffer texts_;
};

RuneflowLogLevel levelOf(std::uint8_t messageInfo) {
  using enum RuneflowLogLevel;
  constexpr std::array levels{Info, Fatal, Error, Warning, Info, Debug, Trace};
  const bool isLog = (messageInfo >> 1 & 0x7) == 0;
  const std::size_t typeInfo = messageInfo >> 4;
  return isLog && typeInfo < levels.size() ? levels[typeInfo] : Info;
}

dlt::TextBuffer messageText(const Message& message) {
  dlt::TextBuffer text;
  if (!message.extended) {
    dlt::appendHexPreview(text, message.payload);
  } else if (message.extended->messageInfo & kVerbose) {
    dlt::appendVerbose(text, message.payload, message.extended->argumentCount,
                       message.payloadOrder);
  } else {
    dlt::appendNonVerbose(text, message.payload, message.payloadOrder);
  }
  return text;
}

Timestamp storageTime(Bytes storageHeader) {
  const auto seconds = load<std::uint32_t>(storageHeader.subspan(4), std::endian::little);
  const auto microseconds = load<std::uint32_t>(storageHeader.subspan(8), std::endian::little);
  return Timestamp(std::chrono::duration<double>(seconds + microseconds / 1e6));
}

void appendRow(std::vector<LogRow>& rows, Bytes storageHeader, Bytes bytes, const Clock& now,
               SlotTexts& slots) {
  const auto message = readMessage(bytes);
  if (!message) return;
  const auto text = messageText(*message);
  rows.emplace_back(
      storageHeader.empty() ? now() : storageTime(storageHeader),
      message->extended ? levelOf(message->extended->messageInfo) : RuneflowLogLevel::Info,
      std::string_view(text.data(), text.size()), std::nullopt,
      slots.read(*message, storageHeader));
}

// Decodes the complete messages at the front of `stream` and removes them from it.
void decode(Bytes& stream, const Clock& now, std::vector<LogRow>& rows) {
  constexpr std::size_t kMostRowsReserved = 4096;  // a counted message may still give no record
  rows.reserve(std::min(kMostRowsReserved, countMessages(stream)));
  SlotTexts slots;
  for (Frame frame = cutFrame(stream); frame.size <= stream.size(); frame = cutFrame(stream)) {
    if (frame.holdsMessage()) {
      const Bytes bytes = stream.first(frame.size);
      appendRow(rows, bytes.first(frame.storageSize), bytes.subspan(frame.storageSize), now, slots);
    }
    stream = stream.subspan(frame.size);
  }
}

}  // namespace

bool DLTDecoder::looksLikeRecording(std::span<const std::uint8_t> bytes) {
  return beginsWithStorageHeader(bytes);
}

DLTDecoder::DLTDecoder(Clock now) : now_(std::move(now)) {}

std::vector<LogRow> DLTDecoder::consume(std::span<const std::uint8_t> bytes) {
  std::vector<LogRow> rows;
  if (carry_.empty()) {
    decode(bytes, now_, rows);
    carry_.assign(bytes.begin(), bytes.end());
    return rows;
  }
  carry_.insert(carry_.end(), bytes.begin(), bytes.end());
  Bytes rest = carry_;
  decode(rest, now_, rows);
  carry_.erase(carry_.begin(), carry_.end() - static_cast<std::ptrdiff_t>(rest.size()));
  return rows;
}

}  // namespace runeflow
