#include "restore/staging.h"

#include <unistd.h>

#include "main/registry.h"
#include "platform/query.h"
#include "support/filled_tables.h"
#include "support/tool_test.h"

namespace {

using appliance::readFile;
using appliance::replaceProgram;
using appliance::Rows;
using appliance::tableNames;

class StagingTest : public appliance::ToolTest {
 protected:
  void stage(const std::string& table, const std::string& rows = "SELECT 1 AS id") {
    live().exec("CREATE TABLE " + table + "_bak AS " + rows);
  }

  Rows stagedTables() {
    return live().rows(
        "SELECT tablename FROM pg_tables WHERE schemaname = 'public' AND tablename LIKE '%\\_bak' ORDER BY 1");
  }

  // As the tool asks for all staged tables.
  static std::string listStatement() {
    std::string names;
    for (const std::string& table : tableNames()) {
      names += (names.empty() ? "'" : ", '") + table + "_bak'";
    }
    return "SELECT tablename FROM pg_tables WHERE schemaname = 'public' and tablename in (" + names + ")";
  }

  // Makes copies as a restore does that is killed while it loads.
  void stageAsRestore(const std::vector<std::string>& tables) {
    EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
    for (const std::string& table : tables) {
      stage(table);
    }
  }
  static void noteAsLoaded() { EXPECT_TRUE(noteStagedTables(connectTo("photo").get(), kTableList)); }

  std::string note() {
    const Rows notes = live().rows("SELECT unnest(setconfig) FROM pg_db_role_setting WHERE setrole = 0");
    return notes.empty() ? "" : notes[0][0];
  }

  static int drop() { return dropStagedTables(connectTo("photo").get(), kTableList); }
  static bool freeNames() { return freeStagedNames(connectTo("photo").get(), kTableList); }

  static std::string leftAlone(const std::string& table) {
    return "Table " + table + "_bak is left alone, it may be the only copy of its rows: table " + table +
           " exists too, and no restore made " + table +
           "_bak. Compare the two, drop or rename the one that is not needed, and run again.";
  }
  static std::string withoutLiveTable(const std::string& table) {
    return "Table " + table + "_bak is left alone, it may be the only copy of its rows: there is no table " + table +
           ". The next run renames it to " + table + ".";
  }
};

TEST_F(StagingTest, RenamesThereAndBackWithAllRows) {
  appliance::fillTables("photo");
  const auto before = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  EXPECT_EQ(KavophotoTableRename("photo_share"), 0);
  EXPECT_EQ(appliance::contents("photo").at("photo_share_bak"), before.at("photo_share"));
  EXPECT_EQ(stagedTables(), (Rows{{"photo_share_bak"}}));
  EXPECT_EQ(KavophotoTableRenameBack("photo_share"), 0);
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_EQ(appliance::structure("photo"), structure);
}

TEST_F(StagingTest, RefusesATableWithoutAName) {
  EXPECT_EQ(KavophotoTableRename(nullptr), -1);
  EXPECT_EQ(KavophotoTableRenameBack(""), -1);
  expectMessages({"KavophotoTableRename: bad parameters.\n", "KavophotoTableRename: bad parameters.\n"});
}

TEST_F(StagingTest, FailedRenamingIsLoggedOnly) {
  EXPECT_EQ(KavophotoTableRename("no_table"), 0);
  EXPECT_EQ(KavophotoTableRenameBack("no_table"), 0);
  expectMessages({"KavophotoTableRename: Fail to rename table no_table\n",
                  "KavophotoTableRenameBack: Fail to rename back table no_table\n"});
}

// As after "\set AUTOCOMMIT off" in psql's start-up file for the whole system.
TEST_F(StagingTest, RenamingThatDidNotHappenIsLogged) {
  replaceProgram("/usr/bin/psql", R"(exec "$REAL" "$1" "$2" "$3" -c "BEGIN; $5 ROLLBACK;")");
  EXPECT_EQ(KavophotoTableRename("photo_share"), 0);
  expectMessages({"KavophotoTableRename: Fail to rename table photo_share\n"});
  EXPECT_EQ(stagedTables(), Rows{});
}

TEST_F(StagingTest, StatementReachesPsqlAsOneArgument) {
  replaceProgram("/usr/bin/psql", R"(printf '%s\n' "$@" >> /tmp/recorded)");
  EXPECT_EQ(KavophotoTableRename("a 'b'"), 0);
  EXPECT_EQ(KavophotoTableRenameBack("c"), 0);
  EXPECT_EQ(addDBPrimaryKey("t_bak", "id"), 0);
  expectMessages({"KavophotoTableRename: Fail to rename table a 'b'\n",
                  "KavophotoTableRenameBack: Fail to rename back table c\n"});
  EXPECT_EQ(readFile("/tmp/recorded"),
            "photo\n-U\npostgres\n-c\nALTER TABLE a 'b' RENAME TO a 'b'_bak;\n"
            "photo\n-U\npostgres\n-c\nALTER TABLE c_bak RENAME TO c;\n"
            "photo\n-U\npostgres\n-c\nALTER TABLE t_bak ADD CONSTRAINT t_bak_pkey PRIMARY KEY (id)\n");
}

TEST_F(StagingTest, AddsAPrimaryKey) {
  stage("photo_image");
  EXPECT_EQ(addDBPrimaryKey("photo_image_bak", "id"), 0);
  EXPECT_EQ(live().value("SELECT indexdef FROM pg_indexes WHERE indexname = 'photo_image_bak_pkey'"),
            "CREATE UNIQUE INDEX photo_image_bak_pkey ON public.photo_image_bak USING btree (id)");
}

TEST_F(StagingTest, FailedPrimaryKeyIsLoggedWithItsCommand) {
  stage("photo_image", "SELECT 1 AS id UNION ALL SELECT 1");
  EXPECT_EQ(addDBPrimaryKey("photo_image_bak", "id"), 1);
  expectMessages(
      {"addDBPrimaryKey failed (/usr/bin/psql photo -U postgres -c ALTER TABLE photo_image_bak ADD CONSTRAINT "
       "photo_image_bak_pkey PRIMARY KEY (id))."});
}

TEST_F(StagingTest, DropsTheCopiesOfARestoreThatWasKilledWhileItLoaded) {
  stageAsRestore(tableNames());
  stage("video");
  live().exec("CREATE SCHEMA elsewhere; CREATE TABLE elsewhere.photo_share_bak (id integer)");
  const auto tables = appliance::contents("photo").size();
  EXPECT_EQ(drop(), 0);
  EXPECT_EQ(stagedTables(), (Rows{{"video_bak"}}));
  EXPECT_EQ(appliance::contents("photo").size(), tables - tableNames().size());
  EXPECT_EQ(live().count("elsewhere.photo_share_bak"), 0);
  expectNoMessages();
}

TEST_F(StagingTest, DropsTheCopiesThatARestoreNotedAfterItsLoad) {
  stageAsRestore(tableNames());
  noteAsLoaded();
  EXPECT_NE(note(), "kavophoto_backup.staged=loading");
  EXPECT_TRUE(freeNames());
  EXPECT_EQ(stagedTables(), Rows{});
  EXPECT_EQ(note(), "");
  expectNoMessages();
}

TEST_F(StagingTest, DropsNothingWhereNothingIsStaged) {
  const auto before = appliance::structure("photo");
  EXPECT_EQ(drop(), 0);
  EXPECT_EQ(appliance::structure("photo"), before);
  EXPECT_TRUE(freeNames());
  EXPECT_EQ(appliance::structure("photo"), before);
  expectNoMessages();
}

TEST_F(StagingTest, WritesNothingWhereNothingIsStaged) {
  live().exec("ALTER DATABASE photo SET default_transaction_read_only = on");
  EXPECT_TRUE(freeNames());
  expectNoMessages();
}

TEST_F(StagingTest, LeavesACopyThatSomebodyMade) {
  stage("photo_share");
  EXPECT_EQ(drop(), 0);
  expectMessages({leftAlone("photo_share")});
  EXPECT_FALSE(freeNames());
  expectMessages({leftAlone("photo_share")});
  EXPECT_EQ(stagedTables(), (Rows{{"photo_share_bak"}}));
}

TEST_F(StagingTest, LeavesACopyThatSomebodyMadeAfterARestoreNotedItsOwn) {
  stageAsRestore({"photo_share"});
  noteAsLoaded();
  stage("category");
  EXPECT_FALSE(freeNames());
  expectMessages({leftAlone("category")});
  EXPECT_EQ(stagedTables(), (Rows{{"category_bak"}}));
}

TEST_F(StagingTest, LeavesTheLiveTableOfAKilledBackupWhenTheApplicationMadeAnotherOne) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'precious')");
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec("ALTER TABLE photo_config RENAME TO photo_config_bak; CREATE TABLE photo_config (LIKE photo_config_bak)");
  EXPECT_FALSE(freeNames());
  expectMessages({leftAlone("photo_config")});
  EXPECT_EQ(live().value("SELECT config_value FROM photo_config_bak"), "precious");
}

TEST_F(StagingTest, LeavesWhatIsNoOrdinaryTable) {
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec(
      "CREATE TABLE photo_share_bak (id integer) PARTITION BY RANGE (id);"
      "CREATE VIEW category_bak AS SELECT 1 AS id; CREATE SEQUENCE photo_user_bak");
  EXPECT_FALSE(freeNames());
  const auto noTable = [](const std::string& name) {
    return name + " is no table, but a table needs the name for a while. Rename or drop it and run again.";
  };
  EXPECT_THAT(
      appliance::takeMessages(),
      ::testing::UnorderedElementsAre(leftAlone("photo_share"), noTable("category_bak"), noTable("photo_user_bak")));
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_class WHERE relname IN ('photo_share_bak', 'category_bak', "
                         "'photo_user_bak')"),
            "3");
}

TEST_F(StagingTest, LeavesACopyOfALiveTableThatIsNoOrdinaryTable) {
  live().exec("DROP TABLE photo_log; CREATE TABLE photo_log (logid integer) PARTITION BY RANGE (logid)");
  stageAsRestore({"photo_log"});
  EXPECT_EQ(drop(), 0);
  expectMessages({leftAlone("photo_log")});
}

TEST_F(StagingTest, GoesOnAfterATableThatCannotBeDropped) {
  stageAsRestore({"photo_label", "photo_share"});
  live().exec("CREATE VIEW depends AS SELECT * FROM photo_label_bak");
  EXPECT_EQ(drop(), 0);
  const std::vector<std::string> messages = {
      "Failed to execute commend: DROP TABLE photo_label_bak",
      "Table photo_label_bak, a copy of table photo_label that a restore made, cannot be dropped (ERROR:  cannot drop "
      "table photo_label_bak because other objects depend on it  DETAIL:  view depends depends on table "
      "photo_label_bak  HINT:  Use DROP ... CASCADE to drop the dependent objects too.). Drop it and run again."};
  expectMessages(messages);
  EXPECT_EQ(stagedTables(), (Rows{{"photo_label_bak"}}));
  EXPECT_FALSE(freeNames());
  expectMessages(messages);
  live().exec("DROP VIEW depends");
  EXPECT_TRUE(freeNames());
  EXPECT_EQ(stagedTables(), Rows{});
}

TEST_F(StagingTest, DropThatCannotListTheTablesIsAFailure) {
  stageAsRestore({"photo_share"});
  EXPECT_EQ(dropStagedTables(nullptr, kTableList), -1);
  expectMessages({"Failed to exec [" + listStatement() + "] (no connection)"});
  EXPECT_FALSE(freeStagedNames(nullptr, kTableList));
  expectMessages({"Failed to exec [" + listStatement() + "] (no connection)"});
  EXPECT_EQ(stagedTables(), (Rows{{"photo_share_bak"}}));
}

TEST_F(StagingTest, LeavesACopyWithoutALiveTable) {
  stageAsRestore({"photo_share"});
  live().exec("ALTER TABLE category RENAME TO category_bak; ALTER TABLE photo_label RENAME TO photo_label_bak");
  EXPECT_FALSE(freeNames());
  EXPECT_EQ(stagedTables(), (Rows{{"category_bak"}, {"photo_label_bak"}}));
  expectMessages({withoutLiveTable("photo_label"), withoutLiveTable("category")});
}

TEST_F(StagingTest, RecoversExactlyTheTablesWithoutALiveOne) {
  appliance::fillTables("photo");
  const auto before = appliance::contents("photo");
  for (const std::string& table : tableNames()) {
    if (table != "photo_share") {
      live().exec("ALTER TABLE " + table + " RENAME TO " + table + "_bak");
    }
  }
  stage("photo_share");
  recoverStagedTables(kTableList);
  expectNoMessages();
  auto after = appliance::contents("photo");
  EXPECT_EQ(after.erase("photo_share_bak"), 1U);
  EXPECT_EQ(after, before);
}

TEST_F(StagingTest, RecoveryWithNothingLeftBehindStartsNothing) {
  replaceProgram("/usr/bin/psql", "touch /tmp/started");
  recoverStagedTables(kTableList);
  EXPECT_FALSE(appliance::exists("/tmp/started"));
  expectNoMessages();
}

TEST_F(StagingTest, RecoveryThatFailsIsLoggedAndLeavesTheRows) {
  live().exec("ALTER TABLE category RENAME TO category_bak");
  appliance::hideProgram("/usr/bin/psql");
  recoverStagedTables(kTableList);
  expectMessages({"KavophotoTableRenameBack: Fail to rename back table category\n"});
  EXPECT_EQ(stagedTables(), (Rows{{"category_bak"}}));
}

TEST_F(StagingTest, RecoveryIsSilentWithoutAServer) {
  appliance::server::stop();
  recoverStagedTables(kTableList);
  expectNoMessages();
}

// The name is another table's when the lock is given at last.
TEST_F(StagingTest, TableThatGetsTheNameOfACopyMeanwhileIsNotDropped) {
  stageAsRestore({"photo_config"});
  noteAsLoaded();
  live().exec("CREATE TABLE precious AS SELECT 1 AS id; BEGIN; LOCK TABLE photo_config_bak");
  const pid_t tool = appliance::startTool({"-b", appliance::workDirectory()});
  appliance::Database observer("photo");
  while (observer.value("SELECT count(*) FROM pg_locks WHERE NOT granted") != "1") {
    usleep(5000);
  }
  live().exec(
      "ALTER TABLE photo_config_bak RENAME TO photo_config_old; ALTER TABLE precious RENAME TO photo_config_bak; "
      "COMMIT");
  EXPECT_EQ(appliance::waitTool(tool).status, 0);
  expectMessages({leftAlone("photo_config")});
  EXPECT_EQ(live().value("SELECT id FROM photo_config_bak"), "1");
}

TEST_F(StagingTest, CopyBesideALiveTableThatCannotBeLockedIsLeftAlone) {
  live().exec("DROP TABLE photo_log; CREATE SEQUENCE photo_log");
  stageAsRestore({"photo_log"});
  EXPECT_EQ(drop(), 0);
  expectMessages({leftAlone("photo_log")});
}

TEST_F(StagingTest, ForeignTablesAreReportedAndCopiesOfARestoreAreNot) {
  stageAsRestore({"photo_share"});
  noteAsLoaded();
  stage("category");
  live().exec("ALTER TABLE photo_user RENAME TO photo_user_bak");
  reportForeignTables(kTableList);
  expectMessages({leftAlone("category")});
}

class OnlyCopyBesideAnEmptyTable : public StagingTest {
 protected:
  void SetUp() override {
    StagingTest::SetUp();
    live().exec(
        "INSERT INTO photo_config VALUES ('m', 'k', 'precious'); ALTER TABLE photo_config RENAME TO photo_config_bak;"
        "CREATE TABLE photo_config (LIKE photo_config_bak)");
  }
};

TEST_F(OnlyCopyBesideAnEmptyTable, IsReportedByAnImport) {
  other();
  appliance::writeAccountFiles(appliance::workDirectory(), "other");
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", "other"}).status, 0);
  expectMessages({leftAlone("photo_config")});
}

TEST_F(OnlyCopyBesideAnEmptyTable, IsReportedByAnExport) {
  EXPECT_EQ(run({"-e", appliance::workDirectory()}).status, 0);
  expectMessages({leftAlone("photo_config")});
}

}  // namespace
