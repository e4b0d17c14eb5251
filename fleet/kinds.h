// SPDX-License-Identifier: MIT

// The kinds of records as the fleet's table sees them: the fields of a local source, and two more
// that only the table has, `capture` and `kind`.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runeflow/model/source_descriptor.h"

namespace fleet {

// The slots of a local record are 0 to 7. The parser takes any number, so that these two can stand
// for columns that a local record does not have.
inline const runeflow::StoreColumn kCaptureColumn = runeflow::StoreColumn::slot(8);
inline const runeflow::StoreColumn kKindColumn = runeflow::StoreColumn::slot(9);

// Returns the descriptor of the kind with that id, with the fields `capture` and `kind` in front;
// for an id that this program does not know, a descriptor with these and the level alone.
const runeflow::SourceDescriptor& descriptorOf(std::string_view kind);

// Returns the ids of all kinds, in the order of the table of kinds.
std::vector<std::string_view> kindIds();

// Returns the names of the fields that local records keep in slots, over all kinds, each once.
const std::vector<std::string>& slotFields();

// Returns the name of the field that is in slot `slot` of records of that kind, or absence.
std::optional<std::string> fieldInSlot(const runeflow::SourceDescriptor& descriptor,
                                       std::int64_t slot);

}  // namespace fleet
