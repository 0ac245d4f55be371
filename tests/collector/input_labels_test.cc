// The generated label tables: the entry count of every table, the four
// double names, and the lookups the monitor makes through them.

#include <gtest/gtest.h>
#include <string.h>

#include "collector/event_labels.h"

namespace {

size_t Entries(const label* table) {
  size_t n = 0;
  while (table[n].name != nullptr) ++n;
  return n;
}

TEST(InputLabels, EveryTableHasItsEntryCountAndAscendingValues) {
  const struct {
    int type;
    size_t entries;
  } kTables[] = {{0, 4},   {1, 497}, {2, 10}, {3, 39},  {4, 5}, {5, 14},
                 {17, 11}, {18, 3},  {20, 2}, {21, 16}, {23, 3}};
  for (const auto& t : kTables) {
    const label* table = GetCodeLabel(t.type);
    ASSERT_NE(nullptr, table) << "type " << t.type;
    EXPECT_EQ(t.entries, Entries(table)) << "type " << t.type;
    for (size_t i = 1; i < Entries(table); ++i) {
      EXPECT_LE(table[i - 1].value, table[i].value) << table[i].name;
    }
  }
  EXPECT_EQ(3u, Entries(GetValueLabel(1, 30)));
  EXPECT_EQ(3u, Entries(GetValueLabel(3, 55)));
}

TEST(InputLabels, TypesWithoutNamesHaveNoTable) {
  for (int type : {-1, 6, 16, 19, 22, 24, 31}) EXPECT_EQ(nullptr, GetCodeLabel(type)) << type;
  EXPECT_EQ(nullptr, GetValueLabel(3, 53));
  EXPECT_EQ(nullptr, GetValueLabel(2, 55));
  EXPECT_EQ(nullptr, MonitorGetLabel(nullptr, 0));
}

TEST(InputLabels, DoubleNamesAreBothListedAndTheFirstWins) {
  const struct {
    const char* first;
    const char* second;
    int type;
    int value;
  } kPairs[] = {{"KEY_HANGEUL", "KEY_HANGUEL", 1, 122},
                {"KEY_COFFEE", "KEY_SCREENLOCK", 1, 152},
                {"BTN_JOYSTICK", "BTN_TRIGGER", 1, 288},
                {"SW_RFKILL_ALL", "SW_RADIO", 5, 3}};
  for (const auto& pair : kPairs) {
    const label* table = GetCodeLabel(pair.type);
    EXPECT_STREQ(pair.first, MonitorGetLabel(table, pair.value));
    int seen = 0;
    for (const label* entry = table; entry->name != nullptr; ++entry) {
      if (strcmp(entry->name, pair.second) == 0 && entry->value == pair.value) ++seen;
    }
    EXPECT_EQ(1, seen) << pair.second;
  }
}

TEST(InputLabels, LookupsFindTheNamesTheMonitorPrints) {
  EXPECT_STREQ("KEY_POWER", MonitorGetLabel(GetCodeLabel(1), 116));
  EXPECT_STREQ("BTN_TRIGGER_HAPPY40", MonitorGetLabel(GetCodeLabel(1), 743));
  EXPECT_STREQ("ABS_MT_DISTANCE", MonitorGetLabel(GetCodeLabel(3), 59));
  EXPECT_STREQ("FF_STATUS_PLAYING", MonitorGetLabel(GetCodeLabel(23), 1));
  EXPECT_STREQ("DOWN", MonitorGetLabel(GetValueLabel(1, 116), 1));
  EXPECT_STREQ("MT_TOOL_MAX", MonitorGetLabel(GetValueLabel(3, 55), 15));
  EXPECT_EQ(nullptr, MonitorGetLabel(GetCodeLabel(1), 744));
  EXPECT_EQ(nullptr, MonitorGetLabel(GetValueLabel(1, 30), 3));
}

}  // namespace
