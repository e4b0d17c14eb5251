// SPDX-License-Identifier: MIT

// Records as the page gets them. Every text that came from a log is escaped here as for a terminal,
// so that the page shows it as it arrives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/source_descriptor.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/word_marks.h"

namespace viewer {

using Json = nlohmann::ordered_json;

struct SafeText {
  std::string text;
  Json marks = Json::array();  // [begin, end) in UTF-16 units of `text`
};

// Whether a text may have several lines and tabs, or is one line.
enum class Lines { one, several };

// Escapes `text` and converts the ranges, which are ascending and in bytes of it.
SafeText safeText(std::string_view text, std::span<const runeflow::WordMarks::Range> marks,
                  Lines lines);

// As one object of a list. `marks` finds the words in the message.
Json listedRecord(const runeflow::RecordPreview& record,
                  const runeflow::SourceDescriptor& descriptor, const runeflow::WordMarks& marks);

// With all fields and the context. The record holds at most the beginning of its message.
Json detailedRecord(const runeflow::RecordPreview& record,
                    const runeflow::SourceDescriptor& descriptor, const runeflow::WordMarks& marks);

// Returns the slots of the fields in the order of the descriptor.
std::vector<std::int64_t> slotsOf(const runeflow::SourceDescriptor& descriptor);

}  // namespace viewer
