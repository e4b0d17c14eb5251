// SPDX-License-Identifier: MIT
#include "host/database.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "host/failure.h"
#include "host/stream.h"

namespace host {

using runeflow::EventStore;
using runeflow::SourceDescriptor;
using runeflow::StoreFault;

namespace {

// Fails if the path cannot name a database that can be read. SQLite could not say as clearly what
// is wrong. The file is not opened for that: a process that closes any descriptor of a file loses
// all its POSIX locks on the file, also those of its SQLite connections, and another process would
// then delete the write-ahead log of a running capture.
void requireReadableFile(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) {
    fail("{} does not exist; capture something into it first", path);
  }
  if (error) fail("cannot read {}: {}", path, error.message());
  if (std::filesystem::is_directory(status)) fail("{} is a directory, not a database", path);
  if (!std::filesystem::is_regular_file(status)) fail("{} is not a database", path);
  if (::access(path.c_str(), R_OK) != 0) fail("cannot read {}: {}", path, systemError(errno));
}

// The file is no database of SQLite, so that opening it drops no lock.
[[noreturn]] void failAsOther(const std::string& path, bool isForCapture) {
  const auto* kind = kindOfFile(path);
  if (!kind) fail("{} is not a database", path);
  if (isForCapture) fail("{} is {}, not a database; name another file", path, kind->form);
  fail("{0} is {1}, not a database; capture it first: runeflow capture {0} --db {0}.db", path,
       kind->form);
}

std::string_view adviceFor(StoreFault fault) {
  switch (fault) {
    case StoreFault::damaged:
      return "; runeflow check tells more";
    case StoreFault::readOnly:
    case StoreFault::cannotOpen:
      return "; check the permission of the file and its folder";
    case StoreFault::locked:
      return "; another program has locked it";
    case StoreFault::diskFull:
      return "; free some space on its disk";
    case StoreFault::none:
    case StoreFault::noEvents:
    case StoreFault::notADatabase:
    case StoreFault::refused:
    case StoreFault::cancelled:
    case StoreFault::other:
      return "";
  }
  return "";
}

runeflow::StoreInfo inspected(const std::string& path, bool isForCapture = false) {
  requireReadableFile(path);
  auto info = EventStore::inspect(path);
  if (info.fault == StoreFault::notADatabase) failAsOther(path, isForCapture);
  if (info.fault == StoreFault::none || info.fault == StoreFault::noEvents) return info;
  fail("cannot read {}: {}{}", path, info.faultText, adviceFor(info.fault));
}

EventStore openStore(const std::string& path, bool create, const SourceDescriptor& descriptor) {
  auto store = EventStore::open(path, create, descriptor);
  if (!store) fail("cannot open {}; check that the folder exists and may be written", path);
  return std::move(*store);
}

}  // namespace

const LogKind* kindOf(const runeflow::StoreInfo& info) {
  const auto kinds = LogKind::all();
  const auto found = std::ranges::find_if(
      kinds, [&](const LogKind& kind) { return info.hasIndexesOf(kind.descriptor()); });
  return found == kinds.end() ? nullptr : &*found;
}

bool isDatabaseFile(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return false;
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  std::array<char, kMagic.size()> head{};
  std::ifstream(path, std::ios::binary).read(head.data(), head.size());
  return std::string_view(head.data(), head.size()) == kMagic;
}

EventStore openDatabase(const std::string& path, const std::string& source) {
  const auto info = inspected(path);
  if (info.fault == StoreFault::noEvents) {
    fail("{} holds no log records; it was not made by runeflow", path);
  }
  const auto* kind = source.empty() ? kindOf(info) : &LogKind::named(source);
  if (!kind) {
    fail("cannot detect the kind of the records in {}; name it with --source {}", path,
         joinKinds(&LogKind::id, " or "));
  }
  auto store = EventStore::openForReading(path, kind->descriptor());
  if (!store) fail("cannot open {}; check its permission", path);
  return std::move(*store);
}

EventStore openForWriting(const std::string& path) {
  if (inspected(path).fault == StoreFault::noEvents) {
    fail("{} holds no log records; it was not made by runeflow", path);
  }
  return openStore(path, false, LogKind::logcat().descriptor());
}

void failIfIncomplete(EventStore& store, const std::string& path) {
  if (store.hasLostItsFile()) fail("{} was deleted or replaced meanwhile; ask again", path);
  if (const auto error = store.takeError()) failWith(*error, path);
}

void failWith(const runeflow::StoreError& error, const std::string& path) {
  fail("{} was not read completely: {}{}", path, error.text, adviceFor(error.fault));
}

void failIfMissing(EventStore& store, const runeflow::LogQuery& query,
                   std::span<const std::int64_t> seqs, std::span<const runeflow::FetchedRow> found,
                   const std::string& path) {
  if (found.size() == seqs.size()) return;
  const auto missing = std::ranges::find_if(seqs, [&](std::int64_t seq) {
    return !std::ranges::binary_search(found, seq, {}, &runeflow::FetchedRow::seq);
  });
  if (missing != seqs.end()) {
    const auto again = store.matchingSeqs(query, *missing - 1);
    const bool isListed = std::ranges::find(again, *missing) != again.end();
    if (!isListed || !store.fetch(std::array{*missing}).empty()) return;
  }
  fail("{} is damaged: its indexes list records that it does not have; runeflow check tells more",
       path);
}

void failIfRefused(EventStore& store, const runeflow::LogQuery& query, const std::string& path) {
  if (!store.matchingSeqsQueryPlan(query, 0).empty()) return;
  if (const auto error = store.takeError(); error && error->fault != StoreFault::refused) {
    fail("cannot read {}: {}{}", path, error->text, adviceFor(error->fault));
  }
  if (!EventStore::inspect(path).hasFullText) {
    fail("{} has no full-text index; query it without words, or capture the log again", path);
  }
  fail("the query has more conditions or deeper groups than SQLite takes; shorten it");
}

EventStore openForCapture(const std::string& path, const SourceDescriptor& descriptor) {
  std::error_code ignored;
  if (std::filesystem::exists(path, ignored)) {
    const auto info = inspected(path, true);
    if (!info.isEmpty && info.fault == StoreFault::noEvents) {
      fail("{} is a database of another program; capture into another file", path);
    }
    if (const auto* kind = kindOf(info); kind && kind->id != descriptor.id()) {
      fail("{} already holds {} records; capture {} into another database", path, kind->id,
           descriptor.id());
    }
  }
  auto store = openStore(path, true, descriptor);
  if (EventStore::inspect(path).fault != StoreFault::none) {
    fail(
        "cannot create the tables of {}; check for free space, permission and other programs using "
        "it",
        path);
  }
  return store;
}

const runeflow::FieldDescriptor& fieldNamed(const SourceDescriptor& descriptor,
                                            const std::string& name) {
  if (const auto* field = descriptor.field(name)) return *field;
  std::string names;
  for (const auto& field : descriptor.fields()) names += (names.empty() ? "" : ", ") + field.name();
  fail("there is no field '{}'; {} records have {}", name, descriptor.displayName(), names);
}

}  // namespace host
