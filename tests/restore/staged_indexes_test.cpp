#include "restore/staged_indexes.h"

#include "main/registry.h"
#include "platform/query.h"
#include "support/tool_test.h"

namespace {

using appliance::Rows;
using appliance::tableNames;

class StagedIndexesTest : public appliance::ToolTest {
 protected:
  void stageAll() {
    for (const std::string& table : tableNames()) {
      live().exec("CREATE TABLE " + table + "_bak AS SELECT * FROM " + table);
    }
  }
};

TEST_F(StagedIndexesTest, CoverTheColumnsThatAreLookedUp) {
  stageAll();
  indexStagedTables(connectTo("photo").get(), kTableList);
  expectNoMessages();
  expectRows(live(),
             "SELECT tablename, substring(indexdef from 'USING (.*)$') FROM pg_indexes WHERE tablename LIKE '%\\_bak' "
             "ORDER BY 1, 2",
             {{"category_bak", "btree (id)"},
              {"photo_access_right_bak", "btree (userid)"},
              {"photo_comment_bak", "btree (photo_id)"},
              {"photo_group_permission_bak", "btree (groupid)"},
              {"photo_image_bak", "hash (path)"},
              {"photo_image_label_bak", "btree (image_id)"},
              {"photo_label_bak", "btree (id)"},
              {"photo_manage_right_bak", "btree (userid)"},
              {"photo_personal_collection_bak", "btree (id)"},
              {"photo_personal_collection_for_admin_bak", "btree (id)"},
              {"photo_personal_collection_for_hox_account_bak", "btree (id)"},
              {"photo_share_bak", "btree (shareid)"},
              {"photo_upload_right_bak", "btree (userid)"},
              {"photo_user_bak", "btree (userid)"},
              {"photo_user_group_bak", "btree (groupid)"},
              {"photo_video_label_bak", "btree (video_path)"},
              {"video_comment_bak", "btree (path)"},
              {"video_desc_bak", "btree (path)"}});
}

TEST_F(StagedIndexesTest, ServeTheLookUps) {
  stageAll();
  live().exec("INSERT INTO photo_comment_bak (photo_id) SELECT n FROM generate_series(1, 5000) n");
  indexStagedTables(connectTo("photo").get(), kTableList);
  EXPECT_THAT(live().rows("EXPLAIN Select * from photo_comment_bak where photo_id = 77").at(0).at(0),
              ::testing::HasSubstr("Index Scan using photo_comment_bak_photo_id_idx"));
  EXPECT_EQ(live().value("SELECT reltuples FROM pg_class WHERE relname = 'photo_comment_bak'"), "5000");
}

TEST_F(StagedIndexesTest, KeepTheTableOrderOfEqualKeys) {
  stageAll();
  live().exec("INSERT INTO video_desc_bak (path, title) SELECT 'p' || n % 50, n::text FROM generate_series(1, 5000) n");
  indexStagedTables(connectTo("photo").get(), kTableList);
  const Rows inTableOrder = live().rows("SELECT title FROM video_desc_bak WHERE path = 'p7' ORDER BY ctid");
  live().exec("SET enable_seqscan = off; SET enable_bitmapscan = off");
  EXPECT_THAT(live().rows("EXPLAIN SELECT title FROM video_desc_bak WHERE path = 'p7'").at(0).at(0),
              ::testing::HasSubstr("Index Scan using video_desc_bak_path_idx"));
  expectRows(live(), "SELECT title FROM video_desc_bak WHERE path = 'p7'", inTableOrder);
}

TEST_F(StagedIndexesTest, AreLeftOutSilentlyWhereTheyCannotBeMade) {
  stageAll();
  live().exec(
      "DROP TABLE photo_label_bak; ALTER TABLE photo_share_bak DROP COLUMN shareid;"
      "INSERT INTO video_desc_bak (path) SELECT string_agg(md5(n::text), '') FROM generate_series(1, 500) n;"
      "INSERT INTO photo_image_bak (path) SELECT string_agg(md5(n::text), '') FROM generate_series(1, 500) n");
  indexStagedTables(connectTo("photo").get(), kTableList);
  expectNoMessages();
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_indexes WHERE tablename LIKE '%\\_bak'"), "15");
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_indexes WHERE tablename = 'photo_image_bak'"), "1");
}

TEST_F(StagedIndexesTest, AreLeftOutSilentlyWithoutAConnection) {
  stageAll();
  indexStagedTables(nullptr, kTableList);
  expectNoMessages();
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_indexes WHERE tablename LIKE '%\\_bak'"), "0");
}

}  // namespace
