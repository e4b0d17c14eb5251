// SPDX-License-Identifier: MIT

// Times the reads of a viewer's page: the newest 50 matches of words, tags and levels of different
// frequencies, beside the read of the whole list; the timeline; counts by block. The arguments are
// databases of bench/generated_store.h, or nothing: then a database of ROWS records is generated.
#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include "bench/bare.h"
#include "bench/generated_store.h"
#include "bench/measure.h"
#include "runeflow/query/query_parser.h"

using namespace runeflow;

namespace {

volatile std::size_t sink = 0;  // keeps the compiler from removing the reads

LogQuery parse(const char* text) {
  return QueryParser::parse(text, SourceDescriptor::logcat(), false);
}

template <class Work>
double milliseconds(int rounds, Work work) {
  return bench::medianSeconds(rounds, work)[0] * 1e3;
}

void newest(EventStore& store) {
  fmt::print("{:<44} {:>12} {:>12} {:>16}\n", "newest 50 matches, ms", "newest 50", "oldest 50",
             "whole list");
  for (const auto& [name, text] : {
           std::pair("word in 11 %", "timeout"),
           std::pair("prefix in 20 %", "surface"),
           std::pair("word in 1 %", "retried"),
           std::pair("word in 0.1 %", "stalled"),
           std::pair("word in 10 records", "rareword"),
           std::pair("word in none", "nothing"),
           std::pair("level:error, 2 %", "level:error"),
           std::pair("level:fatal, 10 records", "level:fatal"),
           std::pair("tag in 10 %", "tag:Component00"),
           std::pair("tag in 20 records", "tag:RareTag"),
           std::pair("all", ""),
           std::pair("word in 11 % and level:error", "timeout level:error"),
           std::pair("word in 11 % and tag in 20 records", "timeout tag:RareTag"),
           std::pair("word in 11 % or word in 10 records", "timeout OR rareword"),
           std::pair("word in 1 % and not in 17 %", "retried NOT disk"),
           std::pair("word in 11 % and word in 10 records", "timeout rareword"),
           std::pair("word in 11 % and level:fatal", "timeout level:fatal"),
       }) {
    const auto query = parse(text);
    const auto last =
        milliseconds(200, [&] { sink = sink + store.newestMatching(query, INT64_MAX, 50).size(); });
    const auto first =
        milliseconds(200, [&] { sink = sink + store.oldestMatching(query, 0, 50).size(); });
    const auto whole = milliseconds(3, [&] { sink = sink + store.matchingSeqs(query, 0).size(); });
    fmt::print("{:<44} {:>12.3f} {:>12.3f} {:>16.3f}\n", name, last, first, whole);
  }
}

void overviews(EventStore& store) {
  const auto span = *store.timeSpan(0, INT64_MAX);
  fmt::print("{:<44} {:>12} {:>12} {:>16}\n", "overviews, ms", "200 bars", "per block", "count");
  for (const auto* text : {"", "level:error", "level:info", "timeout", "rareword",
                           "tag:Component00", "NOT timeout", "tid:1003"}) {
    const auto query = parse(text);
    const auto bars =
        milliseconds(3, [&] { sink = sink + store.timeline(query, span, 200).bars.size(); });
    const auto blocks = milliseconds(
        3, [&] { sink = sink + store.countMatchingPerBlock(query, 0, INT64_MAX, 1'000).size(); });
    const auto count = milliseconds(
        3, [&] { sink = sink + static_cast<std::size_t>(store.countMatching(query)); });
    fmt::print("{:<44} {:>12.1f} {:>12.1f} {:>16.1f}\n", *text ? text : "(all)", bars, blocks,
               count);
  }
  fmt::print("{:<44} {:>12.1f}\n", "timeSpan", milliseconds(3, [&] {
               sink = sink + static_cast<std::size_t>(store.timeSpan(0, INT64_MAX)->from);
             }));
  fmt::print("{:<44} {:>12.3f}\n", "firstSeqAtOrAfter", milliseconds(20, [&] {
               sink = sink + static_cast<std::size_t>(
                                 store.firstSeqAtOrAfter(span.from / 2 + span.until / 2));
             }));
}

void measure(const std::string& path) {
  auto store = *EventStore::openForReading(path, SourceDescriptor::logcat());
  fmt::print("{} records\n", store.count());
  newest(store);
  overviews(store);
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) measure(argv[i]);
  if (argc > 1) return 0;
  const bench::Folder folder;
  const auto path = folder.file("a.db");
  bench::generateStore(path, bench::rowCount(1'000'000));
  measure(path);
}
