// SPDX-License-Identifier: MIT

// A list over any number of matches, as a viewer scrolls through it: reads only the rows that it
// shows. Reads row numbers from standard input and prints a screenful of matches from each.
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"

using namespace runeflow;

// Row i of the list is the i-th match. The list keeps one number per block of seqs (the numbers of
// the records) and not the seqs of the matches: a million matches take a few hundred numbers.
class MatchList {
 public:
  MatchList(EventStore& store, LogQuery query) : store_(store), query_(std::move(query)) {
    const auto last = store_.maxSeq();
    for (const auto& block :
         store_.countMatchingPerBlock(query_, store_.minSeq(), last, kBlockSize)) {
      blocks_.push_back({block.first, size_});
      size_ += block.count;
    }
  }

  std::int64_t size() const { return size_; }

  // Returns at most `count` matches from row `row` on, with messages of at most 100 characters.
  std::vector<RecordPreview> rows(std::int64_t row, std::int64_t count) {
    if (row < 0 || row >= size_) return {};
    const auto after = std::ranges::upper_bound(blocks_, row, {}, &Block::firstRow);
    const auto& block = *std::prev(after);
    const auto skipped = row - block.firstRow;  // less than kBlockSize
    auto seqs = store_.oldestMatching(query_, block.firstSeq - 1, skipped + count);
    seqs.erase(seqs.begin(), seqs.begin() + std::min<std::int64_t>(skipped, std::ssize(seqs)));
    return store_.fetchPreviews(seqs, 100);
  }

 private:
  static constexpr std::int64_t kBlockSize = 4096;
  struct Block {
    std::int64_t firstSeq;
    std::int64_t firstRow;
  };

  EventStore& store_;
  LogQuery query_;
  std::vector<Block> blocks_;  // those with a match, in ascending order
  std::int64_t size_ = 0;
};

int main(int argc, char** argv) {
  if (argc != 3) return std::cerr << "usage: " << argv[0] << " DATABASE QUERY\n", 2;
  const auto& descriptor = SourceDescriptor::logcat();
  auto store = EventStore::openForReading(argv[1], descriptor);
  if (!store) return std::cerr << "cannot open " << argv[1] << '\n', 2;

  MatchList list(*store, QueryParser::parse(argv[2], descriptor, false));
  std::cout << list.size() << " matches; type the number of a row, from 0 on\n";
  constexpr std::int64_t kScreen = 20;
  for (std::int64_t row = 0; std::cin >> row;) {
    for (const auto& record : list.rows(row, kScreen)) {
      std::string line(record.row.message());  // untrusted text: keep control characters out
      std::ranges::replace_if(line, [](unsigned char c) { return c < ' ' || c >= 0x7f; }, '?');
      std::cout << row++ << ' ' << line << '\n';
    }
  }
  if (const auto error = store->takeError()) return std::cerr << error->text << '\n', 2;
}
