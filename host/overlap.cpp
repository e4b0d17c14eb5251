// SPDX-License-Identifier: MIT
#include "host/overlap.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "host/record_key.h"

namespace host {
namespace {

using runeflow::LogRow;

constexpr std::int64_t kMostRecords = 50'000;
constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

std::int64_t microsecondsOf(const LogRow& row) {
  return runeflow::microsecondsSinceEpoch(row.timestamp()).value_or(0);
}

class OverlapFilter final : public runeflow::RowDecoder {
 public:
  OverlapFilter(std::unique_ptr<runeflow::RowDecoder> decoder,
                std::unordered_map<std::string, int> records, std::int64_t end)
      : decoder_(std::move(decoder)), records_(std::move(records)), end_(end) {}

  std::vector<LogRow> consume(std::span<const std::uint8_t> bytes) override {
    auto rows = decoder_->consume(bytes);
    if (!records_.empty()) std::erase_if(rows, [this](const LogRow& row) { return drop(row); });
    return rows;
  }

 private:
  bool drop(const LogRow& row) {
    // After the overlap, a line without a time is new, even if its text equals a stored one.
    if (!isRawRow(row) && microsecondsOf(row) > end_) records_.clear();
    const auto found = records_.find(recordKey(row));
    if (found == records_.end()) return false;
    if (--found->second == 0) records_.erase(found);
    return true;
  }

  std::unique_ptr<runeflow::RowDecoder> decoder_;
  std::unordered_map<std::string, int> records_;
  std::int64_t end_;
};

}  // namespace

Overlap::Overlap(runeflow::EventStore& store) {
  const auto last = store.maxSeq();
  const auto rows = store.fetchRange(last - kMostRecords, last);
  const auto isDated = [](const auto& fetched) { return !isRawRow(fetched.row); };
  const auto time = [](const auto& fetched) { return microsecondsOf(fetched.row); };
  const auto newest = std::ranges::find_if(rows.rbegin(), rows.rend(), isDated);
  if (newest == rows.rend()) return;
  start_ = time(*newest) - kMicrosecondsPerSecond;
  const auto isInOverlap = [&](const auto& row) { return isDated(row) && time(row) >= *start_; };
  for (auto row = std::ranges::find_if(rows, isInOverlap); row != rows.end(); ++row) {
    if (isDated(*row) && !isInOverlap(*row)) continue;
    ++records_[recordKey(row->row)];
    if (isDated(*row)) end_ = std::max(end_, time(*row) + kMicrosecondsPerSecond);
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
  return std::make_unique<OverlapFilter>(std::move(decoder), records_, end_);
}

}  // namespace host
