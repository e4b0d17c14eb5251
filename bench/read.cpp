// SPDX-License-Identifier: MIT

// Compares the store's queries and fetches with a bare program: an equivalent SQL statement, run
// through SQLite's C interface. The two use separate connections to one database.
#include <fmt/format.h>

#include <functional>

#include "bench/bare.h"
#include "bench/measure.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/query/query_parser.h"

using namespace runeflow;

namespace {

constexpr int kRounds = 200;
constexpr const char* kColumns = "seq,ts,level,s0,s1,s2,s3,s4,s5,s6,s7,message,ctx";

class Comparison {
 public:
  explicit Comparison(const std::string& path)
      : store_(*EventStore::open(path, false, SourceDescriptor::logcat())), bare_(path) {}

  void queries() {
    for (const char* text : {"rareword", "timeout", "tag:Component07", "level:error",
                             "level:error timeout NOT tag:Component07"}) {
      const auto query = QueryParser::parse(text, SourceDescriptor::logcat(), false);
      const auto [clause, binds] = query.compile();
      report(
          fmt::format("countMatching {}", text),
          [&] { bench::sink = bench::sink + store_.countMatching(query); },
          "SELECT count(*) FROM events WHERE " + clause, binds);
      auto withAfter = binds;
      withAfter.insert(withAfter.begin(), Bind::int_(0));
      report(
          fmt::format("matchingSeqs {}", text),
          [&] {
            bench::sink =
                bench::sink + static_cast<std::int64_t>(store_.matchingSeqs(query, 0).size());
          },
          fmt::format("SELECT seq FROM events WHERE seq > ? AND {} ORDER BY seq", clause),
          withAfter);
    }
  }

  void fetches() {
    const auto last = store_.maxSeq();
    for (const std::int64_t count : {1, 200, 1000}) {
      report(fmt::format("fetchRange of {}", count),
             [&] {
               bench::sink = bench::sink + static_cast<std::int64_t>(
                                               store_.fetchRange(last - count + 1, last).size());
             },
             fmt::format("SELECT {} FROM events WHERE seq BETWEEN ? AND ? ORDER BY seq", kColumns),
             {Bind::int_(last - count + 1), Bind::int_(last)});
    }
    std::vector<std::int64_t> seqs;
    std::vector<Bind> binds;
    std::string placeholders;
    for (std::int64_t i = 0; i < 200; ++i) {
      seqs.push_back(1 + i * (last / 200));
      binds.push_back(Bind::int_(seqs.back()));
      placeholders += i ? ",?" : "?";
    }
    report(
        "fetch of 200",
        [&] { bench::sink = bench::sink + static_cast<std::int64_t>(store_.fetch(seqs).size()); },
        fmt::format("SELECT {} FROM events WHERE seq IN ({}) ORDER BY seq", kColumns, placeholders),
        binds);
  }

 private:
  void report(const std::string& name, const std::function<void()>& ours, const std::string& sql,
              const std::vector<Bind>& binds) {
    const auto [read, bare] =
        bench::medianSeconds(kRounds, ours, [&] { bench::readBare(bare_, sql, binds); });
    fmt::print("{:<60} {:>10.3f} ms  ratio {:.3f}\n", name, read * 1e3, read / bare);
  }

  EventStore store_;
  bench::BareDatabase bare_;
};

}  // namespace

int main() {
  const int rows = bench::rowCount(1'000'000);
  const bench::Folder folder;
  const auto path = folder.file("a.db");
  bench::createDatabase(path, SourceDescriptor::logcat());
  {
    const auto text = bench::logcatLines(rows);
    LogcatDecoder decoder([] { return Timestamp{}; });
    bench::insertBare(
        path, decoder.consume({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}));
  }
  Comparison comparison(path);
  comparison.fetches();
  comparison.queries();
}
