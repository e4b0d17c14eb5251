// SPDX-License-Identifier: MIT

// The user's own defaults: options from RUNEFLOW_OPTS and from a file, and saved queries.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

struct DefaultOption {
  std::string name;   // "--utc"
  std::string value;  // empty if there is none
  bool hasValue = false;
  std::string place;  // where it stands, for sentences
};

struct Defaults {
  std::vector<DefaultOption> options;          // those that count more come first
  std::map<std::string, std::string> queries;  // by their names, without the @
};

// Reads RUNEFLOW_OPTS, whose words are options and their values, in quotes if they hold blanks;
// then the file runeflow/config in XDG_CONFIG_HOME or ~/.config, where each line is an option, a
// saved query
// "@name = QUERY", empty, or a comment that begins with #. Fails if one of them reads differently
// or the file is larger than 64 KiB. A file that does not exist has no defaults.
Defaults readDefaults();

// Returns the line with every word @NAME that names a saved query replaced by that query in
// parentheses, also within saved queries. Other words and quoted text stay as they are. Fails if a
// saved query contains itself.
std::string withSavedQueries(std::string_view line, const Defaults& defaults);

}  // namespace cli
