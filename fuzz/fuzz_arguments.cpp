// SPDX-License-Identifier: MIT

// Any typed bytes as a size, as an address and as a time: what is refused is refused with a
// sentence, and what is accepted means what the text says.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/support.h"
#include "host/byte_count.h"
#include "host/failure.h"
#include "host/target.h"
#include "host/time_text.h"

namespace {

using fuzz::require;

// Returns the result of `parse`, or nothing after a Failure. Other exceptions end the process.
template <class Parse>
auto accepted(Parse parse) -> std::optional<decltype(parse())> {
  try {
    return parse();
  } catch (const host::Failure& failure) {
    require(!std::string_view(failure.what()).empty());
    return std::nullopt;
  }
}

std::int64_t unitOf(char letter) {
  constexpr std::string_view kLetters = "KMG";
  const auto at = kLetters.find(letter);
  return at == std::string_view::npos ? 1 : std::int64_t{1} << (10 * (at + 1));
}

// Digits and an optional unit, computed digit by digit. Absent also for 0 and beyond 64 bits.
std::optional<std::int64_t> sizeIn(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const auto unit = unitOf(text.back());
  if (unit > 1) text.remove_suffix(1);
  std::int64_t size = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    if (__builtin_mul_overflow(size, 10, &size)) return std::nullopt;
    if (__builtin_add_overflow(size, c - '0', &size)) return std::nullopt;
  }
  if (size == 0 || __builtin_mul_overflow(size, unit, &size)) return std::nullopt;
  return size;
}

void checkTarget(const std::string& text, std::uint16_t defaultPort) {
  const auto target = accepted([&] { return host::parseTarget(text, defaultPort); });
  if (!target) return;
  require(!target->host.empty() && target->port != 0 && text.contains(target->host));
  const bool isIpv6 = target->host.contains(':');
  const auto again =
      (isIpv6 ? '[' + target->host + ']' : target->host) + ':' + std::to_string(target->port);
  const auto same = host::parseTarget(again, 1);
  require(same.host == target->host && same.port == target->port);
}

// A time lies in the calendar. A day later, the same text means the same instant or that of a day
// later.
void checkTime(const std::string& text) {
  constexpr std::int64_t kHour = 3'600'000'000;
  constexpr std::int64_t kEndOfCalendar = 253'402'300'800'000'000 + 24 * kHour;
  const auto at = [&](std::int64_t now) {
    return accepted([&] { return host::parseTime(text, {.now = now, .end = now}); });
  };
  const auto time = at(0);
  if (!time) return;
  require(*time <= kEndOfCalendar);
  const auto dayLater = at(24 * kHour);
  require(dayLater && (*dayLater == *time || *dayLater == *time + 24 * kHour));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  require(accepted([&] { return host::parseByteCount(text); }) == sizeIn(text));
  checkTarget(text, 3490);
  checkTime(text);
  return 0;
}
