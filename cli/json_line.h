// SPDX-License-Identifier: MIT

// JSON for a line of output.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace cli {

// Returns the value as one line of JSON without control characters; for a terminal, without
// invisible format characters, too. Bytes that are not UTF-8 become U+FFFD.
std::string jsonLine(const nlohmann::ordered_json& value, bool isForTerminal);

}  // namespace cli
