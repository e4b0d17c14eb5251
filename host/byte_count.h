// SPDX-License-Identifier: MIT

// Reads the sizes that users type.
#pragma once

#include <cstdint>
#include <string>

namespace host {

// Reads a number of bytes with an optional binary unit: "1000000", "500K", "20M", "2G". Fails for
// anything else, for 0 and for a size that 64 bits cannot hold.
std::int64_t parseByteCount(const std::string& text);

}  // namespace host
