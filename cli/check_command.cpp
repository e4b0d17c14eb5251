// SPDX-License-Identifier: MIT
#include "commands.h"
#include "host/database.h"
#include "host/failure.h"
#include "output.h"

namespace cli {

using runeflow::EventStore;

namespace {

void repair(EventStore& store, const std::string& path) {
  if (store.rebuildFullText()) {
    printLine("{}: the full-text index was rebuilt", path);
    return;
  }
  const auto error = store.takeError();
  host::fail("cannot rebuild the full-text index of {}: {}", path,
             error ? error->text : "it has none");
}

// Prints what was found and returns whether the database is sound.
bool report(const runeflow::StoreCheck& found, const std::string& path) {
  for (const auto& fault : found.faults) printLine("{}: {}", path, fault);
  if (!found.fullTextFault.empty()) {
    printLine("{}: the full-text index does not fit the records ({}); mend it with --repair", path,
              found.fullTextFault);
  }
  const bool isSound = found.faults.empty() && found.fullTextFault.empty();
  if (isSound) {
    printLine("{}: the database is sound{}", path,
              found.isFullTextChecked ? ", and the full-text index fits the records"
                                      : "; it has no full-text index");
  }
  return isSound;
}

}  // namespace

int check(const CheckOptions& options) {
  auto store = host::openForWriting(options.database);
  if (options.repairs) repair(store, options.database);
  const auto found = store.check();
  // What was found is worth more than why the rest was not checked.
  if (found.faults.empty() && found.fullTextFault.empty()) {
    host::failIfIncomplete(store, options.database);
  }
  return report(found, options.database) ? 0 : 2;
}

}  // namespace cli
