// SPDX-License-Identifier: MIT
#include "runeflow/decoders/logcat_decoder.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <sstream>

#include "support.h"

namespace runeflow {
namespace {

using test::at;
using test::bytes;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr double kJuly2023 = 1'688'200'000;

// Sets the local time zone to UTC, so that the expected times are constants.
class LogcatDecoding : public testing::Test {
 protected:
  static void useZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  void SetUp() override { useZone("UTC0"); }
  void TearDown() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  static LogcatDecoder decoder(double now = kJuly2023) {
    return LogcatDecoder([now] { return at(now); });
  }
  static std::vector<LogRow> decode(std::string_view text, double now = kJuly2023) {
    return decoder(now).consume(bytes(text));
  }
  static LogRow decodeLine(std::string line) {
    const auto rows = decode(line += '\n');
    EXPECT_EQ(rows.size(), 1U) << line;
    return rows.at(0);
  }
  static LogRow parsed(double seconds, RuneflowLogLevel level, std::string_view tag,
                       std::string_view pid, std::string_view tid, std::string_view message) {
    return {at(seconds), level, message, {}, LogRow::Slots{tag, pid, tid}};
  }
  // A raw row: a record that holds a whole undecoded line as its message.
  static LogRow raw(std::string_view text) {
    return {at(kJuly2023), RuneflowLogLevel::Info, text, {}, LogRow::Slots()};
  }
};

TEST_F(LogcatDecoding, linesBecomeRows) {
  using enum RuneflowLogLevel;
  constexpr double kNewYear = 1'672'531'200;  // 2023-01-01T00:00:00Z
  constexpr double kTen = kNewYear + 10 * 3600;
  const std::pair<std::string, LogRow> table[] = {
      {"12-31 23:59:59.999  1234  5678 I ActivityManager: Start proc",
       parsed(kNewYear + 365 * 86'400 - 0.001, Info, "ActivityManager", "1234", "5678",
              "Start proc")},
      {"01-01 10:00:00 1 2 W", parsed(kTen, Warning, "", "1", "2", "")},
      {"01-01 10:00:00.5 1 2 D t: m", parsed(kTen + 0.005, Debug, "t", "1", "2", "m")},
      {"01-01 10:00:00. 1 2 V t: m", parsed(kTen, Trace, "t", "1", "2", "m")},
      {"01-01 10:00:00.1.2 1 2 A t: m", parsed(kTen, Fatal, "t", "1", "2", "m")},
      {"01-01 10:00:00.x9 1 2 S t: m", parsed(kTen, Info, "t", "1", "2", "m")},
      {"01-01 10:00:00.-5 1 2 F t: m", parsed(kTen - 0.005, Fatal, "t", "1", "2", "m")},
      {"01-01 10:00:00.1500 1 2 E t: m", parsed(kTen + 1.5, Error, "t", "1", "2", "m")},
      {"  +1-+01   +10:0:61   1   2   E   t: m", parsed(kTen + 61, Error, "t", "1", "2", "m")},
      {"02-30 00:00:00 1 2 I t: m",
       parsed(kNewYear + (31 + 29) * 86'400, Info, "t", "1", "2", "m")},
      // The first ": " ends the tag. The message after it is not trimmed.
      {"01-01 10:00:00 1 2 I chatty  : a: b ", parsed(kTen, Info, "chatty", "1", "2", "a: b ")},
      {"01-01 10:00:00 1 2 I Tag:  x ", parsed(kTen, Info, "Tag", "1", "2", " x ")},
      {"01-01 10:00:00 1 2 I Tag:value", parsed(kTen, Info, "Tag", "1", "2", "value")},
      {"01-01 10:00:00 1 2 I \tTag\u2003:\tvalue \u3000",
       parsed(kTen, Info, "Tag", "1", "2", "value")},
      {"01-01 10:00:00 1 2 I no colon ", parsed(kTen, Info, "", "1", "2", "no colon ")},
      {"01-01 10:00:00 1 2 I a:b: c", parsed(kTen, Info, "a:b", "1", "2", "c")},
      {"01-01 10:00:00 1 2 I a\rb: c\r\r", parsed(kTen, Info, "a\rb", "1", "2", "c\r")},
      // A pid may hold any numeric characters, not only digits. A separator that carries a
      // combining mark does not separate.
      {"01-01 10:00:00 1² ٣½ I t: m", parsed(kTen, Info, "t", "1²", "٣½", "m")},
      {"01-01 10:00:00 1 2 I a:\u0301 b: c", parsed(kTen, Info, "a:\u0301 b", "1", "2", "c")},
      {"01-01 10:00:00 1 2 I a: \u0301b", parsed(kTen, Info, "a", "1", "2", " \u0301b")},
      {"01-01 10:00:00.\u0301 1 2 I t: m", raw("01-01 10:00:00.\u0301 1 2 I t: m")},
      {"01-01 \u030110:00:00 1 2 I t: m", raw("01-01 \u030110:00:00 1 2 I t: m")},
      {"01-01 10:00:00 1 2 I\u0301 t: m", raw("01-01 10:00:00 1 2 I\u0301 t: m")},
      {"01-01 10:00:00 1 2 I t: bad \xFF\xE2\x82",
       parsed(kTen, Info, "t", "1", "2", "bad \uFFFD\uFFFD")},
  };
  for (const auto& [line, expected] : table) {
    SCOPED_TRACE(line);
    EXPECT_EQ(decodeLine(line), expected);
  }
}

TEST_F(LogcatDecoding, linesThatAreNotThreadtimeBecomeRawRows) {
  std::istringstream text(
      "hello world\n01-01 10:00:00.000\n01-01\t10:00:00 1 2 I t: m\n"
      "01-01 10:00:00 1 2 II t: m\n01-01 10:00:00 1 2 i t: m\n"
      "01-01 10:00:00 12a 2 I t: m\n01-01 10:00:00 1 -2 I t: m\n"
      "00-01 10:00:00 1 2 I t: m\n01-00 10:00:00 1 2 I t: m\n"
      "01-01-01 10:00:00 1 2 I t: m\n01- 10:00:00 1 2 I t: m\n"
      "01-01 24:00:00 1 2 I t: m\n01-01 10:60:00 1 2 I t: m\n"
      "01-01 10:00:62 1 2 I t: m\n01-01 10:00 1 2 I t: m\n"
      "01-01 10:00:00:00 1 2 I t: m\n01-01 -1:00:00 1 2 I t: m\n"
      "01-01 10:00:.5 1 2 I t: m\n٠١-01 10:00:00 1 2 I t: m\n"
      "01-01 10:00:00.9223372036855 1 2 I t: m\n"
      "01-01 10:00:00.99999999999999999999999 1 2 I t: m\n"
      "99999999999999999999-01 10:00:00 1 2 I t: m\n");
  int lines = 0;
  for (std::string line; std::getline(text, line); ++lines) EXPECT_EQ(decodeLine(line), raw(line));
  EXPECT_EQ(lines, 22);
}

TEST_F(LogcatDecoding, bannersEmptyLinesAndTheUnfinishedLineGiveNoRow) {
  EXPECT_THAT(decode("--------- beginning of main\r\n\n\r\n-x\nno line end"), IsEmpty());
  EXPECT_THAT(decode("a\r\nb\n"), ElementsAre(raw("a"), raw("b")));
}

// A character that is not ASCII sends a line down the careful road. Both roads must agree.
TEST_F(LogcatDecoding, linesInTheUsualLayoutReadAsOthersDo) {
  const std::string nuls(14, '\0');
  const std::string lines[] = {
      nuls + ".000  1  2 I t: m",  // equals no second that the reader remembers
      "01-02 03:04:05.678  1000  2000 I Tag: m",
      "01-02 03:04:05.6x8  1000  2000 I Tag: m",  // the same second, and no milliseconds
      "01-02 03:04:05:678  1000  2000 I Tag: m",
      "01-02 03:04:05.678\t 1000  2000 I Tag: m",
      "01-02 03:04:05.678 2000 I Tag: m",
      "01-02 03:04:05.678  1000  2000 II Tag: m",
      "01-02 03:04:05.678  1000  2000 X Tag: m",
      "01-02 03:04:05.678  1000  2000  W   \t Tag \t: m: n ",
      "01-02 03:04:05.678  1000  2000 E : m",
      "01-02 03:04:05.678  1000  2000 E Tag:m",
      "01-02 03:04:05.678  1000  +200 F Tag: m",
      "13-02 03:04:05.678  1000  2000 I Tag: m",
      "02-30 23:59:61.999  1000  2000 V Tag: m",
      "02-30 23:59:61.000  1000  2000 V Tag: m",
      "01-02 03:04:05.678  1000  2000 I",
      "01-02 03:04:05.678 ",
  };
  auto usual = decoder();
  for (const auto& line : lines) {
    SCOPED_TRACE(line);
    const auto rows = usual.consume(bytes(line + "\n"));
    const auto careful = decode(line + "\u00e9\n");
    ASSERT_EQ(rows.size(), 1U);
    ASSERT_EQ(careful.size(), 1U);
    if (line.ends_with('m') || line.ends_with("n ")) {
      EXPECT_EQ(std::string(rows[0].message()) + "\u00e9", careful[0].message());
      EXPECT_EQ(rows[0].slots(), careful[0].slots());
      EXPECT_EQ(rows[0].level(), careful[0].level());
      EXPECT_EQ(rows[0].timestamp(), careful[0].timestamp());
    }
  }
}

TEST_F(LogcatDecoding, pieceBoundariesDoNotChangeTheRows) {
  const std::string text =
      "--------- beginning of main\r\n06-30 10:00:00.123  1  2 I täg: grüße \xF0\x9F\x98\x80\r\n\n"
      "\xE2\x82 raw \xFF\n06-30 10:00:00.124  1  2 E t: last\ntail";
  const auto whole = decode(text);
  ASSERT_EQ(whole.size(), 3U);
  for (std::size_t size = 1; size <= text.size(); ++size) {
    auto split = decoder();
    std::vector<LogRow> rows;
    for (std::size_t cut = 0; cut < text.size(); cut += size) {
      for (auto& row : split.consume(bytes(text.substr(cut, size)))) rows.push_back(std::move(row));
    }
    ASSERT_EQ(rows, whole) << size;
  }
}

TEST_F(LogcatDecoding, aLongUnfinishedLineTakesLinearTime) {
  auto endless = decoder();
  const std::string piece(4096, 'x');
  // A decoder that searched the whole unfinished line on every call would read 50 GB here.
  for (int i = 0; i < 5'000; ++i) ASSERT_THAT(endless.consume(bytes(piece)), IsEmpty());
  const auto rows = endless.consume(bytes("\n"));
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].message().size(), 5'000 * piece.size());
}

TEST_F(LogcatDecoding, datesAreLocalTimes) {
  useZone("CET-1CEST,M3.5.0,M10.5.0/3");
  const std::pair<std::string_view, double> table[] = {
      {"01-01 00:30:00", 1'672'529'400},         // winter: UTC+1, still 2022 in UTC
      {"07-01 12:00:00.25", 1'688'205'600.025},  // summer: UTC+2
      {"03-26 01:59:59", 1'679'792'399},
      {"03-26 03:00:00", 1'679'792'400},  // the clock was set from 02:00 to 03:00
      {"10-29 01:59:59", 1'698'537'599},
      {"10-29 02:30:00", 1'698'539'400},  // occurs twice; the first one counts
      {"10-29 03:00:00", 1'698'544'800},
      {"12-31 23:59:59", 1'704'063'599},
  };
  auto kept = decoder();
  for (const auto& [time, utc] : table) {
    const auto line = fmt::format("{} 1 2 I t: m\n", time);
    EXPECT_EQ(kept.consume(bytes(line)).at(0).timestamp(), at(utc)) << time;
  }
}

// localtime_r() turns the time of a record back into the date of its line, unless the clock skipped
// that date. The lines decoded before do not change the result.
TEST_F(LogcatDecoding, localtimeReturnsTheDecodedDates) {
  for (const char* zone : {"CET-1CEST,M3.5.0,M10.5.0/3", "LHST-10:30LHDT-11,M10.1.0,M4.1.0"}) {
    useZone(zone);
    auto kept = decoder();
    std::mt19937 random(3);
    for (int i = 0; i < 10'000; ++i) {
      const auto line = fmt::format("{:02}-{:02} {:02}:{:02}:00.000 1 2 I t: m\n", i % 12 + 1,
                                    random() % 28 + 1, random() % 24, random() % 60);
      const auto timestamp = kept.consume(bytes(line)).at(0).timestamp();
      ASSERT_EQ(timestamp, decode(line).at(0).timestamp()) << line;
      const auto time = static_cast<std::time_t>(timestamp.time_since_epoch().count());
      std::tm fields{};
      localtime_r(&time, &fields);
      const auto back = fmt::format("{:02}-{:02} {:02}:{:02}", fields.tm_mon + 1, fields.tm_mday,
                                    fields.tm_hour, fields.tm_min);
      const bool isSkipped = line.substr(0, 8) == "03-26 02" || line.substr(0, 8) == "10-01 02";
      ASSERT_TRUE(isSkipped || line.starts_with(back)) << zone << " " << line << back;
    }
  }
}

TEST_F(LogcatDecoding, theYearIsTheOneInWhichTheDecoderWasMade) {
  constexpr double kLastSecondOf2023 = 1'704'067'199;
  auto calls = 0;
  LogcatDecoder old([&calls] { return at(kLastSecondOf2023 + 3600 * calls++); });
  EXPECT_EQ(calls, 1);
  const auto rows = old.consume(bytes("01-01 00:00:00 1 2 I t: m\nraw\n"));
  EXPECT_EQ(rows.at(0).timestamp(), at(1'672'531'200));
  EXPECT_EQ(rows.at(1).timestamp(), at(kLastSecondOf2023 + 3600));
  for (const double odd : {std::nan(""), 1e300, -1e300}) decode("01-01 00:00:00 1 2 I t: m\n", odd);
}

TEST_F(LogcatDecoding, threadtimeSamplesAreRecognized) {
  const std::string line = "02-29 10:00:00 1 2 I t: m";
  const std::pair<std::string, bool> table[] = {
      {"--------- beginning of main\r\n\r\n" + line + "\r\n", true},
      {"noise\n\xFF\n" + line + "\n", true},
      {line, false},  // no line feed: the line may be incomplete
      {"", false},
      {std::string(9'000, 'x'), false},
      {std::string(8'192 - line.size() - 2, 'x') + "\n" + line + "\n", true},
      {std::string(8'192 - line.size() - 1, 'x') + "\n" + line + "\n", false},
      {"DLT\x01\n", false},
  };
  for (const auto& [sample, isThreadtime] : table) {
    EXPECT_EQ(LogcatDecoder::looksLikeThreadtime(bytes(sample)), isThreadtime) << sample;
  }
}

}  // namespace
}  // namespace runeflow
