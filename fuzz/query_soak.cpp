// SPDX-License-Identifier: MIT

// Asks a store of 400 records random queries with random windows: anchors, limits, block sizes,
// spans of time, numbers of bars, prefixes. Every read must agree with matchingSeqs() and a plain
// filter over the records. The arguments are the number of queries and a seed. A run with the same
// seed asks the same queries. A failure prints the query and its number.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/page_search_p.h"

using namespace runeflow;

namespace {

using Seqs = std::vector<std::int64_t>;

constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
constexpr auto kGreatest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kRecords = 400;

constexpr std::string_view kPieces[] = {
    "disk",       "DISK ",     "full",     "a",     "wi",    "\"disk full\"",
    "\"",         "(",         ")",        " ",     " ",     "OR ",
    "AND ",       "NOT ",      "tag:Net",  "tag:",  "pid:7", "level:warn",
    "level:loud", "ctx.k:v1",  "ctx.k:",   "*",     "%",     "_",
    "\\",         "'",         "-",        "é",     "日本",  "👩🏽‍🚀",
    "\u0301",     "NEAR(a b)", "message:", "^",     "+",     "{",
    ":",          "\t",        "0",        "zebra", "Ze",    "unicode"};

template <class Range>
const auto& oneOf(const Range& range, std::mt19937_64& random) {
  return range[random() % std::size(range)];
}

std::string randomQuery(std::mt19937_64& random) {
  std::string text;
  for (auto pieces = random() % 12; pieces > 0; --pieces) {
    text += oneOf(kPieces, random);
    if (random() % 2) text += ' ';
  }
  return text;
}

Timestamp timestampOf(std::int64_t microseconds) {
  return Timestamp(std::chrono::duration<double>(static_cast<double>(microseconds) / 1e6));
}

std::vector<LogRow> randomRows(std::mt19937_64& random) {
  constexpr std::string_view kWords[] = {"disk", "full", "Disk",  "wifi", "a",   "ünïcode",
                                         "日本", "100%", "ZEBRA", "x_y",  "NOT", "👩🏽‍🚀"};
  constexpr std::string_view kTags[] = {"Net", "Wifi", "Disk"};
  std::vector<LogRow> rows;
  std::int64_t clock = 0;  // microseconds
  for (std::int64_t i = 0; i < kRecords; ++i) {
    clock += static_cast<std::int64_t>(random() % 20);
    if (random() % 100 == 0) clock -= 2'000;  // the clock is set back
    const auto late = static_cast<std::int64_t>(random() % 10 == 0 ? random() % 500 : 0);
    std::string message;
    for (auto words = random() % 8; words > 0; --words)
      message += std::string(oneOf(kWords, random)) + ' ';
    std::optional<LogRow::Context> ctx;
    if (random() % 3 == 0) ctx = LogRow::Context{{"k", "v" + std::to_string(random() % 3)}};
    const auto pid = std::to_string(random() % 10);
    LogRow::Slots slots{std::nullopt, pid};
    if (random() % 4) slots[0] = oneOf(kTags, random);
    rows.emplace_back(timestampOf(clock - late),
                      *levelFromRawValue(static_cast<std::int64_t>(random() % 6)), message,
                      std::move(ctx), slots);
  }
  return rows;
}

// Reads around random windows, and what a plain filter gives for them.
class Soak {
 public:
  Soak(EventStore& store, OpenDatabase& database, std::mt19937_64& random)
      : store_(store),
        unknowing_(*EventStore::openForReading(database.path, store.descriptor())),
        database_(database),
        random_(random) {
    for (const auto& record : store.fetchRange(kLeast, kGreatest)) {
      records_.emplace(record.seq, record.row);
      times_.push_back(*microsecondsSinceEpoch(record.row.timestamp()));
    }
  }

  // Returns the name of the first read that disagrees, or null.
  const char* disagreement(const LogQuery& query) {
    matching_ = store_.matchingSeqs(query, 0);
    if (store_.countMatching(query) != std::ssize(matching_)) return "countMatching";
    if (!pagesAgree(query)) return "newestMatching or oldestMatching";
    if (!blocksAgree(query)) return "countMatchingPerBlock";
    if (!timelineAgrees(query)) return "timeline";
    if (!valuesAgree(query)) return "distinctValuesWithCounts";
    if (!previewsAgree()) return "fetchPreviews, fetchPreviewRange or messagePiece";
    if (!timesAgree()) return "timeSpan or firstSeqAtOrAfter";
    return nullptr;
  }

  std::int64_t matches() const { return std::ssize(matching_); }

 private:
  std::int64_t randomNumber(std::int64_t least, std::int64_t greatest) {
    return least +
           static_cast<std::int64_t>(random_() % static_cast<std::uint64_t>(greatest - least + 1));
  }

  // Mostly a seq of the store, sometimes one beside it or a far one.
  std::int64_t randomSeq() {
    constexpr std::int64_t kFar[] = {kLeast, -1, 0, 1, kRecords + 40, kGreatest - 1, kGreatest};
    return random_() % 8 ? randomNumber(-2, kRecords + 30) : oneOf(kFar, random_);
  }

  std::int64_t randomLimit() {
    constexpr std::int64_t kLimits[] = {-1, 0, 1, 2, 3, 7, 50, 200, 5'000, kGreatest};
    return oneOf(kLimits, random_);
  }

  const LogRow& record(std::int64_t seq) const { return records_.at(seq); }
  static std::int64_t timeOf(const LogRow& row) { return *microsecondsSinceEpoch(row.timestamp()); }

  Seqs newest(std::int64_t below, std::int64_t limit) const {
    const auto end =
        below == kGreatest ? matching_.end() : std::ranges::lower_bound(matching_, below);
    const auto count = std::clamp<std::int64_t>(limit, 0, end - matching_.begin());
    return {end - count, end};
  }

  Seqs oldest(std::int64_t after, std::int64_t limit) const {
    const auto begin = std::ranges::upper_bound(matching_, after);
    const auto count = std::clamp<std::int64_t>(limit, 0, matching_.end() - begin);
    return {begin, begin + count};
  }

  // The store judges so few records within its usual budget. The search is therefore also run with
  // a budget that sends it to the index at once or on the way.
  bool pagesAgree(const LogQuery& query) {
    const auto anchor = randomSeq();
    const auto limit = randomLimit();
    if (store_.newestMatching(query, anchor, limit) != newest(anchor, limit)) return false;
    if (store_.oldestMatching(query, anchor, limit) != oldest(anchor, limit)) return false;
    const auto first = randomSeq();
    const auto last = randomSeq();
    const auto most = std::max<std::int64_t>(limit, 1);
    const auto budget = std::chrono::microseconds(randomNumber(0, 4) * 50);
    auto expected = oldest(first == kLeast ? first : first - 1, kGreatest);
    std::erase_if(expected, [&](auto seq) { return seq > last; });
    const auto search = [&](SearchOrder order) {
      return searchPage(database_, query, order, first, last, most, budget);
    };
    const auto count = static_cast<std::size_t>(std::min(most, std::ssize(expected)));
    if (!std::ranges::equal(search(SearchOrder::oldestFirst), std::span(expected).first(count))) {
      return false;
    }
    std::ranges::reverse(expected);
    return std::ranges::equal(search(SearchOrder::newestFirst), std::span(expected).first(count));
  }

  bool blocksAgree(const LogQuery& query) {
    constexpr std::int64_t kSizes[] = {-1, 0, 1, 2, 7, 64, 1'000, kGreatest};
    const auto size = oneOf(kSizes, random_);
    const auto first = randomSeq();
    const auto last = randomSeq();
    std::vector<SeqBlock> expected;
    for (const auto seq : matching_) {
      if (size < 1 || seq < first || seq > last) continue;
      const auto block = (seq - 1) / size * size + 1;
      if (expected.empty() || expected.back().first != block) expected.push_back({block, 0});
      ++expected.back().count;
    }
    return store_.countMatchingPerBlock(query, first, last, size) == expected;
  }

  bool timelineAgrees(const LogQuery& query) {
    constexpr std::size_t kBars[] = {1, 2, 7, 200, 3'000};
    auto time = [&] { return oneOf(times_, random_) + randomNumber(-1, 1); };
    const TimeSpan span = random_() % 8 ? TimeSpan{time(), time()} : TimeSpan{kLeast, kGreatest};
    auto& store = random_() % 2 ? store_ : unknowing_;
    const auto found = store.timeline(query, span, oneOf(kBars, random_));
    auto expected = found;
    std::ranges::fill(expected.bars, Timeline::Bar{});
    for (const auto seq : matching_) {
      const auto at = timeOf(record(seq));
      if (at < span.from || at >= span.until) continue;
      // The last bar that begins at or before the time.
      std::size_t low = 0;
      std::size_t high = expected.bars.size();
      while (high - low > 1) {
        const auto middle = (low + high) / 2;
        (expected.boundary(middle) <= at ? low : high) = middle;
      }
      ++expected.bars[low][static_cast<std::size_t>(rawValue(record(seq).level()))];
    }
    return found == expected;
  }

  bool valuesAgree(const LogQuery& query) {
    constexpr const char* kPrefixes[] = {"", "N", "n", "wi", "2", "%"};
    const auto slot = static_cast<int>(random_() % 3);  // the last one has no values
    const bool isLevel = random_() % 2;
    const std::string prefix = oneOf(kPrefixes, random_);
    const auto limit = randomLimit();
    std::map<std::string, std::int64_t> counts;
    for (const auto seq : matching_) {
      const auto& row = record(seq);
      const auto value = isLevel ? std::to_string(rawValue(row.level()))
                                 : std::string(row.slot(slot).value_or(""));
      const auto begins = [&](char a, char b) { return (a | 0x20) == (b | 0x20); };
      const bool isWanted = value.size() >= prefix.size() &&
                            std::equal(prefix.begin(), prefix.end(), value.begin(), begins);
      if (!value.empty() && isWanted) ++counts[value];
    }
    std::vector<ValueCount> expected;
    expected.reserve(counts.size());
    for (const auto& [value, count] : counts) expected.push_back({value, count});
    std::ranges::sort(expected, {},
                      [](const auto& value) { return std::pair(-value.count, value.value); });
    if (limit >= 0 && limit < std::ssize(expected))
      expected.resize(static_cast<std::size_t>(limit));
    const auto column = isLevel ? StoreColumn::level() : StoreColumn::slot(slot);
    return store_.distinctValuesWithCounts(column, query, prefix, limit) == expected;
  }

  // The messages hold code points of up to four bytes.
  static std::string cut(std::string_view text, std::int64_t from, std::int64_t characters) {
    std::string piece;
    std::int64_t index = -1;
    for (const char c : text) {
      if ((c & 0xc0) != 0x80) ++index;
      if (index >= from && index - from < characters) piece += c;
    }
    return piece;
  }

  bool isPreviewOf(const RecordPreview& preview, std::int64_t characters) const {
    const auto& row = record(preview.seq);
    const auto length =
        std::ranges::count_if(row.message(), [](char c) { return (c & 0xc0) != 0x80; });
    return preview.row.message() == cut(row.message(), 0, characters) &&
           preview.row.slots() == row.slots() && preview.row.ctx() == row.ctx() &&
           preview.row.level() == row.level() && preview.row.timestamp() == row.timestamp() &&
           preview.messageCharacters == length;
  }

  bool previewsAgree() {
    const auto characters = randomNumber(0, 30);
    const auto first = randomSeq();
    const auto last = random_() % 2 ? randomSeq() : std::min(first, kRecords) + 5;
    const auto isPreview = [&](const auto& preview) { return isPreviewOf(preview, characters); };
    const auto previews = store_.fetchPreviewRange(first, last, characters);
    const auto count =
        last < first ? 0 : std::distance(records_.lower_bound(first), records_.upper_bound(last));
    if (std::ssize(previews) != count || !std::ranges::all_of(previews, isPreview)) return false;
    const auto page = oldest(first, 20);
    const auto fetched = store_.fetchPreviews(page, characters);
    if (!std::ranges::equal(fetched, page, {}, &RecordPreview::seq)) return false;
    if (!std::ranges::all_of(fetched, isPreview)) return false;
    const auto from = randomNumber(0, 30);
    const auto piece = store_.messagePiece(first, from, characters);
    if (!records_.contains(first)) return !piece;
    return piece && *piece == cut(record(first).message(), from, characters);
  }

  bool timesAgree() {
    const auto first = randomSeq();
    const auto last = randomSeq();
    std::optional<TimeSpan> expected;
    for (auto next = records_.lower_bound(first); next != records_.end() && next->first <= last;
         ++next) {
      const auto time = timeOf(next->second);
      if (!expected) expected = {time, time + 1};
      expected = {std::min(expected->from, time), std::max(expected->until, time + 1)};
    }
    if (store_.timeSpan(first, last) != expected) return false;
    const auto time = oneOf(times_, random_) + randomNumber(-1, 1);
    const auto found = records_.find(store_.firstSeqAtOrAfter(time));
    if (found == records_.end()) return timeOf(records_.rbegin()->second) < time;
    return timeOf(found->second) >= time &&
           (found == records_.begin() || timeOf(std::prev(found)->second) < time);
  }

  EventStore& store_;     // after timeSpan() of all records, it knows their times and levels
  EventStore unknowing_;  // reads them for each timeline
  OpenDatabase& database_;
  std::mt19937_64& random_;
  std::map<std::int64_t, LogRow> records_;
  std::vector<std::int64_t> times_;
  Seqs matching_;  // of the present query
};

}  // namespace

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 1'000'000;
  std::mt19937_64 random(argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 20'261'122);
  const auto path =
      std::filesystem::temp_directory_path() /
      ("runeflow-soak-" + std::to_string(random() ^ static_cast<unsigned>(::getpid())));
  auto store = *EventStore::open(path.string(), true, SourceDescriptor::logcat());
  store.insert(randomRows(random));
  store.trimWithin(1, 30, kGreatest);  // the seqs do not begin at 1
  auto database = OpenDatabase::forReading(path.string());
  auto soak = std::make_unique<Soak>(store, *database, random);
  long matching = 0;
  int exitCode = 0;
  for (long i = 0; i < queries && exitCode == 0; ++i) {
    if (i == queries / 2) {  // the seqs have gaps from here on
      OpenDatabase::forWriting(path.string(), false)
          ->connection.execute("DELETE FROM events WHERE seq % 97 = 5 OR seq BETWEEN 200 AND 220;");
      soak = std::make_unique<Soak>(store, *database, random);
    }
    const auto text = randomQuery(random);
    const auto* read =
        soak->disagreement(QueryParser::parse(text, store.descriptor(), random() % 2 == 0));
    matching += soak->matches() > 0;
    if (read || store.takeError()) {
      fmt::print("{} disagrees with a plain filter, or a read failed, at query {}: {}\n",
                 read ? read : "nothing", i, text);
      exitCode = 1;
    }
  }
  fmt::print("{} queries, {} of them with matches\n", queries, matching);
  database.reset();
  store.close();
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
  return exitCode;
}
