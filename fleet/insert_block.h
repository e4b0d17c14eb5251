// SPDX-License-Identifier: MIT

// The rows of one INSERT, as ClickHouse's JSONEachRow.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "fleet/address.h"
#include "runeflow/store/event_store.h"
#include "runeflow/store/word_tokenizer.h"

namespace fleet {

// Where the rows of a block belong.
struct BlockOrigin {
  std::string capture;
  std::uint32_t generation;
  const runeflow::SourceDescriptor& descriptor;  // of the local database
};

struct InsertBlock {
  std::string rows;
  std::uint32_t generation;
  std::int64_t first;  // the smallest and the largest seq
  std::int64_t last;
  std::uint32_t count;
};

// Returns the INSERT statement for rows of a kind.
std::string insertStatement(const Address& address, const runeflow::SourceDescriptor& descriptor);

// Writes the records, of which there must be one, in the columns of insertStatement(). Each row
// tells the extent of its block, so that whoever resumes can count whether all of it is there.
InsertBlock makeBlock(const BlockOrigin& origin, std::span<const runeflow::FetchedRow> records,
                      const runeflow::WordTokenizer& tokenizer);

// Appends the text as a JSON string. Bytes beyond ASCII are copied: the engine takes any.
void appendJsonString(std::string& json, std::string_view text);

// Returns the time of a record as the table holds it.
std::int64_t microsecondsOf(const runeflow::LogRow& row);

}  // namespace fleet
