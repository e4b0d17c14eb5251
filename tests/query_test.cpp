// SPDX-License-Identifier: MIT
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <tuple>

#include "runeflow/platform/overloaded_p.h"
#include "runeflow/query/query_parser.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::ElementsAre;

constexpr std::size_t kSmallStack = 2 << 20;  // the smallest stack that hosts give their threads
constexpr std::size_t kMainStack = 8 << 20;
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
std::string describe(const QueryNode& node) {
  const auto list = [&node](std::string text) {
    for (const auto& child : node.children()) {
      text += (text.back() == '(' ? "" : ", ") + describe(child);
    }
    return text + ')';
  };
  const auto compare = [](const FieldPredicate& predicate) {
    const auto& fields = SourceDescriptor::logcat().fields();
    const auto& name =
        std::ranges::find(fields, predicate.column, &FieldDescriptor::column)->name();
    const auto* text = std::get_if<std::string>(&predicate.value->value());
    return text ? fmt::format(R"({} = "{}")", name, *text)
                : fmt::format("{} >= {}", name, std::get<std::int64_t>(predicate.value->value()));
  };
  return std::visit(overloaded{compare,
                               [](const ContextPredicate& c) {
                                 return fmt::format(R"(ctx "{}" = "{}")", c.key, c.value);
                               },
                               [](const FullTextTerm& term) { return "text \"" + term.raw + '"'; },
                               [&](const QueryNode::And&) { return list("and("); },
                               [&](const QueryNode::Or&) { return list("or("); },
                               [&](const QueryNode::Not&) { return list("not("); },
                               [](const QueryNode::All&) { return std::string("all"); }},
                    node.value());
}

std::string parsed(std::string_view typed) {
  return describe(QueryParser::parse(typed, SourceDescriptor::logcat(), false).root);
}

std::string repeated(std::size_t count, std::string_view piece) {
  std::string out;
  out.reserve(count * piece.size());
  for (std::size_t i = 0; i < count; ++i) out += piece;
  return out;
}

TEST(LogQuery, compilesToClauseAndBinds) {
  const auto t = [](std::string value) { return Bind::text(std::move(value)); };
  const std::tuple<QueryNode, std::string, std::vector<Bind>> rows[] = {
      {QueryNode::and_({}), "1", {}},
      {QueryNode::not_(QueryNode::all()), "NOT (1)", {}},
      {QueryNode::or_({QueryNode::and_({levelAtLeast(2)})}), "level >= ?", {Bind::int_(2)}},
      {QueryNode::and_(
           {levelAtLeast(3), QueryNode::or_({text("a"), text("b"), QueryNode::or_({})})}),
       "(level >= ? AND (" + kMatch + " OR " + kMatch + " OR 1))",
       {Bind::int_(3), t("\"a\""), t("\"b\"")}},
      {slot(0, FieldOp::equals), "s0 = ?", {t("")}},
      {slot(1, FieldOp::notEquals, Bind::int_(5)), "s1 <> ?", {Bind::int_(5)}},
      {slot(1, FieldOp::contains, t("5%_\\")), R"(s1 LIKE ? ESCAPE '\')", {t(R"(%5\%\_\\%)")}},
      {slot(1, FieldOp::prefix, Bind::int_(5)), R"(s1 LIKE ? ESCAPE '\')", {t("%")}},
      {slot(1, FieldOp::notPrefix, t("a")), R"(s1 NOT LIKE ? ESCAPE '\')", {t("a%")}},
      {slot(7, FieldOp::lessOrEqual), "s7 <= ?", {Bind::int_(0)}},
      {slot(2, FieldOp::isNullOrEmpty, t("x")), "(s2 IS NULL OR s2 = '')", {}},
      {context("a\"b", "c\"d"), "json_extract(ctx, ?) = ?", {t(R"($."a""b")"), t("c\"d")}},
      {context("a\"b", "50%/\n", ContextMatch::substringScan),
       R"((ctx IS NOT NULL AND ctx LIKE ? ESCAPE '\'))",
       {t(R"(%"a\\"b":"50\%\\/\\n"%)")}},
      {text(" \u00A0\n", FullTextMode::regex("x")), "1", {}},
      {text("x", FullTextMode::regex("x")), "0", {}},
      {text(" Disk full ", FullTextMode::fts(), true),
       "(" + kMatch + " AND instr(message, ?) > 0 AND instr(message, ?) > 0)",
       {t(R"("Disk"* "full"*)"), t("Disk"), t("full")}},
      {text(" a  b_ ", FullTextMode::substringScan(), true),
       R"(message LIKE ? ESCAPE '\')",
       {t(R"(%a  b\_%)")}}};
  for (const auto& [root, clause, binds] : rows) {
    const auto compiled = LogQuery{root}.compile();
    EXPECT_EQ(compiled.clause, clause);
    EXPECT_EQ(compiled.binds, binds) << clause;
  }
}

TEST(LogQuery, matchExpressionCountsCharactersAsTheUserSeesThem) {
  const std::pair<std::string_view, std::string_view> rows[] = {
      {" \u2003 ", ""},
      {"say \"hi\" ab", R"("say"* """hi"""* "ab")"},
      {"e\u0301a\u0301 日本語 \U0001F469\U0001F3FD\u200D\U0001F4BB",
       "\"e\u0301a\u0301\" \"日本語\"* \"\U0001F469\U0001F3FD\u200D\U0001F4BB\""}};
  for (const auto& [words, expression] : rows) EXPECT_EQ(LogQuery::ftsMatch(words), expression);
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
  EXPECT_EQ(contextScan.withFullTextAsSubstringScan(), both);
  EXPECT_NE(query, textScan);
  EXPECT_NE(QueryNode::and_({}), QueryNode::or_({}));
  EXPECT_NE(QueryNode::and_({}), QueryNode::and_({QueryNode::all()}));
}

TEST(QueryParser, lexesByUserPerceivedCharacters) {
  using QueryParser::Tok;
  const auto w = Tok::word;
  const std::pair<std::string_view, std::vector<Tok>> rows[] = {
      {"\"\" \r\n\u2003", {}},
      {"a\"b c\"d", {w("ab cd")}},
      {"a)OR c", {w("a"), Tok::rparen(), Tok::or_(), w("c")}},
      {R"("AND" N""OT Or AND)", {w("AND"), w("NOT"), w("Or"), Tok::and_()}},
      {R"("" AND ""(NOT)", {Tok::and_(), Tok::lparen(), Tok::not_()}},
      {"a\r\nb\u0085c", {w("a"), w("b"), w("c")}},
      {R"("(a" "b) )", {w("(a"), w("b) ")}},
      // A combining mark makes a quote, parenthesis or keyword ordinary text. A mark behind a blank
      // belongs to the blank.
      {"\"\u0301a b", {w("\"\u0301a"), w("b")}},
      {"(\u0301 NOT\u0301 a \u0301b", {w("(\u0301"), w("NOT\u0301"), w("a"), w("b")}},
      {"a\xFF\xE2\x82(", {w("a\uFFFD\uFFFD"), Tok::lparen()}}};
  for (const auto& [text, toks] : rows) EXPECT_TRUE(QueryParser::lex(text) == toks) << text;
}

// Cases that docs/query-language.md does not show.
TEST(QueryParser, understandsWhatUsersType) {
  for (const auto* nothing : {"", " \u00A0\r\n", "NOT", "(", ") NOT ) OR AND (()"}) {
    EXPECT_EQ(parsed(nothing), "all") << nothing;
  }
  const std::pair<std::string_view, std::string_view> rows[] = {
      {"OR OR a", R"(text "a")"},
      {"NOT NOT a", R"(not(not(text "a")))"},
      {"NOT (a b) c", R"(and(not(text "a b"), text "c"))"},
      {"((a) (b)) c", R"(text "a b c")"},
      {"a (b c OR d", R"(and(text "a", or(text "b c", text "d")))"},
      {"a tag:x b OR c", R"(or(and(text "a", tag = "x", text "b"), text "c"))"},
      // An empty group, or a NOT without an operand, ends the run of conditions that contains it.
      {"a () b OR c", R"(and(text "a", or(text "b", text "c")))"},
      {"a NOT AND b OR c", R"(and(text "a", or(text "b", text "c")))"},
      {"(a ()) b OR c", R"(or(text "a b", text "c"))"},
      {"Level:ERR level:critical", "and(level >= 4, level >= 5)"},
      {"pid: 1 :x", R"(text "pid: 1 :x")"},
      {"tag:a:b", R"(tag = "a:b")"},
      {"tag:\u0301v", "text \"tag:\u0301v\""},
      {"CTX.a\"b:c", R"(ctx "ab" = "c")"},
      {"ctx.:x ctx.k:", R"(text "ctx.:x ctx.k:")"},
      {"ctx.\u0301k:v", "text \"ctx.\u0301k:v\""},
      {"ctx.k:\u0301:v", "ctx \"k:\u0301\" = \"v\""}};
  for (const auto& [typed, root] : rows) EXPECT_EQ(parsed(typed), root) << typed;
}

TEST(QueryParser, asksOnlyForQueryableFields) {
  const auto field = [](std::string name, StoreColumn column, bool queryable = true) {
    return FieldDescriptor(std::move(name), "", column, false, queryable, true, "");
  };
  const SourceDescriptor source(
      "test", "Test",
      {field("time", StoreColumn::timestamp()), field("Straße", StoreColumn::message()),
       field("hidden", StoreColumn::slot(1), false), field("HIDDEN", StoreColumn::slot(2))},
      {}, std::nullopt);
  EXPECT_EQ(QueryParser::leaf("time:5", source, true), text("time:5", FullTextMode::fts(), true));
  EXPECT_EQ(QueryParser::leaf("hidden:5", source, false), text("hidden:5"));
  EXPECT_EQ(QueryParser::leaf("ctx.k\xFF:v\xE2", source, false), context("k\xFF", "v\xE2"));
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
}

TEST(QueryParser, highlightsNegatedAndRepeatedWords) {
  const auto typed = "level:warn b (a OR NOT \"c  b\") ctx.k:v a";
  const auto query = QueryParser::parse(typed, SourceDescriptor::logcat(), false);
  EXPECT_THAT(QueryParser::highlightTerms(query.root), ElementsAre("b", "a", "c", "b", "a"));
}

TEST(QueryParser, readsTheExamplesOfItsGuideAsWritten) {
  std::ifstream guide(RUNEFLOW_QUERY_GUIDE);
  const std::regex example("\\| `([^`]*)` .*`([^`]*)` \\|");
  int examples = 0;
  std::smatch found;
  for (std::string line; std::getline(guide, line);) {
    if (!std::regex_match(line, found, example)) continue;
    EXPECT_EQ(parsed(found[1].str()), found[2].str()) << line;
    ++examples;
  }
  EXPECT_GT(examples, 20) << RUNEFLOW_QUERY_GUIDE;
}

// Runs every operation on the query. Deep and wide trees must neither crash nor take long.
void exercise(const LogQuery& query) {
  const auto compiled = query.compile();
  EXPECT_EQ(static_cast<std::size_t>(std::ranges::count(compiled.clause, '?')),
            compiled.binds.size());
  EXPECT_TRUE(LogQuery{query.root} == query);
  const auto scans = query.withFullTextAsSubstringScan().withContextAsSubstringScan();
  EXPECT_TRUE(scans == query.withContextAsSubstringScan().withFullTextAsSubstringScan());
  EXPECT_EQ(QueryParser::highlightTerms(query.root), QueryParser::highlightTerms(scans.root));
}

std::size_t depthOf(const QueryNode& node) {
  std::size_t depth = 0;
  for (const auto& child : node.children()) depth = std::max(depth, 1 + depthOf(child));
  return depth;
}

TEST(QueryParser, takesLongAndDeepInputOnASmallStack) {
  constexpr std::size_t kMany = 100'000;
  const std::string rows[] = {
      repeated(kMany, "NOT(") + "a",
      repeated(kMany, "(") + "a" + repeated(kMany, ")tag:x OR tag:y"),
      repeated(kMany, "a OR level:warn (") + "c" + repeated(kMany, ")d"),
      repeated(kMany, "NOT(") + "tag:x" + repeated(kMany, ")OR tag:y tag:z"),
      repeated(kMany, "(x ") + std::string(kMany, 'x'),
      repeated(kMany, "OR "),
      repeated(kMany, "a OR "),
      repeated(kMany, "ab "),
      repeated(kMany, ":\u0301"),
      "e" + repeated(kMany, "\u0301")};
  for (const auto& typed : rows) {
    test::onStackOf(kSmallStack, [&] {
      const auto query = QueryParser::parse(typed, SourceDescriptor::logcat(), true);
      EXPECT_LE(depthOf(query.root), QueryParser::maxDepth);
      exercise(query);
    });
  }
}

TEST(QueryParser, skipsOnlyWhatLiesBeyondTheLimit) {
  constexpr std::size_t kWithin = QueryParser::maxDepth * 9 / 10;
  const auto opened = repeated(100'000, "(");
  const auto closed = repeated(100'000, ")");
  EXPECT_EQ(parsed("a " + opened + "b" + closed + " c"), "text \"a b c\"");
  EXPECT_EQ(parsed(opened + "(((b) OR (c)) d)" + closed), parsed("(b OR c) d"));
  EXPECT_EQ(parsed("a " + repeated(QueryParser::maxDepth + 1, "NOT ") + "x b"), "text \"a b\"");
  const auto outer = repeated(kWithin, "NOT ");
  EXPECT_TRUE(parsed(outer + "(b " + outer + "(x (y) OR z) c)") == parsed(outer + "(b c)"));
  const std::pair<std::string, std::string> rows[] = {
      {"NOT ", ""}, {"NOT(", ")"}, {"tag:x(", ")"}, {"(", " tag:x)"}, {"x OR tag:x(", ")"}};
  for (const auto& [opening, closing] : rows) {
    const std::size_t times = kWithin / (opening[0] == 'x' ? 2 : 1);
    const auto typed = repeated(times, opening) + "level:warn" + repeated(times, closing);
    const auto query = QueryParser::parse(typed, SourceDescriptor::logcat(), false);
    EXPECT_EQ(depthOf(query.root), kWithin) << opening;
  }
}

TEST(QueryParser, keepsThreeLevelsForWhatFollows) {
  constexpr std::size_t kDeepest = QueryParser::maxDepth - 3;
  const auto nots = repeated(kDeepest, "NOT ");
  const auto groups = repeated(kDeepest, "tag:x (");
  const std::pair<std::string, std::size_t> depths[] = {
      {nots + "a", kDeepest},
      {nots + "NOT a", 0},
      {nots + "tag:x tag:y OR tag:z) tag:w", QueryParser::maxDepth},
      {groups + "pid:1", kDeepest},
      {groups + "NOT tid:1 pid:1", kDeepest}};
  for (const auto& [typed, depth] : depths) {
    const auto query = QueryParser::parse(typed, SourceDescriptor::logcat(), false);
    EXPECT_EQ(depthOf(query.root), depth) << typed.substr(typed.size() - 20);
  }
  const std::pair<std::string, std::string> sameTrees[] = {
      {nots + "NOT a", ""},
      {nots + "(a tag:x)", ""},
      {"tag:x OR " + nots + "a b", "tag:x OR b"},
      {repeated(QueryParser::maxDepth, "(") + nots + "a", nots + "a"},
      {groups + "tag:x (pid:1)", groups + "tag:x"},
      {groups + "pid:1 tag:y", repeated(kDeepest - 1, "tag:x (") + "tag:x"},
      {repeated(kDeepest + 3, "(a "), repeated(kDeepest + 1, "(a ")}};
  for (const auto& [typed, same] : sameTrees) {
    EXPECT_TRUE(parsed(typed) == parsed(same)) << typed.substr(typed.size() - 20);
  }
  EXPECT_EQ(parsed(repeated(kDeepest + 2, "(a ")).size(),
            parsed(repeated(kDeepest, "(a ")).size() + 2);
}

TEST(LogQuery, sqliteTakesTheDocumentedSizes) {
  const test::TemporaryFolder folder;
  auto store = EventStore::open(folder.file("a.db"), true, SourceDescriptor::logcat());
  ASSERT_TRUE(store);
  store->insert(std::vector{test::row("a", "x")});
  using Nest = QueryNode (*)(const QueryNode& leaf, const QueryNode& inner);
  const std::tuple<int, const char*, Nest> rows[] = {
      {39, "b", [](const auto&, const auto& inner) { return QueryNode::not_(inner); }},
      {26, "a", [](const auto& leaf, const auto& inner) { return QueryNode::or_({leaf, inner}); }},
      {26, "a", [](const auto& leaf, const auto& inner) { return QueryNode::and_({leaf, inner}); }},
      {76, "a", [](const auto& leaf, const auto& inner) { return QueryNode::or_({inner, leaf}); }},
      {15, "b", [](const auto& leaf, const auto& inner) {
         return QueryNode::not_(QueryNode::or_({leaf, inner}));
       }}};
  std::vector<LogQuery> queries = {
      {QueryNode::and_(std::vector(993, text("a", FullTextMode::fts(), true)))}};
  for (const auto& [levels, word, nest] : rows) {
    const auto leaf = text(word, FullTextMode::fts(), true);
    LogQuery query{leaf};
    for (int i = 0; i < levels; ++i) query.root = nest(leaf, query.root);
    queries.push_back(std::move(query));
  }
  for (const auto& query : queries) {
    SCOPED_TRACE(query.compile().clause.substr(0, 80));
    EXPECT_FALSE(store->matchingSeqsQueryPlan(query, 0).empty());
    EXPECT_THAT(store->distinctValues(StoreColumn::slot(0), query, "x", 1), ElementsAre("x"));
  }
}

TEST(LogQuery, findsContextKeysThatJsonEscapes) {
  const test::TemporaryFolder folder;
  auto store = EventStore::open(folder.file("a.db"), true, SourceDescriptor::logcat());
  ASSERT_TRUE(store && store->jsonAvailable());
  const std::vector<std::string> keys = {"a",    "a/b",   R"(a\b)", R"(a\/b)",
                                         "a\tb", "a\x01", "é.[0] b"};
  for (const auto& key : keys) {
    const LogRow::Context ctx{{key, "v/"}, {"other", "w"}, {"say \"hi\"", key}};
    store->insert(std::vector{test::row("m", std::nullopt, RuneflowLogLevel::Info, ctx)});
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const LogQuery query{context(keys[i], "v/")};
    EXPECT_THAT(store->matchingSeqs(query, 0), ElementsAre(i + 1)) << keys[i];
    const auto scan = query.withContextAsSubstringScan();
    EXPECT_THAT(store->matchingSeqs(scan, 0), ElementsAre(i + 1)) << keys[i];
  }
  // Only the scan finds a key that contains a double quote.
  const LogQuery quoted{context("say \"hi\"", "a")};
  EXPECT_EQ(store->countMatching(quoted), 0);
  EXPECT_EQ(store->countMatching(quoted.withContextAsSubstringScan()), 1);
}

TEST(LogQuery, hostsMayNestTenThousandDeep) {
  const auto nested = [](int levels) {
    auto root = QueryNode::and_({text("a"), context("k", "v")});
    for (int i = 0; i < levels; ++i) {
      root = i % 2 ? QueryNode::not_(std::move(root))
                   : QueryNode::or_({text("b"), std::move(root), QueryNode::all()});
    }
    return LogQuery{std::move(root)};
  };
#ifdef __SANITIZE_THREAD__
  // The sanitizer stores the whole call stack for every reference counter that is created.
  constexpr int kLevels = 1'000;
#else
  constexpr int kLevels = 10'000;
#endif
  test::onStackOf(kMainStack, [&] {
    exercise(nested(kLevels));
    EXPECT_TRUE(nested(kLevels) == nested(kLevels));
    EXPECT_FALSE(nested(kLevels) == nested(kLevels - 2));
  });
}

}  // namespace
}  // namespace runeflow
