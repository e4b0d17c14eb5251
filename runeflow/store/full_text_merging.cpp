// SPDX-License-Identifier: MIT
#include <fmt/format.h>

#include "runeflow/store/full_text_merging_p.h"

namespace runeflow {

void setMerging(Connection& connection, const Merging& merging) {
  Statement select = connection.prepare(
      "SELECT (SELECT v FROM events_fts_config WHERE k = 'automerge'), "
      "(SELECT v FROM events_fts_config WHERE k = 'crisismerge')");
  if (!select || !select.stepsToRow()) return;
  Merging present{select.integer(0), select.integer(1)};
  select.reset();
  if (present == Merging{0, 0}) present = kUsualMerging;
  if (present == merging || (present != kUsualMerging && present != kRareMerging)) return;
  connection.execute(
      fmt::format("INSERT INTO events_fts(events_fts, rank) VALUES('automerge', {});"
                  "INSERT INTO events_fts(events_fts, rank) VALUES('crisismerge', {});",
                  merging.automerge, merging.crisismerge)
          .c_str());
}

}  // namespace runeflow
