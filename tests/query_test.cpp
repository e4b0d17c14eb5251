#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "runeflow/model/json_text.h"
#include "runeflow/platform/overloaded.h"
#include "runeflow/query/query_parser.h"
#include "tests/events_schema.h"

namespace runeflow {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kMatch = "seq IN (SELECT rowid FROM events_fts WHERE events_fts MATCH ?)";

QueryNode text(std::string raw, FullTextMode mode = FullTextMode::fts(), bool matchCase = false) {
  return QueryNode::fullText({std::move(raw), std::move(mode), matchCase});
}

QueryNode slot(std::int64_t index, FieldOp op, std::optional<Bind> value = std::nullopt) {
  return QueryNode::field({StoreColumn::slot(index), op, std::move(value)});
}

QueryNode levelAtLeast(std::int64_t level) {
  return QueryNode::field({StoreColumn::level(), FieldOp::greaterOrEqual, Bind::int_(level)});
}

QueryNode context(std::string key, std::string value, ContextMatch match = ContextMatch::json) {
  return QueryNode::context({std::move(key), std::move(value), match});
}

// A tree in the notation of docs/query-language.md.
std::string describe(const QueryNode& node, const SourceDescriptor& descriptor);

std::string describeList(std::string name, const QueryNode& node, const SourceDescriptor& source) {
  for (const auto& child : node.children()) {
    name += (name.back() == '(' ? "" : ", ") + describe(child, source);
  }
  return name + ')';
}

std::string describeField(const FieldPredicate& predicate, const SourceDescriptor& source) {
  const auto& fields = source.fields();
  const auto field = std::ranges::find(fields, predicate.column, &FieldDescriptor::column);
  return field->name() +
         std::visit(overloaded{
                        [](const std::string& value) { return " = \"" + value + '"'; },
                        [](std::int64_t value) { return " >= " + std::to_string(value); },
                    },
                    predicate.value->value());
}

std::string describe(const QueryNode& node, const SourceDescriptor& source) {
  return std::visit(
      overloaded{
          [&](const FieldPredicate& predicate) { return describeField(predicate, source); },
          [](const ContextPredicate& c) { return "ctx \"" + c.key + "\" = \"" + c.value + '"'; },
          [](const FullTextTerm& term) { return "text \"" + term.raw + '"'; },
          [&](const QueryNode::And&) { return describeList("and(", node, source); },
          [&](const QueryNode::Or&) { return describeList("or(", node, source); },
          [&](const QueryNode::Not&) { return describeList("not(", node, source); },
          [](const QueryNode::All&) { return std::string("all"); },
      },
      node.value());
}

std::string parsed(std::string_view typed) {
  const auto& source = SourceDescriptor::logcat();
  return describe(QueryParser::parse(typed, source, false).root, source);
}

// Runs on a thread with a stack of 2 MiB, as little as hosts give their threads.
void onSmallStack(std::function<void()> work) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{2} << 20), 0);
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
}

std::string repeated(std::size_t count, std::string_view piece) {
  std::string out;
  out.reserve(count * piece.size());
  for (std::size_t i = 0; i < count; ++i) out += piece;
  return out;
}

TEST(LogQuery, compilesToClauseAndBinds) {
  const auto t = [](std::string value) { return Bind::text(std::move(value)); };
  const struct {
    QueryNode root;
    std::string clause;
    std::vector<Bind> binds;
  } rows[] = {
      {QueryNode::all(), "1", {}},
      {QueryNode::and_({}), "1", {}},
      {QueryNode::or_({}), "1", {}},
      {QueryNode::not_(QueryNode::all()), "NOT (1)", {}},
      {QueryNode::or_({QueryNode::and_({levelAtLeast(2)})}), "level >= ?", {Bind::int_(2)}},
      {QueryNode::and_({levelAtLeast(3), QueryNode::or_({text("a"), text("b")})}),
       "(level >= ? AND (" + kMatch + " OR " + kMatch + "))",
       {Bind::int_(3), t("\"a\""), t("\"b\"")}},
      {QueryNode::not_(QueryNode::or_({slot(0, FieldOp::equals), QueryNode::and_({})})),
       "NOT ((s0 = ? OR 1))",
       {t("")}},

      {slot(1, FieldOp::notEquals, Bind::int_(5)), "s1 <> ?", {Bind::int_(5)}},
      {slot(1, FieldOp::contains, t("5%_\\")), R"(s1 LIKE ? ESCAPE '\')", {t(R"(%5\%\_\\%)")}},
      {slot(1, FieldOp::prefix, Bind::int_(5)), R"(s1 LIKE ? ESCAPE '\')", {t("%")}},
      {slot(1, FieldOp::notPrefix, t("a")), R"(s1 NOT LIKE ? ESCAPE '\')", {t("a%")}},
      {slot(7, FieldOp::lessOrEqual), "s7 <= ?", {Bind::int_(0)}},
      {slot(2, FieldOp::isNullOrEmpty, t("x")), "(s2 IS NULL OR s2 = '')", {}},

      {context("tid", "7"), "json_extract(ctx, ?) = ?", {t("$.\"tid\""), t("7")}},
      {context("a\"b", "c\"d"), "json_extract(ctx, ?) = ?", {t(R"($."a""b")"), t("c\"d")}},
      {context("a\"b", "50%/\n", ContextMatch::substringScan),
       R"((ctx IS NOT NULL AND ctx LIKE ? ESCAPE '\'))",
       {t(R"(%"a\\"b":"50\%\\/\\n"%)")}},

      {text(" \u00A0\r\n"), "1", {}},
      {text(" \n", FullTextMode::regex("x")), "1", {}},
      {text("x", FullTextMode::regex("x")), "0", {}},
      {text(" Disk full ", FullTextMode::fts(), true),
       "(" + kMatch + " AND instr(message, ?) > 0 AND instr(message, ?) > 0)",
       {t(R"("Disk"* "full"*)"), t("Disk"), t("full")}},
      {text(" a  b_ ", FullTextMode::substringScan(), true),
       R"(message LIKE ? ESCAPE '\')",
       {t(R"(%a  b\_%)")}},
  };
  for (const auto& row : rows) {
    const auto compiled = LogQuery{row.root}.compile();
    SCOPED_TRACE(row.clause);
    EXPECT_EQ(compiled.clause, row.clause);
    EXPECT_EQ(compiled.binds, row.binds);
  }
  EXPECT_TRUE(LogQuery{}.isEmpty());
  EXPECT_FALSE(LogQuery{QueryNode::and_({})}.isEmpty());
}

TEST(LogQuery, matchExpressionCountsCharactersAsTheUserSeesThem) {
  const struct {
    std::string_view words;
    std::string_view expression;
  } rows[] = {
      {"", ""},
      {" \u2003 ", ""},
      {"foo ab", R"("foo"* "ab")"},
      {"say \"hi\"", R"("say"* """hi"""*)"},
      {"e\u0301a\u0301 \"\"", "\"e\u0301a\u0301\" \"\"\"\"\"\""},
      {"日本語 \U0001F469\U0001F3FD\u200D\U0001F4BB",
       "\"日本語\"* \"\U0001F469\U0001F3FD\u200D\U0001F4BB\""},
  };
  for (const auto& row : rows) EXPECT_EQ(LogQuery::ftsMatch(row.words), row.expression);
  EXPECT_EQ(LogQuery::escapeLike(R"(a\_b%)"), R"(a\\\_b\%)");
}

TEST(LogQuery, rewritesTouchTheirOwnLeavesAndCommute) {
  const auto tree = [](const FullTextMode& mode, ContextMatch match) {
    return QueryNode::or_({QueryNode::and_({text("a", mode, true), context("k", "v", match)}),
                           QueryNode::not_(QueryNode::not_(text("b", mode))), QueryNode::and_({}),
                           text("c", FullTextMode::regex("c")), levelAtLeast(1)});
  };
  const LogQuery query{tree(FullTextMode::fts(), ContextMatch::json)};
  const LogQuery textScan{tree(FullTextMode::substringScan(), ContextMatch::json)};
  const LogQuery contextScan{tree(FullTextMode::fts(), ContextMatch::substringScan)};
  const LogQuery both{tree(FullTextMode::substringScan(), ContextMatch::substringScan)};
  EXPECT_EQ(query.withFullTextAsSubstringScan(), textScan);
  EXPECT_EQ(query.withContextAsSubstringScan(), contextScan);
  EXPECT_EQ(textScan.withContextAsSubstringScan(), both);
  EXPECT_EQ(contextScan.withFullTextAsSubstringScan(), both);
  EXPECT_NE(query, textScan);
  EXPECT_NE(QueryNode::and_({}), QueryNode::or_({}));
  EXPECT_NE(QueryNode::and_({}), QueryNode::and_({QueryNode::all()}));
}

// What SQLite answers, compared with a filter over the same rows in memory.
struct Record {
  std::int64_t level;
  std::optional<std::string> slot0;
  std::string message;  // lower- and upper-case words of ASCII letters
  std::map<std::string, std::string> ctx;
};

const std::vector<Record> kRecords = {
    {0, "Net", "disk full", {}},
    {1, "net", "Disk almost FULL", {{"k", "v"}}},
    {2, std::nullopt, "diskette", {{"k", "a/b\t\"c\"\n\\"}, {"x", "v"}}},
    {3, "", "a full stop", {{"k", "V"}}},
    {4, "N_t%", "ab abc", {{"x", "k"}}},
    {5, "Network", "nothing", {{"k", "%_"}}},
};

void insert(const testing_support::Database& db, const Record& record) {
  const auto row = testing_support::prepare(
      db, "INSERT INTO events(ts, level, s0, message, ctx) VALUES(0, ?, ?, ?, ?)");
  const auto bindText = [&](int index, const std::string& value) {
    sqlite3_bind_text(row.get(), index, value.c_str(), -1, SQLITE_TRANSIENT);
  };
  sqlite3_bind_int64(row.get(), 1, record.level);
  if (record.slot0) bindText(2, *record.slot0);
  bindText(3, record.message);
  if (!record.ctx.empty()) bindText(4, jsonObject(record.ctx).value());
  ASSERT_EQ(sqlite3_step(row.get()), SQLITE_DONE);
  const auto indexed = testing_support::prepare(
      db,
      "INSERT INTO events_fts(rowid, message) SELECT seq, message FROM events "
      "ORDER BY seq DESC LIMIT 1");
  ASSERT_EQ(sqlite3_step(indexed.get()), SQLITE_DONE);
}

std::vector<std::int64_t> levelsFound(const testing_support::Database& db, const LogQuery& query) {
  const auto [clause, binds] = query.compile();
  const auto statement =
      testing_support::prepare(db, "SELECT level FROM events WHERE " + clause + " ORDER BY seq");
  EXPECT_TRUE(statement) << sqlite3_errmsg(db.get());
  if (!statement) return {};
  int index = 0;
  for (const auto& bind : binds) {
    ++index;
    std::visit(overloaded{
                   [&](const std::string& value) {
                     sqlite3_bind_text(statement.get(), index, value.c_str(), -1, SQLITE_TRANSIENT);
                   },
                   [&](std::int64_t value) { sqlite3_bind_int64(statement.get(), index, value); },
               },
               bind.value());
  }
  std::vector<std::int64_t> levels;
  while (sqlite3_step(statement.get()) == SQLITE_ROW) {
    levels.push_back(sqlite3_column_int64(statement.get(), 0));
  }
  return levels;
}

TEST(LogQuery, findsTheRecordsThatAreMeant) {
  const auto db = testing_support::emptyEvents();
  ASSERT_TRUE(db);
  for (const auto& record : kRecords) insert(db, record);
  const struct {
    std::string_view typed;
    bool matchCase;
    std::vector<std::int64_t> levels;
  } rows[] = {
      {"", false, {0, 1, 2, 3, 4, 5}},
      {"disk", false, {0, 1, 2}},
      {"disk FULL", false, {0, 1}},
      {"disk full", true, {0}},
      {"ab", false, {4}},
      {"tag:Net", false, {0}},
      {"NOT tag:Net", false, {1, 3, 4, 5}},
      {"ctx.k:v OR tag:Network", false, {1, 5}},
      {"(level:warn OR disk) NOT full", false, {2, 4, 5}},
      {"NOT (ctx.x:v OR ctx.x:k) level:debug", false, {}},
  };
  for (const auto& row : rows) {
    const auto query = QueryParser::parse(row.typed, SourceDescriptor::logcat(), row.matchCase);
    EXPECT_EQ(levelsFound(db, query), row.levels) << row.typed;
  }
}

TEST(LogQuery, scansFindContextValuesThatJsonEscapes) {
  const auto db = testing_support::emptyEvents();
  ASSERT_TRUE(db);
  for (const auto& record : kRecords) insert(db, record);
  for (const auto& record : kRecords) {
    for (const auto& [key, value] : record.ctx) {
      if (value == "v" || value == "V") continue;  // LIKE does not tell them apart
      const LogQuery query{context(key, value)};
      EXPECT_THAT(levelsFound(db, query), ElementsAre(record.level)) << value;
      EXPECT_THAT(levelsFound(db, query.withContextAsSubstringScan()), ElementsAre(record.level));
    }
  }
  EXPECT_THAT(levelsFound(db, LogQuery{text("isk ful")}.withFullTextAsSubstringScan()),
              ElementsAre(0));
}

TEST(QueryParser, lexesByUserPerceivedCharacters) {
  const auto w = [](std::string word) { return QueryParser::Tok::word(std::move(word)); };
  using QueryParser::Tok;
  const struct {
    std::string_view text;
    std::vector<Tok> toks;
  } rows[] = {
      {"\"\" \r\n\u2003", {}},
      {"a\"b c\"d", {w("ab cd")}},
      {"foo(bar)", {w("foo"), Tok::lparen(), w("bar"), Tok::rparen()}},
      {"NOT(a AND b)OR c",
       {Tok::not_(), Tok::lparen(), w("a"), Tok::and_(), w("b"), Tok::rparen(), Tok::or_(),
        w("c")}},
      {R"("AND" N""OT Or AND)", {w("AND"), w("NOT"), w("Or"), Tok::and_()}},
      {R"("" AND ""(NOT)", {Tok::and_(), Tok::lparen(), Tok::not_()}},
      {"a\r\nb\u0085c", {w("a"), w("b"), w("c")}},
      {R"("(a" "b) )", {w("(a"), w("b) ")}},
      // A mark makes a quote, parenthesis or keyword an ordinary character, and goes with a blank.
      {"\"\u0301a b", {w("\"\u0301a"), w("b")}},
      {"(\u0301 NOT\u0301 a \u0301b", {w("(\u0301"), w("NOT\u0301"), w("a"), w("b")}},
      {"a\xFF\xE2\x82(", {w("a\uFFFD\uFFFD"), Tok::lparen()}},
  };
  for (const auto& row : rows) EXPECT_TRUE(QueryParser::lex(row.text) == row.toks) << row.text;
}

TEST(QueryParser, understandsWhatUsersType) {
  const struct {
    std::string_view typed;
    std::string_view root;
  } rows[] = {
      {"", "all"},
      {" \u00A0\r\n", "all"},
      {"NOT", "all"},
      {"(", "all"},
      {") NOT ) OR AND (()", "all"},
      {"a \"b c\" d", "text \"a b c d\""},
      {"a OR", "text \"a\""},
      {"OR OR a", "text \"a\""},
      {"NOT NOT a", "not(not(text \"a\"))"},
      {"a NOT b c", R"(and(text "a", not(text "b"), text "c"))"},
      {"NOT (a b) c", R"(and(not(text "a b"), text "c"))"},
      {"((a) (b)) c", "text \"a b c\""},
      {"(a OR b) c", R"(and(or(text "a", text "b"), text "c"))"},
      {"a (b c OR d", R"(and(text "a", or(text "b c", text "d")))"},
      {"a tag:x b OR c", R"(or(and(text "a", tag = "x", text "b"), text "c"))"},
      // A condition that yields nothing ends its group.
      {"a () b OR c", R"(and(text "a", or(text "b", text "c")))"},
      {"a NOT AND b OR c", R"(and(text "a", or(text "b", text "c")))"},
      {"(a ()) b OR c", R"(or(text "a b", text "c"))"},

      {"Level:ERR", "level >= 4"},
      {"level:critical", "level >= 5"},
      {"pid: 1", "text \"pid: 1\""},
      {":x", "text \":x\""},
      {"tag:a:b", "tag = \"a:b\""},
      {"\"tag:a b\"", "tag = \"a b\""},
      {"tag:\u0301v", "text \"tag:\u0301v\""},
      {"CTX.userId:42", R"(ctx "userId" = "42")"},
      {"ctx.a:b:c", R"(ctx "a" = "b:c")"},
      {"ctx.a\"b:c", R"(ctx "ab" = "c")"},
      {"ctx.:x", "text \"ctx.:x\""},
      {"ctx.k:", "text \"ctx.k:\""},
      {"ctx.\u0301k:v", "text \"ctx.\u0301k:v\""},
      {"ctx.k:\u0301:v", "ctx \"k:\u0301\" = \"v\""},
  };
  for (const auto& row : rows) EXPECT_EQ(parsed(row.typed), row.root) << row.typed;
}

TEST(QueryParser, asksOnlyForQueryableFields) {
  const auto field = [](std::string name, StoreColumn column, bool queryable) {
    return FieldDescriptor(std::move(name), "", column, false, queryable, true, "");
  };
  const SourceDescriptor source(
      "test", "Test",
      {field("time", StoreColumn::timestamp(), true), field("Straße", StoreColumn::message(), true),
       field("hidden", StoreColumn::slot(1), false), field("HIDDEN", StoreColumn::slot(2), true)},
      {}, std::nullopt);
  EXPECT_EQ(QueryParser::leaf("time:5", source, true), text("time:5", FullTextMode::fts(), true));
  EXPECT_EQ(QueryParser::leaf("hidden:5", source, false), text("hidden:5"));
  EXPECT_EQ(QueryParser::leaf("STRASSE:x", source, false),
            QueryNode::field({StoreColumn::message(), FieldOp::equals, Bind::text("x")}));
}

TEST(QueryParser, mergesOnlyNeighboursOfTheIndexedMode) {
  const auto scan = text("s", FullTextMode::substringScan());
  const auto exact = [](std::string raw) {
    return text(std::move(raw), FullTextMode::fts(), true);
  };
  EXPECT_THAT(QueryParser::coalesceFullText({text("a"), exact("b"), scan, scan, text(""), text("c"),
                                             levelAtLeast(1), text("d")},
                                            true),
              ElementsAre(exact("a b"), scan, scan, exact(" c"), levelAtLeast(1), exact("d")));
  EXPECT_THAT(QueryParser::coalesceFullText({}, true), IsEmpty());
}

TEST(QueryParser, highlightsNegatedAndRepeatedWords) {
  const auto terms = [](std::string_view typed) {
    return QueryParser::highlightTerms(
        QueryParser::parse(typed, SourceDescriptor::logcat(), false).root);
  };
  EXPECT_THAT(terms("level:warn disk full"), ElementsAre("disk", "full"));
  EXPECT_THAT(terms("b (a OR NOT \"c  b\") ctx.k:v a"), ElementsAre("b", "a", "c", "b", "a"));
  EXPECT_THAT(QueryParser::highlightTerms(text("x y", FullTextMode::regex("z"))),
              ElementsAre("x", "y"));
}

TEST(QueryParser, readsTheExamplesOfItsGuideAsWritten) {
  std::ifstream guide(RUNEFLOW_QUERY_GUIDE);
  ASSERT_TRUE(guide) << RUNEFLOW_QUERY_GUIDE;
  int examples = 0;
  for (std::string line; std::getline(guide, line);) {
    if (!line.starts_with("| `")) continue;
    std::vector<std::string> pieces;  // the odd ones stood between backticks
    std::istringstream stream(line);
    for (std::string piece; std::getline(stream, piece, '`');) pieces.push_back(piece);
    ASSERT_GE(pieces.size(), 5U) << line;
    EXPECT_EQ(parsed(pieces[1]), pieces[pieces.size() - 2]) << line;
    ++examples;
  }
  EXPECT_GT(examples, 20);
}

// Every operation on the query; nested and wide ones must neither crash nor take long.
void exercise(const LogQuery& query) {
  const auto compiled = query.compile();
  EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(compiled.clause, '?')),
            compiled.binds.size());
  EXPECT_TRUE(LogQuery{query.root} == query);
  const auto scans = query.withFullTextAsSubstringScan().withContextAsSubstringScan();
  EXPECT_TRUE(scans == query.withContextAsSubstringScan().withFullTextAsSubstringScan());
  EXPECT_EQ(QueryParser::highlightTerms(query.root), QueryParser::highlightTerms(scans.root));
}

TEST(QueryParser, takesLongAndDeepInputOnASmallStack) {
  constexpr std::size_t kMany = 1'000'000;
  const auto deepest = QueryParser::maxNesting;
  const std::pair<std::string_view, std::string> rows[] = {
      {"open", repeated(kMany, "(") + "a"},
      {"not", repeated(kMany, "NOT ") + "a"},
      {"not open", repeated(kMany, "NOT(") + "a"},
      {"deepest", repeated(deepest, "a OR level:warn (") + "c" + repeated(deepest, ")d")},
      {"or", repeated(kMany, "OR ")},
      {"alternatives", repeated(kMany / 10, "a OR ")},
      {"one term", repeated(kMany / 5, "ab ")},
      {"long word", std::string(10 * kMany, 'x')},
      {"long word within", repeated(deepest, "(x ") + std::string(kMany, 'x')},
      {"colons", repeated(kMany / 10, ":\u0301")},
      {"one character", "e" + repeated(kMany / 10, "\u0301")},
  };
  for (const auto& [name, typed] : rows) {
    SCOPED_TRACE(name);
    onSmallStack([&] { exercise(QueryParser::parse(typed, SourceDescriptor::logcat(), true)); });
  }
}

TEST(QueryParser, skipsOnlyWhatNestsBeyondTheLimit) {
  const auto deepest = QueryParser::maxNesting;
  const auto wrapped = [](std::size_t depth, const std::string& inner) {
    return repeated(depth, "(") + inner + repeated(depth, ")");
  };
  EXPECT_EQ(parsed("a " + wrapped(deepest, "b") + " c"), "text \"a b c\"");
  EXPECT_EQ(parsed("a " + wrapped(deepest, "b (x (y) OR z) c")), "text \"a b c\"");
  EXPECT_EQ(parsed(wrapped(deepest, "b NOT x NOT NOT (y) c")), "text \"b c\"");
  EXPECT_EQ(parsed(wrapped(deepest - 1, "NOT b NOT NOT x NOT (y)")), "not(text \"b\")");
  EXPECT_EQ(parsed("a " + repeated(deepest + 1, "NOT ") + "x b"), "text \"a b\"");
  EXPECT_EQ(parsed(repeated(deepest, "NOT ") + "(x) b"), "text \"b\"");
}

TEST(LogQuery, hostsMayNestAsDeepAsTheyLike) {
  const auto nested = [](int levels) {
    auto root = QueryNode::and_({text("a"), context("k", "v")});
    for (int i = 0; i < levels; ++i) {
      root = i % 3 == 0   ? QueryNode::not_(std::move(root))
             : i % 3 == 1 ? QueryNode::and_({std::move(root), levelAtLeast(1)})
                          : QueryNode::or_({text("b"), std::move(root), QueryNode::all()});
    }
    return LogQuery{std::move(root)};
  };
  EXPECT_TRUE(nested(10'000) == nested(10'000));
  EXPECT_FALSE(nested(10'000) == nested(10'003));
  exercise(nested(10'000));
  onSmallStack([&] { exercise(nested(50'000)); });
}

}  // namespace
}  // namespace runeflow
