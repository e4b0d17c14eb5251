// SPDX-License-Identifier: MIT
#include "runeflow/decoders/dlt_decoder.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <array>
#include <bit>
#include <cmath>
#include <tuple>

#include "support.h"

namespace runeflow {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using Buffer = std::vector<std::uint8_t>;

// Bits of the type info that precedes each argument of a verbose message.
constexpr std::uint32_t kBool = 0x10, kSint = 0x20, kUint = 0x40, kFloa = 0x80, kStrg = 0x200,
                        kRawd = 0x400, kVari = 0x800;

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

Buffer stringArgument(std::string_view characters) {
  return number(kStrg) + number(static_cast<std::uint16_t>(characters.size())) + text(characters);
}

// Builds one message. The fields are written in the order of the calls; the header flags and the
// length follow from them.
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

  operator Buffer() const {
    const auto length = static_cast<std::uint16_t>(4 + body_.size());
    return storage_ + Buffer{flags_, counter_} + number(length, std::endian::big) + body_;
  }

 private:
  Dlt& field(std::uint8_t flag, const Buffer& bytes) { return flags_ |= flag, payload(bytes); }

  Buffer storage_;
  Buffer body_;
  std::uint8_t flags_ = 0x20;  // version 1
  std::uint8_t counter_ = 0;
};

// Decodes a stream in pieces, the first of `first` bytes and the others of `size` bytes. The end of
// the stream may cut a piece short.
std::vector<LogRow> decode(std::span<const std::uint8_t> stream, std::size_t first = 1 << 20,
                           std::size_t size = 1 << 20) {
  DLTDecoder decoder([] { return test::at(7); });
  std::vector<LogRow> rows;
  for (std::size_t next = first; !stream.empty(); next = size) {
    const auto piece = stream.first(std::min(next, stream.size()));
    for (auto& row : decoder.consume(piece)) rows.push_back(std::move(row));
    stream = stream.subspan(piece.size());
  }
  return rows;
}

LogRow decodeOne(const Buffer& message) {
  auto rows = decode(message);
  EXPECT_THAT(rows, SizeIs(1));
  return rows.empty() ? test::row("no row") : rows.front();
}

std::string verbose(std::uint8_t argumentCount, const Buffer& payload) {
  return std::string(decodeOne(Dlt().extended(0x41, argumentCount).payload(payload)).message());
}

TEST(DLTDecoder, headersFillTheSlots) {
  const Dlt full = Dlt().storage(1'700'000'000, 500'000, "REC1").counter(255).ecu("ECU1");
  EXPECT_EQ(decodeOne(Dlt(full).session(42).timestamp(123'456).extended(0x31, 1).payload(
                stringArgument("hello"))),
            LogRow(test::at(1'700'000'000.5), RuneflowLogLevel::Warning, "hello", std::nullopt,
                   "ECU1", "APP1", "CTX1", "Log", "255", "42", "12.3456", std::nullopt));
  EXPECT_EQ(decodeOne(Dlt().counter(7)), LogRow(test::at(7), RuneflowLogLevel::Info, "",
                                                std::nullopt, {}, {}, {}, {}, "7", {}, {}, {}));
}

TEST(DLTDecoder, identifiersAreTrimmedAtTheirEndOnly) {
  const std::pair<std::string_view, std::optional<std::string>> rows[] = {
      {{"AB\0\0", 4}, "AB"},          {{"A \0 ", 4}, "A"},           {" A B", " A B"},
      {{"\0A\0\0", 4}, {{"\0A", 2}}}, {{"\0 \0 ", 4}, std::nullopt}, {"A\xff  ", "A\uFFFD"}};
  for (const auto& [id, expected] : rows) {
    const std::string ids = std::string(id) + std::string(id);
    const LogRow decoded = decodeOne(Dlt().storage(1, 0, "REC1").ecu(id).extended(0, 0, ids));
    EXPECT_EQ(decoded.s0(), expected.value_or("REC1"));  // the ECU of the storage header
    EXPECT_EQ(decoded.s1(), expected);
    EXPECT_EQ(decoded.s2(), expected);
  }
}

TEST(DLTDecoder, messageInfoAndTimeBecomeTexts) {
  std::string texts;
  for (const auto info : Buffer{0x01, 0x10, 0x20, 0x31, 0x50, 0x60, 0x70, 0x12, 0x25, 0x16, 0x18}) {
    const LogRow row = decodeOne(Dlt().extended(info, 0));
    texts += fmt::format("{}{} ", row.s3().value_or("-"), rawValue(row.level()));
  }
  EXPECT_EQ(texts, "Log2 Log5 Log4 Log3 Log1 Log0 Log2 AppTrace2 NwTrace2 Control2 -2 ");
  texts.clear();
  for (const std::uint32_t ticks : {0U, 9'999U, 10'050U, 4'294'967'295U}) {
    texts += fmt::format("{} ", decodeOne(Dlt().timestamp(ticks)).s6().value_or("absent"));
  }
  EXPECT_EQ(texts, "0.0000 0.9999 1.0050 429496.7295 ");
}

TEST(DLTDecoder, payloadsWithoutArgumentsAreShownAsAHexPreviewOrAMessageId) {
  std::string pairs64 = "ab";
  for (int i = 1; i < 64; ++i) pairs64 += " ab";
  const Dlt nonVerbose = Dlt().extended(0, 9);
  const std::pair<Buffer, std::string> rows[] = {
      {Dlt().payload(Buffer(64, 0xab)), pairs64},
      {Dlt().payload(Buffer(65, 0xab)), pairs64 + " …"},
      {Dlt(nonVerbose).payload({1, 2, 3, 4, 5}), "[non-verbose id=0x4030201 1 bytes]"},
      {Dlt(nonVerbose).bigEndian().payload({0, 0, 1, 0xf4}), "[non-verbose id=0x1f4 0 bytes]"},
      {Dlt(nonVerbose).payload({1, 2, 3}), "[non-verbose]"}};
  for (const auto& [message, expected] : rows) EXPECT_EQ(decodeOne(message).message(), expected);
}

TEST(DLTDecoder, rendersArguments) {
  const std::tuple<std::uint32_t, Buffer, std::string> rows[] = {
      {kBool | 1, {0}, "false"},
      {kBool | kUint | 3, {2}, "true"},  // one byte, whatever length the type info gives
      {kUint | kSint | 2, {0xfe, 0xff}, "65534"},
      {kSint | 2, {0xfe, 0xff}, "-2"},
      {kSint | kFloa | 1, {0x80}, "-128"},
      {kUint | 3 | 0x3f000 | 0x100, {0x2a, 0, 0, 0}, "42"},  // ARAY, FIXP and others are ignored
      {kSint | 4, number(INT64_MIN), "-9223372036854775808"},
      {kUint | 4, Buffer(8, 0xff), "18446744073709551615"},
      {kFloa | 3, number(std::bit_cast<std::uint32_t>(0.1F)), "0.1"},
      {kStrg, {4, 0, 'a', 0, 0, 0}, "a"},
      {kStrg | kRawd | kBool, {3, 0, 0, ' ', 0xff}, {"\0 \uFFFD", 5}},
      {kRawd | kUint | 3, {2, 0, 0x0a, 0xff}, "0a ff"}};
  for (const auto& [typeInfo, data, expected] : rows) {
    // The second argument is rendered only if the decoder read the right number of bytes before it.
    EXPECT_EQ(verbose(2, number(typeInfo) + data + stringArgument("|")), expected + " |");
  }
  const Buffer big{0, 0, 0, kSint | 2, 0xff, 0xfe, 0, 0, 2, 0, 0, 2, 'h', 'i'};
  EXPECT_EQ(decodeOne(Dlt().bigEndian().extended(0x41, 2).payload(big)).message(), "-2 hi");
}

TEST(DLTDecoder, floatsBecomeTheShortestTextThatReadsBack) {
  Buffer payload;
  for (const double value : {1.0, -0.0, -3.5, 0.1 + 0.2, 0.0001, 123456789012345.0, 1e-5, 1e16,
                             5e-324, HUGE_VAL, -HUGE_VAL, -std::nan("")}) {
    payload = payload + number(kFloa | 4) + number(std::bit_cast<std::uint64_t>(value));
  }
  EXPECT_EQ(
      verbose(0, payload),
      "1.0 -0.0 -3.5 0.30000000000000004 0.0001 123456789012345.0 1e-05 1e+16 5e-324 inf -inf nan");
}

// Debug builds check that the decoder's buffer is large enough.
TEST(DLTDecoder, largestMessagesGrowTheMost) {
  constexpr std::size_t kRoom = 65'535 - 4 - 10;
  const auto repeated = [](const Buffer& argument) {
    Buffer payload;
    while (payload.size() + argument.size() <= kRoom) {
      payload.insert(payload.end(), argument.begin(), argument.end());
    }
    return payload;
  };
  const std::string invalid(kRoom - 6, '\xff');
  const auto message = verbose(0, stringArgument(invalid));
  EXPECT_EQ(message.size(), 3 * invalid.size());
  for (const auto& argument :
       {stringArgument("\xff"), number(kBool) + Buffer{1}, number(kSint | 1) + Buffer{0x80},
        number(kUint | 4) + number(~std::uint64_t{0}), number(kRawd) + Buffer{1, 0, 0xff},
        number(kFloa | 4) + number(std::bit_cast<std::uint64_t>(-1.2345678901234567e-308)),
        number(kFloa | 3) + number(std::bit_cast<std::uint32_t>(-0.000123456789F))}) {
    const auto payload = repeated(argument);
    const auto one = verbose(1, argument);
    EXPECT_EQ(verbose(0, payload).size(),
              (one.size() + 1) * (payload.size() / argument.size()) - 1);
  }
}

TEST(DLTDecoder, argumentCountLimitsTheText) {
  const Buffer three = stringArgument("a") + stringArgument("") + stringArgument("c");
  EXPECT_EQ(verbose(0, three), "a  c");
  EXPECT_EQ(verbose(2, three), "a ");
  EXPECT_EQ(verbose(9, three), "a  c");
  EXPECT_EQ(verbose(0, three + Buffer(3, 9)), "a  c");  // fewer than the 4 bytes of a type info
  EXPECT_EQ(verbose(3, {1, 2, 3}), "");
}

TEST(DLTDecoder, argumentsThatCannotBeDecodedBecomeHex) {
  const std::tuple<std::uint32_t, Buffer, std::string> rows[] = {
      {kVari | kStrg, {1, 0, 'a'}, "x 01 00 61"},
      {kUint | 5, Buffer(8, 0), "x 00 00 00 00 00 00 00 00"},
      {kUint, {1}, "x 01"},
      {kFloa | 2, {1, 2}, "x 01 02"},
      {3, {1, 2, 3, 4}, "x 01 02 03 04"},
      {kUint | 4, Buffer(7, 1), "x 01 01 01 01 01 01 01"},
      {kStrg, {2, 0, 'a'}, "x 02 00 61"},
      {kRawd, {2}, "x 02"},
      {kBool, {}, "x"}};
  for (const auto& [typeInfo, rest, expected] : rows) {
    EXPECT_EQ(verbose(0, stringArgument("x") + number(typeInfo) + rest), expected) << typeInfo;
  }
}

TEST(DLTDecoder, dropsMessagesTooShortForTheirHeaders) {
  const LogRow next = decodeOne(Dlt().counter(99));
  for (const Buffer& bad : {Buffer(Dlt().ecu("ECU")), Buffer(Dlt().ecu("").session(1).timestamp(2)),
                            Buffer(Dlt().timestamp(1).extended(0, 0, "APP1CTX")),
                            Buffer(Dlt().storage(1, 2, "REC1").extended(0, 0, "APP"))}) {
    EXPECT_THAT(decode(bad + Dlt().counter(99)), ElementsAre(next));
  }
}

TEST(DLTDecoder, resumesOneByteAfterALengthBelowFour) {
  // From its first byte on, `outOfStep` is a message of length 0; from its second byte on, it is a
  // message of 5 bytes without a storage header.
  const LogRow found = decodeOne(Dlt().payload({0xee}));
  const Buffer outOfStep{0xaa, 0x20, 0x00, 0x00, 0x05, 0xee};
  EXPECT_THAT(decode(outOfStep), ElementsAre(found));
  EXPECT_THAT(decode(text("DLT\x01") + Buffer(12, 0) + outOfStep), ElementsAre(found));
  EXPECT_THAT(decode(Buffer(1000, 0) + Buffer{0, 0, 0, 4}), SizeIs(1));
}

TEST(DLTDecoder, oneCallMayBringManyMessages) {
  constexpr int kMessages = 10'000;  // more than the decoder reserves room for
  Buffer stream;
  std::vector<LogRow> expected;
  for (int i = 0; i < kMessages; ++i) {
    Dlt message;
    message.storage(static_cast<std::uint32_t>(i), 250'000, i % 3 == 0 ? "REC1" : "REC2");
    message.counter(static_cast<std::uint8_t>(i));
    if (i % 2 == 0) message.session(static_cast<std::uint32_t>(i));
    message.extended(0x41, 1).payload(stringArgument(std::to_string(i)));
    const Buffer bytes = message;
    stream.insert(stream.end(), bytes.begin(), bytes.end());
    expected.push_back(decodeOne(bytes));
  }
  EXPECT_EQ(expected[2'500].message(), "2500");
  EXPECT_EQ(expected[2'500].timestamp(), test::at(2'500.25));
  EXPECT_TRUE(decode(stream) == expected);
}

TEST(DLTDecoder, pieceBoundariesDoNotChangeTheRows) {
  const Buffer outOfStep{0xaa, 0x20, 0, 0, 5, 0xee};
  const Buffer stream =
      Buffer(Dlt().counter(1).ecu("ECU1").extended(0x41, 1).payload(stringArgument("é"))) +
      Dlt().storage(5, 6, "REC1").counter(2).payload({1, 2, 3}) + outOfStep +
      Buffer{'D', 'L', 0, 8, 'E', 'C', 'U', '2'} + Dlt().storage(5, 7, "REC1").session(8) +
      text("DLT\x01") + Buffer(12, '1') + outOfStep + Dlt().counter(4);
  const auto whole = decode(stream);
  ASSERT_THAT(whole, SizeIs(7));
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    EXPECT_EQ(decode(stream, cut), whole) << cut;
    EXPECT_EQ(decode(stream, cut, cut), whole) << cut;
  }
  const Buffer longest = Dlt().storage(1, 0, "REC1").payload(Buffer(65'531, 0));
  EXPECT_THAT(decode(longest + longest, 1, 1), ElementsAre(decodeOne(longest), decodeOne(longest)));
}

}  // namespace
}  // namespace runeflow
