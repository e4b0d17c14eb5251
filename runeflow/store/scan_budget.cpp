// SPDX-License-Identifier: MIT
#include "runeflow/store/scan_budget_p.h"

namespace runeflow {

bool ScanBudget::count(bool isMatch, Duration elapsed, std::uint64_t left) {
  constexpr double kToReadAll = 1.8;  // times `base_`
  if (read_ % kStride == 0) foundBefore_.push_back(found_);
  ++read_;
  if (isMatch) ++found_;
  if (elapsed < base_) return true;
  const auto all = elapsed * (1 + static_cast<double>(left) / static_cast<double>(read_));
  if (all < kToReadAll * base_) return true;
  const auto share = recentShare();
  if (share <= 0) return false;
  const auto rest =
      elapsed * (static_cast<double>(wanted_ - found_) / share / static_cast<double>(read_));
  const auto index = indexTimePerMatch * (share * static_cast<double>(records_));
  return rest < index && elapsed < base_ + index;
}

// Returns the share of matches among the records of the later half.
double ScanBudget::recentShare() const {
  const auto stride = foundBefore_.size() / 2;
  const auto records = read_ - static_cast<std::int64_t>(stride) * kStride;
  return static_cast<double>(found_ - foundBefore_[stride]) / static_cast<double>(records);
}

}  // namespace runeflow
