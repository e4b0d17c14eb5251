// SPDX-License-Identifier: MIT

// Times the library and the bare program (the least code that does the same work) in turn.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

template <class Work>
double secondsOf(Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Returns the larger of the two middle values if the number of values is even.
inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Returns the median running time of each piece of work in seconds. The pieces run in turn, round
// after round: if the machine slows down for a while, it slows all of them.
template <class... Work>
std::array<double, sizeof...(Work)> medianSeconds(int rounds, Work... work) {
  std::array<std::vector<double>, sizeof...(Work)> seconds;
  for (int round = 0; round < rounds; ++round) {
    std::size_t index = 0;
    (seconds[index++].push_back(secondsOf(work)), ...);
  }
  std::array<double, sizeof...(Work)> medians;
  std::ranges::transform(seconds, medians.begin(), median);
  return medians;
}

}  // namespace bench
