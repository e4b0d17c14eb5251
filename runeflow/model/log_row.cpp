#include "runeflow/model/log_row.h"

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

std::size_t hashText(std::size_t seed, const std::string& text) {
  return combine(seed, std::hash<std::string_view>{}(text));
}

}  // namespace

std::optional<std::int64_t> microsecondsSinceEpoch(Timestamp timestamp) {
  const double rounded = std::round(timestamp.time_since_epoch().count() * kMicrosecondsPerSecond);
  if (!(std::abs(rounded) < kTwoToThe63)) return std::nullopt;  // written so that NaN fails it too
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

LogRow::LogRow(Timestamp timestamp, RuneflowLogLevel level, std::string message,
               std::optional<Context> ctx, Slot s0, Slot s1, Slot s2, Slot s3, Slot s4, Slot s5,
               Slot s6, Slot s7)
    : timestamp_(timestamp),
      level_(level),
      message_(std::move(message)),
      ctx_(std::move(ctx)),
      slots_{std::move(s0), std::move(s1), std::move(s2), std::move(s3),
             std::move(s4), std::move(s5), std::move(s6), std::move(s7)} {}

const std::string* LogRow::slot(std::int64_t index) const {
  if (index < 0 || index >= static_cast<std::int64_t>(slotCount)) return nullptr;
  const Slot& slot = slots_[static_cast<std::size_t>(index)];
  return slot ? &*slot : nullptr;
}

}  // namespace runeflow

std::size_t std::hash<runeflow::LogRow>::operator()(const runeflow::LogRow& row) const noexcept {
  using runeflow::combine;
  using runeflow::hashText;
  std::size_t seed = std::hash<double>{}(row.timestamp().time_since_epoch().count());
  seed = combine(seed, static_cast<std::size_t>(row.level()));
  seed = hashText(seed, row.message());
  seed = combine(seed, row.ctx().has_value());
  if (row.ctx()) {
    // The map is ordered by key, so equal maps are walked alike however they were filled.
    for (const auto& [key, value] : *row.ctx()) seed = hashText(hashText(seed, key), value);
  }
  for (const auto& slot : row.slots()) {
    seed = slot ? hashText(seed, *slot) : combine(seed, 0);
  }
  return seed;
}
