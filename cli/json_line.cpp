// SPDX-License-Identifier: MIT
#include "json_line.h"

#include <nlohmann/json.hpp>

#include "host/terminal_text.h"

namespace cli {

std::string jsonLine(const nlohmann::ordered_json& value, bool isForTerminal) {
  using host::JsonReader;
  const auto text = value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  return host::terminalJson(text, isForTerminal ? JsonReader::terminal : JsonReader::program);
}

}  // namespace cli
