#include "database.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "failure.h"

namespace cli {

using runeflow::EventStore;
using runeflow::SourceDescriptor;

namespace {

constexpr std::array<std::string_view, 2> kKinds = {"logcat", "dlt"};

// SQLite looks into a file only when it first uses it; a user wants to know at once.
void requireDatabaseFile(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) {
    fail("{} does not exist; capture something into it first", path);
  }
  if (std::filesystem::is_directory(status)) fail("{} is a directory, not a database", path);
  if (!std::filesystem::is_regular_file(status)) fail("{} is not a database", path);
  std::ifstream file(path, std::ios::binary);
  if (!file) fail("cannot read {}: {}", path, systemError(errno));
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  std::array<char, kMagic.size()> head{};
  file.read(head.data(), head.size());
  const auto size = static_cast<std::size_t>(file.gcount());
  // An empty file is an empty database.
  if (size != 0 && std::string_view(head.data(), size) != kMagic)
    fail("{} is not a database", path);
}

runeflow::StoreInfo inspected(const std::string& path) {
  requireDatabaseFile(path);
  auto info = EventStore::inspect(path);
  if (info.error.empty() || info.error.starts_with("no such")) return info;
  const bool mayNotWrite =
      info.error.find("readonly") != std::string::npos || info.error.starts_with("unable to open");
  fail("cannot read {}: {}{}", path, info.error,
       mayNotWrite ? "; it needs write permission for the file and its folder, too" : "");
}

bool hasIndex(const runeflow::StoreInfo& info, const runeflow::StoreColumn& column) {
  return std::ranges::find(info.indexes, "i_" + column.sql()) != info.indexes.end();
}

EventStore openStore(const std::string& path, bool create, const SourceDescriptor& descriptor) {
  auto store = EventStore::open(path, create, descriptor);
  if (!store) fail("cannot open {}; check that the folder exists and may be written", path);
  return std::move(*store);
}

}  // namespace

const SourceDescriptor& descriptorNamed(const std::string& id) {
  if (id == "dlt") return SourceDescriptor::dlt();
  if (id == "logcat") return SourceDescriptor::logcat();
  fail("'{}' is no kind of source; there are logcat and dlt", id);
}

std::optional<std::string> kindOf(const runeflow::StoreInfo& info) {
  for (const auto kind : kKinds) {
    const auto columns = descriptorNamed(std::string(kind)).indexedColumns();
    const bool isComplete =
        std::ranges::all_of(columns, [&](const auto& c) { return hasIndex(info, c); });
    if (isComplete && info.indexes.size() == columns.size()) return std::string(kind);
  }
  return std::nullopt;
}

EventStore openDatabase(const std::string& path, const std::string& source) {
  const auto info = inspected(path);
  if (!info.hasEvents) fail("{} holds no log records; it was not made by runeflow", path);
  const auto kind = source.empty() ? kindOf(info) : source;
  if (!kind)
    fail("cannot tell what {} holds from its indexes; name it with --source logcat or dlt", path);
  return openStore(path, false, descriptorNamed(*kind));
}

void requireThatSqliteTakes(EventStore& store, const runeflow::LogQuery& query,
                            const std::string& path) {
  if (!store.matchingSeqsQueryPlan(query, 0).empty()) return;
  if (!EventStore::inspect(path).hasFullText) {
    fail("{} has no full-text index; ask it without words, or capture it anew", path);
  }
  fail("the query has more conditions or deeper groups than SQLite takes; shorten it");
}

EventStore openForCapture(const std::string& path, const SourceDescriptor& descriptor) {
  std::error_code ignored;
  const bool exists = std::filesystem::exists(path, ignored);
  const auto info = exists ? inspected(path) : runeflow::StoreInfo();
  if (exists && !info.isEmpty && !info.hasEvents) {
    fail("{} is somebody else's database; capture into a file of its own", path);
  }
  if (const auto kind = kindOf(info); kind && *kind != descriptor.id()) {
    fail("{} already holds {} records; capture {} into a database of its own", path, *kind,
         descriptor.id());
  }
  auto store = openStore(path, true, descriptor);
  if (!EventStore::inspect(path).hasEvents) {
    fail(
        "cannot make the tables of {}; check for free space, permission and other programs using "
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

}  // namespace cli
