// SPDX-License-Identifier: MIT

// The instants that users type: what each form means in three zones, and what is refused.
#include "host/time_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "host/failure.h"

namespace runeflow {
namespace {

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::int64_t kHour = 3600 * kSecond;
// 2026-03-17T14:05:00Z, and a moment after it.
constexpr std::int64_t kBase = 1'773'756'300 * kSecond;
constexpr host::TimeReference kReference{kBase + 30 * kSecond + 7, kBase - 10 * kHour};

class InZone {
 public:
  explicit InZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~InZone() {
    ::unsetenv("TZ");
    ::tzset();
  }
  InZone(const InZone&) = delete;
  InZone& operator=(const InZone&) = delete;
};

std::string refusal(const std::string& text) {
  try {
    return "accepted: " + std::to_string(host::parseTime(text, kReference));
  } catch (const host::Failure& failure) {
    return failure.what();
  }
}

TEST(TimeText, everyFormMeansItsInstant) {
  const InZone zone("<+0130>-1:30");
  constexpr std::int64_t kMidnight = kBase - 14 * kHour - 300 * kSecond;  // in UTC
  constexpr std::int64_t kZone = 3 * kHour / 2;
  const struct {
    const char* text;
    std::int64_t expected;
  } table[] = {
      {"2026-03-17T14:05Z", kBase},
      {"2026-03-17 14:05:00z", kBase},
      {"2026-03-17t14:05:06.789Z", kBase + 6'789'000},
      {"2026-03-17T14:05:06,7Z", kBase + 6'700'000},
      {"2026-03-17T14:05:06.1234569Z", kBase + 6'123'456},
      {"2026-03-17T16:05+02:00", kBase},
      {"2026-03-17T16:05+02", kBase},
      {"2026-03-17T10:35-0330", kBase},
      {"2026-03-17T15:35", kBase},
      {"2026-03-17", kMidnight - kZone},
      {"2026-03-17T24:00Z", kMidnight + 24 * kHour},
      {"2026-03-18T00:00:00.000Z", kMidnight + 24 * kHour},
      {"2024-02-29T00:00Z", 1'709'164'800 * kSecond},
      {"1969-12-31T23:59:59.999999Z", -1},
      {"0000-01-01T00:00Z", -62'167'219'200 * kSecond},
      {"9999-12-31T23:59:59Z", 253'402'300'799 * kSecond},
      {"15:35", kBase},
      {"15:35:06.5", kBase + 6'500'000},
      {"14:05Z", kBase},
      {"00:00+11", kMidnight + 13 * kHour},  // there, the next day has begun
      {"now", kReference.now},
      {"-15m", kReference.now - 900 * kSecond},
      {"now-1h30m", kReference.now - kZone},
      {"-1w2d3h4m5s6ms", kReference.now - (788'645 * kSecond + 6'000)},
      {"-0s", kReference.now},
      {"end", kReference.end},
      {"end-250ms", kReference.end - 250'000},
      {"-106751991d", kReference.now - std::int64_t{106'751'991} * 24 * kHour},
  };
  for (const auto& [text, expected] : table) {
    SCOPED_TRACE(text);
    EXPECT_EQ(host::parseTime(text, kReference), expected);
  }
}

TEST(TimeText, aChangeOfTheClockIsReadAsTheDecodersReadIt) {
  const InZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr std::int64_t kSpring =
      1'774'746'000 * kSecond;  // 2026-03-29T01:00:00Z, 02:00 becomes 03:00
  constexpr std::int64_t kAutumn =
      1'792'890'000 * kSecond;  // 2026-10-25T01:00:00Z, 03:00 becomes 02:00
  const struct {
    const char* text;
    std::int64_t expected;
  } table[] = {
      {"2026-03-29T01:59:59", kSpring - kSecond},
      {"2026-03-29T02:30", kSpring - kHour / 2},  // skipped
      {"2026-03-29T03:00", kSpring},
      {"2026-10-25T01:59", kAutumn - kHour - 60 * kSecond},
      {"2026-10-25T02:30", kAutumn - kHour / 2},  // the first of two
      {"2026-10-25T02:30+01:00", kAutumn + kHour / 2},
      {"2026-10-25T03:00", kAutumn + kHour},
      {"2026-10-25", kAutumn - 3 * kHour},
      {"2026-10-26", kAutumn + 22 * kHour},
  };
  for (const auto& [text, expected] : table) {
    SCOPED_TRACE(text);
    EXPECT_EQ(host::parseTime(text, kReference), expected);
  }
}

TEST(TimeText, refusesEverythingElseWithASentence) {
  const struct {
    const char* text;
    const char* names;
  } table[] = {
      {"", "'' is not a time; write 2026-03-17T14:05"},
      {"15m", "is not a time; write"},
      {"-15", "is not a time; write"},
      {"-m", "is not a time; write"},
      {"-15m30", "is not a time; write"},
      {"-15min", "is not a time; write"},
      {"-1m1h", "is not a time; write"},
      {"-1m1m", "is not a time; write"},
      {"-1.5h", "is not a time; write"},
      {"- 15m", "is not a time; write"},
      {"--15m", "is not a time; write"},
      {"+15m", "is not a time; write"},
      {"end+15m", "is not a time; write"},
      {"ending", "is not a time; write"},
      {"2026", "is not a time; write"},
      {"2026-3-7", "is not a time; write"},
      {"26-03-17", "is not a time; write"},
      {"20260317", "is not a time; write"},
      {"17.03.2026", "is not a time; write"},
      {"2026-03-17T", "is not a time; write"},
      {"2026-03-17T14", "is not a time; write"},
      {"2026-03-17T14:5", "is not a time; write"},
      {"2026-03-17T14:05:", "is not a time; write"},
      {"2026-03-17T14:05:06.", "is not a time; write"},
      {"2026-03-17T14:05Zulu", "is not a time; write"},
      {"2026-03-17T14:05+1", "is not a time; write"},
      {"2026-03-17T14:05+01:", "is not a time; write"},
      {"2026-03-17 14:05 Z", "is not a time; write"},
      {"2026-03-17Z", "is not a time; write"},
      {"14:05 ", "is not a time; write"},
      {"2026-02-29", "the calendar has no such day"},
      {"2026-13-01", "the calendar has no such day"},
      {"2026-00-10", "the calendar has no such day"},
      {"25:00", "no clock shows this time of day"},
      {"24:01", "no clock shows this time of day"},
      {"23:60", "no clock shows this time of day"},
      {"23:59:60", "no clock shows this time of day"},
      {"14:05+24:00", "no zone is that far from UTC"},
      {"-99999999999999999999s", "is too long ago"},
      {"-106751991168d", "is too long ago"},
      {"end-15250284453w15250284453d", "is too long ago"},
  };
  const InZone zone("UTC0");
  for (const auto& [text, names] : table) {
    SCOPED_TRACE(text);
    EXPECT_THAT(refusal(text), testing::AllOf(testing::StartsWith("'" + std::string(text) + "' is"),
                                              testing::HasSubstr(names)));
  }
}

}  // namespace
}  // namespace runeflow
