// SPDX-License-Identifier: MIT
// Runs one piece of work once, for bench/instructions.py, which counts the instructions of it under
// valgrind's callgrind:
//
//     instruction_count prepare DATABASE       stores 20,480 records
//     instruction_count SIDE WORK DATABASE     SIDE is "ours" or "bare"
//
// Only what runs inside bench_measured() is counted. Clocks, threads and the file system are left
// out, so that the same build executes the same instructions every time.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/bare.h"
#include "bench/bare_dlt.h"
#include "bench/bare_logcat.h"
#include "runeflow/decoders/dlt_decoder.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/page_search_p.h"

// Not inlined and with a plain name, so that callgrind can be told to count inside it.
extern "C" [[gnu::noinline, gnu::noclone]] void bench_measured(const std::function<void()>& work) {
  work();
  asm volatile("");  // keeps the call from becoming a jump, at which callgrind would stop counting
}

namespace {

using namespace runeflow;

constexpr std::size_t kBatch = 1'024;
constexpr std::size_t kRecords = 20 * kBatch;
constexpr std::int64_t kPage = 200;  // records of one fetch

using Bytes = std::span<const std::uint8_t>;

Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Timestamp noClock() {
  return {};
}

// Passes the stream to the decoder in pieces as a capture reads them, and the rows to `use`.
void decode(RowDecoder&& decoder, Bytes stream,
            const std::function<void(std::vector<LogRow>)>& use) {
  while (!stream.empty()) {
    const auto piece = stream.first(std::min(bench::kPiece, stream.size()));
    use(decoder.consume(piece));
    stream = stream.subspan(piece.size());
  }
}

void count(const std::vector<LogRow>& rows) {
  bench::sink = bench::sink + static_cast<std::int64_t>(rows.size());
}

void decodeLogcat(bool isOurs, const std::string&) {
  const auto text = bench::logcatLines(kRecords);
  bench_measured([&] {
    if (isOurs) {
      decode(LogcatDecoder(noClock), asBytes(text), count);
    } else {
      bench::sink = static_cast<std::int64_t>(bench::logcat::decodeBare(text));
    }
  });
}

void decodeDlt(bool isOurs, const std::string&) {
  const bench::DltRecording recording(kRecords);
  bench_measured([&] {
    if (isOurs) {
      decode(DLTDecoder(noClock), recording.bytes(), count);
    } else {
      bench::sink = static_cast<std::int64_t>(bench::dlt::decodeBare(recording.bytes()));
    }
  });
}

void decodeAndStore(std::string_view text, const std::string& path) {
  auto store = *EventStore::open(path, false, SourceDescriptor::logcat());
  std::vector<LogRow> batch;
  batch.reserve(kBatch);
  decode(LogcatDecoder(noClock), asBytes(text), [&](std::vector<LogRow> rows) {
    for (auto& row : rows) {
      batch.push_back(std::move(row));
      if (batch.size() < kBatch) continue;
      store.insert(batch);
      batch.clear();
    }
  });
}

// The bare program stores the same rows from memory.
void decodeAndInsert(bool isOurs, const std::string&) {
  const bench::Folder folder;
  const auto path = folder.file("fresh.db");
  bench::createDatabase(path, SourceDescriptor::logcat());
  const auto text = bench::logcatLines(kRecords);
  const auto rows = LogcatDecoder(noClock).consume(asBytes(text));
  bench_measured([&] {
    if (isOurs) {
      decodeAndStore(text, path);
    } else {
      bench::insertBare(path, rows);
    }
  });
}

void fetchRange(bool isOurs, const std::string& path) {
  auto store = *EventStore::open(path, false, SourceDescriptor::logcat());
  bench::BareDatabase bare(path);
  bench_measured([&] {
    for (std::int64_t first = 1; first + kPage <= std::int64_t{kRecords}; first += kPage) {
      const auto last = first + kPage - 1;
      if (isOurs) {
        bench::sink = static_cast<std::int64_t>(store.fetchRange(first, last).size());
      } else {
        bench::readBare(bare,
                        "SELECT seq,ts,level,s0,s1,s2,s3,s4,s5,s6,s7,message,ctx FROM events "
                        "WHERE seq BETWEEN ? AND ? ORDER BY seq",
                        {Bind::int_(first), Bind::int_(last)});
      }
    }
  });
}

// The newest 50 of the records that hold a word; one in eight does. The bare program asks the
// full-text index. The budget of the search has no end, because valgrind slows the clock.
void newestMatches(bool isOurs, const std::string& path) {
  constexpr int kCalls = 100;
  constexpr std::int64_t kLimit = 50;
  constexpr auto kEndOfSeqs = std::numeric_limits<std::int64_t>::max();
  const auto database = OpenDatabase::forReading(path);
  bench::BareDatabase bare(path);
  const auto query = QueryParser::parse("timeout", SourceDescriptor::logcat(), false);
  bench_measured([&] {
    for (int call = 0; call < kCalls; ++call) {
      if (isOurs) {
        const auto seqs = searchPage(*database, query, SearchOrder::newestFirst, 1, kEndOfSeqs,
                                     kLimit, std::chrono::hours(1));
        bench::sink = static_cast<std::int64_t>(seqs.size());
      } else {
        bench::readBare(bare,
                        "SELECT rowid FROM events_fts WHERE events_fts MATCH ? ORDER BY rowid DESC "
                        "LIMIT 50",
                        {Bind::text("\"timeout\"*")});
      }
    }
  });
}

constexpr std::string_view kQueries[] = {"rareword", "timeout", "tag:Component07", "level:error",
                                         "level:error timeout NOT tag:Component07"};

struct BareQuery {
  std::string clause;
  std::vector<Bind> binds;
};

// Translates the queries above. Knows no parentheses, no OR, no quotes and no other fields.
BareQuery translateBare(std::string_view text) {
  BareQuery query;
  bool isNegated = false;
  while (!text.empty()) {
    const auto word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    if (word == "NOT") {
      isNegated = true;
      continue;
    }
    query.clause += query.clause.empty() ? "(" : " AND ";
    if (isNegated) query.clause += "NOT (";
    if (word.starts_with("tag:")) {
      query.clause += "s0 = ?";
      query.binds.push_back(Bind::text(std::string(word.substr(4))));
    } else if (word == "level:error") {
      query.clause += "level >= ?";
      query.binds.push_back(Bind::int_(rawValue(RuneflowLogLevel::Error)));
    } else {
      query.clause += "seq IN (SELECT rowid FROM events_fts WHERE events_fts MATCH ?)";
      query.binds.push_back(Bind::text('"' + std::string(word) + "\"*"));
    }
    if (std::exchange(isNegated, false)) query.clause += ')';
  }
  query.clause += ')';
  return query;
}

void parseAndCompile(bool isOurs, const std::string&) {
  const auto& descriptor = SourceDescriptor::logcat();
  bench_measured([&] {
    for (std::size_t i = 0; i < kRecords; ++i) {
      const auto text = kQueries[i % std::size(kQueries)];
      const auto size = isOurs ? QueryParser::parse(text, descriptor, false).compile().clause.size()
                               : translateBare(text).clause.size();
      bench::sink = static_cast<std::int64_t>(size);
    }
  });
}

struct Work {
  std::string_view name;
  void (*run)(bool isOurs, const std::string& path);
};

constexpr Work kWorks[] = {
    {"decode-logcat", decodeLogcat},        {"decode-dlt", decodeDlt},
    {"decode-and-insert", decodeAndInsert}, {"fetch-range", fetchRange},
    {"newest-matches", newestMatches},      {"parse-and-compile", parseAndCompile}};

void prepare(const std::string& path) {
  bench::createDatabase(path, SourceDescriptor::logcat());
  const auto text = bench::logcatLines(kRecords);
  bench::insertBare(path, LogcatDecoder(noClock).consume(asBytes(text)));
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "prepare") {
    prepare(words[1]);
    return 0;
  }
  const auto* work = std::ranges::find(kWorks, words.size() == 3 ? words[1] : "", &Work::name);
  if (work != std::end(kWorks)) {
    work->run(words[0] == "ours", words[2]);
    return 0;
  }
  fmt::print(stderr, "usage: {} prepare DATABASE | ours|bare WORK DATABASE\n", argv[0]);
  return 2;
}
