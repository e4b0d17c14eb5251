// SPDX-License-Identifier: MIT

// Whether two records are the same, one of them stored and the other decoded again.
#pragma once

#include <string>

#include "runeflow/model/log_row.h"

namespace host {

// Returns whether the record is a line that could not be decoded: it has no field, and its time is
// that of its decoding.
bool isRawRow(const runeflow::LogRow& row);

// Returns a text that is the same for a stored and a decoded record, whose times may differ in the
// last bit of a double. Raw rows are compared without their time.
std::string recordKey(const runeflow::LogRow& row);

}  // namespace host
