// SPDX-License-Identifier: MIT

// Runs random queries on a store of 1,000 records. countMatching() and matchingSeqs() must agree on
// the number of matches. The argument is the number of queries. The seed is fixed, so every run
// asks the same queries. A failure prints the query and its number.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"

using namespace runeflow;

namespace {

constexpr std::string_view kPieces[] = {
    "disk",       "DISK ",     "full",     "a",    "wi",    "\"disk full\"",
    "\"",         "(",         ")",        " ",    " ",     "OR ",
    "AND ",       "NOT ",      "tag:Net",  "tag:", "pid:7", "level:warn",
    "level:loud", "ctx.k:v1",  "ctx.k:",   "*",    "%",     "_",
    "\\",         "'",         "-",        "é",    "日本",  "👩🏽‍🚀",
    "\u0301",     "NEAR(a b)", "message:", "^",    "+",     "{",
    ":",          "\t",        "0"};

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

std::vector<LogRow> randomRows(std::mt19937_64& random) {
  constexpr std::string_view kWords[] = {"disk", "full",    "Disk",           "wifi",
                                         "a",    "ünïcode", "日本",           "100%",
                                         "x_y",  "NOT",     "👩🏽‍🚀"};
  constexpr std::string_view kTags[] = {"Net", "Wifi", "Disk"};
  std::vector<LogRow> rows;
  for (int i = 0; i < 1'000; ++i) {
    std::string message;
    for (auto words = random() % 8; words > 0; --words)
      message += std::string(oneOf(kWords, random)) + ' ';
    std::optional<LogRow::Context> ctx;
    if (random() % 3 == 0) ctx = LogRow::Context{{"k", "v" + std::to_string(random() % 3)}};
    const auto pid = std::to_string(random() % 10);
    LogRow::Slots slots{std::nullopt, pid};
    if (random() % 4) slots[0] = oneOf(kTags, random);
    rows.emplace_back(Timestamp{}, *levelFromRawValue(static_cast<std::int64_t>(random() % 6)),
                      message, std::move(ctx), slots);
  }
  return rows;
}

}  // namespace

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 1'000'000;
  std::mt19937_64 random(20'261'122);
  const auto path =
      std::filesystem::temp_directory_path() /
      ("runeflow-soak-" + std::to_string(random() ^ static_cast<unsigned>(::getpid())));
  auto store = *EventStore::open(path.string(), true, SourceDescriptor::logcat());
  store.insert(randomRows(random));
  long matching = 0;
  int exitCode = 0;
  for (long i = 0; i < queries && exitCode == 0; ++i) {
    const auto text = randomQuery(random);
    const auto query = QueryParser::parse(text, store.descriptor(), random() % 2 == 0);
    const auto count = store.countMatching(query);
    const auto seqs = store.matchingSeqs(query, 0);
    matching += count > 0;
    if (count != static_cast<std::int64_t>(seqs.size())) {
      std::printf("countMatching() is %lld, matchingSeqs() returns %zu for query %ld: %s\n",
                  static_cast<long long>(count), seqs.size(), i, text.c_str());
      exitCode = 1;
    }
  }
  std::printf("%ld queries, %ld of them with matches\n", queries, matching);
  store.close();
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(path.string() + suffix);
  return exitCode;
}
