// JSON for a line of output.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace cli {

// Returns the value as one line of JSON without control characters. Bytes that are not UTF-8 become
// U+FFFD.
std::string jsonLine(const nlohmann::ordered_json& value);

}  // namespace cli
