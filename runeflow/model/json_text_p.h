// SPDX-License-Identifier: MIT

// The JSON text of a record's context map, as stored in the store's `ctx` column.
//
// The store and the query compiler share these functions. If SQLite lacks its JSON functions, a
// query searches the column for a member's text, which must match the stored bytes exactly.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace runeflow {

// Returns `text` as the inside of a JSON string, without the surrounding quotation marks. Escapes
// quotation mark, backslash, slash and the control characters below U+0020, and copies all other
// bytes unchanged.
std::string escapeJson(std::string_view text);

// Returns one object member, "key":"value", without spaces around the colon.
std::string jsonMember(std::string_view key, std::string_view value);

// Returns the map as a JSON object without white space, members sorted by key. Returns nothing if a
// key or value is not valid UTF-8.
std::optional<std::string> jsonObject(const std::map<std::string, std::string>& map);

}  // namespace runeflow
