#include "restore/staging.h"

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

  static int drop(const std::vector<std::string>& spared = {}) {
    return dropStagedTables(connectTo("photo").get(), kTableList, spared);
  }

  static std::vector<std::string> dropLeftovers() { return dropLeftoverTables(connectTo("photo").get(), kTableList); }
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

TEST_F(StagingTest, StatementReachesPsqlAsOneArgument) {
  replaceProgram("/usr/bin/psql", R"(printf '%s\n' "$@" >> /tmp/recorded)");
  EXPECT_EQ(KavophotoTableRename("a 'b'"), 0);
  EXPECT_EQ(KavophotoTableRenameBack("c"), 0);
  EXPECT_EQ(addDBPrimaryKey("t_bak", "id"), 0);
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

TEST_F(StagingTest, DropsTheStagedTablesOfTheListOnly) {
  for (const std::string& table : tableNames()) {
    stage(table);
  }
  stage("video");
  live().exec("CREATE SCHEMA elsewhere; CREATE TABLE elsewhere.photo_share_bak (id integer)");
  const auto live_tables = appliance::contents("photo").size();
  EXPECT_EQ(drop(), 0);
  EXPECT_EQ(stagedTables(), (Rows{{"video_bak"}}));
  EXPECT_EQ(appliance::contents("photo").size(), live_tables - tableNames().size());
  EXPECT_EQ(live().count("elsewhere.photo_share_bak"), 0);
  expectNoMessages();
}

TEST_F(StagingTest, DropsNothingWhereNothingIsStaged) {
  const auto before = appliance::structure("photo");
  EXPECT_EQ(drop(), 0);
  EXPECT_EQ(appliance::structure("photo"), before);
  expectNoMessages();
}

TEST_F(StagingTest, SparesTheNamedTables) {
  stage("photo_share");
  stage("category");
  EXPECT_EQ(drop({"category"}), 0);
  EXPECT_EQ(stagedTables(), (Rows{{"category_bak"}}));
}

TEST_F(StagingTest, GoesOnAfterATableThatCannotBeDropped) {
  stage("photo_label");
  stage("photo_share");
  live().exec("CREATE VIEW depends AS SELECT * FROM photo_label_bak");
  EXPECT_EQ(drop(), 0);
  expectMessages({"Failed to execute commend: DROP TABLE photo_label_bak"});
  EXPECT_EQ(stagedTables(), (Rows{{"photo_label_bak"}}));
}

TEST_F(StagingTest, DropThatCannotListTheTablesIsAFailure) {
  stage("photo_share");
  EXPECT_EQ(dropStagedTables(nullptr, kTableList, {}), -1);
  expectMessages({"Failed to exec [" + listStatement() + "] (no connection)"});
  EXPECT_EQ(stagedTables(), (Rows{{"photo_share_bak"}}));
}

TEST_F(StagingTest, LeftoverWithoutALiveTableIsSparedAndNamed) {
  stage("photo_share");
  live().exec("ALTER TABLE category RENAME TO category_bak; ALTER TABLE photo_label RENAME TO photo_label_bak");
  EXPECT_EQ(dropLeftovers(), (std::vector<std::string>{"photo_label", "category"}));
  EXPECT_EQ(stagedTables(), (Rows{{"category_bak"}, {"photo_label_bak"}}));
  expectNoMessages();
}

TEST_F(StagingTest, LeftoversThatCannotBeListedAreAllSpared) {
  EXPECT_EQ(dropLeftoverTables(nullptr, kTableList), tableNames());
  expectMessages({"Failed to exec [" + listStatement() + "] (no connection)"});
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

}  // namespace
