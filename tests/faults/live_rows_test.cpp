#include "faults/live_rows.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

named::Tables emptyTables() {
  named::Tables tables;
  for (const named::Table& table : named::tables()) {
    tables[table.name];
  }
  return tables;
}

named::Tables with(named::Tables tables, const std::string& table, const std::vector<std::string>& row) {
  tables[table].push_back(row);
  return tables;
}

std::vector<std::string> lost(const named::Tables& before, const named::Tables& after, const named::Tables& now,
                              bool labelsAreReplaced = false) {
  std::vector<std::string> texts;
  for (const crash::LostRow& one : crash::lostRows(before, {&after}, now, labelsAreReplaced)) {
    texts.push_back(one.table + ": " + crash::joined(one.row));
  }
  return texts;
}

TEST(LiveRows, AreLostWithTheirKeyOrTheirText) {
  const named::Tables none = emptyTables();
  const named::Tables live = with(none, "photo_config", {"module", "key", "value"});
  const named::Tables changed = with(none, "photo_config", {"module", "key", "other"});
  EXPECT_THAT(lost(live, changed, live), IsEmpty());
  EXPECT_THAT(lost(live, changed, changed), IsEmpty());
  EXPECT_THAT(lost(live, changed, none), ElementsAre("photo_config: module | key | value"));
  EXPECT_THAT(lost(live, live, changed), ElementsAre("photo_config: module | key | value"));
  EXPECT_THAT(lost(live, none, none), IsEmpty());
}

TEST(LiveRows, MayLinkToTheEarlierNumberOfALabelThatIsReplaced) {
  const named::Tables none = emptyTables();
  const named::Tables live = with(none, "photo_image_label", {"1.jpg", "sun", "2", "i", "n", "t"});
  const named::Tables cut = with(none, "photo_image_label", {"1.jpg", "(none)", "", "i", "n", "t"});
  EXPECT_THAT(lost(live, live, cut, true), IsEmpty());
  EXPECT_THAT(lost(live, live, cut, false), ElementsAre("photo_image_label: 1.jpg | sun | 2 | i | n | t"));
  EXPECT_THAT(lost(live, live, none, true), ElementsAre("photo_image_label: 1.jpg | sun | 2 | i | n | t"));
}

TEST(LiveRows, AreHalfMergedBetweenBeforeAndAfter) {
  const named::Tables before = emptyTables();
  const named::Tables user = with(before, "photo_user", {"anna", "", "", "f", "f", "f", ""});
  const named::Tables right = with(user, "photo_access_right", {"anna", "trips", "2020"});
  const named::Tables after = with(right, "photo_upload_right", {"anna", "trips", "2020"});
  EXPECT_THAT(crash::halfMerged(before, after, before), IsEmpty());
  EXPECT_THAT(crash::halfMerged(before, after, after), IsEmpty());
  EXPECT_THAT(crash::halfMerged(before, after, user), ElementsAre("photo_user anna"));
  EXPECT_THAT(crash::halfMerged(before, after, right), ElementsAre("photo_user anna"));
}

}  // namespace
