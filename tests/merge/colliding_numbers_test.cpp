#include <algorithm>
#include <iterator>
#include <set>

#include "merge/sample_rows.h"
#include "support/merge_test.h"
#include "support/named_rows.h"

namespace {

// Both databases hold the same numbers everywhere, for rows of other names.
class CollidingNumbers : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    sample::makeFiles("s");
    sample::makeFiles("l");
    sample::fill(live(), "l", 1);
    sample::fill(source(), "s", 1);
    live().exec(
        "INSERT INTO video (path) VALUES ('/var/services/photo/s it''s/2.avi'), "
        "('/var/services/photo/s trips/1.avi')");
  }

  // Carried over with the numbers as they are, so that the source's rows take the place of the live ones.
  static bool keepsNumbers(const std::string& table) {
    return table == "watermark" || table == "category_items" ||
           table.find("right_for_hox_account") != std::string::npos ||
           table == "photo_group_permission_for_hox_account";
  }

  void expectVideoMessages() {
    if (imports()) {
      return;
    }
    expectMessages(std::vector<std::string>(
        3, failedToExec("SELECT path FROM video_bak WHERE id = 101", "ERROR:  relation \"video_bak\" does not exist")));
  }
};

APPLIANCE_ALL_MODES(CollidingNumbers);

TEST_P(CollidingNumbers, LinkNothingToARowOfAnotherName) {
  const named::Tables before = named::rows(live());
  const named::Tables carried = named::rows(source());
  EXPECT_EQ(merge().status, 0);
  expectVideoMessages();

  const named::Tables after = named::rows(live());
  for (const auto& [table, rows] : before) {
    named::Rows expected = named::together(rows, carried.at(table));
    if (keepsNumbers(table)) {
      expected = overwrites() ? carried.at(table) : rows;
    }
    if (named::isVideoMember(table) && !imports()) {
      expected = rows;
    }
    EXPECT_EQ(after.at(table), expected) << table;
  }
}

TEST_P(CollidingNumbers, ChangeNoLiveRow) {
  const auto before = appliance::contents("photo");
  EXPECT_EQ(merge().status, 0);
  expectVideoMessages();
  auto after = appliance::contents("photo");
  EXPECT_EQ(after.size(), before.size());
  for (const auto& [table, rows] : before) {
    if (keepsNumbers(table) && overwrites()) {
      continue;
    }
    std::vector<std::string> lost;
    std::set_difference(rows.begin(), rows.end(), after[table].begin(), after[table].end(), std::back_inserter(lost));
    EXPECT_THAT(lost, testing::IsEmpty()) << table;
  }
}

}  // namespace
