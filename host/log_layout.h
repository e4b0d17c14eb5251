// SPDX-License-Identifier: MIT

// Files that look like a log but cannot be captured as they are.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace host {

// Returns the name of logcat's option -v that has printed the text, such as "brief", "time", "year"
// or "usec", or an empty name if its first line with a known layout is threadtime text or there is
// none. `sample` is the start of a log; an unfinished last line is not examined.
std::string_view otherLogcatLayout(std::span<const std::uint8_t> sample);

// Returns why a file that begins with `sample` holds no log that can be captured, and what to do,
// as the end of a sentence that begins with the name of the file: a database, an archive, DLT of
// protocol version 2. Returns an empty text for all other files.
std::string reasonToRefuse(std::span<const std::uint8_t> sample, const std::string& name);

}  // namespace host
