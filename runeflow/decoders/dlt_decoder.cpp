// SPDX-License-Identifier: MIT
#include "runeflow/decoders/dlt_decoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "runeflow/decoders/dlt_payload_p.h"
#include "runeflow/decoders/text_buffer_p.h"
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

// Lays out the texts of one message: the slots and then the message text.
class MessageTexts {
 public:
  // The result is valid until the next call.
  const LogRow::Texts& read(const Message& message, Bytes storageHeader) {
    buffer_.start(kMostSlotBytes + dlt::mostTextFor(message.payload.size()));
    texts_.presentSlots = 0;
    const auto endSlot = [&](std::size_t slot, bool isPresent) {
      if (isPresent) texts_.presentSlots |= static_cast<std::uint8_t>(1U << slot);
      texts_.slotEnds[slot] = buffer_.size();
    };
    const auto& extended = message.extended;
    endSlot(0, (message.ecuId && appendIdentifier(*message.ecuId)) ||
                   (!storageHeader.empty() && appendIdentifier(storageHeader.subspan(12, 4))));
    endSlot(1, extended && appendIdentifier(extended->applicationId));
    endSlot(2, extended && appendIdentifier(extended->contextId));
    endSlot(3, extended && appendTypeName(extended->messageInfo));
    endSlot(4, appendNumber(message.counter));
    endSlot(5, message.sessionId && appendNumber(*message.sessionId));
    endSlot(6, message.timestamp && appendSeconds(*message.timestamp));
    endSlot(7, false);
    appendMessage(message);
    texts_.all = buffer_.view();
    return texts_;
  }

 private:
  // Three identifiers of 4 bytes that become U+FFFD each, a type name, two numbers and a time.
  static constexpr std::size_t kMostSlotBytes = 3 * 12 + 8 + 2 * 10 + 11;

  // The functions below append a text and return whether there is one.

  // An identifier of 4 bytes is padded with NULs or spaces.
  bool appendIdentifier(Bytes field) {
    const auto isPadding = [](std::uint8_t byte) { return byte == '\0' || byte == ' '; };
    const bool ascii = isAscii(load<std::uint32_t>(field, std::endian::native));
    if (ascii && !isPadding(field[3])) {  // the usual case: a copy of known size needs no call
      buffer_.append(dlt::asText(field.first<4>()));
      return true;
    }
    std::size_t size = field.size();
    while (size > 0 && isPadding(field[size - 1])) --size;
    const auto id = dlt::asText(field.first(size));
    buffer_.append(unicode::decodeLossily(id));
    return size > 0;
  }

  bool appendTypeName(std::uint8_t messageInfo) {
    constexpr std::array<std::string_view, 4> names{"Log", "AppTrace", "NwTrace", "Control"};
    const std::size_t type = messageInfo >> 1 & 0x7;
    if (type >= names.size()) return false;
    buffer_.append(names[type]);
    return true;
  }

  bool appendNumber(std::uint32_t number) {
    buffer_.appendWith(
        [&](char* first, char* last) { return std::to_chars(first, last, number).ptr; });
    return true;
  }

  // Formats a number of 0.1 ms units as seconds with four decimals. Integer arithmetic keeps the
  // decimals exact.
  bool appendSeconds(std::uint32_t timestamp) {
    constexpr std::uint32_t perSecond = 10'000;
    appendNumber(timestamp / perSecond);
    buffer_.appendWith([&](char* first, char* last) {
      // A "1" before the decimals keeps their leading zeros; the point takes its place.
      const auto end = std::to_chars(first, last, perSecond + timestamp % perSecond).ptr;
      *first = '.';
      return end;
    });
    return true;
  }

  void appendMessage(const Message& message) {
    if (!message.extended) {
      dlt::appendHexPreview(buffer_, message.payload);
    } else if (message.extended->messageInfo & kVerbose) {
      dlt::appendVerbose(buffer_, message.payload, message.extended->argumentCount,
                         message.payloadOrder);
    } else {
      dlt::appendNonVerbose(buffer_, message.payload, message.payloadOrder);
    }
  }

  TextBuffer buffer_;
  LogRow::Texts texts_;
};

RuneflowLogLevel levelOf(std::uint8_t messageInfo) {
  using enum RuneflowLogLevel;
  constexpr std::array levels{Info, Fatal, Error, Warning, Info, Debug, Trace};
  const bool isLog = (messageInfo >> 1 & 0x7) == 0;
  const std::size_t typeInfo = messageInfo >> 4;
  return isLog && typeInfo < levels.size() ? levels[typeInfo] : Info;
}

Timestamp storageTime(Bytes storageHeader) {
  const auto seconds = load<std::uint32_t>(storageHeader.subspan(4), std::endian::little);
  const auto microseconds = load<std::uint32_t>(storageHeader.subspan(8), std::endian::little);
  return Timestamp(std::chrono::duration<double>(seconds + microseconds / 1e6));
}

// Appends the records of messages to a list.
class RowWriter {
 public:
  RowWriter(std::vector<LogRow>& rows, const Clock& now) : rows_(rows), now_(now) {}

  // Decodes the frame at the front of `stream`, which must hold all of it, and removes it.
  void takeFrame(Bytes& stream, const Frame& frame) {
    const Bytes bytes = stream.first(frame.size);
    stream = stream.subspan(frame.size);
    if (!frame.holdsMessage()) return;
    const Bytes storageHeader = bytes.first(frame.storageSize);
    const auto message = readMessage(bytes.subspan(frame.storageSize));
    if (!message) return;
    rows_.emplace_back(
        storageHeader.empty() ? now_() : storageTime(storageHeader),
        message->extended ? levelOf(message->extended->messageInfo) : RuneflowLogLevel::Info,
        texts_.read(*message, storageHeader));
  }

 private:
  std::vector<LogRow>& rows_;
  const Clock& now_;
  MessageTexts texts_;
};

// Moves bytes from the front of `bytes` to the end of `carry` until it holds a complete frame,
// which it returns. Absent if there are too few bytes.
std::optional<Frame> completeFrame(std::vector<std::uint8_t>& carry, Bytes& bytes) {
  for (;;) {
    const Frame frame = cutFrame(carry);  // its size grows when the header is complete
    if (frame.size <= carry.size()) return frame;
    if (bytes.empty()) return std::nullopt;
    const Bytes taken = bytes.first(std::min(frame.size - carry.size(), bytes.size()));
    carry.insert(carry.end(), taken.begin(), taken.end());
    bytes = bytes.subspan(taken.size());
  }
}

}  // namespace

bool DLTDecoder::looksLikeRecording(std::span<const std::uint8_t> bytes) {
  return beginsWithStorageHeader(bytes);
}

DLTDecoder::DLTDecoder(Clock now) : now_(std::move(now)) {}

std::vector<LogRow> DLTDecoder::consume(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kMostRowsReserved = 4096;
  std::vector<LogRow> rows;
  rows.reserve(expectedRows_);
  RowWriter writer(rows, now_);
  // A frame that skips a byte leaves bytes behind it in the carry.
  while (!carry_.empty()) {
    const auto frame = completeFrame(carry_, bytes);
    if (!frame) return rows;
    Bytes rest = carry_;
    writer.takeFrame(rest, *frame);
    carry_.erase(carry_.begin(), carry_.end() - static_cast<std::ptrdiff_t>(rest.size()));
  }
  for (Frame frame = cutFrame(bytes); frame.size <= bytes.size(); frame = cutFrame(bytes)) {
    writer.takeFrame(bytes, frame);
  }
  carry_.assign(bytes.begin(), bytes.end());
  expectedRows_ = std::min(kMostRowsReserved, rows.size() + rows.size() / 8);
  return rows;
}

}  // namespace runeflow
