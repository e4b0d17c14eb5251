// SPDX-License-Identifier: MIT

// The search behind newestMatching() and oldestMatching().
#pragma once

#include <cstdint>
#include <vector>

#include "runeflow/query/log_query.h"
#include "runeflow/store/open_database_p.h"
#include "runeflow/store/scan_budget_p.h"

namespace runeflow {

enum class SearchOrder { newestFirst, oldestFirst };

// Returns the first `limit` matches of the seqs from `first` to `last`, in the given order. `query`
// is already rewritten for what SQLite has. `budget` is how long a scan may find nothing; it
// changes how the matches are found, never which.
std::vector<std::int64_t> searchPage(OpenDatabase& db, const LogQuery& query, SearchOrder order,
                                     std::int64_t first, std::int64_t last, std::int64_t limit,
                                     ScanBudget::Duration budget = ScanBudget::usualBase);

}  // namespace runeflow
