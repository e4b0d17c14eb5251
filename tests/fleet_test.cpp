// SPDX-License-Identifier: MIT

// The fleet without a server: addresses, literals, conditions, rows. tests/e2e/fleet.py asks real
// servers.
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "fleet/address.h"
#include "fleet/clause.h"
#include "fleet/insert_block.h"
#include "fleet/kinds.h"
#include "fleet/row_binary.h"
#include "fleet/sql.h"
#include "fleet/table.h"
#include "host/failure.h"
#include "host/log_kind.h"
#include "runeflow/query/query_parser.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const WordTokenizer& tokenizer() {
  static const auto words = WordTokenizer::create();
  return *words;
}

std::string clause(QueryNode node) {
  return fleet::clauseOf({std::move(node)}, fleet::descriptorOf("logcat"), tokenizer());
}

std::string typed(std::string_view text, bool matchCase = false) {
  const auto& descriptor = fleet::descriptorOf("logcat");
  return fleet::clauseOf(QueryParser::parse(text, descriptor, matchCase), descriptor, tokenizer());
}

TEST(Fleet, readsAddressesAndRepeatsNoPassword) {
  const std::pair<const char*, const char*> good[] = {
      {"http://h/d.t", "http://h:8123/d.t"},
      {"https://h/d.t", "https://h:8443/d.t"},
      {"http://127.0.0.1:18123/_a1.B2", "http://127.0.0.1:18123/_a1.B2"},
      {"http://[::1]:9/d.t", "http://[::1]:9/d.t"},
  };
  for (const auto& [text, address] : good) {
    EXPECT_EQ(fleet::parseAddress(text).text(), address);
  }
  for (const auto* bad :
       {"http://h", "http://h/", "http://h/d", "http://h/d.", "http://h/.t", "http://h/d.t.u",
        "http://h/d.t?user=x", "http://h/d.t#", "http://h/1d.t", "http:///d.t", "http://h:0/d.t",
        "http://h:99999/d.t", "http://h h/d.t", "http://h\\/d.t", "http://h'/d.t", "ftp://h/d.t"}) {
    EXPECT_THROW(fleet::parseAddress(bad), host::Failure) << bad;
  }
  try {
    fleet::parseAddress("http://me:s3cret@h/d.t");
    FAIL();
  } catch (const host::Failure& failure) {
    EXPECT_THAT(failure.what(), AllOf(HasSubstr("RUNEFLOW_PASSWORD"), Not(HasSubstr("s3cret"))));
  }
}

TEST(Fleet, literalsArePrintableAscii) {
  EXPECT_EQ(fleet::sqlText("a b%_\""), R"('a b%_"')");
  EXPECT_EQ(fleet::sqlText("'\\\n\x7F\xC3\xA9"), R"('\x27\x5C\x0A\x7F\xC3\xA9')");
  EXPECT_EQ(fleet::sqlText(std::string_view("\0", 1)), R"('\x00')");
  EXPECT_EQ(fleet::sqlNumber(-9'223'372'036'854'775'807 - 1), "toInt64('-9223372036854775808')");
}

TEST(Fleet, compilesWhatUsersType) {
  const std::pair<const char*, const char*> table[] = {
      {"", "1"},
      {"ab", "(has(words, 'ab'))"},
      {"Disk", "(arrayExists(w -> startsWith(w, 'disk'), words))"},
      {"\xC3\x89t\xC3\xA9 ok",
       "(arrayExists(w -> startsWith(w, 'ete'), words) AND has(words, 'ok'))"},
      {"a-b",
       "((has(words, 'a') AND position(concat(' ', arrayStringConcat(words, ' '), ' '), ' a b') > "
       "0))"},
      {"a.", "(has(words, 'a'))"},
      {"=", "0"},
      {"NOT =", "1"},
      {"tag:Net", "source = 'Net'"},
      {"NOT tag:Net", "ifNull(`tag` != 'Net', 0)"},
      {"pid:7 level:warn", "(ifNull(`pid` = '7', 0) AND level >= 3)"},
      {"NOT (pid:7 OR level:warn)", "(ifNull(`pid` != '7', 0) AND level < 3)"},
      {"NOT (pid:7 level:warn)", "(ifNull(`pid` != '7', 0) OR level < 3)"},
      {"ctx.k:v", "arrayExists((k, v) -> k = 'k' AND v = 'v', ctx_keys, ctx_values)"},
      {"NOT ctx.k:v", "arrayExists((k, v) -> k = 'k' AND v != 'v', ctx_keys, ctx_values)"},
      {"capture:it's", "capture = 'it\\x27s'"},
      {"NOT kind:dlt", "kind != 'dlt'"},
  };
  for (const auto& [text, condition] : table) EXPECT_EQ(typed(text), condition) << text;
  EXPECT_EQ(typed("Ab", true), "(has(words, 'ab') AND position(message, 'Ab') > 0)");
}

TEST(Fleet, compilesWhatProgramsBuild) {
  const auto level = StoreColumn::level();
  const auto field = [](StoreColumn column, FieldOp op, std::optional<Bind> value) {
    return clause(QueryNode::field({column, op, std::move(value)}));
  };
  EXPECT_EQ(field(StoreColumn::slot(0), FieldOp::equals, Bind::text("")), "ifNull(`tag` = '', 0)");
  EXPECT_EQ(field(StoreColumn::slot(1), FieldOp::greaterOrEqual, Bind::int_(7)),
            "ifNull(`pid` >= '7', 0)");
  EXPECT_EQ(field(StoreColumn::slot(1), FieldOp::isNullOrEmpty, std::nullopt),
            "ifNull(`pid`, '') = ''");
  EXPECT_EQ(field(StoreColumn::slot(1), FieldOp::contains, Bind::text("A%")),
            "ifNull(position(lower(`pid`), 'a%') > 0, 0)");
  EXPECT_EQ(field(StoreColumn::message(), FieldOp::notPrefix, Bind::text("Ab")),
            "startsWith(lower(message), 'ab') != 1");
  EXPECT_EQ(field(StoreColumn::slot(7), FieldOp::notEquals, Bind::text("x")), "0");
  EXPECT_EQ(field(StoreColumn::slot(7), FieldOp::isNullOrEmpty, std::nullopt), "1");
  // An integer column compared with a text, as SQLite does it.
  EXPECT_EQ(field(level, FieldOp::equals, Bind::text(" 3 ")), "level = 3");
  EXPECT_EQ(field(level, FieldOp::greaterOrEqual, Bind::text("x")), "0");
  EXPECT_EQ(field(level, FieldOp::lessOrEqual, Bind::text("x")), "1");
  EXPECT_EQ(field(level, FieldOp::notEquals, Bind::text("x")), "1");
  EXPECT_EQ(clause(QueryNode::not_(QueryNode::fullText({"x", FullTextMode::regex("x")}))), "1");
  EXPECT_EQ(clause(QueryNode::fullText({" A 'b ", FullTextMode::substringScan()})),
            "position(lower(message), 'a \\x27b') > 0");
  EXPECT_EQ(clause(QueryNode::not_(QueryNode::context({"a\"b", "v"}))), "0");
  EXPECT_EQ(clause(QueryNode::or_({})), "1");
}

TEST(Fleet, judgesEachKindByItsFields) {
  EXPECT_EQ(fleet::conditionOf({.text = "level:warn"}, tokenizer()), "level >= 3");
  const auto condition = fleet::conditionOf({.text = "app:LOG"}, tokenizer());
  EXPECT_THAT(condition, HasSubstr("kind = 'dlt' AND source = 'LOG'"));
  EXPECT_THAT(condition, HasSubstr("kind = 'logcat' AND (("));  // the words "app" and "log"
  EXPECT_EQ(fleet::conditionOf({.text = "", .after = 5, .since = -1, .until = 7'200'000'000},
                               tokenizer()),
            "1 AND (intDiv(time, 3600000000) >= 0 AND time >= -1) AND (intDiv(time, 3600000000) <= "
            "2 AND time < 7200000000) AND seq > 5");
}

TEST(Fleet, noFieldHasTheNameOfAColumnOfTheTable) {
  for (const auto* own :
       {"capture", "generation", "seq", "time", "kind", "source", "message", "ctx_keys",
        "ctx_values", "words", "block", "block_end", "block_rows", "day", "shipped"}) {
    for (const auto& kind : host::LogKind::all()) {
      EXPECT_EQ(kind.descriptor().field(own), nullptr) << own;
    }
  }
}

// Reads the values of a row of logcat as one line.
std::string shown(fleet::RowBinaryReader& row) {
  std::vector<std::string> values;
  const auto add = [&](std::string_view value) { values.emplace_back(value); };
  const auto addNumbers = [&](auto... numbers) {
    (values.push_back(std::to_string(numbers)), ...);
  };
  add(row.text());
  addNumbers(row.uint32());
  add(row.text());
  addNumbers(row.int64());
  addNumbers(row.int64());
  addNumbers(row.uint32());
  addNumbers(row.int64());
  addNumbers(row.int64());
  addNumbers(row.uint8());
  add(row.text());
  for (int field = 0; field < 3; ++field) add(row.nullableText().value_or("-"));
  add(row.text());
  for (int list = 0; list < 3; ++list) add(fmt::format("[{}]", fmt::join(row.texts(), ",")));
  return fmt::format("{}", fmt::join(values, "|"));
}

TEST(Fleet, writesRowsWithTheExtentOfTheirBlock) {
  fleet::BlockBuilder builder({"it's", 2, SourceDescriptor::logcat()}, tokenizer());
  builder.add({9'007'199'254'740'993,
               test::row("\"a\\b\"\n Caf\xC3\xA9 \xFF", "Net", RuneflowLogLevel::Error,
                         LogRow::Context{{"k\"", "v\t"}, {"l", ""}})});
  const std::string many(130, 'x');
  builder.add({9'007'199'254'740'994, test::row(many)});
  std::string words = "w";
  for (int i = 1; i < 130; ++i) words += " w";  // a length of two bytes
  builder.add({9'007'199'254'740'996, test::row(words)});
  EXPECT_EQ(builder.count(), 3U);
  const auto block = builder.finish();
  EXPECT_EQ(std::tuple(block.generation, block.first, block.last, block.count),
            std::tuple(2U, 9'007'199'254'740'993, 9'007'199'254'740'996, 3U));
  fleet::RowBinaryReader reader(block.rows);
  const std::string origin = "it's|2|logcat|9007199254740993|9007199254740996|3|";
  // In the order of the table: records without a tag come first.
  EXPECT_EQ(shown(reader), origin + "9007199254740994|1700000000000000|2||-|-|-|" + many +
                               "|[]|[]|[" + many + "]");
  EXPECT_THAT(shown(reader),
              AllOf(HasSubstr("|9007199254740996|1700000000000000|2||-|"), HasSubstr("|[w,w,w,")));
  EXPECT_EQ(shown(reader),
            origin +
                "9007199254740993|1700000000000000|4|Net|Net|-|-|\"a\\b\"\n Caf\xC3\xA9 \xFF|"
                "[k\",l]|[v\t,]|[a,b,cafe]");
  EXPECT_TRUE(reader.rest().empty());
  EXPECT_FALSE(reader.isShort());
}

TEST(Fleet, readsRowsWhereverTheStreamIsCut) {
  using namespace std::string_literals;
  const auto bytes = "\x03"s + "abc" + "\x01"s + "\x00\x00"s + "\x02\x01x\x00"s +
                     std::string(8, '\xFF') + "\x00"s + "\x00\x00"s + "\x00\x01y"s + "\x00"s +
                     "\x05\x00\x00\x00\x00\x00\x00\x00"s;
  const auto read = [&](std::size_t cut) {
    std::string seen;
    fleet::RowBinaryStream stream([&](fleet::RowBinaryReader& reader) {
      const std::string text(reader.text());
      const auto absent = reader.nullableText();
      const auto present = reader.nullableText();
      const auto texts = reader.texts();
      const auto number = reader.int64();
      if (reader.isShort()) return;
      seen += text + (absent ? "+" : "-") + std::string(present.value_or("?")) + "/" +
              std::to_string(texts.size()) + "/" + std::to_string(number) + ";";
    });
    stream.append(std::string_view(bytes).substr(0, cut));
    stream.append(std::string_view(bytes).substr(cut));
    return stream.finish() ? seen : "incomplete";
  };
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    EXPECT_EQ(read(cut), "abc-/2/-1;+y/0/5;") << cut;
  }
}

TEST(Fleet, believesNoAnnouncedLength) {
  for (const auto& bytes :
       {std::string(12, '\xFF'), std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F", 9)}) {
    fleet::RowBinaryReader text(bytes);
    EXPECT_EQ(text.text(), "");
    EXPECT_TRUE(text.isShort());
    fleet::RowBinaryReader texts(bytes);
    EXPECT_LE(texts.texts().size(), 1U);
    EXPECT_TRUE(texts.isShort());
  }
}

}  // namespace
}  // namespace runeflow
