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
  requireDatabaseFile(path);
  auto store =
      openStore(path, false, source.empty() ? SourceDescriptor::logcat() : descriptorNamed(source));
  const auto info = store.info();
  if (!info.hasEvents && info.error.starts_with("no such")) {
    fail("{} holds no log records; it was not made by runeflow", path);
  }
  if (!info.hasEvents) {
    fail("cannot read {}: {}; it needs write permission for the file and its folder, too", path,
         info.error);
  }
  if (!source.empty()) return store;
  const auto kind = kindOf(info);
  if (!kind)
    fail("cannot tell what {} holds from its indexes; name it with --source logcat or dlt", path);
  return *kind == "logcat" ? std::move(store) : openStore(path, false, descriptorNamed(*kind));
}

EventStore openForCapture(const std::string& path, const SourceDescriptor& descriptor) {
  std::error_code ignored;
  if (std::filesystem::exists(path, ignored)) requireDatabaseFile(path);
  auto before = EventStore::open(path, false, descriptor);
  const auto info = before ? before->info() : runeflow::StoreInfo();
  if (before && !info.isEmpty && !info.hasEvents) {
    fail("{} is somebody else's database; capture into a file of its own", path);
  }
  if (const auto kind = kindOf(info); kind && *kind != descriptor.id()) {
    fail("{} already holds {} records; capture {} into a database of its own", path, *kind,
         descriptor.id());
  }
  auto store = openStore(path, true, descriptor);
  if (!store.info().hasEvents) {
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
