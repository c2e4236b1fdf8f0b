#include "main/import.h"
#include "merge/sample_rows.h"
#include "platform/overwrite_mode.h"
#include "support/tool_test.h"

namespace {

using appliance::contents;
using appliance::structure;
using appliance::workDirectory;

// Skip mode onto a live database that already holds everything.
class Unchanged : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    sample::makeFiles("s");
    sample::fill(live(), "s", 1);
  }

  // A backup holds no table of videos, by which the members of the three kinds of collections could be found.
  void expectLostVideoMembers() {
    expectMessages(std::vector<std::string>(3,
                                            "Failed to exec [SELECT path FROM video_bak WHERE id = 101] (ERROR:  "
                                            "relation \"video_bak\" does not exist)"));
  }
};

TEST_F(Unchanged, RestoreChangesNoRowNumberOrSequence) {
  ASSERT_EQ(run({"-b", workDirectory()}).status, 0);
  const auto rows = contents("photo");
  const auto form = structure("photo");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 0);
  expectLostVideoMembers();
  EXPECT_EQ(contents("photo"), rows);
  EXPECT_EQ(structure("photo"), form);
}

TEST_F(Unchanged, MergeOfASecondDatabaseChangesNoRowNumberOrSequence) {
  sample::fill(other(), "s", 1);
  appliance::writeAccountFiles(workDirectory(), "other");
  const auto rows = contents("photo");
  const auto form = structure("photo");
  const auto sourceRows = contents("other");
  ASSERT_FALSE(gIsOverwiroteMode);
  EXPECT_EQ(importDatabase(workDirectory(), "other"), 0);
  EXPECT_EQ(contents("photo"), rows);
  EXPECT_EQ(structure("photo"), form);
  EXPECT_EQ(contents("other"), sourceRows);
}

TEST_F(Unchanged, EditsAndAdditionsOfTheLiveDatabaseStay) {
  ASSERT_EQ(run({"-b", workDirectory()}).status, 0);
  for (const char* edit : {"UPDATE photo_share SET title = 'edited', hits = 99",
                           "UPDATE photo_user SET email = 'edited', admin = false",
                           "UPDATE photo_group SET description = 'edited'",
                           "UPDATE photo_label SET info = 'edited'",
                           "UPDATE photo_image SET title = 'edited', size = 7, updated = false",
                           "UPDATE photo_comment SET comment = 'edited'",
                           "UPDATE photo_image_label SET info = 'edited', status = NULL",
                           "UPDATE photo_video_label SET status = false",
                           "UPDATE video_comment SET comment = 'edited'",
                           "UPDATE video_desc SET title = 'edited'",
                           "UPDATE category SET hidden = NOT hidden",
                           "UPDATE category_items SET order_number = 77",
                           "UPDATE photo_config SET config_value = 'edited'",
                           "UPDATE photo_log SET log = 'edited'",
                           "UPDATE watermark SET opacity = 1",
                           "UPDATE photo_personal_collection SET sharelink = 'edited', userid = 5",
                           "UPDATE photo_personal_collection_for_admin SET is_shared = NULL",
                           "UPDATE photo_personal_collection_for_hox_account SET hidden = true",
                           "DELETE FROM photo_access_right WHERE shareid = 101",
                           "DELETE FROM photo_user_group WHERE userid = 101",
                           "DELETE FROM photo_group_permission WHERE shareid = 102",
                           "UPDATE photo_manage_right_for_hox_account SET create_time = '2001-01-01'",
                           "INSERT INTO photo_share (shareid, sharename) VALUES (900, 'new')",
                           "INSERT INTO photo_access_right VALUES (101, 900, '2001-01-01')"}) {
    live().exec(edit);
  }
  const auto rows = contents("photo");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 0);
  expectLostVideoMembers();
  EXPECT_EQ(contents("photo"), rows);
}

}  // namespace
