// SPDX-License-Identifier: MIT
#include "host/overlap.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace host {
namespace {

using runeflow::LogRow;

constexpr std::int64_t kMostRecords = 50'000;
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

std::int64_t microsecondsOf(const LogRow& row) {
  return runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(0);
}

// The same for a stored and a decoded record, whose times may differ in the last bit of a double.
std::string keyOf(const LogRow& row) {
  auto key = fmt::format("{}\n{}", microsecondsOf(row), runeflow::rawValue(row.level()));
  for (const auto& slot : row.slots()) key += fmt::format("\n{}", slot.value_or("\n"));
  return key += fmt::format("\n{}", row.message());
}

class OverlapFilter final : public runeflow::RowDecoder {
 public:
  OverlapFilter(std::unique_ptr<runeflow::RowDecoder> decoder,
                std::unordered_map<std::string, int> records)
      : decoder_(std::move(decoder)), records_(std::move(records)) {}

  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override {
    auto rows = decoder_->consume(bytes);
    if (!records_.empty()) std::erase_if(rows, [this](const LogRow& row) { return drop(row); });
    return rows;
  }

 private:
  bool drop(const LogRow& row) {
    const auto found = records_.find(keyOf(row));
    if (found == records_.end()) return false;
    if (--found->second == 0) records_.erase(found);
    return true;
  }

  std::unique_ptr<runeflow::RowDecoder> decoder_;
  std::unordered_map<std::string, int> records_;
};

}  // namespace

Overlap::Overlap(runeflow::EventStore& store) {
  const auto newest = store.maxSeq();
  const auto rows = store.fetchRange(newest - kMostRecords, newest);
  if (rows.empty()) return;
  const auto time = [](const auto& fetched) { return microsecondsOf(fetched.row); };
  start_ = time(std::ranges::max(rows, {}, time)) - kMicrosecondsPerSecond;
  for (const auto& fetched : rows) {
    if (time(fetched) >= *start_) ++records_[keyOf(fetched.row)];
  }
}

std::optional<std::string> Overlap::startForLogcat() const {
  if (!start_) return std::nullopt;
  const auto seconds = static_cast<std::time_t>(*start_ / kMicrosecondsPerSecond);
  return fmt::format("{:%m-%d %H:%M:%S}.{:03}", fmt::localtime(seconds),
                     *start_ % kMicrosecondsPerSecond / 1'000);
}

std::unique_ptr<runeflow::RowDecoder> Overlap::without(
    std::unique_ptr<runeflow::RowDecoder> decoder) const {
  return std::make_unique<OverlapFilter>(std::move(decoder), records_);
}

}  // namespace host
