// SPDX-License-Identifier: MIT

// What the command offers, as its help says it: the source of the manual pages and of completion.
#pragma once

#include <string>
#include <vector>

namespace cli {

struct OptionDescription {
  std::vector<std::string> names;  // with dashes; for an argument its name in capitals
  std::string type;                // of the value, "TIME"; empty for a flag
  std::string text;
  std::string usual;  // the value if the option is not given; may be empty
  bool isArgument = false;
  bool isRequired = false;
  bool isRepeatable = false;
};

struct CommandDescription {
  std::string name;  // empty for the program
  std::string text;
  std::string footer;
  std::vector<OptionDescription> options;
};

// The program, and then its subcommands.
using ProgramDescription = std::vector<CommandDescription>;

}  // namespace cli
