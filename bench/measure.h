// SPDX-License-Identifier: MIT
// Measures the processor time of the library and of the bare program (the least code that does the
// same work) in turn. Processor time does not count the moments in which other programs had the
// processor.
#pragma once

#include <time.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace bench {

constexpr std::size_t kPiece = 65'536;  // bytes that a capture reads at once

// Returns the processor time that all threads of this process have used.
inline double processorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

template <class Work>
double secondsOf(Work& work) {
  const double start = processorSeconds();
  work();
  return processorSeconds() - start;
}

// Returns the larger of the two middle values if the number of values is even.
inline double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Returns the median processor time of each piece of work in seconds. The pieces run in turn, round
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
