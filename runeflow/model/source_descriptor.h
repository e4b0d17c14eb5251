// SPDX-License-Identifier: MIT
/// \file
/// The schema of one kind of log source.
///
/// A SourceDescriptor lists the fields of a source. For each field it gives the slot or other
/// column that stores it, its name in queries, whether the store indexes it, and whether a viewer
/// shows it. Most programs use SourceDescriptor::dlt() or SourceDescriptor::logcat(). A program
/// with a decoder of its own builds another SourceDescriptor from the same types. All types here
/// are plain values, and several threads may read one object at the same time.
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

#include "runeflow/platform/api.h"

namespace runeflow {

/// A column of the store's `events` table.
class RUNEFLOW_EXPORT StoreColumn {
 public:
  /// The column of one slot of LogRow.
  struct Slot {
    std::int64_t index;  ///< The number of the slot, 0 to 7. Not checked.
    bool operator==(const Slot&) const = default;
  };
  /// The column of LogRow::level().
  struct Level {
    bool operator==(const Level&) const = default;
  };
  /// The column of LogRow::timestamp().
  struct Timestamp {
    bool operator==(const Timestamp&) const = default;
  };
  /// The column of LogRow::message().
  struct Message {
    bool operator==(const Message&) const = default;
  };
  /// The kinds of columns.
  using Value = std::variant<Slot, Level, Timestamp, Message>;

  /// Returns the column of slot `index`, which should be in the range 0 to 7.
  static StoreColumn slot(std::int64_t index) { return StoreColumn(Slot{index}); }
  /// Returns the column of the level.
  static StoreColumn level() { return StoreColumn(Level{}); }
  /// Returns the column of the timestamp.
  static StoreColumn timestamp() { return StoreColumn(Timestamp{}); }
  /// Returns the column of the message.
  static StoreColumn message() { return StoreColumn(Message{}); }

  /// Returns the kind of column, and the number of its slot if it has one.
  const Value& value() const { return value_; }

  /// Returns the column's name in SQL: "s0" to "s7", "level", "ts" or "message". Does not check the
  /// slot's number: slot(9) gives "s9", which names no column.
  std::string sql() const;

  bool operator==(const StoreColumn&) const = default;

 private:
  explicit StoreColumn(Value value) : value_(value) {}
  Value value_;
};

/// One field of a source. A field can be assigned to, but not changed in parts.
class FieldDescriptor {
 public:
  /// Creates a field from the values that the getters of the same names return.
  FieldDescriptor(std::string name, std::string label, StoreColumn column, bool indexed,
                  bool queryable, bool inTable, std::string icon)
      : name_(std::move(name)),
        label_(std::move(label)),
        column_(column),
        indexed_(indexed),
        queryable_(queryable),
        inTable_(inTable),
        icon_(std::move(icon)) {}

  /// Returns the name of the field in query text. Letter case does not matter there.
  const std::string& name() const { return name_; }
  /// Returns the caption shown to the user.
  const std::string& label() const { return label_; }
  /// Returns the column that stores the field.
  const StoreColumn& column() const { return column_; }
  /// Returns true if the store keeps an index on the column.
  bool indexed() const { return indexed_; }
  /// Returns true if query text may name the field.
  bool queryable() const { return queryable_; }
  /// Returns true if the field belongs in a viewer's table of records.
  bool inTable() const { return inTable_; }
  /// Returns the SF Symbols name of the field's icon.
  const std::string& icon() const { return icon_; }

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

/// Hints for a viewer. The library carries them unchanged and does not interpret them.
struct DisplayHints {
  /// A column and the symbol that a viewer shows with it.
  class Badge {
   public:
    /// Creates a badge for `column`; `glyph` is the name of a symbol image.
    Badge(StoreColumn column, std::string glyph) : column_(column), glyph_(std::move(glyph)) {}
    /// Returns the column.
    const StoreColumn& column() const { return column_; }
    /// Returns the name of the symbol image.
    const std::string& glyph() const { return glyph_; }
    bool operator==(const Badge&) const = default;

   private:
    StoreColumn column_;
    std::string glyph_;
  };

  /// A column and one value of it that a viewer emphasizes.
  class Hero {
   public:
    /// Creates a hint for records with `value` in `column`.
    Hero(StoreColumn column, std::string value) : column_(column), value_(std::move(value)) {}
    /// Returns the column.
    const StoreColumn& column() const { return column_; }
    /// Returns the value.
    const std::string& value() const { return value_; }
    bool operator==(const Hero&) const = default;

   private:
    StoreColumn column_;
    std::string value_;
  };

  std::optional<Badge> badge;  ///< Absent in the built-in descriptors.
  std::optional<Hero> hero;    ///< Absent in the built-in descriptors.
  bool operator==(const DisplayHints&) const = default;
};

/// The schema of one kind of source. A descriptor can be assigned to, but not changed in parts.
class RUNEFLOW_EXPORT SourceDescriptor {
 public:
  /// Returns the descriptor of the records that DLTDecoder creates.
  static const SourceDescriptor& dlt();
  /// Returns the descriptor of the records that LogcatDecoder creates.
  static const SourceDescriptor& logcat();

  /// Creates a descriptor from the values that the getters of the same names return. No two fields
  /// may use the same column, and slots must be in the range 0 to 7. The constructor checks neither
  /// rule; validationError() finds columns that are used twice.
  SourceDescriptor(std::string id, std::string displayName, std::vector<FieldDescriptor> fields,
                   DisplayHints display, std::optional<std::string> appFieldName)
      : id_(std::move(id)),
        displayName_(std::move(displayName)),
        fields_(std::move(fields)),
        display_(std::move(display)),
        appFieldName_(std::move(appFieldName)) {}

  /// Returns the short, stable identifier of the kind of source, for example "dlt". The library
  /// uses it in its log.
  const std::string& id() const { return id_; }
  /// Returns the name shown to the user, for example "DLT".
  const std::string& displayName() const { return displayName_; }
  /// Returns the fields. The functions below return lists in the same order.
  const std::vector<FieldDescriptor>& fields() const { return fields_; }
  /// Returns the hints for a viewer.
  const DisplayHints& display() const { return display_; }
  /// Returns the name of the field that identifies the application that wrote a record, if there is
  /// one.
  const std::optional<std::string>& appFieldName() const { return appFieldName_; }

  /// Returns the first field whose name is `named`, compared with full Unicode case folding, or
  /// null if there is none. The pointer is valid until this descriptor is moved, assigned to or
  /// destroyed.
  const FieldDescriptor* field(std::string_view named) const;

  /// Returns the fields that query text may name.
  std::vector<FieldDescriptor> queryableFields() const;
  /// Returns the fields that belong in a viewer's table of records.
  std::vector<FieldDescriptor> tableFields() const;

  /// Returns the columns of the indexed fields. Does not remove duplicates.
  std::vector<StoreColumn> indexedColumns() const;

  /// Returns the column of the field that appFieldName() names. If there is no such field, returns
  /// the column of the first field, or slot 0 if there are no fields.
  StoreColumn appColumn() const;

  /// Returns an error text that names the first two fields that use the same column, or nothing if
  /// all columns differ. Checks nothing else.
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

/// Hashes a StoreColumn, including the number of its slot.
template <>
struct RUNEFLOW_EXPORT std::hash<runeflow::StoreColumn> {
  /// Returns the hash of `column`.
  std::size_t operator()(const runeflow::StoreColumn& column) const noexcept;
};
