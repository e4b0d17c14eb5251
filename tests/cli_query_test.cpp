// SPDX-License-Identifier: MIT

// What `runeflow query` selects, how it prints that, and what it refuses.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>

#include "command_fixture.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class QueryCommand : public test::CommandFixture {
 protected:
  // Ten records, one a second from 2026-03-17T14:05:01Z on. The clock of the sixth is an hour slow.
  void SetUp() override {
    write("a.log",
          "01-02 03:04:05.678  1  2 I Net: start\n"
          "01-02 03:04:05.678  1  2 W Net: disk full\n"
          "01-02 03:04:05.678  1  2 E App: java.lang.NullPointerException: at Foo\n"
          "01-02 03:04:05.678  1  2 I Net: disk ok 12ms\n"
          "01-02 03:04:05.678  1  2 I Net: noise five\n"
          "01-02 03:04:05.678  1  2 I Net: noise six\n"
          "01-02 03:04:05.678  1  2 E App: OutOfMemoryException 7ms\n"
          "01-02 03:04:05.678  1  2 I Net: noise eight\n"
          "01-02 03:04:05.678  1  2 I Net: Gr\u00f6\u00dfe 100%\n"
          "01-02 03:04:05.678  1  2 F App: disk_gone 5ms\n");
    ASSERT_EQ(run("capture a.log --db a.db").exitCode, 0);
    test::sql(folder_.file("a.db"),
              "UPDATE events SET ts = 1773756300000000 + seq * 1000000 - "
              "(seq = 6) * 3600000000");
  }
  // The first `columns` columns of each line, and "|" behind each line.
  std::string columns(const std::string& arguments, int columns) const {
    return runLine(fmt::format("{} query a.db {} | cut -f1-{} | tr '\\t\\n' ' |'", RUNEFLOW_COMMAND,
                               arguments, columns))
        .output;
  }
};

TEST_F(QueryCommand, selectsTheRecordsThatItsOptionsName) {
  const std::pair<const char*, const char*> table[] = {
      {"disk", "2|4|10|"},
      {"disk --last 2", "4|10|"},
      {"disk --first 2", "2|4|"},
      {"disk --first 9", "2|4|10|"},
      {"disk --reverse", "10|4|2|"},
      {"disk --last 2 --reverse", "10|4|"},
      {"disk --first 2 --reverse", "4|2|"},
      {"disk --after 2", "4|10|"},
      {"disk --after 2 --reverse", "10|4|"},
      {"disk --after 4 --last 5", "10|"},
      {"disk --after 9223372036854775807", ""},
      {"--since 2026-03-17T14:05:07Z", "7|8|9|10|"},
      {"--until 2026-03-17T14:05:03Z", "1|2|6|"},
      {"--since 2026-03-17T14:05:02 --until '2026-03-17 14:05:04'", "2|3|"},
      {"--since end-2s", "8|9|10|"},
      {"--since end-2s --until end", "8|9|10|"},
      {"--until end-8500ms", "1|6|"},
      {"disk --since end-6s", "4|10|"},
      {"disk OR noise --since end-1s", "10|"},
      {"--since now", ""},
      {"--contains exception", "3|7|"},
      {"--contains ISK", "2|4|10|"},
      {"--contains 0%", "9|"},
      {"--contains GR\u00d6", ""},
      {"level:error --contains ms", "7|10|"},
      {"--contains '' --last 1", "10|"},
      {"--regex '[0-9]+ms'", "4|7|10|"},
      {"--regex exception", ""},
      {"--regex '(?i)exception' --after 3", "7|"},
      {"disk --regex 'ms$' --last 1", "10|"},
      {"--regex ms --first 1", "4|"},
      {"--regex ms --reverse --last 2", "10|7|"},
      {"--regex ms --contains MEMORY --since 2026-03-17T14:05:05Z", "7|"},
      {"tag:Net --regex . --last 3 --reverse", "9|8|6|"},
  };
  for (const auto& [arguments, expected] : table) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(columns(arguments, 1), expected);
    const auto lines = std::ranges::count(std::string_view(expected), '|');
    EXPECT_EQ(run(fmt::format("query a.db {}", arguments)).exitCode, lines > 0 ? 0 : 1);
  }
}

TEST_F(QueryCommand, countsWithEveryCondition) {
  const std::pair<const char*, const char*> table[] = {
      {"disk --after 2", "2\n"},
      {"disk --after 10", "0\n"},
      {"--contains exception --since end-5s", "1\n"},
      {"--regex ms", "3\n"},
      {"disk --regex ms --after 4", "1\n"},
      {"--regex nowhere", "0\n"},
  };
  for (const auto& [arguments, expected] : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(fmt::format("query a.db {} --count", arguments), "");
    EXPECT_EQ(output, expected);
    EXPECT_EQ(exitCode, output == "0\n" ? 1 : 0);
  }
}

TEST_F(QueryCommand, readsTimesByTheLocalClock) {
  // The clock goes from 03:00 back to 02:00 at 01:00Z.
  test::sql(folder_.file("a.db"), "UPDATE events SET ts = 1792886400000000 + seq * 600000000");
  const std::string zone = "TZ=CET-1CEST,M3.5.0,M10.5.0/3 ";
  const auto count = [&](const std::string& arguments) {
    return runLine(fmt::format("{} {} query a.db --count {}", zone, RUNEFLOW_COMMAND, arguments))
        .output;
  };
  EXPECT_EQ(count("--since 2026-10-25T02:00"), "10\n");
  EXPECT_EQ(count("--since 2026-10-25T02:30"), "8\n");
  EXPECT_EQ(count("--since 2026-10-25T02:30+01:00"), "2\n");
  EXPECT_EQ(count("--until 2026-10-25T03:00"), "10\n");
}

TEST_F(QueryCommand, printsContextAsGrepDoes) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const std::pair<const char*, const char*> table[] = {
      {"--contains exception -C 1", "- 2|> 3|- 4|--|- 6|> 7|- 8|"},
      {"--contains exception -A 2", "> 3|- 4|- 5|--|> 7|- 8|- 9|"},
      {"--contains exception -A 3", "> 3|- 4|- 5|- 6|> 7|- 8|- 9|- 10|"},
      {"--contains exception -B 5", "- 1|- 2|> 3|- 4|- 5|- 6|> 7|"},
      {"--regex ms -B 1", "- 3|> 4|--|- 6|> 7|--|- 9|> 10|"},
      {"disk -C 1 --last 2", "- 3|> 4|- 5|--|- 9|> 10|"},
      {"disk -C 1 -A 0 --first 1", "- 1|> 2|"},
      {"start -C 9223372036854775807 --until end-8s", "> 1|- 2|- 3|- 4|- 5|- 6|- 7|- 8|- 9|- 10|"},
      {"disk -C 0 --last 1", "10 2026-03-17T14:05:10.000000Z|"},
  };
  for (const auto& [arguments, expected] : table) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(columns(arguments, 2), expected);
  }
  const auto json = run("query a.db start -A 1 --json", "").output;
  EXPECT_THAT(json, StartsWith(R"({"seq":1,"match":true,"time":)"));
  EXPECT_THAT(json, HasSubstr("\n"
                              R"({"seq":2,"match":false,"time":)"));
  const auto csv = run("query a.db disk -B 1 --csv", "").output;
  EXPECT_THAT(csv, StartsWith("seq,match,time,level,tag"));
  EXPECT_THAT(csv,
              AllOf(HasSubstr("\n3,false,2026"), HasSubstr("\n4,true,2026"), Not(HasSubstr("--"))));
  EXPECT_THAT(shownWithoutColour("query a.db full -A 1"),
              AllOf(StartsWith("times: UTC\r\n> 2026-03-17 14:05:02.000 W Net 1  disk full\r\n"
                               "  2026-03-17 14:05:03.000 E App 1  java.lang")));
}

TEST_F(QueryCommand, followsWithContextAndConditions) {
  const auto pid = runLine(
      fmt::format("{} query a.db --regex 'ms$' --contains e -A 2 --last 1 --follow >seen & echo $!",
                  RUNEFLOW_COMMAND));
  const auto seen = [this](const std::string& lines) {
    std::string output;
    for (int left = 500; left > 0 && output != lines; --left, ::usleep(10'000)) {
      output = runLine("cut -f1,2 seen | tr '\\t\\n' ' |'").output;
    }
    return output;
  };
  // The context of 10 is not stored yet.
  EXPECT_EQ(seen("> 10|"), "> 10|");
  const auto capture = [this](std::string_view lines) {
    write("b.log", lines);
    EXPECT_EQ(run("capture b.log --db a.db").exitCode, 0);
  };
  capture("01-02 03:04:05.678  1  2 I Net: one\n");
  EXPECT_EQ(seen("> 10|- 11|"), "> 10|- 11|");
  capture(
      "01-02 03:04:05.678  1  2 I Net: two\n01-02 03:04:05.678  1  2 I Net: three\n"
      "01-02 03:04:05.678  1  2 I Net: fourteen ms\n01-02 03:04:05.678  1  2 I Net: 15 ms more\n");
  const std::string all = "> 10|- 11|- 12|--|> 14|- 15|";
  EXPECT_EQ(seen(all), all);
  EXPECT_EQ(::kill(std::stoi(pid.output), SIGINT), 0);
}

TEST_F(QueryCommand, marksWhatTheIndexFinds) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const auto mark = [](std::string_view text) {
    return fmt::format("\x1b[1;38;5;16;48;5;222m{}\x1b[0m", text);
  };
  const std::tuple<const char*, std::string, const char*> table[] = {
      {"GROSSE OR gro\u00df", mark("Gr\u00f6\u00dfe") + " 100%", "accent"},
      {"disk.gone", mark("disk_gone") + " 5ms", "phrase"},
      {"--contains ISK_g", "d" + mark("isk_g") + "one 5ms", "contains"},
      {"gone --regex [0-9]ms", "disk_" + mark("gone") + " " + mark("5ms"), "regex"},
      {"NOT nothing --last 1", "disk_gone 5ms", "negated"},
  };
  for (const auto& [arguments, expected, name] : table) {
    SCOPED_TRACE(name);
    EXPECT_THAT(shown(fmt::format("query a.db {}", arguments)),
                HasSubstr("  " + expected + "\r\n"));
  }
}

TEST_F(QueryCommand, saysWhatMayHaveBeenMeantByAWordThatIsNotThere) {
  const std::string found =
      "no message has a word that begins with 'Exception', but some have "
      "these letters within a word, as in 'OutOfMemoryException'; --contains "
      "Exception finds them\n";
  const std::pair<const char*, std::string> table[] = {
      {"Exception", "runeflow: " + found},
      {"Exception --count", "0\nruneflow: " + found},
      {"level:fatal disk Exception", "runeflow: " + found},
      {"isk",
       "runeflow: no message has a word that begins with 'isk', but some have these letters "
       "within a word, as in 'disk_gone'; --contains isk finds them\n"},
      {"sk",
       "runeflow: no message has a word that is 'sk', but some have these letters within a "
       "word, as in 'disk_gone'; --contains sk finds them\n"},
      {"\"rt'x\"", ""},
      {"nowhere", ""},
      {"tag:Exception", ""},
      {"Exception --reverse", "runeflow: " + found},
      {"full gone", ""},
      {"NOT Exception --first 1 | cut -f1", "1\n"},
  };
  for (const auto& [arguments, expected] : table) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(run(fmt::format("query a.db {}", arguments)).output, expected);
  }
}

TEST_F(QueryCommand, refusesWhatContradictsItselfWithOneSentence) {
  const std::pair<const char*, const char*> table[] = {
      {"--regex 'a('", "'a(' is not a regular expression: missing ): a("},
      {"--since 25:00", "'25:00' is not a time: no clock"},
      {"--until 15m", "'15m' is not a time; write 2026-"},
      {"--since 2026-03-17 --until 2026-03-17", "--since 2026-03-17 is not before --until"},
      {"--contains $(head -c 49999 /dev/zero | tr '\\0' x)", "at most 49998 bytes"},
      {"--last 1 --first 1", "excludes"},
      {"--reverse --follow", "excludes"},
      {"--reverse -A 1", "excludes"},
      {"--pager --follow", "excludes"},
      {"--count --json", "excludes"},
      {"--count -C 1", "excludes"},
      {"--timeline --csv", "excludes"},
      {"--timeline --after 1", "excludes"},
      {"--plan --timeline", "excludes"},
      {"--bars 3", "--bars requires --timeline"},
      {"--timeline --bars 0", "--bars"},
      {"-A -1", "'-1' is not a whole number of 0 or more"},
      {"-B", "--before-context"},
  };
  for (const auto& [arguments, names] : table) {
    SCOPED_TRACE(arguments);
    const auto [exitCode, output] = run(fmt::format("query a.db disk {}", arguments));
    EXPECT_EQ(exitCode, 2);
    EXPECT_THAT(output, AllOf(StartsWith("runeflow: "), HasSubstr(names), EndsWith("\n")));
    EXPECT_EQ(std::ranges::count(output, '\n'), 1) << output;
  }
}

TEST_F(QueryCommand, timelineDividesTimeIntoRoundBars) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const auto bars = [this](const std::string& arguments) {
    const auto lines = run(fmt::format("query a.db --timeline {}", arguments), "").output;
    return std::regex_replace(lines,
                              std::regex(R"(\{"from":"([^"]*)\.000000Z","until":"[^"]*",)"
                                         R"("records":(\d+),[^\n]*\n)"),
                              "$1=$2 ");
  };
  EXPECT_EQ(bars("--since 2026-03-17T14:05Z --bars 3"),
            "2026-03-17T14:05:00=4 2026-03-17T14:05:05=4 2026-03-17T14:05:10=1 ");
  EXPECT_EQ(bars("--bars 2"), "2026-03-17T13:00:00=1 2026-03-17T14:00:00=9 ");
  for (const auto* query : {"--regex ms", "--contains ms", "12ms OR 7ms OR 5ms"}) {
    EXPECT_EQ(bars(fmt::format("{} --since end-9s --bars 3", query)),
              "2026-03-17T14:05:00=1 2026-03-17T14:05:05=1 2026-03-17T14:05:10=1 ");
  }
  EXPECT_EQ(
      run("query a.db --timeline --bars 1 level:error", "").output,
      R"({"from":"2026-03-17T12:00:00.000000Z","until":"2026-03-17T15:00:00.000000Z",)"
      R"("records":3,"levels":{"Trace":0,"Debug":0,"Info":0,"Warning":0,"Error":2,"Fatal":1}})"
      "\n");
  EXPECT_EQ(run("query a.db --timeline --since now").exitCode, 1);
  const auto chart = shown("query a.db --timeline --since end-9s");
  EXPECT_THAT(chart, AllOf(HasSubstr("        1 ┤"), HasSubstr("\x1b[38;5;131m█\x1b[0m"),
                           HasSubstr("\x1b[38;5;98m█\x1b[0m"), HasSubstr("14:05:05"),
                           HasSubstr("\r\n         2026-03-17 14:05:01.000 to 2026-03-17 "
                                     "14:05:10.200, 200 ms a column\r\n")));
}

TEST_F(QueryCommand, infoTellsTheTimesOfAllRecords) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  EXPECT_THAT(run("info a.db").output,
              HasSubstr("  time        2026-03-17 13:05:06.000 to 2026-03-17 14:05:10.000 UTC\n"));
  EXPECT_THAT(
      run("info a.db --json").output,
      HasSubstr(R"("firstTime":"2026-03-17T13:05:06.000000Z","lastTime":)"
                R"("2026-03-17T14:05:10.000000Z","levels":{"Trace":0,"Debug":0,"Info":6,)"));
  EXPECT_THAT(shownWithoutColour("info a.db"), AllOf(HasSubstr("┤"), HasSubstr("13:15")));
}

}  // namespace
}  // namespace runeflow
