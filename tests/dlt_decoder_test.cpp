#include "runeflow/decoders/dlt_decoder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace runeflow {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Level = RuneflowLogLevel;
using Buffer = std::vector<std::uint8_t>;

constexpr std::uint32_t kBool = 0x10;
constexpr std::uint32_t kSint = 0x20;
constexpr std::uint32_t kUint = 0x40;
constexpr std::uint32_t kFloa = 0x80;
constexpr std::uint32_t kStrg = 0x200;
constexpr std::uint32_t kRawd = 0x400;
constexpr std::uint32_t kVari = 0x800;

Buffer operator+(Buffer a, const Buffer& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Buffer text(std::string_view characters) {
  return {characters.begin(), characters.end()};
}

template <class T>
Buffer number(T value, std::endian order = std::endian::little) {
  if (order != std::endian::native) value = std::byteswap(value);
  const auto bytes = std::bit_cast<std::array<std::uint8_t, sizeof(T)>>(value);
  return {bytes.begin(), bytes.end()};
}

Buffer argument(std::uint32_t typeInfo, const Buffer& data) {
  return number(typeInfo) + data;
}

Buffer stringArgument(std::string_view characters) {
  return argument(kStrg, number(static_cast<std::uint16_t>(characters.size())) + text(characters));
}

Buffer doubleArguments(const std::vector<double>& values) {
  Buffer bytes;
  for (const double value : values) {
    bytes = bytes + argument(kFloa | 4, number(std::bit_cast<std::uint64_t>(value)));
  }
  return bytes;
}

// One message, its header flags and length following from what is put in.
class Dlt {
 public:
  Dlt& storage(std::uint32_t seconds, std::uint32_t microseconds, std::string_view ecu) {
    storage_ =
        text(std::string_view("DLT\x01")) + number(seconds) + number(microseconds) + text(ecu);
    return *this;
  }
  Dlt& counter(std::uint8_t value) { return counter_ = value, *this; }
  Dlt& bigEndian() { return flags_ |= 0x02, *this; }
  Dlt& ecu(std::string_view id) { return field(0x04, text(id)); }
  Dlt& session(std::uint32_t id) { return field(0x08, number(id, std::endian::big)); }
  Dlt& timestamp(std::uint32_t ticks) { return field(0x10, number(ticks, std::endian::big)); }
  Dlt& extended(std::uint8_t info, std::uint8_t arguments, std::string_view ids = "APP1CTX1") {
    return field(0x01, Buffer{info, arguments} + text(ids));
  }
  Dlt& payload(const Buffer& bytes) { return body_ = body_ + bytes, *this; }
  Dlt& length(std::uint16_t claimed) { return length_ = claimed, *this; }

  operator Buffer() const {
    const auto natural = static_cast<std::uint16_t>(4 + body_.size());
    return storage_ + Buffer{flags_, counter_} +
           number(length_.value_or(natural), std::endian::big) + body_;
  }

 private:
  Dlt& field(std::uint8_t flag, const Buffer& bytes) { return flags_ |= flag, payload(bytes); }

  Buffer storage_;
  Buffer body_;
  std::uint8_t flags_ = 0x20;  // version 1
  std::uint8_t counter_ = 0;
  std::optional<std::uint16_t> length_;
};

Timestamp at(double seconds) {
  return Timestamp(std::chrono::duration<double>(seconds));
}

class DLTDecoderTest : public testing::Test {
 protected:
  static DLTDecoder newDecoder() {
    return DLTDecoder([] { return at(7); });
  }
  static std::vector<LogRow> decode(const Buffer& stream) { return newDecoder().consume(stream); }

  static LogRow decodeOne(const Buffer& message) {
    auto rows = decode(message);
    EXPECT_THAT(rows, SizeIs(1));
    rows.resize(1, LogRow(at(0), Level::Fatal, "no row", std::nullopt, {}));
    return rows.front();
  }

  static std::string verbose(std::uint8_t argumentCount, const Buffer& payload) {
    return decodeOne(Dlt().extended(0x41, argumentCount).payload(payload)).message();
  }

  // The stream in pieces of at most `size` bytes, the first of them `first` bytes long.
  static std::vector<LogRow> decodeInPieces(std::span<const std::uint8_t> stream, std::size_t first,
                                            std::size_t size) {
    auto decoder = newDecoder();
    std::vector<LogRow> rows;
    for (std::size_t next = first; !stream.empty(); next = size) {
      const auto piece = stream.first(std::min(next, stream.size()));
      for (auto& row : decoder.consume(piece)) rows.push_back(std::move(row));
      stream = stream.subspan(piece.size());
    }
    return rows;
  }
};

TEST_F(DLTDecoderTest, headersFillTheSlots) {
  const Dlt full = Dlt().storage(1'700'000'000, 500'000, "REC1").counter(255).ecu("ECU1");
  EXPECT_EQ(decodeOne(Dlt(full).session(42).timestamp(123'456).extended(0x31, 1).payload(
                stringArgument("hello"))),
            LogRow(at(1'700'000'000.5), Level::Warning, "hello", std::nullopt, "ECU1", "APP1",
                   "CTX1", "Log", "255", "42", "12.3456", std::nullopt));
  EXPECT_EQ(decodeOne(Dlt().counter(7)),
            LogRow(at(7), Level::Info, "", std::nullopt, {}, {}, {}, {}, "7", {}, {}, {}));
}

TEST_F(DLTDecoderTest, identifiersLosePaddingAtTheirEndOnly) {
  const struct {
    std::string_view bytes;
    std::optional<std::string> expected;
  } rows[] = {
      {{"AB\0\0", 4}, "AB"},          {{"A \0 ", 4}, "A"},           {" A B", " A B"},
      {{"\0A\0\0", 4}, {{"\0A", 2}}}, {{"\0 \0 ", 4}, std::nullopt}, {"A\xff  ", "A\uFFFD"},
      {"\xe2\x82\xac ", "€"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    const std::string ids = std::string(row.bytes) + std::string(row.bytes);
    const LogRow decoded =
        decodeOne(Dlt().storage(1, 0, "REC1").ecu(row.bytes).extended(0, 0, ids));
    EXPECT_EQ(decoded.s0(), row.expected.value_or("REC1"));  // the recorder's stands in
    EXPECT_EQ(decoded.s1(), row.expected);
    EXPECT_EQ(decoded.s2(), row.expected);
    EXPECT_EQ(decodeOne(Dlt().storage(1, 0, row.bytes)).s0(), row.expected);
  }
}

TEST_F(DLTDecoderTest, messageInfoGivesTypeAndLevel) {
  const std::array logLevels{Level::Info, Level::Fatal, Level::Error, Level::Warning,
                             Level::Info, Level::Debug, Level::Trace};
  const std::array<std::optional<std::string>, 4> names{"Log", "AppTrace", "NwTrace", "Control"};
  for (unsigned info = 0; info < 256; ++info) {
    SCOPED_TRACE(info);
    const LogRow row = decodeOne(Dlt().extended(static_cast<std::uint8_t>(info), 0));
    const std::size_t type = info >> 1 & 7U;
    const std::size_t subtype = info >> 4;
    EXPECT_EQ(row.s3(), type < names.size() ? names.at(type) : std::nullopt);
    EXPECT_EQ(row.level(),
              type == 0 && subtype < logLevels.size() ? logLevels.at(subtype) : Level::Info);
  }
}

TEST_F(DLTDecoderTest, ecuTimeHasFourExactDecimals) {
  std::string texts;
  for (const std::uint32_t ticks : {0U, 1U, 9'999U, 10'050U, 4'294'967'295U}) {
    texts += decodeOne(Dlt().timestamp(ticks)).s6().value_or("absent") + " ";
  }
  EXPECT_EQ(texts, "0.0000 0.0001 0.9999 1.0050 429496.7295 ");
}

TEST_F(DLTDecoderTest, payloadsWithoutArgumentsAreOutlined) {
  std::string pairs64 = "ab";
  for (int i = 1; i < 64; ++i) pairs64 += " ab";
  const Dlt nonVerbose = Dlt().extended(0, 9);
  const struct {
    Buffer message;
    std::string expected;
  } rows[] = {
      {Dlt().payload({1, 0xab, 0}), "01 ab 00"},
      {Dlt().payload(Buffer(64, 0xab)), pairs64},
      {Dlt().payload(Buffer(65, 0xab)), pairs64 + " …"},
      {Dlt(nonVerbose).payload({1, 2, 3, 4, 5}), "[non-verbose id=0x4030201 1 bytes]"},
      {Dlt(nonVerbose).bigEndian().payload({0, 0, 1, 0xf4}), "[non-verbose id=0x1f4 0 bytes]"},
      {Dlt(nonVerbose).payload(Buffer(16, 0)), "[non-verbose id=0x0 12 bytes]"},
      {Dlt(nonVerbose).payload({1, 2, 3}), "[non-verbose]"},
  };
  for (const auto& row : rows) EXPECT_EQ(decodeOne(row.message).message(), row.expected);
}

TEST_F(DLTDecoderTest, rendersArguments) {
  const struct {
    std::uint32_t typeInfo;
    Buffer data;
    std::string expected;
  } rows[] = {
      {kBool | 1, {0}, "false"},
      {kBool | kUint | 3, {2}, "true"},  // one byte, whatever else is announced
      {kUint | 1, {255}, "255"},
      {kUint | kSint | 2, {0xfe, 0xff}, "65534"},
      {kSint | 2, {0xfe, 0xff}, "-2"},
      {kSint | kFloa | 1, {0x80}, "-128"},
      {kUint | 3 | 0x3f000 | 0x100, {0x2a, 0, 0, 0}, "42"},  // array, coding and the like
      {kSint | 4, number(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808"},
      {kUint | 4, Buffer(8, 0xff), "18446744073709551615"},
      {kFloa | 3, number(std::bit_cast<std::uint32_t>(0.1F)), "0.1"},
      {kStrg, {4, 0, 'a', 0, 0, 0}, "a"},
      {kStrg | kRawd | kBool, {3, 0, 0, ' ', 0xff}, {"\0 \uFFFD", 5}},
      {kRawd | kUint | 3, {2, 0, 0x0a, 0xff}, "0a ff"},
      {kRawd, {0, 0}, ""},
  };
  for (const auto& row : rows) {
    // The argument behind it shows how many bytes were used.
    EXPECT_EQ(verbose(2, argument(row.typeInfo, row.data) + stringArgument("|")),
              row.expected + " |");
  }
}

TEST_F(DLTDecoderTest, floatsAreTheShortestTextThatReadsBack) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(verbose(0, doubleArguments({1, -0.0, -3.5, 1e5, 0.1 + 0.2, 0.0001, 123456789012345})),
            "1.0 -0.0 -3.5 100000.0 0.30000000000000004 0.0001 123456789012345.0");
  EXPECT_EQ(verbose(0, doubleArguments({1e-5, 1e16, 5e-324, kInfinity, -kInfinity, -std::nan("")})),
            "1e-05 1e+16 5e-324 inf -inf nan");
}

TEST_F(DLTDecoderTest, payloadFollowsItsByteOrder) {
  const Buffer payload{0, 0, 0, kSint | 2, 0xff, 0xfe, 0, 0, 2, 0, 0, 2, 'h', 'i'};
  EXPECT_EQ(decodeOne(Dlt().bigEndian().extended(0x41, 2).payload(payload)).message(), "-2 hi");
}

TEST_F(DLTDecoderTest, argumentCountBoundsTheText) {
  const Buffer three = stringArgument("a") + stringArgument("") + stringArgument("c");
  EXPECT_EQ(verbose(0, three), "a  c");
  EXPECT_EQ(verbose(2, three), "a ");
  EXPECT_EQ(verbose(9, three), "a  c");
  EXPECT_EQ(verbose(0, three + Buffer(3, 9)), "a  c");  // too few for another type info
  EXPECT_EQ(verbose(3, {1, 2, 3}), "");
}

TEST_F(DLTDecoderTest, whatCannotBeRenderedEndsAsHex) {
  const struct {
    const char* name;
    std::uint32_t typeInfo;
    Buffer rest;
    std::string expected;
  } rows[] = {
      {"variable info", kVari | kStrg, {1, 0, 'a'}, "x 01 00 61"},
      {"128 bits", kUint | 5, Buffer(16, 0), "x 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"},
      {"no length", kUint, {1}, "x 01"},
      {"half a float", kFloa | 2, {1, 2}, "x 01 02"},
      {"no type", 3, {1, 2, 3, 4}, "x 01 02 03 04"},
      {"cut number", kUint | 4, Buffer(7, 1), "x 01 01 01 01 01 01 01"},
      {"cut string", kStrg, {2, 0, 'a'}, "x 02 00 61"},
      {"cut string length", kRawd, {2}, "x 02"},
      {"no truth", kBool, {}, "x"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(verbose(0, stringArgument("x") + argument(row.typeInfo, row.rest)), row.expected)
        << row.name;
  }
}

TEST_F(DLTDecoderTest, dropsMessagesThatTheirHeadersDoNotFitInto) {
  const Buffer rows[] = {
      Dlt().extended(0, 0, "APP1CTX"),
      Dlt().ecu("ECU"),
      Dlt().ecu("").session(1).timestamp(2),
      Dlt().timestamp(1).extended(0, 0, "APP1CTX"),
      Dlt().storage(1, 2, "REC1").extended(0, 0, "APP"),
  };
  for (const Buffer& bad : rows) {
    EXPECT_THAT(decode(bad + Dlt().counter(99)), ElementsAre(decodeOne(Dlt().counter(99))));
  }
}

TEST_F(DLTDecoderTest, resumesOneByteAfterALengthBelowFour) {
  // Read one byte later, each is a message of five bytes that nothing recorded.
  const LogRow found = decodeOne(Dlt().payload({0xee}));
  const Buffer outOfStep{0xaa, 0x20, 0x00, 0x00, 0x05, 0xee};
  Buffer storage = Dlt().storage(1, 2, "REC1");
  storage.resize(16);
  EXPECT_THAT(decode(outOfStep), ElementsAre(found));
  EXPECT_THAT(decode(storage + outOfStep), ElementsAre(found));
  EXPECT_THAT(decode(Buffer(1000, 0) + Buffer{0, 0, 0, 4}), SizeIs(1));
}

TEST_F(DLTDecoderTest, anyCutGivesTheSameRows) {
  const Buffer stream =
      Buffer(Dlt().counter(1).ecu("ECU1").extended(0x41, 1).payload(stringArgument("é"))) +
      Dlt().storage(5, 6, "REC1").counter(2).payload({1, 2, 3}) +
      Buffer{0, 0, 0, 2, 'D', 'L', 'T'} + Buffer{0x35, 0, 0, 5, 0} +
      Dlt().storage(5, 7, "REC1").counter(3).session(8) + Dlt().storage(1, 2, "REC1").length(3) +
      Dlt().counter(4);
  const auto whole = decode(stream);
  ASSERT_THAT(whole, testing::Not(IsEmpty()));
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    EXPECT_EQ(decodeInPieces(stream, cut, stream.size()), whole) << cut;
  }
  for (const std::size_t size : {1U, 3U, 17U}) {
    EXPECT_EQ(decodeInPieces(stream, size, size), whole) << size;
  }
}

TEST_F(DLTDecoderTest, longestMessageArrivesByteByByte) {
  const Buffer message = Dlt().storage(1, 0, "REC1").payload(Buffer(65'531, 0));
  const auto rows = decodeInPieces(message + message, 1, 1);
  EXPECT_THAT(rows, ElementsAre(decodeOne(message), decodeOne(message)));
}

}  // namespace
}  // namespace runeflow
