#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

class VideoLabels : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    appliance::writeFile("/var/services/photo/a.mp4", "film");
    appliance::writeFile("/var/services/photo/it's.mp4", "film");
  }
  void expectLinks(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT video_path, name, category, status FROM photo_video_label l LEFT JOIN photo_label ON "
               "photo_label.id = label_id ORDER BY 1, 2, 3, 4",
               expected);
  }
  // Only this table, in this process, from a database of its own.
  int mergeDirectly(bool overwrite) {
    const appliance::OverwriteMode mode(overwrite);
    const Connection destination = connectTo("photo");
    const Connection from = connectTo("other");
    return KavophotoSyncPhotoVideoLabel(destination.get(), from.get(), "");
  }

  const std::string film_ = "/var/services/photo/a.mp4";
  const std::string quoted_ = "/var/services/photo/it's.mp4";
};
APPLIANCE_ALL_MODES(VideoLabels);

TEST_P(VideoLabels, LinkByNameAndCategoryWhateverTheNumbers) {
  live().exec(
      "INSERT INTO photo_label VALUES (7, 'other', 1, ''), (8, 'Anna', 0, ''), (9, 'Anna', 1, '');"
      "SELECT setval('photo_label_id_seq', 40), setval('photo_video_label_id_seq', 60)");
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'Anna', 1, ''), (8, 'it''s %s', 2, '');"
      "INSERT INTO photo_video_label VALUES (900, '/var/services/photo/a.mp4', 7, false), "
      "(901, '/var/services/photo/it''s.mp4', 8, NULL), (902, '/var/services/photo/a.mp4', 8, true)");
  EXPECT_EQ(merge().status, 0);
  expectLinks({{film_, "Anna", "1", "t"}, {film_, "it's %s", "2", "t"}, {quoted_, "it's %s", "2", "t"}});
  expectRows(live(), "SELECT id FROM photo_video_label ORDER BY 1", {{"61"}, {"62"}, {"63"}});
  expectNoMessages();
}

TEST_P(VideoLabels, WithoutTheirVideoAreSkippedSilently) {
  // The one without a label could not be looked up.
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'Anna', 1, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/gone.mp4', 7, true), "
      "(2, '/var/services/photo/gone.mp4', 99, true), (3, '/var/services/photo/' || repeat('x', 8200), 7, true), "
      "(4, '/var/services/photo/a.mp4', 7, true)");
  EXPECT_EQ(merge().status, 0);
  expectLinks({{film_, "Anna", "1", "t"}});
  expectNoMessages();
}

TEST_P(VideoLabels, WhoseLabelIsMissingAreDroppedWithALine) {
  appliance::swallowInsert(live(), "photo_label", "NEW.name = 'it''s'");
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'it''s', 1, ''), (8, 'Anna', 2, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/a.mp4', 7, true), "
      "(2, '/var/services/photo/a.mp4', 8, true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({"KAVODBFetchRow failed. [Select id from photo_label where name = 'it''s' and category = 1] ()"});
  expectLinks({{film_, "Anna", "2", "t"}});
}

TEST_P(VideoLabels, EndAtALinkToNoLabel) {
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'Anna', 1, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/it''s.mp4', 7, true);"
      "INSERT INTO photo_video_label VALUES (2, '/var/services/photo/a.mp4', 99, true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Select photo_video_label.id as id from photo_video_label left join photo_label on "
                    "photo_video_label.label_id=photo_label.id where video_path = '/var/services/photo/a.mp4' and name "
                    "= '' and category = ",
                    "ERROR:  syntax error at end of input"),
       "Table photo_video_label sync failed.\n"});
}

TEST_P(VideoLabels, EndWhenTheSourcesLabelsCannotBeJoined) {
  source().exec(
      "DROP TABLE photo_label; INSERT INTO photo_video_label VALUES (1, '/var/services/photo/a.mp4', 1, true)");
  EXPECT_EQ(merge().status, 0);
  const std::string label = "photo_label" + suffix();
  const std::string link = "photo_video_label" + suffix();
  expectMessages(
      {failedToExec("Select * from " + label, appliance::noTable(label)), "Table photo_label sync failed.\n",
       failedToExec("Select * from " + link + " left join " + label + " on " + link + ".label_id=" + label + ".id",
                    appliance::noTable(label)),
       "Table photo_video_label sync failed.\n"});
  EXPECT_EQ(live().count("photo_video_label"), 0);
}

// The labels stay as they are in what follows: merged before, they would be replaced and have other numbers.

TEST_F(VideoLabels, StayInSkipMode) {
  live().exec(
      "INSERT INTO photo_label VALUES (3, 'Anna', 1, '');"
      "INSERT INTO photo_video_label VALUES (5, '/var/services/photo/a.mp4', 3, false)");
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'Anna', 1, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/a.mp4', 7, true)");
  EXPECT_EQ(mergeDirectly(false), 0);
  expectRows(live(), "SELECT * FROM photo_video_label", {{"5", film_, "3", "f"}});
  expectNoMessages();
}

TEST_F(VideoLabels, ReplaceOnlyTheFirstOfSeveralInOverwriteMode) {
  live().exec(
      "INSERT INTO photo_label VALUES (3, 'it''s', 1, ''), (4, 'it''s', 2, '');"
      "INSERT INTO photo_video_label VALUES (5, '/var/services/photo/it''s.mp4', 3, false), "
      "(6, '/var/services/photo/it''s.mp4', 3, false), (7, '/var/services/photo/it''s.mp4', 4, false), "
      "(8, '/var/services/photo/a.mp4', 3, false); SELECT setval('photo_video_label_id_seq', 60)");
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'it''s', 1, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/it''s.mp4', 7, false)");
  const std::string first = live().rows(
      "Select photo_video_label.id as id from photo_video_label left join photo_label on "
      "photo_video_label.label_id=photo_label.id where video_path = '/var/services/photo/it''s.mp4' and name = 'it''s' "
      "and category = 1")[0][0];
  EXPECT_EQ(mergeDirectly(true), 0);
  expectRows(live(), "SELECT * FROM photo_video_label ORDER BY 1",
             {{first == "5" ? "6" : "5", quoted_, "3", "f"},
              {"7", quoted_, "4", "f"},
              {"8", film_, "3", "f"},
              {"61", quoted_, "3", "t"}});
  expectNoMessages();
}

TEST_F(VideoLabels, CutNameAndCategoryToTheirCapacities) {
  // Blanks before a number mean nothing, so the longest category that is kept ends in its first digit.
  live().exec(
      "INSERT INTO photo_label VALUES (3, repeat('n', 1022) || '1', 1, ''), (4, repeat('n', 1022), 1, ''), "
      "(5, repeat('''', 1023), 2, '')");
  source().exec(
      "ALTER TABLE photo_label ALTER COLUMN category TYPE text;"
      "INSERT INTO photo_label VALUES (7, repeat('n', 1022) || '1x', repeat(' ', 8190) || '12', ''), "
      "(8, repeat('n', 1022) || 'é', '1', ''), (9, repeat('''', 2000), '1 + 1', '');"
      "INSERT INTO photo_video_label (video_path, label_id) SELECT '/var/services/photo/a.mp4', id FROM photo_label");
  EXPECT_EQ(mergeDirectly(false), 0);
  expectRows(live(), "SELECT label_id FROM photo_video_label ORDER BY 1", {{"3"}, {"4"}, {"5"}});
}

TEST_F(VideoLabels, EndAtAStatementThatFailsAndKeepWhatWasWritten) {
  const std::string lookUp =
      "Select photo_video_label.id as id from photo_video_label left join photo_label on "
      "photo_video_label.label_id=photo_label.id where video_path = '/var/services/photo/it''s.mp4' and name = 'it''s' "
      "and category = ";
  const auto prepare = [this](const std::string& category) {
    live().exec(
        "DROP TRIGGER IF EXISTS refuse_DELETE ON photo_video_label; DROP TRIGGER IF EXISTS refuse_INSERT ON "
        "photo_video_label; TRUNCATE photo_label, photo_video_label RESTART IDENTITY;"
        "INSERT INTO photo_label VALUES (3, 'it''s', 1, ''), (4, 'Anna', 1, '');"
        "INSERT INTO photo_video_label VALUES (70, '/var/services/photo/it''s.mp4', 3, false)");
    source().exec(
        "ALTER TABLE photo_label ALTER COLUMN category TYPE text;"
        "TRUNCATE photo_label, photo_video_label; INSERT INTO photo_label VALUES (7, 'it''s', '" +
        category +
        "', ''), (8, 'Anna', '1', '');"
        "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/a.mp4', 8, true);"
        "INSERT INTO photo_video_label VALUES (2, '/var/services/photo/it''s.mp4', 7, true)");
  };
  const char* const links = "SELECT video_path, label_id FROM photo_video_label ORDER BY 1, 2";

  prepare("1''");
  EXPECT_EQ(mergeDirectly(true), -1);
  expectMessages({failedToExec(lookUp + "1'", "ERROR:  unterminated quoted string at or near \"'\"")});
  expectRows(live(), links, {{film_, "4"}, {quoted_, "3"}});

  prepare("1");
  appliance::refuseWriting(live(), "photo_video_label", "DELETE", "true");
  EXPECT_EQ(mergeDirectly(true), -1);
  expectMessages({failedToExec("Delete from photo_video_label where id = 70", appliance::kRefused)});
  expectRows(live(), links, {{film_, "4"}, {quoted_, "3"}});

  prepare("1");
  appliance::refuseWriting(live(), "photo_video_label", "INSERT", "NEW.label_id = 3");
  EXPECT_EQ(mergeDirectly(true), -1);
  expectMessages(
      {failedToExec("Insert into photo_video_label (video_path, label_id, status) Values "
                    "('/var/services/photo/it''s.mp4', 3, 't')",
                    appliance::kRefused)});
  expectRows(live(), links, {{film_, "4"}});
}

TEST_F(VideoLabels, EndWhenTheLabelCannotBeLookedUp) {
  live().exec(
      "ALTER TABLE photo_label RENAME TO stored; INSERT INTO stored VALUES (3, 'it''s', 1, '');"
      "CREATE FUNCTION refused() RETURNS integer LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION 'refused'; END$$;"
      "CREATE VIEW photo_label AS SELECT CASE WHEN current_query() LIKE 'Select id %' THEN refused() ELSE id "
      "END AS id, name, category, info FROM stored");
  source().exec(
      "INSERT INTO photo_label VALUES (7, 'it''s', 1, '');"
      "INSERT INTO photo_video_label VALUES (1, '/var/services/photo/a.mp4', 7, true)");
  EXPECT_EQ(mergeDirectly(true), -1);
  expectMessages(
      {failedToExec("Select id from photo_label where name = 'it''s' and category = 1", appliance::kRefused)});
  EXPECT_EQ(live().count("photo_video_label"), 0);
}

}  // namespace
