// SPDX-License-Identifier: MIT
#include "match_printer.h"

#include <algorithm>
#include <limits>

#include "host/database.h"

namespace cli {
namespace {

constexpr std::size_t kFetchedRecords = 200;  // at once; a record may be large

std::int64_t plus(std::int64_t seq, std::int64_t records) {
  constexpr auto kLargest = std::numeric_limits<std::int64_t>::max();
  return records > kLargest - seq ? kLargest : seq + records;
}

}  // namespace

void MatchPrinter::print(std::span<const std::int64_t> seqs) {
  if (!context_.isWanted()) {
    for (; !seqs.empty(); seqs = seqs.subspan(std::min(seqs.size(), kFetchedRecords))) {
      printer_.print(fetched(seqs.first(std::min(seqs.size(), kFetchedRecords))));
    }
    return;
  }
  while (!seqs.empty()) {
    // The matches whose contexts overlap or touch are printed as one range.
    const auto first =
        std::max(seqs.front() - std::min(context_.before, seqs.front() - 1), printedUntil_ + 1);
    if (wantedUntil_ >= first - 1) {
      catchUp(first - 1);
    } else {
      catchUp(wantedUntil_);
      if (printedUntil_ > 0) printer_.separate();
    }
    std::size_t count = 1;
    while (count < seqs.size() &&
           seqs[count] - context_.before <= plus(plus(seqs[count - 1], context_.after), 1)) {
      ++count;
    }
    printRange(first, seqs[count - 1], seqs.first(count));
    wantedUntil_ = plus(seqs[count - 1], context_.after);
    seqs = seqs.subspan(count);
  }
}

void MatchPrinter::printDown(std::span<const std::int64_t> seqs) {
  while (!seqs.empty()) {
    const auto count = std::min(seqs.size(), kFetchedRecords);
    auto records = fetched(seqs.last(count));
    std::ranges::reverse(records);
    printer_.print(records);
    seqs = seqs.first(seqs.size() - count);
  }
}

void MatchPrinter::catchUp(std::int64_t known) {
  const auto last = std::min(known, wantedUntil_);
  if (last > printedUntil_) printRange(printedUntil_ + 1, last, {});
}

void MatchPrinter::restart() {
  printedUntil_ = 0;
  wantedUntil_ = 0;
}

std::vector<runeflow::FetchedRow> MatchPrinter::fetched(std::span<const std::int64_t> seqs) {
  auto records = store_.fetch(seqs);
  host::failIfMissing(store_, query_, seqs, records, path_);
  return records;
}

void MatchPrinter::printRange(std::int64_t first, std::int64_t last,
                              std::span<const std::int64_t> matches) {
  while (first <= last) {
    const auto end = std::min(last, plus(first, static_cast<std::int64_t>(kFetchedRecords) - 1));
    const auto records = store_.fetchRange(first, end);
    printer_.print(records, matches);
    for (auto match = std::ranges::lower_bound(matches, first);
         match != matches.end() && *match <= end; ++match) {
      if (!std::ranges::binary_search(records, *match, {}, &runeflow::FetchedRow::seq)) {
        host::failIfMissing(store_, query_, {&*match, 1}, {}, path_);
      }
    }
    if (end == last) break;
    first = end + 1;
  }
  printedUntil_ = last;
}

}  // namespace cli
