// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "runeflow/model/log_row.h"
#include "runeflow/model/source_descriptor.h"
#include "support.h"

namespace runeflow {
namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::Optional;

Timestamp at(double seconds) {
  return Timestamp(std::chrono::duration<double>(seconds));
}

FieldDescriptor fieldOn(StoreColumn column, std::string name) {
  return {std::move(name), "", column, true, true, true, ""};
}

SourceDescriptor sourceWith(std::vector<FieldDescriptor> fields,
                            std::optional<std::string> app = std::nullopt) {
  return {"test", "Test", std::move(fields), DisplayHints{}, std::move(app)};
}

TEST(LogRow, microsecondsRoundHalvesAwayFromZero) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::pair<double, std::optional<std::int64_t>> rows[] = {
      {0.0000025, 3},
      {-0.0000025, -3},
      {0.0000024, 2},
      {-0.0000024, -2},
      {1'700'000'000.5, 1'700'000'000'500'000},
      {9.2e12, 9'200'000'000'000'000'000},
      {9'223'372'036'854.775807, std::nullopt},
      {-9'223'372'036'854.775807, std::nullopt},
      {kInfinity, std::nullopt},
      {-kInfinity, std::nullopt},
      {std::nan(""), std::nullopt},
  };
  for (const auto& [seconds, microseconds] : rows) {
    EXPECT_EQ(microsecondsSinceEpoch(at(seconds)), microseconds) << seconds;
  }
}

TEST(LogRow, equalRowsHaveEqualHashesInAnyInsertionOrderOfTheContext) {
  const auto rowWith = [](std::optional<LogRow::Context> ctx) {
    return LogRow(at(1), RuneflowLogLevel::Info, "m", std::move(ctx), "a", {}, {}, "d", {}, {}, {},
                  {});
  };
  LogRow::Context forwards;
  forwards["a"] = "1";
  forwards["b"] = "2";
  LogRow::Context backwards;
  backwards["b"] = "2";
  backwards["a"] = "1";
  const std::hash<LogRow> hash;
  EXPECT_EQ(rowWith(forwards), rowWith(backwards));
  EXPECT_EQ(hash(rowWith(forwards)), hash(rowWith(backwards)));
  EXPECT_NE(rowWith(std::nullopt), rowWith(LogRow::Context{}));
}

TEST(LogRow, textsStayInTheirSlots) {
  const auto rowWith = [](LogRow::Slot s1, LogRow::Slot s2, LogRow::Slot s7) {
    return LogRow(at(1), RuneflowLogLevel::Info, "m", std::nullopt, {}, s1, s2, {}, {}, {}, {}, s7);
  };
  const LogRow rows[] = {
      rowWith("ab", "c", {}), rowWith("a", "bc", {}), rowWith("abc", "", {}),
      rowWith("abc", {}, {}), rowWith({}, "abc", {}), rowWith("ab", {}, "c"),
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.message(), "m");
    EXPECT_EQ(row, LogRow(at(1), RuneflowLogLevel::Info, "m", std::nullopt, row.slots()));
    EXPECT_EQ(std::ranges::count(rows, row), 1);
  }
  EXPECT_EQ(rows[2].slots(), (LogRow::Slots{std::nullopt, "abc", ""}));
  for (const std::int64_t absent : {-1L, 0L, 2L, 8L, 100L}) {
    EXPECT_EQ(rows[3].slot(absent), std::nullopt) << absent;
  }
}

TEST(LogRow, constructorsForDecodersMakeTheSameRows) {
  const auto time = at(1.5);
  const LogRow::Slots slots{"a", "", std::nullopt, "dd"};
  EXPECT_EQ(LogRow(time, RuneflowLogLevel::Error,
                   LogRow::Texts{"addmessage", 0b1011, {1, 1, 1, 3, 3, 3, 3, 3}}),
            LogRow(time, RuneflowLogLevel::Error, "message", std::nullopt, slots));
  EXPECT_EQ(LogRow(time, RuneflowLogLevel::Info, "message", std::array<std::string_view, 2>{"a"}),
            LogRow(time, RuneflowLogLevel::Info, "message", std::nullopt, LogRow::Slots{"a", ""}));
}

TEST(LogRow, rowsOfAnyLengthAreCopiedAndMoved) {
  std::vector<LogRow> rows;
  for (const std::size_t size : {0U, 60U, 85U, 86U, 5000U}) {
    rows.push_back(test::row(std::string(size, 'm'), std::string(size / 2, 's')));
    EXPECT_EQ(rows.back().message(), std::string(size, 'm'));
  }
  for (const auto& row : rows) {
    for (auto other : rows) {
      other = row;
      auto moved = std::move(other);
      EXPECT_EQ(moved, row);
      other = std::move(moved);
      EXPECT_EQ(other, row);
      EXPECT_EQ(std::ranges::count(rows, other), 1);
    }
  }
}

TEST(SourceDescriptor, builtInFieldsAreFoundByNameInAnyCase) {
  const auto& dlt = SourceDescriptor::dlt();
  EXPECT_EQ(dlt.field("ECU"), &dlt.fields()[0]);
  EXPECT_EQ(dlt.field("Time (ECU)"), nullptr);
  EXPECT_EQ(dlt.field("tmsp")->column().sql(), "s6");
  EXPECT_EQ(dlt.tableFields().size(), 6U);
  EXPECT_THAT(SourceDescriptor::logcat().indexedColumns(),
              ElementsAre(StoreColumn::slot(0), StoreColumn::slot(1), StoreColumn::level()));
  EXPECT_FALSE(dlt.validationError() || SourceDescriptor::logcat().validationError());
}

TEST(SourceDescriptor, validationNamesTheFirstTwoFieldsOnOneColumn) {
  const auto slot2 = StoreColumn::slot(2);
  const auto level = StoreColumn::level();
  EXPECT_THAT(
      sourceWith({fieldOn(slot2, "a"), fieldOn(slot2, "b"), fieldOn(slot2, "c")}).validationError(),
      Optional(Eq("fields 'a' and 'b' both map to column s2")));
  EXPECT_THAT(
      sourceWith({fieldOn(slot2, "x"), fieldOn(level, "l"), fieldOn(level, "m")}).validationError(),
      Optional(Eq("fields 'l' and 'm' both map to column level")));
  EXPECT_EQ(sourceWith({}).validationError(), std::nullopt);
  EXPECT_EQ(sourceWith({fieldOn(slot2, "a"), fieldOn(level, "a")}).validationError(), std::nullopt);
}

}  // namespace
}  // namespace runeflow
