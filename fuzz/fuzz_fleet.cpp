// SPDX-License-Identifier: MIT

// The second compiler of the query tree. Outside its literals, a condition consists of the names
// and operators that the compiler writes, whatever is typed.
//
// With the address of a ClickHouse server in RUNEFLOW_TEST_SERVER ("http://127.0.0.1:8123"), the
// server judges, too: it evaluates the condition on one record, must return one row of the expected
// form with the typed text unchanged, and must agree with the store about the record.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "fleet/clause.h"
#include "fleet/engine.h"
#include "fleet/insert_block.h"
#include "fleet/kinds.h"
#include "fleet/sql.h"
#include "fleet/table.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

using namespace runeflow;
using fuzz::require;

namespace {

const WordTokenizer& tokenizer() {
  static const auto words = WordTokenizer::create();
  return *words;
}

// Removes the literals, as a scanner of ClickHouse's SQL that knows nothing of the compiler.
std::string withoutLiterals(std::string_view sql) {
  std::string rest;
  for (std::size_t i = 0; i < sql.size(); ++i) {
    require(sql[i] >= ' ' && sql[i] <= '~');
    if (sql[i] != '\'') {
      rest += sql[i];
      continue;
    }
    for (++i; i < sql.size() && sql[i] != '\''; ++i) {
      if (sql[i] == '\\') ++i;
    }
    require(i < sql.size());
    rest += '?';
  }
  return rest;
}

bool isKnownName(const std::string& name) {
  constexpr std::string_view kNames[] = {"AND",        "OR",          "NOT",
                                         "IN",         "capture",     "kind",
                                         "level",      "time",        "source",
                                         "message",    "seq",         "ctx_keys",
                                         "ctx_values", "words",       "k",
                                         "v",          "w",           "ifNull",
                                         "lower",      "position",    "startsWith",
                                         "toString",   "toInt64",     "intDiv",
                                         "has",        "arrayExists", "arrayStringConcat",
                                         "concat"};
  return std::ranges::find(kNames, name) != std::end(kNames) ||
         std::ranges::find(fleet::slotFields(), name) != fleet::slotFields().end();
}

void checkShape(std::string_view sql) {
  const auto rest = withoutLiterals(sql);
  std::int64_t open = 0;
  for (std::size_t i = 0; i < rest.size(); ++i) {
    const auto isWord = [&](std::size_t at) {
      return at < rest.size() &&
             (std::isalnum(static_cast<unsigned char>(rest[at])) != 0 || rest[at] == '_');
    };
    if (isWord(i)) {
      std::string word;
      for (; isWord(i); ++i) word += rest[i];
      const bool isNumber = std::ranges::all_of(word, [](char c) { return c >= '0' && c <= '9'; });
      require(isNumber || isKnownName(word));
    }
    if (i == rest.size()) break;
    require(std::string_view(" (),<>=!`?-.").find(rest[i]) != std::string_view::npos);
    open += rest[i] == '(' ? 1 : rest[i] == ')' ? -1 : 0;
    require(open >= 0);
  }
  require(open == 0);
}

// A server with a table of one record, and a store with the same.
struct Server {
  fuzz::ScratchFolder folder;
  EventStore store = *EventStore::open(folder.file("one.db"), true, SourceDescriptor::logcat());
  fleet::Engine engine;

  explicit Server(const std::string& url) : engine({url, "default", "fuzz"}, {}) {
    engine.ask("DROP TABLE IF EXISTS default.fuzz");
    fleet::createTable(engine, "");
    const LogRow row(timestampFromMicroseconds(1'700'000'000'000'000), RuneflowLogLevel::Warning,
                     "Disk full: \xC3\xA9t\xC3\xA9 a-b 'quoted' \\ %_ 42",
                     LogRow::Context{{"user", "42"}}, {"Net", "7", std::nullopt});
    store.insert({&row, 1});
    const auto rows = store.fetchRange(1, 1);
    fleet::BlockBuilder builder({"one", 1, SourceDescriptor::logcat()}, tokenizer());
    builder.add(rows.front());
    engine.insert(fleet::insertStatement(engine.address(), SourceDescriptor::logcat()),
                  builder.finish().rows);
  }

  void check(const std::string& typed, const std::string& condition, bool matchCase) {
    std::string answer;
    try {
      answer = engine.ask("SELECT toUInt8(" + condition + "), " + fleet::sqlText(typed) + " FROM " +
                          fleet::tableName(engine.address()) + " FORMAT RowBinary");
    } catch (const fleet::EngineError& error) {
      // The server has limits on the length and depth of a statement.
      const auto& text = error.engineText();
      require(text.find("query size exceeded") != std::string::npos ||
              text.find("oo deep") != std::string::npos ||
              text.find("oo big") != std::string::npos);
      return;
    }
    fleet::RowBinaryReader reader(answer);
    const auto matches = reader.uint8();
    require(matches <= 1 && reader.text() == typed && !reader.isShort() && reader.rest().empty());
    compareWithStore(typed, matches == 1, matchCase);
  }

  void compareWithStore(const std::string& typed, bool matches, bool matchCase) {
    std::string lower(typed);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const auto* field : {"capture", "kind"}) {  // fields of the table alone
      if (lower.find(field) != std::string::npos) return;
    }
    const auto query = QueryParser::parse(typed, store.descriptor(), matchCase);
    const auto count = store.countMatching(query);
    if (store.takeError()) return;  // SQLite's limits are lower
    require((count == 1) == matches);
  }
};

Server* server() {
  static const auto one = []() -> std::unique_ptr<Server> {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread runs yet
    const char* url = std::getenv("RUNEFLOW_TEST_SERVER");
    return url ? std::make_unique<Server>(url) : nullptr;
  }();
  return one.get();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool matchCase = (data[0] & 1) != 0;
  const std::string typed(reinterpret_cast<const char*>(data + 1), size - 1);
  const auto condition = fleet::conditionOf({.text = typed, .matchCase = matchCase}, tokenizer());
  checkShape(condition);
  if (auto* real = server()) real->check(typed, condition, matchCase);
  return 0;
}
