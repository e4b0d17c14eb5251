// SPDX-License-Identifier: MIT

// Passes any bytes to both parsers of the device catalog. The result must be sorted by name, every
// source must have a symbol, and every id must begin with the prefix of its kind.
#include <algorithm>
#include <cstdlib>

#include "runeflow/devices/device_catalog.h"

using runeflow::SourceRef;

namespace {

void check(const std::vector<SourceRef>& sources, SourceRef::Kind kind, std::string_view prefix) {
  const bool isSound = std::ranges::all_of(sources, [&](const SourceRef& source) {
    return source.kind == kind && source.id.starts_with(prefix) && !source.symbol.empty();
  });
  if (!isSound || !std::ranges::is_sorted(sources, {}, &SourceRef::name)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span bytes(data, size);
  check(runeflow::DeviceCatalog::parseSimulators(bytes), SourceRef::Kind::simulator, "sim:");
  check(runeflow::DeviceCatalog::parseDevices(bytes), SourceRef::Kind::device, "device:");
  return 0;
}
