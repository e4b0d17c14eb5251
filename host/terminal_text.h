// SPDX-License-Identifier: MIT

// Text for a terminal. Names, error texts, paths and log messages come from servers, files and
// users. A terminal obeys control sequences in them, and some of Unicode's invisible characters
// reorder or hide the text around them. These functions escape both; their result is valid UTF-8 on
// one line that a terminal only displays.
//
// They escape the general categories Cc (controls: C0, DEL, C1), Cf (format characters), Zl and Zp
// (line and paragraph separators), except U+200C and U+200D, which join or separate the letters of
// some scripts and the parts of emoji. They also escape every byte that is not part of valid UTF-8,
// because some terminals take the bytes 0x80 to 0x9f for C1 controls.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Returns `text` with unsafe characters written as \n, \r, \t, \x1b (ASCII), \u202e or \U000e0001.
// A byte that is not UTF-8 becomes \x9b. A backslash stays as it is, so that paths and queries read
// as the user typed them; escaping a result again does not change it. The original text cannot be
// restored from the result.
std::string terminalText(std::string_view text);

// As terminalText(), but a backslash is doubled. Programs can restore the original bytes.
std::string terminalField(std::string_view text);

// Which characters of a JSON text are escaped: for a program, only the controls.
enum class JsonReader { terminal, program };

// Returns the JSON text with unsafe characters written as \u001b, and as surrogate pairs beyond
// U+FFFF; it stands for the same value. `json` must be one line of valid UTF-8, as a line feed
// between tokens would be escaped, too. A byte that is not UTF-8 becomes U+FFFD.
std::string terminalJson(std::string_view json, JsonReader reader);

}  // namespace host
