// The schema of one kind of log source.
//
// A SourceDescriptor says which slot of a LogRow holds which field, under which name a query may
// refer to it, which columns the store indexes and which fields a viewer shows.
// SourceDescriptor::dlt() and SourceDescriptor::logcat() are built in; a host may build others from
// the same types. All types here are plain values and may be read from any thread.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace runeflow {

// A column of the store's `events` table.
class StoreColumn {
 public:
  struct Slot {
    std::int64_t index;
    bool operator==(const Slot&) const = default;
  };
  struct Level {
    bool operator==(const Level&) const = default;
  };
  struct Timestamp {
    bool operator==(const Timestamp&) const = default;
  };
  struct Message {
    bool operator==(const Message&) const = default;
  };
  using Value = std::variant<Slot, Level, Timestamp, Message>;

  static StoreColumn slot(std::int64_t index) { return StoreColumn(Slot{index}); }
  static StoreColumn level() { return StoreColumn(Level{}); }
  static StoreColumn timestamp() { return StoreColumn(Timestamp{}); }
  static StoreColumn message() { return StoreColumn(Message{}); }

  const Value& value() const { return value_; }

  // The column's name as it is spliced into SQL. The slot's index is not checked: slot(9) gives
  // "s9", which names no column.
  std::string sql() const;

  bool operator==(const StoreColumn&) const = default;

 private:
  explicit StoreColumn(Value value) : value_(value) {}
  Value value_;
};

class FieldDescriptor {
 public:
  FieldDescriptor(std::string name, std::string label, StoreColumn column, bool indexed,
                  bool queryable, bool inTable, std::string icon)
      : name_(std::move(name)),
        label_(std::move(label)),
        column_(column),
        indexed_(indexed),
        queryable_(queryable),
        inTable_(inTable),
        icon_(std::move(icon)) {}

  const std::string& name() const { return name_; }    // in query text, without regard to case
  const std::string& label() const { return label_; }  // the caption for the user
  const StoreColumn& column() const { return column_; }
  bool indexed() const { return indexed_; }          // the store keeps an index on the column
  bool queryable() const { return queryable_; }      // may be named in query text
  bool inTable() const { return inTable_; }          // belongs in the viewer's table of rows
  const std::string& icon() const { return icon_; }  // an SF Symbols name

  bool operator==(const FieldDescriptor&) const = default;

 private:
  std::string name_;
  std::string label_;
  StoreColumn column_;
  bool indexed_;
  bool queryable_;
  bool inTable_;
  std::string icon_;
};

// Carried unchanged for the viewer; the library does not interpret them.
struct DisplayHints {
  class Badge {
   public:
    Badge(StoreColumn column, std::string glyph) : column_(column), glyph_(std::move(glyph)) {}
    const StoreColumn& column() const { return column_; }
    const std::string& glyph() const { return glyph_; }
    bool operator==(const Badge&) const = default;

   private:
    StoreColumn column_;
    std::string glyph_;
  };

  class Hero {
   public:
    Hero(StoreColumn column, std::string value) : column_(column), value_(std::move(value)) {}
    const StoreColumn& column() const { return column_; }
    const std::string& value() const { return value_; }
    bool operator==(const Hero&) const = default;

   private:
    StoreColumn column_;
    std::string value_;
  };

  std::optional<Badge> badge;
  std::optional<Hero> hero;
  bool operator==(const DisplayHints&) const = default;
};

class SourceDescriptor {
 public:
  SourceDescriptor(std::string id, std::string displayName, std::vector<FieldDescriptor> fields,
                   DisplayHints display, std::optional<std::string> appFieldName)
      : id_(std::move(id)),
        displayName_(std::move(displayName)),
        fields_(std::move(fields)),
        display_(std::move(display)),
        appFieldName_(std::move(appFieldName)) {}

  static const SourceDescriptor& dlt();
  static const SourceDescriptor& logcat();

  const std::string& id() const { return id_; }
  const std::string& displayName() const { return displayName_; }
  const std::vector<FieldDescriptor>& fields() const { return fields_; }
  const DisplayHints& display() const { return display_; }
  const std::optional<std::string>& appFieldName() const { return appFieldName_; }

  // The first field of that name, compared without regard to case (full Unicode case folding);
  // null when there is none. The pointer lives as long as this descriptor.
  const FieldDescriptor* field(std::string_view named) const;

  std::vector<FieldDescriptor> queryableFields() const;
  std::vector<FieldDescriptor> tableFields() const;

  // In field order, duplicates kept.
  std::vector<StoreColumn> indexedColumns() const;

  // The column of the field that names the emitting application; failing that the first field's,
  // failing that slot 0.
  StoreColumn appColumn() const;

  // A text that describes the first two fields found on one column; absent when no two share one.
  // Nothing else is checked.
  std::optional<std::string> validationError() const;

  bool operator==(const SourceDescriptor&) const = default;

 private:
  std::string id_;
  std::string displayName_;
  std::vector<FieldDescriptor> fields_;
  DisplayHints display_;
  std::optional<std::string> appFieldName_;
};

}  // namespace runeflow

template <>
struct std::hash<runeflow::StoreColumn> {
  std::size_t operator()(const runeflow::StoreColumn& column) const noexcept;
};
