#include "backup/backup_time.h"

#include <gtest/gtest.h>

#include "support/appliance.h"

namespace {

std::tm timeOf(int year, int month, int day, int hour, int minute) {
  std::tm time = {};
  time.tm_year = year - 1900;
  time.tm_mon = month - 1;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  return time;
}

class BackupTimeTest : public ::testing::Test {
 protected:
  void TearDown() override { appliance::checked(); }
};

TEST_F(BackupTimeTest, WritesThreeLines) {
  EXPECT_EQ(backupTimeText(timeOf(2026, 3, 7, 9, 5), "1803", "6.0-2636"),
            "backuptime=\"26-03-07 09:05\"\nversion=\"1803\"\nphoto_version=\"6.0-2636\"\n");
}

TEST_F(BackupTimeTest, CountsYearsWithinTheCentury) {
  const auto yearOf = [](int year) {
    const std::string text = backupTimeText(timeOf(year, 12, 31, 23, 59), "", "");
    return text.substr(text.find('"') + 1, text.find('-') - text.find('"') - 1);
  };
  EXPECT_EQ(yearOf(1999), "99");
  EXPECT_EQ(yearOf(2000), "00");
  EXPECT_EQ(yearOf(2009), "09");
  EXPECT_EQ(yearOf(2099), "99");
  EXPECT_EQ(yearOf(2100), "100");
}

TEST_F(BackupTimeTest, PrintsPercentSignsAsAFormatWouldButKeepsConversions) {
  EXPECT_EQ(backupTimeText(timeOf(2026, 1, 1, 0, 0), "100%%", "%s%n\""),
            "backuptime=\"26-01-01 00:00\"\nversion=\"100%\"\nphoto_version=\"%s%n\"\"\n");
}

TEST_F(BackupTimeTest, CutsTheTextToItsBuffer) {
  const std::string text = backupTimeText(timeOf(2026, 1, 1, 0, 0), std::string(2000, 'v'), "6.0");
  EXPECT_EQ(text, "backuptime=\"26-01-01 00:00\"\nversion=\"" + std::string(1023 - 37, 'v'));
  EXPECT_EQ(text.size(), 1023U);
}

}  // namespace
