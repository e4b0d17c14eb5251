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

#include "bench/dlt_messages.h"
#include "bench/measure.h"
#include "runeflow/decoders/dlt_decoder.h"

namespace {

using bench::Bytes;

constexpr std::size_t kMessages = 1'000'000;
constexpr std::size_t kPiece = 65'536;  // what the capture session reads at once
constexpr int kRounds = 7;

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
    if (type & bench::kDltString) {
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
  const bench::DltRecording recording(kMessages);
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
