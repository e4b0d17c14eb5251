#include "json_line.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "terminal.h"

namespace cli {

std::string jsonLine(const nlohmann::ordered_json& value) {
  const auto text = value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::string line;
  line.reserve(text.size());
  // JSON allows these characters, but a terminal may take them for commands.
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (const auto control = c1ControlAt(text, i)) {
      line += fmt::format("\\u{:04x}", *control);
      ++i;
    } else if (text[i] == '\x7f') {
      line += "\\u007f";
    } else {
      line += text[i];
    }
  }
  return line;
}

}  // namespace cli
