#include "main/import.h"

#include <sstream>
#include <string>
#include <vector>

#include "support/tool_test.h"

namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr const char* kVideoLabels =
    "Select * from photo_video_label left join photo_label on photo_video_label.label_id=photo_label.id";

class Import : public appliance::ToolTest {
 protected:
  appliance::Outcome import() {
    other();
    return run({"-i", appliance::workDirectory(), "-d", "other"});
  }
  static std::string noRelation(const std::string& statement, const std::string& table) {
    return "Failed to exec [" + statement + "] (ERROR:  relation \"" + table + "\" does not exist)";
  }
};

TEST_F(Import, ReplacesWhatIsLiveWithoutBeingTold) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'live'), ('m', 'own', 'kept')");
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'imported')");
  const appliance::Outcome outcome = import();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  expectNoMessages();
  expectRows(live(), "SELECT config_key, config_value FROM photo_config ORDER BY 1",
             {{"k", "imported"}, {"own", "kept"}});
  EXPECT_EQ(other().count("photo_config"), 1);
}

TEST_F(Import, RepairsPathsThenMergesTheTablesInOrder) {
  other();
  appliance::server::restart({"log_statement=all", "log_disconnections=on", "log_line_prefix=%a|%d|"});
  const std::size_t start = appliance::server::log().size();
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  appliance::server::stop();
  std::istringstream log(appliance::server::log().substr(start));
  std::vector<std::string> statements;
  std::vector<std::string> closed;
  const std::string execution = "kavophoto_backup|other|LOG:  execute <unnamed>: ";
  for (std::string line; std::getline(log, line);) {
    if (line.rfind(execution, 0) == 0) {
      statements.push_back(line.substr(execution.size()));
    }
    if (line.rfind("kavophoto_backup|", 0) == 0 && line.find("disconnection") != std::string::npos) {
      closed.push_back(line.substr(17, line.find('|', 17) - 17));
    }
  }
  EXPECT_THAT(
      statements,
      ElementsAre(
          "Select path from photo_image", "Select path from video_comment", "Select path from video_desc",
          "Select video_path from photo_video_label", "Select * from photo_label", "Select * from photo_config",
          "Select * from photo_image", "Select * from photo_log ORDER BY create_time DESC LIMIT 100000",
          "Select * from photo_share", "Select * from photo_user", "Select * from video_comment",
          "Select * from video_desc", "Select * from photo_access_right_for_hox_account",
          "Select * from photo_upload_right_for_hox_account", "Select * from photo_manage_right_for_hox_account",
          "Select * from photo_video_label left join photo_label on "
          "photo_video_label.label_id=photo_label.id",
          "Select * from category",
          "Select * from category_items left join category on category.id=category_items.category_id",
          "Select * from photo_group", "Select * from photo_group_permission_for_hox_account",
          "SELECT * FROM watermark", "SELECT * FROM photo_personal_collection",
          "SELECT * FROM photo_personal_collection_for_hox_account",
          "SELECT * FROM photo_personal_collection_for_admin", "SELECT * FROM photo_personal_collection_photo",
          "SELECT * FROM photo_personal_collection_video", "SELECT * FROM photo_personal_collection_photo_for_admin",
          "SELECT * FROM photo_personal_collection_video_for_admin",
          "SELECT * FROM photo_personal_collection_photo_for_hox_account",
          "SELECT * FROM photo_personal_collection_video_for_hox_account"));
  // Two looked for staged tables and for tables of others under their names. The server's processes note their ends in
  // any order.
  EXPECT_THAT(closed, UnorderedElementsAre("photo", "photo", "photo", "other"));
}

TEST_F(Import, GoesOnAfterEachTableThatFails) {
  std::vector<std::string> expected;
  const auto drop = [&](const std::string& table, const std::string& ending, const std::string& more = "",
                        const std::string& select = "Select * from ") {
    other().exec("DROP TABLE " + table);
    expected.push_back(noRelation(select + table + more, table));
    expected.push_back("Table " + table + " sync failed" + ending);
  };
  drop("photo_label", ".\n");
  drop("photo_config", ".\n");
  drop("photo_log", ".\n", " ORDER BY create_time DESC LIMIT 100000");
  drop("photo_share", ".\n");
  drop("photo_user", ".\n");
  drop("photo_access_right_for_hox_account", ".");
  drop("photo_upload_right_for_hox_account", ".");
  drop("photo_manage_right_for_hox_account", ".");
  expected.push_back(noRelation(kVideoLabels, "photo_label"));
  expected.emplace_back("Table photo_video_label sync failed.\n");
  drop("category", ".\n");
  drop("category_items", ".\n", " left join category on category.id=category_items.category_id");
  drop("photo_group", ".\n");
  drop("photo_group_permission_for_hox_account", ".\n");
  drop("photo_personal_collection", "", "", "SELECT * FROM ");
  drop("photo_personal_collection_for_hox_account", "", "", "SELECT * FROM ");
  drop("photo_personal_collection_for_admin", "", "", "SELECT * FROM ");
  appliance::writeFile("/var/services/photo/a.avi", "x");
  other().exec("INSERT INTO video_desc (path, title) VALUES ('/var/services/photo/a.avi', 'merged')");
  EXPECT_EQ(import().status, 0);
  expectMessages(expected);
  expectRows(live(), "SELECT title FROM video_desc", {{"merged"}});
}

TEST_F(Import, MergesWhatItCanAfterLabelsThatCannotBeMerged) {
  other().exec(
      "ALTER TABLE photo_label ALTER category TYPE text;"
      "INSERT INTO photo_label (id, name, category, info) VALUES (1, 'bad', '''', ''), (2, 'unreached', '1', '');"
      "INSERT INTO photo_video_label (video_path, label_id, status) VALUES ('/var/services/photo/a.avi', 2, true);"
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES ('c', false, 1, now(), "
      "now());"
      "INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::writeFile("/var/services/photo/a.avi", "x");
  EXPECT_EQ(import().status, 0);
  const std::vector<std::string> messages = appliance::takeMessages();
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_THAT(messages[0], testing::StartsWith("Failed to exec [Select * from photo_label where name = 'bad' and "
                                               "category = '] (ERROR:  unterminated quoted string"));
  EXPECT_EQ(messages[1], "Table photo_label sync failed.\n");
  EXPECT_THAT(messages[2], testing::StartsWith("KAVODBFetchRow failed. ["));
  EXPECT_EQ(live().count("photo_label"), 0);
  EXPECT_EQ(live().count("photo_video_label"), 0);
  EXPECT_EQ(live().count("category"), 1);
  EXPECT_EQ(live().count("photo_config"), 1);
}

TEST_F(Import, CarriesRowsOfOtherTablesOnlyWithTheirOwners) {
  other().exec(
      "INSERT INTO photo_access_right VALUES (9, 9); INSERT INTO photo_upload_right VALUES (9, 9);"
      "INSERT INTO photo_manage_right VALUES (9, 9); INSERT INTO photo_comment (photo_id, name) VALUES (9, 'n');"
      "INSERT INTO photo_image_label (image_id, label_id) VALUES (9, 9);"
      "INSERT INTO photo_group_permission VALUES (9, 9, 9); INSERT INTO photo_user_group VALUES (9, 9);"
      "INSERT INTO photo_personal_collection_photo VALUES (9, 9);"
      "INSERT INTO photo_personal_collection_video_for_admin VALUES (9, 9)");
  const auto before = appliance::contents("photo");
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(Import, IsAbandonedWhenTheMediaPathsCannotBeRepaired) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  for (const std::string table : {"photo_image", "video_comment", "video_desc"}) {
    other().exec("ALTER TABLE " + table + " RENAME TO hidden");
    EXPECT_EQ(import().status, 255) << table;
    expectMessages({noRelation("Select path from " + table, table), "KavophotoCheckPath import " + table + " failed."});
    EXPECT_EQ(live().count("photo_config"), 0) << table;
    other().exec("ALTER TABLE hidden RENAME TO " + table);
  }
}

TEST_F(Import, IsAbandonedWithoutTheShare) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::removeAll("/var/services/photo");
  EXPECT_EQ(import().status, 255);
  expectMessages({"KAVOShareGet failed.", "KavophotoCheckPath import photo_image failed."});
  EXPECT_EQ(live().count("photo_config"), 0);
}

TEST_F(Import, GoesOnWhenThePathsOfVideoLabelsCannotBeRepaired) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v'); DROP TABLE photo_video_label");
  EXPECT_EQ(import().status, 0);
  expectMessages({noRelation("Select video_path from photo_video_label", "photo_video_label"),
                  "KavophotoCheckPath import photo_video_label failed.", noRelation(kVideoLabels, "photo_video_label"),
                  "Table photo_video_label sync failed.\n"});
  EXPECT_EQ(live().count("photo_config"), 1);
}

TEST_F(Import, RepairsThePathsOfAllFourTables) {
  appliance::writeFile("/var/services/photo2019/a", "x");
  const std::string foreign = "'/volume2/photo/2019/a'";
  other().exec(
      "INSERT INTO photo_image (path, size, resolutionx, resolutiony, iso, timetaken, updated, version) VALUES (" +
      foreign + ", 1, 2, 3, 4, now(), true, 5);" +                                            //
      "INSERT INTO video_comment (path, name, date) VALUES (" + foreign + ", 'n', now());" +  //
      "INSERT INTO video_desc (path, title) VALUES (" + foreign + ", 't');" +                 //
      "INSERT INTO photo_label (id, name, category) VALUES (5, 'l', 1);" +                    //
      "INSERT INTO photo_video_label (video_path, label_id, status) VALUES (" + foreign + ", 5, true)");
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  for (const char* column : {"path FROM photo_image", "path FROM video_comment", "path FROM video_desc",
                             "video_path FROM photo_video_label"}) {
    const std::string query = std::string("SELECT ") + column;
    expectRows(other(), query, {{"/var/services/photo2019/a"}});
    expectRows(live(), query, {{"/var/services/photo2019/a"}});
  }
}

TEST_F(Import, FailsWithoutTheLiveDatabase) {
  other();
  appliance::dropDatabase("photo");
  EXPECT_EQ(import().status, 255);
  expectMessages({"Failed to connect to database"});
}

TEST_F(Import, FailsWithoutTheTemporaryDatabase) {
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", "missing%s"}).status, 255);
  expectMessages({"Failed to connect to database (missing%s)"});
}

TEST_F(Import, RefusesTheLiveDatabaseAsItsSource) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'trip');"
      "INSERT INTO photo_user VALUES (2, 'anna', '', '', false, false, false, '');"
      "INSERT INTO photo_access_right VALUES (2, 1, '2001-01-01'); INSERT INTO photo_group VALUES (3, 'family', '');"
      "INSERT INTO photo_user_group VALUES (2, 3); INSERT INTO photo_group_permission VALUES (3, 1, 1, '2001-01-01');"
      "INSERT INTO video_desc (path, title) VALUES ('/volume9/photo/a.avi', 't')");
  appliance::writeFile("/var/services/photo/a.avi", "x");
  const auto before = appliance::contents("photo");
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", "photo"}).status, 255);
  expectMessages({"Failed to connect to database (photo)"});
  EXPECT_EQ(appliance::contents("photo"), before);
  appliance::RunOptions options;
  options.env = {"PGDATABASE=photo"};
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", ""}, options).status, 255);
  expectMessages({"Failed to connect to database ()"});
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(Import, FailsWithoutAServer) {
  other();
  appliance::server::stop();
  EXPECT_EQ(import().status, 255);
  expectMessages({"Failed to connect to database"});
}

TEST_F(Import, RunsEveryTableToItsFailureWhenTheTemporaryDatabaseGoesAway) {
  // The first merged row of the live database ends the other connection.
  other().exec(
      "INSERT INTO photo_label (name, category) VALUES ('a', 1), ('b', 1); INSERT INTO photo_config VALUES ('m', 'k', "
      "'v')");
  live().exec(
      "CREATE FUNCTION cut_off() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
      "  PERFORM pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE datname = 'other' AND application_name = "
      "'kavophoto_backup'; RETURN new; END $$;"
      "CREATE TRIGGER cut_off BEFORE INSERT ON photo_label FOR EACH ROW EXECUTE FUNCTION cut_off()");
  EXPECT_EQ(import().status, 0);
  const std::vector<std::string> messages = appliance::takeMessages();
  ASSERT_GE(messages.size(), 2U);
  EXPECT_THAT(messages[0], testing::AllOf(testing::StartsWith("Failed to exec [Select * from photo_config] (FATAL:  "
                                                              "terminating connection due to administrator command"),
                                          testing::Not(testing::HasSubstr("\n"))));
  EXPECT_THAT(messages, testing::Contains("Table photo_personal_collection_for_admin sync failed"));
  expectRows(live(), "SELECT name FROM photo_label ORDER BY id", {{"a"}, {"b"}});
}

}  // namespace
