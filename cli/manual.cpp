// SPDX-License-Identifier: MIT
#include "manual.h"

#include <fmt/format.h>

#include <fstream>
#include <string_view>
#include <utility>

#include "host/failure.h"

namespace cli {
namespace {

constexpr std::pair<const char*, const char*> kExamples[] = {
    {"runeflow capture phone.log --db a.db", "Stores the records of a logcat file."},
    {"runeflow query a.db 'level:warn \"disk full\" NOT tag:chatty' --last 20",
     "Prints the newest 20 of the matches."},
    {"runeflow values a.db tag --matching level:error",
     "Prints the most frequent tags of the errors."},
};

// Returns the text as troff prints it: hyphens as they are typed, no escape sequences, and no line
// that begins with a request.
std::string escaped(std::string_view text) {
  std::string line;
  for (const char c : text) {
    const bool isAtStart = line.empty() || line.back() == '\n';
    if (isAtStart && (c == '.' || c == '\'')) line += "\\&";
    switch (c) {
      case '\\':
        line += "\\e";
        break;
      case '-':
        line += "\\-";
        break;
      case '\'':
        line += "\\(aq";
        break;
      default:
        line += c;
    }
  }
  return line;
}

std::string pageName(const CommandDescription& command) {
  return command.name.empty() ? "runeflow" : "runeflow-" + command.name;
}

std::string synopsis(const CommandDescription& command) {
  std::string text = "runeflow";
  if (command.name.empty()) return text + " COMMAND …";
  text += ' ' + command.name;
  for (const auto& option : command.options) {
    if (!option.isArgument) continue;
    const auto name = option.names.front() + (option.isRepeatable ? " …" : "");
    text += option.isRequired ? ' ' + name : fmt::format(" [{}]", name);
  }
  for (const auto& option : command.options) {
    if (!option.isArgument && option.isRequired) {
      text += fmt::format(" {} {}", option.names.back(), option.type);
    }
  }
  return text + " [OPTION …]";
}

std::string optionText(const OptionDescription& option) {
  std::string names;
  for (const auto& name : option.names) {
    names += fmt::format("{}\\fB{}\\fR", names.empty() ? "" : ", ", escaped(name));
  }
  if (!option.type.empty()) names += fmt::format(" \\fI{}\\fR", escaped(option.type));
  auto text = option.text;
  if (!option.usual.empty()) text += fmt::format(" (default: {})", option.usual);
  return fmt::format(".TP\n{}\n{}.\n", names, escaped(text));
}

std::string optionSection(const CommandDescription& command, bool areArguments) {
  std::string text;
  for (const auto& option : command.options) {
    if (option.isArgument == areArguments) text += optionText(option);
  }
  if (text.empty()) return {};
  return fmt::format(".SH {}\n{}", areArguments ? "ARGUMENTS" : "OPTIONS", text);
}

std::string pageOf(const CommandDescription& command, const ProgramDescription& program) {
  const auto name = pageName(command);
  auto page = fmt::format(".TH {} 1 \"\" \"runeflow {}\" \"User Commands\"\n", escaped(name),
                          RUNEFLOW_VERSION);
  page += fmt::format(".SH NAME\n{} \\- {}\n", escaped(name), escaped(command.text));
  page += fmt::format(".SH SYNOPSIS\n.B {}\n", escaped(synopsis(command)));
  if (!command.footer.empty()) {
    page += fmt::format(".SH DESCRIPTION\n{}\n", escaped(command.footer));
  }
  const bool isProgram = command.name.empty();
  if (isProgram) {
    page += ".SH COMMANDS\n";
    for (const auto& other : program) {
      if (other.name.empty()) continue;
      page +=
          fmt::format(".TP\n\\fB{}\\fR(1)\n{}.\n", escaped(pageName(other)), escaped(other.text));
    }
  }
  page += optionSection(command, true) + optionSection(command, false);
  page +=
      ".SH EXIT STATUS\n0 if done, 1 if nothing matched, 2 for a usage or input error. A sentence "
      "on standard error explains the error.\n";
  if (isProgram) {
    page +=
        ".SH ENVIRONMENT\n.TP\n.B RUNEFLOW_OPTS\nOptions that every command takes if it has "
        "them, before those of the file.\n.TP\n.B NO_COLOR\nIf it is not empty, no colours.\n.TP\n"
        ".B PAGER\nThe pager of \\-\\-pager.\n";
    page +=
        ".SH FILES\n.TP\n.I $XDG_CONFIG_HOME/runeflow/config\nOne option a line, such as "
        "\\-\\-utc, and saved queries, @name = QUERY, which \\fB@name\\fR stands for in a query.\n";
    page += ".SH EXAMPLES\n";
    for (const auto& [line, text] : kExamples) {
      page += fmt::format(".TP\n.B {}\n{}\n", escaped(line), escaped(text));
    }
  }
  page += ".SH SEE ALSO\n";
  std::string others;
  for (const auto& other : program) {
    if (pageName(other) == name) continue;
    others += fmt::format("{}\\fB{}\\fR(1)", others.empty() ? "" : ", ", escaped(pageName(other)));
  }
  return page + others + '\n';
}

}  // namespace

void writeManual(const ProgramDescription& program, const std::string& folder) {
  for (const auto& command : program) {
    const auto path = fmt::format("{}/{}.1", folder, pageName(command));
    std::ofstream file(path, std::ios::binary);
    file << pageOf(command, program);
    file.close();
    if (!file) host::fail("cannot write {}; does its folder exist?", path);
  }
}

}  // namespace cli
