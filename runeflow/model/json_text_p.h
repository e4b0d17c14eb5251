// The JSON text of the context map, as it stands in the store's `ctx` column.
//
// Written here once, because a query without JSON functions looks for a member by its text: what
// the store writes and what the query looks for must be the same bytes.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace runeflow {

// `text` with quotation mark, backslash, slash and control characters escaped as JSON allows;
// everything else as it stands. Without the surrounding quotation marks.
std::string escapeJson(std::string_view text);

// One member, "key":"value", without blanks.
std::string jsonMember(std::string_view key, std::string_view value);

// The whole map as a compact object; absent when a key or value is not valid UTF-8.
std::optional<std::string> jsonObject(const std::map<std::string, std::string>& map);

}  // namespace runeflow
