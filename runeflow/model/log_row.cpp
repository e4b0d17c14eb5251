// SPDX-License-Identifier: MIT
#include "runeflow/model/log_row.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

namespace runeflow {
namespace {

constexpr double kMicrosecondsPerSecond = 1'000'000;
constexpr double kTwoToThe63 = 9'223'372'036'854'775'808.0;

std::size_t combine(std::size_t seed, std::size_t hash) {
  constexpr std::size_t goldenRatio = 0x9e3779b97f4a7c15;
  return seed ^ (hash + goldenRatio + (seed << 6) + (seed >> 2));
}

std::size_t hashText(std::size_t seed, std::string_view text) {
  return combine(seed, std::hash<std::string_view>{}(text));
}

std::size_t totalSize(std::string_view message, const LogRow::Slots& slots) {
  std::size_t size = message.size();
  for (const auto& slot : slots) {
    if (slot) size += slot->size();
  }
  return size;
}

}  // namespace

std::optional<std::int64_t> microsecondsSinceEpoch(Timestamp timestamp) {
  const double rounded = std::round(timestamp.time_since_epoch().count() * kMicrosecondsPerSecond);
  if (!(std::abs(rounded) < kTwoToThe63)) return std::nullopt;  // negated: NaN fails, too
  return static_cast<std::int64_t>(rounded);
}

Timestamp timestampFromMicroseconds(std::int64_t microseconds) {
  return Timestamp(
      std::chrono::duration<double>(static_cast<double>(microseconds) / kMicrosecondsPerSecond));
}

std::optional<RuneflowLogLevel> levelFromRawValue(std::int64_t rawValue) {
  if (rawValue < 0 || rawValue > 5) return std::nullopt;
  return static_cast<RuneflowLogLevel>(rawValue);
}

LogRow::LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
               std::optional<Context> ctx, Slot s0, Slot s1, Slot s2, Slot s3, Slot s4, Slot s5,
               Slot s6, Slot s7)
    : LogRow(timestamp, level, message, std::move(ctx), Slots{s0, s1, s2, s3, s4, s5, s6, s7}) {}

LogRow::LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string_view message,
               std::optional<Context> ctx, const Slots& slots)
    : timestamp_(timestamp),
      level_(level),
      texts_(totalSize(message, slots)),
      ctx_(std::move(ctx)) {
  char* out = texts_.data();
  std::size_t end = 0;
  for (std::size_t i = 0; i < slotCount; ++i) {
    if (slots[i]) {
      presentSlots_ |= static_cast<std::uint8_t>(1U << i);
      end += slots[i]->copy(out + end, slots[i]->size());
    }
    slotEnds_[i] = end;
  }
  message.copy(out + end, message.size());
}

LogRow::Slots LogRow::slots() const {
  return {s0(), s1(), s2(), s3(), s4(), s5(), s6(), s7()};
}

LogRow::Slot LogRow::slot(std::int64_t index) const {
  if (index < 0 || index >= static_cast<std::int64_t>(slotCount)) return std::nullopt;
  const auto i = static_cast<std::size_t>(index);
  if (!(presentSlots_ >> i & 1U)) return std::nullopt;
  const std::size_t start = i == 0 ? 0 : slotEnds_[i - 1];
  return texts_.view().substr(start, slotEnds_[i] - start);
}

}  // namespace runeflow

std::size_t std::hash<runeflow::LogRow>::operator()(const runeflow::LogRow& row) const noexcept {
  using runeflow::combine;
  using runeflow::hashText;
  std::size_t seed = std::hash<double>{}(row.timestamp().time_since_epoch().count());
  seed = combine(seed, static_cast<std::size_t>(row.level()));
  seed = hashText(seed, row.texts_.view());
  for (const auto end : row.slotEnds_) seed = combine(seed, end);
  seed = combine(seed, row.presentSlots_);
  seed = combine(seed, row.ctx_.has_value());
  if (row.ctx_) {
    // std::map iterates in key order, so the insertion order does not affect the hash.
    for (const auto& [key, value] : *row.ctx_) seed = hashText(hashText(seed, key), value);
  }
  return seed;
}
