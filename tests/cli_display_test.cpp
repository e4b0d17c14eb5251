// SPDX-License-Identifier: MIT

// How the command looks: colours, columns, zones, several databases, the user's defaults, manual
// pages and completion.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "command_fixture.h"
#include "host/text_width.h"

namespace runeflow {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class Display : public test::CommandFixture {
 protected:
  void SetUp() override {
    write("a.log",
          "01-02 03:04:05.000  10  20 V Net: alpha\n"
          "01-02 03:04:07.000  10  20 D Net: beta disk\n"
          "01-02 03:04:09.000  10  20 I Wifi: gamma\n"
          "01-02 03:04:08.000  10  20 W Wifi: late disk\n"
          "01-02 03:04:11.000  10  20 F Net: delta\n");
    write("b.log",
          "01-02 03:04:06.000  30  40 E Bus: one disk\n"
          "01-02 03:04:07.000  30  40 I Bus: two\n"
          "01-02 03:04:12.000  30  40 I Bus: three\n");
    ASSERT_EQ(run("capture a.log --db a.db").exitCode, 0);
    ASSERT_EQ(run("capture b.log --db b.db").exitCode, 0);
  }
  void captureTagWithBlank() const {
    write("c.log",
          "01-02 03:04:05.000  10  20 I Wi Fi: one\n"
          "01-02 03:04:06.000  10  20 I Net: two\n");
    ASSERT_EQ(run("capture c.log --db c.db").exitCode, 0);
  }
  // On a terminal of that width.
  std::string shownAt(int columns, const std::string& arguments) const {
    return runLine(fmt::format("NO_COLOR=1 script -qec 'stty cols {}; {} {}' /dev/null </dev/null",
                               columns, RUNEFLOW_COMMAND, arguments))
        .output;
  }
};

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  for (; !text.empty(); text.remove_prefix(std::min(text.size(), lines.back().size() + 1))) {
    lines.emplace_back(text.substr(0, text.find('\n')));
  }
  return lines;
}

// The contrast of two colours by WCAG 2.1, from their sRGB values.
double luminance(int red, int green, int blue) {
  const auto linear = [](int value) {
    const double share = value / 255.0;
    return share <= 0.03928 ? share / 12.92 : std::pow((share + 0.055) / 1.055, 2.4);
  };
  return 0.2126 * linear(red) + 0.7152 * linear(green) + 0.0722 * linear(blue);
}

// Of an entry of the 256-colour palette that no terminal changes: the cube and the greys.
double luminance(int entry) {
  constexpr int kSteps[] = {0, 95, 135, 175, 215, 255};
  if (entry >= 232) return luminance(entry * 10 - 2312, entry * 10 - 2312, entry * 10 - 2312);
  const int cube = entry - 16;
  return luminance(kSteps[cube / 36], kSteps[cube / 6 % 6], kSteps[cube % 6]);
}

double contrast(double one, double other) {
  return (std::max(one, other) + 0.05) / (std::min(one, other) + 0.05);
}

TEST_F(Display, coloursCanBeReadOnLightAndDark) {
  const auto lines = run("query a.db disk OR NOT disk --color=always -C 1").output +
                     run("query a.db disk -A 1 --color always").output +
                     run("query a.db --timeline --color=always").output;
  const std::regex code("\x1b\\[([0-9;]*)m");
  int seen = 0;
  for (std::sregex_iterator it(lines.begin(), lines.end(), code), end; it != end; ++it, ++seen) {
    const auto text = (*it)[1].str();
    SCOPED_TRACE(text);
    std::smatch entry;
    const auto paletteEntry = [&](const char* form) {
      return std::regex_search(text, entry, std::regex(form)) ? luminance(std::stoi(entry[1])) : -1;
    };
    const auto foreground = paletteEntry("(?:^|;)38;5;([0-9]+)");
    const auto background = paletteEntry("(?:^|;)48;5;([0-9]+)");
    if (background >= 0) {
      EXPECT_GE(contrast(foreground, background), 4.5);
    } else if (foreground >= 0) {
      EXPECT_GE(contrast(foreground, 0), 4.5);
      EXPECT_GE(contrast(foreground, 1), 4.5);
    } else {
      EXPECT_EQ(text, "0");
    }
  }
  EXPECT_GT(seen, 30);
}

TEST_F(Display, coloursAndColumnsFollowTheTerminalOrTheOption) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const std::string escape = "\x1b[";
  EXPECT_THAT(shown("query a.db disk"), HasSubstr(escape));
  EXPECT_THAT(shown("query a.db disk --color=never"), Not(HasSubstr(escape)));
  EXPECT_THAT(runLine(fmt::format("TERM=dumb script -qec '{} query a.db disk' /dev/null </dev/null",
                                  RUNEFLOW_COMMAND))
                  .output,
              AllOf(HasSubstr("03:04:07.000 D Net "), Not(HasSubstr(escape))));
  EXPECT_THAT(run("query a.db disk").output, StartsWith("2\t2"));
  // For less -R: aligned and coloured, whatever NO_COLOR says.
  EXPECT_THAT(
      runLine(fmt::format("NO_COLOR=1 {} query a.db disk --color=always", RUNEFLOW_COMMAND)).output,
      AllOf(HasSubstr("times: UTC"), HasSubstr(escape), HasSubstr("Net  10  beta")));
  EXPECT_THAT(run("query a.db disk --color=sometimes").output,
              HasSubstr("--color is auto, always or never, not 'sometimes'"));
  // The pager gets the flag that it needs for colours beside the user's own.
  write("pager", "echo \"$LESS\"; cat >/dev/null");
  EXPECT_THAT(
      runLine(fmt::format("LESS=-i PAGER='sh pager' script -qec '{} query a.db disk --pager' "
                          "/dev/null </dev/null",
                          RUNEFLOW_COMMAND))
          .output,
      HasSubstr("-i -R"));
}

TEST_F(Display, zonesAreNamedOnceAndSeqsShownOnRequest) {
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  const auto shownIn = [this](const std::string& zone, const std::string& arguments) {
    return runLine(fmt::format("env TZ={} NO_COLOR=1 script -qec '{} {}' /dev/null </dev/null",
                               zone, RUNEFLOW_COMMAND, arguments))
        .output;
  };
  const auto local = shownIn("Asia/Tokyo", "query a.db disk");
  EXPECT_THAT(local,
              AllOf(StartsWith("times: Asia/Tokyo (UTC+9)\r\n"), HasSubstr(" 12:04:07.000 D")));
  EXPECT_EQ(local.find("Tokyo"), local.rfind("Tokyo"));
  EXPECT_THAT(
      shownIn("Asia/Tokyo", "query a.db disk --utc --seq"),
      AllOf(StartsWith("times: UTC\r\n2 "), HasSubstr("\r\n4 "), HasSubstr(" 03:04:07.000 D")));
  EXPECT_THAT(shownIn("Asia/Tokyo", "query a.db --utc --since 2026-01-02T03:04:10 --seq"),
              Not(HasSubstr("alpha")));
  EXPECT_THAT(shownIn("Asia/Tokyo", "info a.db"), HasSubstr("12:04:11.000 Asia/Tokyo (UTC+9)\r\n"));
  EXPECT_THAT(shownIn("Asia/Tokyo", "info a.db --utc"), HasSubstr("03:04:11.000 UTC\r\n"));
  EXPECT_THAT(shownIn("Asia/Tokyo", "query a.db --timeline"), StartsWith("times: Asia/Tokyo"));
}

TEST_F(Display, wideCharactersAndLongMessagesKeepTheirColumns) {
  const std::pair<const char*, std::size_t> widths[] = {
      {"plain", 5},
      {"\u78c1\u76d8", 4},
      {"\uff21", 2},
      {"e\u0301", 1},
      {"\U0001F600", 2},
      {"\ud55c", 2},
      {"\u1112\u1161\u11ab", 2},
      {"\u00e9\u00df", 2},
      {"\x1b[38;5;29mI\x1b[0m", 1},
  };
  for (const auto& [text, columns] : widths) EXPECT_EQ(host::columnsOf(text), columns) << text;
  EXPECT_EQ(host::fitted("\u78c1\u76d8\u5df2", 4), "\u78c1\u2026 ");
  EXPECT_EQ(host::fitted("e\u0301e\u0301e\u0301", 2), "e\u0301\u2026");
  const std::pair<std::string, std::string> wraps[] = {
      {"aaaa bbbb cccc dddd", "aaaa bbbb \n  cccc dddd"},
      {"aaaaaaaaaaaaaaaa", "aaaaaaaaaa\n  aaaaaa"},
      {"\u78c1\u76d8\u78c1\u76d8\u78c1\u76d8", "\u78c1\u76d8\u78c1\u76d8\u78c1\n  \u76d8"},
      {"aaa \x1b[1mbbbb bbbb\x1b[0m c", "aaa \x1b[1mbbbb \x1b[0m\n  \x1b[1mbbbb\x1b[0m c"},
  };
  for (const auto& [text, expected] : wraps) EXPECT_EQ(host::wrapped(text, 2, 2, 12), expected);
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  std::string log;
  for (const auto* tag : {"Net", "\u6d3b\u52a8\u7ba1\u7406\u5668", "\U0001F600App"}) {
    log +=
        fmt::format("01-02 03:04:05.000  10  20 I {}: {}\n", tag,
                    "begins and \u78c1\u76d8\u5df2\u6ee1 goes on for longer than a narrow terminal "
                    "has room for it, twice");
  }
  write("w.log", log);
  ASSERT_EQ(run("capture w.log --db w.db").exitCode, 0);
  for (const int columns : {80, 200}) {
    SCOPED_TRACE(columns);
    const auto lines = shownAt(columns, "query w.db");
    std::size_t messageColumn = 0;
    std::size_t count = 0;
    for (std::string_view rest = lines; !rest.empty(); ++count) {
      const auto line = rest.substr(0, rest.find("\r\n"));
      rest.remove_prefix(line.size() + 2);
      EXPECT_LE(host::columnsOf(line), static_cast<std::size_t>(columns)) << line;
      const auto at = line.find("begins");
      if (at != std::string_view::npos) {
        const auto begin = host::columnsOf(line.substr(0, at));
        EXPECT_TRUE(messageColumn == 0 || begin == messageColumn) << line;
        messageColumn = begin;
      } else if (count > 0) {
        EXPECT_EQ(line.find_first_not_of(' '), messageColumn) << line;
      }
    }
    EXPECT_GT(messageColumn, 30U);
    EXPECT_EQ(count > 4, columns == 80);
  }
}

TEST_F(Display, databasesAreMergedByTime) {
  const auto columns = [this](const std::string& arguments) {
    return runLine(fmt::format("{} query a.db --with b.db {} | cut -f1-2 | tr '\\t\\n' ' |'",
                               RUNEFLOW_COMMAND, arguments))
        .output;
  };
  const std::pair<const char*, const char*> table[] = {
      {"", "a.db 1|b.db 1|a.db 2|b.db 2|a.db 3|a.db 4|a.db 5|b.db 3|"},
      {"disk", "b.db 1|a.db 2|a.db 4|"},
      {"--first 3", "a.db 1|b.db 1|a.db 2|"},
      {"--last 3", "a.db 4|a.db 5|b.db 3|"},
      {"--last 3 --reverse", "b.db 3|a.db 5|a.db 4|"},
      {"--first 2 --reverse", "b.db 1|a.db 1|"},
      {"--regex ^t", "b.db 2|b.db 3|"},
      {"--with a.db disk", "b.db 1|a.db 2|a.db 2|a.db 4|a.db 4|"},
      {"--since end-4s", "a.db 3|a.db 4|a.db 5|b.db 3|"},
      {"--count", "8|"},
  };
  for (const auto& [arguments, expected] : table) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(columns(arguments), expected);
  }
  EXPECT_THAT(run("query a.db --with b.db --first 1 --json").output,
              StartsWith(R"({"database":"a.db","seq":1,"time":"2)"));
  EXPECT_THAT(run("query a.db --with b.db --csv --first 1").output,
              StartsWith("database,seq,time,level,tag,pid,tid,message\r\na.db,1,2"));
  EXPECT_THAT(run("query a.db --with b.db --timeline --bars 1").output, HasSubstr("\"records\":8"));
  EXPECT_EQ(run("query a.db --with b.db nowhere").exitCode, 1);
  EXPECT_THAT(run("query a.db --with b.db --follow").output,
              HasSubstr("--follow goes with one database, not with --with"));
  EXPECT_THAT(run("query a.db --with c.db").output, HasSubstr("c.db does not exist"));
  if (hasTerminals()) {
    EXPECT_THAT(shownWithoutColour("query a.db --with b.db --last 2"),
                AllOf(HasSubstr(" F a.db Net 10  delta"), HasSubstr(" I b.db Bus 30  three")));
  }
  EXPECT_EQ(run("values a.db tag level --limit 1").output, "tag\tNet\t3\nlevel\tDebug\t1\n");
  EXPECT_EQ(run("values a.db tag level --limit 1 --json").output,
            "{\"field\":\"tag\",\"value\":\"Net\",\"count\":3}\n"
            "{\"field\":\"level\",\"value\":\"Debug\",\"count\":1}\n");
}

TEST_F(Display, exportsMatchesIntoANewDatabase) {
  EXPECT_THAT(run("export a.db disk --db c.db").output, HasSubstr("2 records exported to c.db"));
  EXPECT_EQ(run("query c.db | cut -f2-").output, run("query a.db disk | cut -f2-").output);
  EXPECT_EQ(run("query c.db beta --count").output, "1\n");
  EXPECT_THAT(run("check c.db").exitCode, 0);
  EXPECT_THAT(run("export a.db disk --db c.db").output, HasSubstr("c.db exists; export writes"));
  EXPECT_EQ(run("export a.db nowhere --db d.db").exitCode, 1);
  EXPECT_FALSE(std::filesystem::exists(folder_.file("d.db")));
}

TEST_F(Display, takesTheUsersDefaultsAndSavedQueries) {
  std::filesystem::create_directories(folder_.file("config/runeflow"));
  const auto runWith = [this](const std::string& options, const std::string& arguments) {
    return runLine(fmt::format("XDG_CONFIG_HOME={} RUNEFLOW_OPTS={} {} {} 2>&1",
                               folder_.file("config"), options, RUNEFLOW_COMMAND, arguments))
        .output;
  };
  write("config/runeflow/config",
        "# mine\n\n--last 1\n--limit=1\n@net = tag:Net OR tag:Bus\n@bad @net level:fatal\n@loop "
        "@loop\n");
  const std::pair<std::pair<const char*, const char*>, const char*> table[] = {
      {{"''", "query a.db --count"}, "5\n"},  // --last does not go with --count
      {{"''", "query a.db | cut -f1"}, "5\n"},
      {{"--last=2", "query a.db | cut -f1"}, "4\n5\n"},
      {{"'\"--last\" \"2\"'", "query a.db | cut -f1"}, "4\n5\n"},
      {{"--last=2", "query a.db --last 3 | cut -f1"}, "3\n4\n5\n"},
      {{"--last=2", "query a.db --first 1 | cut -f1"}, "1\n"},
      {{"''", "values a.db tag"}, "Net\t3\n"},
      {{"''", "query a.db @net --first 9 | cut -f1"}, "1\n2\n5\n"},
      {{"''", "query a.db '(@net) disk' --first 9 | cut -f1"}, "2\n"},
      {{"''", "query a.db @bad --first 9 | cut -f1"}, "5\n"},
      {{"''", "values a.db level --matching @bad"}, "Fatal\t1\n"},
      {{"''", "query a.db '\"@net\"' --count"}, "0\n"},
      {{"''", "query a.db @loop"}, "runeflow: the saved query @loop contains itself\n"},
      {{"--lst=2", "query a.db"}, "runeflow: RUNEFLOW_OPTS: no command has the option --lst\n"},
      {{"2", "query a.db"},
       "runeflow: RUNEFLOW_OPTS holds '2', which is no option; write options such as --utc "
       "--last=50\n"},
  };
  for (const auto& [given, expected] : table) {
    SCOPED_TRACE(given.second);
    EXPECT_EQ(runWith(given.first, given.second), expected);
  }
  write("config/runeflow/config", "--utc\nlast 1\n");
  EXPECT_THAT(runWith("''", "query a.db"),
              HasSubstr("config:2: 'last 1' is neither an option such as --utc nor a saved query"));
}

TEST_F(Display, manualPagesTellWhatTheHelpTells) {
  std::filesystem::create_directory(folder_.file("man"));
  ASSERT_EQ(run("manual man").exitCode, 0);
  const auto commands =
      runLine(fmt::format("{} complete '' | tail -n +2 | cut -f1", RUNEFLOW_COMMAND)).output;
  EXPECT_THAT(commands, StartsWith("capture\nquery\nvalues\n"));
  for (const auto& name : linesOf(commands)) {
    SCOPED_TRACE(name);
    const auto page = runLine(fmt::format("cat man/runeflow-{}.1", name)).output;
    EXPECT_THAT(page,
                AllOf(StartsWith(".TH runeflow\\-" + name + " 1 "), HasSubstr("\n.SH OPTIONS\n")));
    const auto completed = run(fmt::format("complete -- {} -", name)).output;
    const auto options = linesOf(
        runLine(fmt::format("{} {} --help | sed -n 's/^  \\(-[^ ]*\\).*/\\1/p' | tr , '\\n'",
                            RUNEFLOW_COMMAND, name))
            .output);
    EXPECT_THAT(options, testing::Contains("--help"));
    for (const auto& option : options) {
      const auto inPage = std::regex_replace(option, std::regex("-"), "\\-");
      EXPECT_THAT(page, HasSubstr("\\fB" + inPage + "\\fR"));
      if (option.starts_with("--")) {
        EXPECT_THAT(completed, HasSubstr('\n' + option + '\t'));
      }
    }
  }
  const auto page = runLine("cat man/runeflow.1").output;
  EXPECT_THAT(page, AllOf(HasSubstr("RUNEFLOW_OPTS"), HasSubstr("runeflow\\-query")));
}

TEST_F(Display, completesCommandsOptionsFieldsAndValues) {
  captureTagWithBlank();
  const std::pair<const char*, const char*> table[] = {
      {"qu", "words query"},
      {"query --ti", "words --timeline"},
      {"query a.db --color ''", "words auto always never"},
      {"query a.db --color=a", "words --color=auto --color=always"},
      {"capture a.log --format ''", "words dlt logcat"},
      {"capture a", "files"},
      {"query ''", "files"},
      {"query a.db t", "words tag: tid:"},
      {"query a.db tag:", "words tag:Net tag:Wifi"},
      {"query a.db disk tag:W", "words tag:Wifi"},
      {"query c.db tag:", R"(words tag:Net tag:"Wi Fi")"},
      {"query c.db 'tag:\"W'", R"(words tag:"Wi Fi")"},
      {"query c.db tag:W", "words"},
      {"query a.db level:f", "words level:fatal"},
      {"query --last 1 a.db tag:N", "words tag:Net"},
      {"query missing.db tag:N", "words"},
      {"values a.db t", "words tag tid"},
      {"values a.db tag l", "words level"},
      {"values a.db tag --matching tag:N", "words tag:Net"},
      {"nonsense x", "words"},
  };
  for (const auto& [line, expected] : table) {
    SCOPED_TRACE(line);
    auto found =
        runLine(fmt::format("{} complete -- {} | cut -f1 | tr '\\n' ' '", RUNEFLOW_COMMAND, line))
            .output;
    EXPECT_EQ(found, std::string(expected) + ' ');
  }
}

TEST_F(Display, theShellsInsertWhatTheCommandCompletes) {
  captureTagWithBlank();
  // bash cuts the words at colons and equals signs, and takes an open quote as part of the word.
  const std::tuple<const char*, const char*, const char*> bash[] = {
      {"qu", "qu", "query"},
      {"query a.db tag:N", "query a.db tag : N", "Net"},
      {"query a.db tag:", "query a.db tag :", "Net Wifi"},
      {"query a.db --color=a", "query a.db --color = a", "auto always"},
      {"query a.db \\'disk tag:N", "query a.db \\'disk\\ tag:N", "disk tag:Net"},
      {"query a.d", "query a.d", "a.db"},
      {"query c.db tag:", "query c.db tag :", R"(Net \"Wi\ Fi\")"},
      {R"(query c.db \'tag:\"W)", R"(query c.db \'tag:\"W)", R"(tag:"Wi Fi")"},
      {R"(query c.db \"tag:)", R"(query c.db \"tag:)", R"(tag:Net tag:\"Wi Fi\")"},
      {R"(query c.db tag:\"W)", R"(query c.db tag : \"W)", ""},
  };
  for (const auto& [line, words, expected] : bash) {
    SCOPED_TRACE(line);
    const auto script = fmt::format(
        ". {0}/runeflow.bash; compopt() {{ :; }}; COMP_LINE=\"{1} \"{2}; "
        "COMP_POINT=${{#COMP_LINE}}; "
        "COMP_WORDS=({1} {3}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); _runeflow; "
        "echo \"${{COMPREPLY[*]}}\"",
        RUNEFLOW_COMPLETIONS, RUNEFLOW_COMMAND,
        std::regex_replace(std::string(line), std::regex(" "), "\\ "), words);
    write("script", script);
    EXPECT_EQ(runLine("bash script").output, std::string(expected) + '\n');
  }
  if (runLine("command -v fish && command -v zsh").exitCode != 0) {
    GTEST_SKIP() << "fish and zsh are not installed";
  }
  const auto path = std::filesystem::path(RUNEFLOW_COMMAND).parent_path().string() + ":$PATH";
  const std::pair<const char*, const char*> fish[] = {
      {"query c.db tag:N", "tag:Net\n"},
      {R"(query c.db 'two tag:\"W)", "two tag:\"Wi Fi\"\n"},
  };
  for (const auto& [line, expected] : fish) {
    SCOPED_TRACE(line);
    write("script", fmt::format("source {}/runeflow.fish; complete -C \"runeflow {}\"",
                                RUNEFLOW_COMPLETIONS, line));
    EXPECT_EQ(runLine(fmt::format("HOME=$PWD PATH={} fish --no-config script", path)).output,
              expected);
  }
  if (!hasTerminals()) GTEST_SKIP() << "there is no pseudo-terminal";
  // zsh completes only on a terminal. The keys after the tab close the quote, and print the words
  // to a file.
  const std::tuple<const char*, const char*, const char*> zsh[] = {
      {"query c.db tag:N", "", "query c.db tag:Net"},
      {"query c.db 'two tag:\"W", "'", "query c.db two tag:\"Wi Fi\""},
      {"query c.db tag:\\\"W", "", "query c.db tag:\"Wi Fi\""},
  };
  for (const auto& [line, after, expected] : zsh) {
    SCOPED_TRACE(line);
    write("keys",
          fmt::format("runeflow {}\t{}\001print -r >printed -- \nprint rea\"\"dy\n", line, after));
    write("script",
          fmt::format("zmodload zsh/zpty; zpty shell zsh -f -i\n"
                      "zpty -w shell 'bindkey -e; fpath=({} $fpath); autoload -Uz compinit; "
                      "compinit -u -D; print rea\"\"dy'\n"
                      "zpty -r shell shown '*ready*'\n"
                      "zpty -w -n shell \"$(<keys)\"$'\\n'\n"
                      "zpty -r shell shown '*ready*'\n",
                      RUNEFLOW_COMPLETIONS));
    EXPECT_EQ(runLine(fmt::format("PATH={} TERM=xterm timeout 20 zsh -f script; cat printed", path))
                  .output,
              std::string("runeflow ") + expected + '\n');
  }
}

}  // namespace
}  // namespace runeflow
