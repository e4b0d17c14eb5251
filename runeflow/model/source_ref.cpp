// SPDX-License-Identifier: MIT
#include "runeflow/model/source_ref.h"

#include <type_traits>

#include "runeflow/platform/host_p.h"
#include "runeflow/platform/unicode_p.h"

namespace runeflow {

SourceRef SourceRef::thisMac() {
  return {
      .kind = Kind::mac,
      .id = "mac",
      .name = hostName().value_or("This Mac"),
      .osVersion = "macOS " + versionText(runeflow::osVersion()),
      .streamable = true,
      .symbol = "laptopcomputer",
  };
}

std::string SourceRef::symbolForDeviceType(std::string_view type) {
  // The order matters: the first key found decides. A text that contains "ipad" is an iPad even if
  // it also contains "tv" or "mac".
  static constexpr struct {
    std::string_view key;
    const char* symbol;
  } kSymbols[] = {
      {"ipad", "ipad"},  {"watch", "applewatch"},   {"vision", "visionpro"},
      {"tv", "appletv"}, {"mac", "laptopcomputer"},
  };
  const std::string lower = unicode::toLower(type);
  for (const auto& [key, symbol] : kSymbols) {
    if (lower.contains(key)) return symbol;
  }
  return "iphone";
}

}  // namespace runeflow

std::size_t std::hash<runeflow::SourceRef>::operator()(
    const runeflow::SourceRef& source) const noexcept {
  std::size_t seed = static_cast<std::size_t>(source.kind) * 2 + (source.streamable ? 1 : 0);
  const auto mix = [&seed](const auto&... fields) {
    ((seed = seed * 31 + std::hash<std::remove_cvref_t<decltype(fields)>>{}(fields)), ...);
  };
  mix(source.id, source.name, source.osVersion, source.udid, source.model, source.symbol);
  return seed;
}
