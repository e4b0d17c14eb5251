// JSON as the command prints it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace cli {

// On one line, without a control character in it; bytes that are not UTF-8 become U+FFFD.
std::string jsonLine(const nlohmann::ordered_json& value);

}  // namespace cli
