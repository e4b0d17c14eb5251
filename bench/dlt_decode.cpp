// Decoding a DLT recording into rows, beside a walk over the same bytes that makes nothing of them.
#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "bench/measure.h"
#include "runeflow/decoders/dlt_decoder.h"

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kMessages = 1'000'000;
constexpr std::size_t kMessageSize = 127;
constexpr std::size_t kPiece = 65'536;  // what the capture session reads at once
constexpr int kRounds = 7;

constexpr std::uint32_t kString = 1U << 9;
constexpr std::uint32_t kUint32 = 1U << 6 | 3;

class Recording {
 public:
  explicit Recording(std::size_t messages) {
    bytes_.reserve(messages * kMessageSize);
    for (std::uint32_t i = 0; i < messages; ++i) addMessage(i);
  }
  Bytes bytes() const { return bytes_; }

 private:
  // 127 bytes: storage header 16, standard header 16, extended header 10, arguments 77 and 8.
  void addMessage(std::uint32_t i) {
    constexpr std::string_view sentence =
        "connection to the instrument cluster was established after some tries";
    static_assert(sentence.size() == 69);
    add("DLT\x01");
    addLittle(1'700'000'000 + i / 1000);
    addLittle(i % 1000 * 1000);
    add("ECU1");
    bytes_.insert(bytes_.end(), {0x3d, static_cast<std::uint8_t>(i), 0, 111});
    add("ECU1");
    addBig(42);
    addBig(i * 10);
    bytes_.insert(bytes_.end(), {static_cast<std::uint8_t>(1 | (i % 6 + 1) << 4), 2});
    add("APP1");
    add("CTX1");
    addLittle(kString);
    bytes_.insert(bytes_.end(), {sentence.size() + 2, 0});
    add(sentence);
    bytes_.insert(bytes_.end(), {0, 0});
    addLittle(kUint32);
    addLittle(i * 7919);
  }

  void add(std::string_view text) { bytes_.insert(bytes_.end(), text.begin(), text.end()); }
  void addLittle(std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
      bytes_.push_back(static_cast<std::uint8_t>(value >> shift));
    }
  }
  void addBig(std::uint32_t value) { addLittle(std::byteswap(value)); }

  std::vector<std::uint8_t> bytes_;
};

template <class T>
T at(const std::uint8_t* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

std::uint64_t walkArguments(const std::uint8_t* p, const std::uint8_t* end, unsigned count) {
  std::uint64_t sum = 0;
  while (count-- > 0 && end - p >= 4) {
    const auto type = at<std::uint32_t>(p);
    p += 4;
    if (type & kString) {
      const auto length = at<std::uint16_t>(p);
      sum += length + p[2];
      p += 2 + length;
    } else {
      sum += at<std::uint32_t>(p);
      p += 4;
    }
  }
  return sum;
}

// The yardstick: every header field is read and every argument stepped over, in one piece.
std::uint64_t walkBare(Bytes recording) {
  std::uint64_t sum = 0;
  const std::uint8_t* p = recording.data();
  const std::uint8_t* const end = p + recording.size();
  while (p < end) {
    sum += at<std::uint32_t>(p + 4) + at<std::uint32_t>(p + 8) + at<std::uint32_t>(p + 12);
    const std::uint8_t* const header = p + 16;
    const std::uint8_t* const messageEnd = header + std::byteswap(at<std::uint16_t>(header + 2));
    sum += header[0] + header[1];
    p = header + 4;
    for (const unsigned bit : {2U, 3U, 4U}) {
      if (header[0] >> bit & 1U) {
        sum += std::byteswap(at<std::uint32_t>(p));
        p += 4;
      }
    }
    sum += p[0] + at<std::uint32_t>(p + 2) + at<std::uint32_t>(p + 6);
    sum += walkArguments(p + 10, messageEnd, p[1]);
    p = messageEnd;
  }
  return sum;
}

std::size_t decodeRows(Bytes recording) {
  runeflow::DLTDecoder decoder([] { return runeflow::Timestamp{}; });
  std::size_t rows = 0;
  while (!recording.empty()) {
    const std::size_t size = std::min(kPiece, recording.size());
    rows += decoder.consume(recording.first(size)).size();
    recording = recording.subspan(size);
  }
  return rows;
}

void report(std::string_view name, double seconds, std::size_t bytes) {
  fmt::print("{:<16} {:>12.0f} messages/s {:>8.0f} MB/s\n", name, kMessages / seconds,
             static_cast<double>(bytes) / seconds / 1e6);
}

}  // namespace

int main() {
  const Recording recording(kMessages);
  const Bytes bytes = recording.bytes();
  std::uint64_t checksum = 0;
  std::size_t rows = 0;
  const auto [bare, decoded] = bench::medianSeconds(
      kRounds, [&] { checksum += walkBare(bytes); }, [&] { rows += decodeRows(bytes); });

  report("bare walk", bare, bytes.size());
  report("DLTDecoder", decoded, bytes.size());
  fmt::print("ratio {:.2f} (checksum {:x}, {} rows)\n", decoded / bare, checksum, rows);
  return rows == kMessages * kRounds ? 0 : 1;
}
