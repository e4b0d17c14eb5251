// SPDX-License-Identifier: MIT

// What hosts share: text for a terminal, records as lines, and following a database.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/byte_count.h"
#include "host/failure.h"
#include "host/new_records.h"
#include "host/overlap.h"
#include "host/record_text.h"
#include "host/target.h"
#include "host/terminal_text.h"
#include "runeflow/decoders/logcat_decoder.h"
#include "runeflow/store/event_store.h"
#include "support.h"

namespace runeflow {
namespace {

using namespace std::string_view_literals;
using host::JsonReader;
using test::at;

TEST(ByteCount, unitsAreBinaryAndSizesPositive) {
  const std::pair<const char*, std::int64_t> table[] = {
      {"1", 1},          {"4095", 4'095},       {"3K", 3'072},
      {"2M", 2'097'152}, {"5G", 5'368'709'120}, {"8589934591G", 9'223'372'035'781'033'984},
  };
  for (const auto& [text, bytes] : table) EXPECT_EQ(host::parseByteCount(text), bytes) << text;
  for (const auto* text : {"", "0", "-1", "K", "1k", "1KB", "1 K", "1.5M", "0x10", "1T",
                           "9223372036854775808", "8589934592G"}) {
    EXPECT_THROW(host::parseByteCount(text), host::Failure) << text;
  }
}

TEST(Target, namesAHostAndMayNameAPort) {
  const struct {
    const char* target;
    const char* host;
    int port;
  } table[] = {
      {"car", "car", 7},
      {"car:1", "car", 1},
      {"192.0.2.7:65535", "192.0.2.7", 65'535},
      {"::1", "::1", 7},
      {"fe80::1:2", "fe80::1:2", 7},
      {"[::1]", "::1", 7},
      {"[::1]:3490", "::1", 3'490},
  };
  for (const auto& [target, host, port] : table) {
    SCOPED_TRACE(target);
    const auto parsed = host::parseTarget(target, 7);
    EXPECT_EQ(parsed.host, host);
    EXPECT_EQ(parsed.port, port);
  }
  for (const auto* target : {"", ":1", "car:", "car:0", "car:65536", "car:-1", "car:1x", "car:x",
                             "[::1", "::1]", "[::1]1", "[::1];1", "[]:1"}) {
    EXPECT_THROW(host::parseTarget(target, 7), host::Failure) << target;
  }
}

TEST(Overlap, dropsWhatIsStoredOnceAndNothingElse) {
  const auto line = [](std::string_view time, std::string_view text) {
    return fmt::format("01-02 {}  1  2 I T: {}\n", time, text);
  };
  const auto decoded = [](RowDecoder& decoder, std::string_view text) {
    std::vector<std::string> messages;
    for (const auto& row : decoder.consume(test::bytes(text))) {
      messages.emplace_back(row.message());
    }
    return messages;
  };
  const auto now = [] { return test::at(1'700'000'000); };
  test::TemporaryFolder folder;
  auto store = *EventStore::open(folder.file("a.db"), true, SourceDescriptor::logcat());
  EXPECT_EQ(host::Overlap(store).startForLogcat(), std::nullopt);
  // The clock of the device is set back, and the newest line has no time of its own.
  const auto tail = line("03:00:05.000", "one") + "raw\n" + line("03:00:05.400", "two") +
                    line("03:00:05.400", "two") + "raw\n";
  LogcatDecoder first(now);
  store.insert(first.consume(
      test::bytes(line("09:00:00.000", "ahead") + line("03:00:04.300", "before") + tail)));
  const host::Overlap overlap(store);
  EXPECT_EQ(overlap.startForLogcat(), "01-02 03:00:04.400");
  const auto decoder = overlap.without(std::make_unique<LogcatDecoder>(now));
  EXPECT_THAT(decoded(*decoder, tail + line("03:00:05.400", "two") + line("03:00:05.400", "new")),
              testing::ElementsAre("two", "new"));
  EXPECT_THAT(decoded(*decoder, line("03:00:05.000", "one") + "raw\n"),
              testing::ElementsAre("one", "raw"));
  // Behind the overlap, nothing that reads like a stored line is dropped.
  auto again = overlap.without(std::make_unique<LogcatDecoder>(now));
  EXPECT_THAT(decoded(*again, line("10:00:00.000", "later") + "raw\n"),
              testing::ElementsAre("later", "raw"));
}

struct Row {
  const char* name;
  std::string_view text;
  std::string_view expected;
};

TEST(TerminalText, escapesWhatATerminalObeysAndNothingElse) {
  const Row table[] = {
      {"empty", "", ""},
      {"first and last printable ASCII", " ~", " ~"},
      {"C0 controls", "\x00\x01\x08\x1f"sv, R"(\x00\x01\x08\x1f)"},
      {"line feed, return, tab", "a\nb\r\tc", R"(a\nb\r\tc)"},
      {"sequence", "\x1b[31mred", "\\x1b[31mred"},
      {"DEL", "\x7f", "\\x7f"},
      {"C1, first and last", "\u0080\u009f", "\\u0080\\u009f"},
      {"character after C1", "\u00a0", "\u00a0"},
      {"soft hyphen and its neighbours", "\u00ac\u00ad\u00ae", "\u00ac\\u00ad\u00ae"},
      {"Arabic format characters", "\u0600\u061c", "\\u0600\\u061c"},
      {"zero-width space, joiners, marks", "\u200b\u200c\u200d\u200e\u200f",
       "\\u200b\u200c\u200d\\u200e\\u200f"},
      {"separators and overrides", "\u2027\u2028\u2029\u202a\u202e\u202f",
       "\u2027\\u2028\\u2029\\u202a\\u202e\u202f"},
      {"isolates", "\u2066\u2069", "\\u2066\\u2069"},
      {"byte order mark", "\ufeff", "\\ufeff"},
      {"tags and variation selector", "\U000e0001\U000e007f\U000e0100",
       "\\U000e0001\\U000e007f\U000e0100"},
      {"emoji sequence", "\U0001f469\u200d\U0001f680", "\U0001f469\u200d\U0001f680"},
      {"last code points, unassigned", "\uffff\U0010ffff", "\uffff\U0010ffff"},
      {"C1 as single bytes", "\x9b\x31m \x80\x9f", R"(\x9b1m \x80\x9f)"},
      {"overlong escape", "\xc0\x9b", "\\xc0\\x9b"},
      {"surrogate", "\xed\xa0\x80", R"(\xed\xa0\x80)"},
      {"beyond Unicode", "\xf4\x90\x80\x80", R"(\xf4\x90\x80\x80)"},
      {"cut off at the end", "a\xe2\x80", R"(a\xe2\x80)"},
      {"cut off before ASCII", "\xe2\x80\x1b[m", R"(\xe2\x80\x1b[m)"},
      {"cut off before a character", "\xf0\x9f\u00e9\xff", "\\xf0\\x9f\u00e9\\xff"},
      {"mixed", "caf\u00e9\xe9\u202e\n", "caf\u00e9\\xe9\\u202e\\n"},
      {"backslashes", "C:\\x1b\\", "C:\\x1b\\"},
  };
  for (const auto& [name, text, expected] : table) {
    SCOPED_TRACE(name);
    EXPECT_EQ(host::terminalText(text), expected);
    EXPECT_EQ(host::terminalText(expected), expected);
  }
}

TEST(TerminalText, aFieldTellsEscapesFromTheirSpelling) {
  EXPECT_EQ(host::terminalField("a\x1b\u202e\x9b\tb"), "a\\x1b\\u202e\\x9b\\tb");
  EXPECT_EQ(host::terminalField("a\\x1b\\u202e\\"), "a\\\\x1b\\\\u202e\\\\");
}

TEST(TerminalText, jsonStaysJson) {
  struct {
    const char* name;
    std::string_view json;
    std::string_view onTerminal;
    std::string_view toProgram;
  } const table[] = {
      {"escapes stay", R"("\u001b\\\n")", R"("\u001b\\\n")", R"("\u001b\\\n")"},
      {"controls", "\"\x7f\u009b\"", R"("\u007f\u009b")", R"("\u007f\u009b")"},
      {"format characters", "\"\u202e\u2028\u200d\"", "\"\\u202e\\u2028\u200d\"",
       "\"\u202e\u2028\u200d\""},
      {"beyond the BMP", "\"\U0001bca0\U000e0001\U0001f469\"",
       "\"\\ud82f\\udca0\\udb40\\udc01\U0001f469\"", "\"\U0001bca0\U000e0001\U0001f469\""},
      {"not UTF-8", "\"\x9b\"", "\"\ufffd\"", "\"\ufffd\""},
  };
  for (const auto& [name, json, onTerminal, toProgram] : table) {
    SCOPED_TRACE(name);
    EXPECT_EQ(host::terminalJson(json, JsonReader::terminal), onTerminal);
    EXPECT_EQ(host::terminalJson(json, JsonReader::program), toProgram);
  }
}

TEST(RecordText, aLineForProgramsHasEverySlotAndNoOtherTab) {
  const LogRow row(at(1'700'000'000.25), RuneflowLogLevel::Warning, "a\tb\\", std::nullopt, "Tag\n",
                   std::nullopt, "7", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                   std::nullopt);
  EXPECT_EQ(host::plainLine({12, row}, SourceDescriptor::logcat()),
            "12\t2023-11-14T22:13:20.250000Z\tWarning\tTag\\n\t\t7\ta\\tb\\\\");
}

TEST(NewRecords, tellsAddedRecordsFromANewNumbering) {
  using Change = host::NewRecords::Change;
  test::TemporaryFolder folder;
  const auto path = folder.file("a.db");
  auto writer = *EventStore::open(path, true, SourceDescriptor::logcat());
  auto reader = *EventStore::openForReading(path, SourceDescriptor::logcat());
  host::NewRecords news;
  const struct {
    const char* name;
    std::function<void()> act;
    Change change;
    std::int64_t newest;
  } steps[] = {
      {"empty", [] {}, Change::none, 0},
      {"first records", [&] { writer.insert(test::rows("a", 3)); }, Change::added, 3},
      {"nothing new", [] {}, Change::none, 3},
      {"more", [&] { writer.insert(test::rows("b", 2)); }, Change::added, 5},
      {"the newest one known is trimmed",
       [&] {
         writer.insert(test::rows("c", 2));
         writer.trimOldest(1, 6);
       },
       Change::added, 7},
      {"cleared", [&] { writer.clear(); }, Change::renumbered, 0},
      {"filled again", [&] { writer.insert(test::rows("d", 2)); }, Change::added, 2},
      {"cleared and fewer",
       [&] {
         writer.clear();
         writer.insert(test::rows("e", 1));
       },
       Change::renumbered, 1},
      {"cleared and as many",
       [&] {
         writer.clear();
         writer.insert(test::rows("f", 1));
       },
       Change::renumbered, 1},
      {"cleared and more",
       [&] {
         writer.clear();
         writer.insert(test::rows("g", 9));
       },
       Change::renumbered, 9},
  };
  for (const auto& [name, act, change, newest] : steps) {
    SCOPED_TRACE(name);
    act();
    EXPECT_EQ(news.look(reader), change);
    EXPECT_EQ(news.newest(), newest);
  }
  test::sql(path, "DROP TABLE events");
  EXPECT_FALSE(news.look(reader).has_value());
  EXPECT_EQ(news.newest(), 9);
}

}  // namespace
}  // namespace runeflow
