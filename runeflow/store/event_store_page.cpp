// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <utility>

#include "runeflow/store/event_store.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/page_search_p.h"
#include "runeflow/store/query_statement_p.h"
#include "runeflow/store/row_reader_p.h"

namespace runeflow {
namespace {

// SQLite's substr() takes 32 bits. No text is longer.
std::int64_t characterCount(std::int64_t count) {
  return std::clamp<std::int64_t>(count, 0, std::numeric_limits<std::int32_t>::max() - 1);
}

// Parameter 1 is the number of characters; `condition` holds the others. The last column is the
// length of the whole message.
std::string previewsWhere(std::string_view condition) {
  return fmt::format("SELECT {}, length(message) FROM events WHERE {} ORDER BY seq",
                     fmt::format(kRecordColumns, "substr(message, 1, ?)"), condition);
}

std::vector<RecordPreview> readPreviews(OpenDatabase& db, Statement& statement) {
  std::vector<RecordPreview> previews;
  RowReader reader(statement);
  db.forEachRow(statement, [&] {
    previews.emplace_back(statement.integer(0), reader, statement.integer(kColumnsOfRecord));
  });
  return previews;
}

// Counts seqs by block. They mostly arrive in order, so the counter of the last one is kept.
class BlockCounter {
 public:
  explicit BlockCounter(std::int64_t blockSize) : blockSize_(blockSize) {}

  void add(std::int64_t seq) {
    const auto block = (seq - 1) / blockSize_;
    if (!counter_ || block != block_) {
      block_ = block;
      counter_ = &counts_[block];
    }
    ++*counter_;
  }

  std::vector<SeqBlock> take() {
    std::vector<SeqBlock> blocks;
    blocks.reserve(counts_.size());
    for (const auto& [block, count] : counts_) blocks.push_back({block * blockSize_ + 1, count});
    std::ranges::sort(blocks, {}, &SeqBlock::first);
    return blocks;
  }

 private:
  std::int64_t blockSize_;
  std::int64_t block_ = 0;
  std::int64_t* counter_ = nullptr;
  std::unordered_map<std::int64_t, std::int64_t> counts_;  // by the number of the block
};

struct SeqRange {
  std::int64_t first;
  std::int64_t last;

  // The difference of two seqs may need all 64 bits.
  std::uint64_t length() const {
    return static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first) + 1;
  }
};

// The full-text index takes time for every match of the store, whatever range is asked about. For
// ranges up to this length searchPage() decides whether to ask it.
constexpr std::uint64_t kNarrowRange = 16'384;

// From the smallest to the largest seq; {0, 0} without records.
SeqRange storedSeqs(OpenDatabase& db) {
  return {db.scalar("SELECT min(seq) FROM events"), db.scalar("SELECT max(seq) FROM events")};
}

// The blocks of a range whose seqs all exist.
std::vector<SeqBlock> fullBlocks(SeqRange range, std::int64_t blockSize) {
  std::vector<SeqBlock> blocks;
  for (auto seq = range.first;;) {
    const auto begin = (seq - 1) / blockSize * blockSize + 1;
    const auto left = range.last - seq;
    const auto leftInBlock = blockSize - 1 - (seq - begin);
    if (left <= leftInBlock) {
      blocks.push_back({begin, left + 1});
      return blocks;
    }
    blocks.push_back({begin, leftInBlock + 1});
    seq += leftInBlock + 1;
  }
}

}  // namespace

std::vector<std::int64_t> EventStore::newestMatching(const LogQuery& query, std::int64_t below,
                                                     std::int64_t limit) {
  using Seq = std::numeric_limits<std::int64_t>;
  if (limit < 1 || below == Seq::min()) return {};
  const auto last = below == Seq::max() ? below : below - 1;
  const auto rewritten = rewrittenForCapabilities(query);
  return reading(database_.get(), [&](OpenDatabase& db) {
    auto seqs = searchPage(db, rewritten, SearchOrder::newestFirst, Seq::min(), last, limit);
    std::ranges::reverse(seqs);
    return seqs;
  });
}

std::vector<std::int64_t> EventStore::oldestMatching(const LogQuery& query, std::int64_t after,
                                                     std::int64_t limit) {
  using Seq = std::numeric_limits<std::int64_t>;
  if (limit < 1 || after == Seq::max()) return {};
  const auto rewritten = rewrittenForCapabilities(query);
  return reading(database_.get(), [&](OpenDatabase& db) {
    return searchPage(db, rewritten, SearchOrder::oldestFirst, after + 1, Seq::max(), limit);
  });
}

std::vector<SeqBlock> EventStore::countMatchingPerBlock(const LogQuery& query, std::int64_t first,
                                                        std::int64_t last, std::int64_t blockSize) {
  if (blockSize < 1) return {};
  const auto rewritten = rewrittenForCapabilities(query);
  const auto compiled = rewritten.compile();
  return reading(database_.get(), [&](OpenDatabase& db) {
    BlockCounter counter(blockSize);
    const SeqRange asked{std::max(first, std::int64_t{1}), last};
    if (asked.last < asked.first) return counter.take();
    if (!rewritten.isEmpty() && asked.length() <= kNarrowRange) {
      const auto limit = static_cast<std::int64_t>(asked.length());
      for (const auto seq :
           searchPage(db, rewritten, SearchOrder::oldestFirst, asked.first, asked.last, limit)) {
        counter.add(seq);
      }
      return counter.take();
    }
    const OneMoment moment(db);
    if (isRefused(db, compiled)) return counter.take();
    const auto stored = storedSeqs(db);
    const SeqRange range{std::max(asked.first, stored.first), std::min(last, stored.last)};
    if (range.last < range.first) return counter.take();
    const bool isMost = range.length() > stored.length() / 8;
    // Counting the records takes a tenth of the time of reading their numbers.
    if (isMost && rewritten.isEmpty() &&
        static_cast<std::uint64_t>(db.scalar("SELECT count(*) FROM events")) == stored.length()) {
      return fullBlocks(range, blockSize);
    }
    // The plus keeps SQLite from reading all records of a wide range one after another, which it
    // prefers to the indexes of the other conditions.
    Statement statement =
        db.prepare(fmt::format("SELECT seq FROM events WHERE {}seq BETWEEN ? AND ? AND {}",
                               isMost ? "+" : "", compiled.clause));
    if (statement) {
      statement.bind(1, range.first);
      statement.bind(2, range.last);
      bindAll(statement, 3, compiled.binds);
    }
    db.forEachRow(statement, [&] { counter.add(statement.integer(0)); });
    return counter.take();
  });
}

std::vector<RecordPreview> EventStore::fetchPreviews(std::span<const std::int64_t> seqs,
                                                     std::int64_t characters) {
  if (seqs.empty()) return {};
  return reading(database_.get(), [&](OpenDatabase& db) {
    Statement statement =
        db.prepare(previewsWhere(fmt::format("seq IN ({})", parameterList(seqs.size()))));
    if (statement) {
      int index = 1;
      statement.bind(index++, characterCount(characters));
      for (const auto seq : seqs) statement.bind(index++, seq);
    }
    return readPreviews(db, statement);
  });
}

std::vector<RecordPreview> EventStore::fetchPreviewRange(std::int64_t first, std::int64_t last,
                                                         std::int64_t characters) {
  return reading(database_.get(), [&](OpenDatabase& db) {
    Statement statement = db.prepare(previewsWhere("seq BETWEEN ? AND ?"));
    if (statement) {
      statement.bind(1, characterCount(characters));
      statement.bind(2, first);
      statement.bind(3, last);
    }
    return readPreviews(db, statement);
  });
}

std::optional<std::string> EventStore::messagePiece(std::int64_t seq, std::int64_t from,
                                                    std::int64_t characters) {
  return reading(database_.get(), [&](OpenDatabase& db) {
    std::optional<std::string> piece;
    Statement statement = db.prepare("SELECT substr(message, ?, ?) FROM events WHERE seq = ?");
    if (statement) {
      statement.bind(1, characterCount(from) + 1);  // substr() counts from 1
      statement.bind(2, characterCount(characters));
      statement.bind(3, seq);
    }
    db.forEachRow(statement, [&] { piece = statement.optionalText(0).value_or(""); });
    return piece;
  });
}

}  // namespace runeflow
