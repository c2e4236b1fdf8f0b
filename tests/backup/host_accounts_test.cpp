#include "backup/host_accounts.h"

#include <unistd.h>

#include "platform/overwrite_mode.h"
#include "platform/query.h"
#include "support/merge_test.h"

namespace {

using appliance::readFile;
using appliance::workDirectory;
using appliance::writeFile;

const std::vector<std::string> kRightsTables = {
    "photo_access_right_for_hox_account", "photo_upload_right_for_hox_account", "photo_manage_right_for_hox_account"};
constexpr const char* kUserFile = "/tmp/backup/kavophoto_backup_hox_account.txt";
constexpr const char* kGroupFile = "/tmp/backup/kavophoto_backup_hox_group_account.txt";

class HostAccountExportTest : public appliance::ToolTest {
 protected:
  void exportAccounts(const std::vector<std::string>& messages) {
    EXPECT_EQ(run({"-e", workDirectory()}).status, 0);
    expectMessages(messages);
  }
};

TEST_F(HostAccountExportTest, WritesALineForEveryRow) {
  live().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1), (1026, 2);"
      "INSERT INTO photo_upload_right_for_hox_account VALUES (1027, 1);"
      "INSERT INTO photo_manage_right_for_hox_account VALUES (1028, 1), (1026, 1);"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 1), (65601, 1, 1)");
  exportAccounts({});
  EXPECT_EQ(readFile(kUserFile),
            "1026 =\"editor\"\n1026 =\"editor\"\n1027 =\"viewer\"\n1028 =\"first last\"\n1026 =\"editor\"\n");
  EXPECT_EQ(readFile(kGroupFile), "65600 =\"family\"\n65601 =\"friends\"\n");
}

TEST_F(HostAccountExportTest, AppendsToTheFilesThatAreThere) {
  writeFile(kUserFile, "7 =\"seven\"\n");
  live().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1)");
  exportAccounts({});
  EXPECT_EQ(readFile(kUserFile), "7 =\"seven\"\n1026 =\"editor\"\n");
  EXPECT_EQ(readFile(kGroupFile), "");
}

TEST_F(HostAccountExportTest, KeepsPercentSignsOfNames) {
  appliance::setAccounts({{1, "%s%n"}, {2, "100%%"}}, {{3, "%d%%"}});
  live().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1, 1), (2, 1);"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (3, 1, 1)");
  exportAccounts({});
  EXPECT_EQ(readFile(kUserFile), "1 =\"%s%n\"\n2 =\"100%\"\n");
  EXPECT_EQ(readFile(kGroupFile), "3 =\"%d%\"\n");
}

TEST_F(HostAccountExportTest, UnknownAccountStopsItsTableOnly) {
  live().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1), (4711, 1), (1027, 1);"
      "INSERT INTO photo_upload_right_for_hox_account VALUES (1028, 1);"
      "INSERT INTO photo_manage_right_for_hox_account VALUES (4712, 1);"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 1), (4713, 1, 1)");
  exportAccounts({"Failed to fetch hox user (4711)", "failed when photo_access_right_for_hox_account.\n",
                  "Failed to fetch hox user (4712)", "failed when photo_manage_right_for_hox_account.\n",
                  "Failed to fetch hox user (4713)", "failed when photo_group_permission_for_hox_account.\n"});
  EXPECT_EQ(readFile(kUserFile), "1026 =\"editor\"\n1028 =\"first last\"\n");
  EXPECT_EQ(readFile(kGroupFile), "65600 =\"family\"\n");
}

TEST_F(HostAccountExportTest, NumbersThatNoAccountCanHaveAreUnknown) {
  live().exec(
      "ALTER TABLE photo_access_right_for_hox_account ALTER userid TYPE bigint;"
      "ALTER TABLE photo_group_permission_for_hox_account ALTER groupid TYPE numeric;"
      "INSERT INTO photo_access_right_for_hox_account VALUES (4294967296, 1);"
      "INSERT INTO photo_upload_right_for_hox_account VALUES (-2147483648, 1);"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (99999999999999999999, 1, 1)");
  exportAccounts({"Failed to fetch hox user (4294967296)", "failed when photo_access_right_for_hox_account.\n",
                  "Failed to fetch hox user (-2147483648)", "failed when photo_upload_right_for_hox_account.\n",
                  "Failed to fetch hox user (99999999999999999999)",
                  "failed when photo_group_permission_for_hox_account.\n"});
  EXPECT_EQ(readFile(kUserFile), "");
}

TEST_F(HostAccountExportTest, MissingTableIsAFailedStatement) {
  live().exec("DROP TABLE photo_upload_right_for_hox_account");
  exportAccounts(
      {"Failed to exec [Select * from photo_upload_right_for_hox_account] (ERROR:  relation "
       "\"photo_upload_right_for_hox_account\" does not exist)",
       "failed when photo_upload_right_for_hox_account.\n"});
}

TEST_F(HostAccountExportTest, FileThatCannotBeOpenedFailsTheTable) {
  appliance::makeDirectories(kUserFile);
  const std::string opening = "Failed to open file: /tmp/backup/kavophoto_backup_hox_account.txt.\n";
  exportAccounts({opening, "failed when photo_access_right_for_hox_account.\n", opening,
                  "failed when photo_upload_right_for_hox_account.\n", opening,
                  "failed when photo_manage_right_for_hox_account.\n"});
  EXPECT_EQ(readFile(kGroupFile), "");
}

TEST_F(HostAccountExportTest, SymbolicLinkInPlaceOfTheFileIsNotFollowed) {
  writeFile("/tmp/target", "kept");
  ASSERT_EQ(symlink("/tmp/target", kGroupFile), 0);
  live().exec("INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 1)");
  exportAccounts({"Failed to open file: /tmp/backup/kavophoto_backup_hox_group_account.txt.\n",
                  "failed when photo_group_permission_for_hox_account.\n"});
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(HostAccountExportTest, FullDiskFailsTheTable) {
  live().exec("INSERT INTO photo_manage_right_for_hox_account VALUES (1026, 1)");
  appliance::mountSmall("/tmp/backup", 65536);
  appliance::RunOptions options;
  options.program = "/bin/sh";
  appliance::runTool({"-c", "cat /dev/zero > /tmp/backup/full"}, options);
  exportAccounts({"Failed to write file: /tmp/backup/kavophoto_backup_hox_account.txt.\n",
                  "failed when photo_manage_right_for_hox_account.\n"});
}

TEST_F(HostAccountExportTest, UnreachableServerFailsEveryTable) {
  appliance::server::stop();
  const std::string connecting = "Failed to connect to database";
  exportAccounts({connecting, "failed when photo_access_right_for_hox_account.\n", connecting,
                  "failed when photo_upload_right_for_hox_account.\n", connecting,
                  "failed when photo_manage_right_for_hox_account.\n", connecting,
                  "failed when photo_group_permission_for_hox_account.\n"});
}

class HostAccounts : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    // The same shares have other numbers in the source; one is not live.
    source().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'one'), (2, 't''wo'), (3, 'away')");
    live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (11, 'one'), (12, 't''wo')");
    // Neither has a folder, so the merge of the shares leaves them alone.
  }

  // Messages of a failing merge, which each mode words in its own way.
  std::vector<std::string> failing(const std::string& message, const std::string& table) const {
    if (table == "photo_group_permission_for_hox_account") {
      return {message, "Table photo_group_permission_for_hox_account sync failed.\n"};
    }
    return {message,
            imports() ? "Table " + table + " sync failed." : "Table photo_access_right_for_hox_account sync failed.\n"};
  }

  static std::string rightsOf(const std::string& table) {
    return "SELECT userid, shareid, create_time FROM " + table + " ORDER BY 1, 2, 3";
  }
};

APPLIANCE_ALL_MODES(HostAccounts);

constexpr const char* kPermissions =
    "SELECT groupid, shareid, permission, create_time FROM photo_group_permission_for_hox_account ORDER BY 1, 2, 3";

TEST_P(HostAccounts, ArriveOnTheLiveShares) {
  for (const std::string& table : kRightsTables) {
    source().exec("INSERT INTO " + table + " VALUES (1026, 1, '2020-01-02 03:04:05'), (1027, 2, '2021-01-01')");
  }
  source().exec("INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 2, 3, '2020-02-02 02:02:02')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  for (const std::string& table : kRightsTables) {
    expectRows(live(), rightsOf(table), {{"1026", "11", "2020-01-02 03:04:05"}, {"1027", "12", "2021-01-01 00:00:00"}});
  }
  expectRows(live(), kPermissions, {{"65600", "12", "3", "2020-02-02 02:02:02"}});
}

TEST_P(HostAccounts, WithLiveRowsAreLeftAloneOrReplacedShareByShare) {
  source().exec("INSERT INTO photo_share (shareid, sharename) VALUES (4, 'four')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (14, 'four')");
  for (const std::string& table : kRightsTables) {
    source().exec("INSERT INTO " + table + " VALUES (1026, 1, '2020-01-01'), (1026, 2, '2020-01-01')");
    // On the second share, on one that the source has no row for, and on one with a number that the source uses for
    // another.
    live().exec("INSERT INTO " + table +
                " VALUES (1026, 12, '2000-01-01'), (1026, 14, '2000-01-01'), "
                "(1026, 2, '2000-01-01')");
  }
  source().exec(
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 1, '2020-01-01'), "
      "(65600, 2, 1, '2020-01-01')");
  live().exec(
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 12, 7, '2000-01-01'), "
      "(65600, 14, 7, '2000-01-01'), (65600, 2, 7, '2000-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  const std::string old = "2000-01-01 00:00:00";
  const std::string saved = "2020-01-01 00:00:00";
  for (const std::string& table : kRightsTables) {
    if (overwrites()) {
      expectRows(live(), rightsOf(table), {{"1026", "11", saved}, {"1026", "12", saved}, {"1026", "14", old}});
    } else {
      expectRows(live(), rightsOf(table), {{"1026", "2", old}, {"1026", "12", old}, {"1026", "14", old}});
    }
  }
  if (overwrites()) {
    expectRows(live(), kPermissions,
               {{"65600", "11", "1", saved}, {"65600", "12", "1", saved}, {"65600", "14", "7", old}});
  } else {
    expectRows(live(), kPermissions, {{"65600", "2", "7", old}, {"65600", "12", "7", old}, {"65600", "14", "7", old}});
  }
}

TEST_P(HostAccounts, OnSeveralSharesGetOnlyTheFirstOutsideOverwriteMode) {
  for (const std::string& table : kRightsTables) {
    source().exec("INSERT INTO " + table + " VALUES (1026, 1, '2020-01-01'), (1026, 2, '2020-01-01')");
  }
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  for (const std::string& table : kRightsTables) {
    const std::string saved = "2020-01-01 00:00:00";
    if (overwrites()) {
      expectRows(live(), rightsOf(table), {{"1026", "11", saved}, {"1026", "12", saved}});
    } else {
      expectRows(live(), rightsOf(table), {{"1026", "11", saved}});
    }
  }
}

TEST_P(HostAccounts, WithoutTheNameOnThisSystemAreSkippedSilently) {
  source().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (500, 1, '2020-01-01'), (1026, 1, '2020-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (501, 1, 1, '2020-01-01'), "
      "(65600, 1, 1, '2020-01-01')");
  appliance::ArchiveOptions options;
  options.users = "500 =\"left the company\"\n1026 =\"editor\"\n";
  options.groups = "501 =\"dissolved\"\n65600 =\"family\"\n";
  EXPECT_EQ(merge(options).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT userid FROM photo_access_right_for_hox_account", {{"1026"}});
  expectRows(live(), "SELECT groupid FROM photo_group_permission_for_hox_account", {{"65600"}});
}

TEST_P(HostAccounts, MissingInTheFileEndTheMerge) {
  appliance::ArchiveOptions options;
  options.users = "1026 =\"editor\"\n1028 =\"first last\"\n";
  options.groups = "65601 =\"friends\"\n";
  for (const std::string& table : kRightsTables) {
    source().exec("INSERT INTO " + table + " VALUES (1026, 1), (1027, 1), (1028, 1)");
  }
  source().exec("INSERT INTO photo_group_permission_for_hox_account VALUES (65601, 1, 1), (65600, 1, 1)");
  EXPECT_EQ(merge(options).status, 0);
  std::vector<std::string> messages;
  for (const std::string& table : kRightsTables) {
    for (const std::string& message : failing("Failed to fetch hox user (1027)", table)) {
      messages.push_back(message);
    }
  }
  for (const std::string& message :
       failing("Failed to fetch hox group (65600)", "photo_group_permission_for_hox_account")) {
    messages.push_back(message);
  }
  expectMessages(messages);
  for (const std::string& table : kRightsTables) {
    expectRows(live(), "SELECT userid FROM " + table, {{"1026"}});
  }
  expectRows(live(), "SELECT groupid FROM photo_group_permission_for_hox_account", {{"65601"}});
}

TEST_P(HostAccounts, WithoutAFileEndTheMergeAtTheFirstRow) {
  source().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1)");
  appliance::ArchiveOptions options;
  options.leaveOut = {"kavophoto_backup_hox_account.txt"};
  options.users = "";
  EXPECT_EQ(merge(options).status, 0);
  expectMessages(failing("Failed to fetch hox user (1026)", "photo_access_right_for_hox_account"));
  EXPECT_EQ(live().count("photo_access_right_for_hox_account"), 0);
}

TEST_P(HostAccounts, LinesOfOneNumberGiveOneName) {
  source().exec("INSERT INTO photo_access_right_for_hox_account VALUES (7, 1, '2020-01-01')");
  appliance::ArchiveOptions options;
  options.users = "7 =\"editor\"\n7 =\"editor\"\n";
  EXPECT_EQ(merge(options).status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_access_right_for_hox_account"), 1);
}

TEST_P(HostAccounts, InsertTheSavedNumberButDeleteByTheCurrentOne) {
  appliance::ArchiveOptions options;
  options.users = "7 =\"editor\"\n";
  options.groups = "8 =\"family\"\n";
  source().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (7, 1, '2020-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (8, 1, 1, '2020-01-01')");
  live().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (7, 11, '2000-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (8, 11, 7, '2000-01-01')");
  if (overwrites()) {
    live().exec(
        "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 11, '2000-01-01');"
        "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 11, 7, '2000-01-01')");
  }
  EXPECT_EQ(merge(options).status, 0);
  expectNoMessages();
  expectRows(live(), rightsOf("photo_access_right_for_hox_account"),
             {{"7", "11", "2000-01-01 00:00:00"}, {"7", "11", "2020-01-01 00:00:00"}});
  expectRows(live(), kPermissions, {{"8", "11", "1", "2020-01-01 00:00:00"}, {"8", "11", "7", "2000-01-01 00:00:00"}});
}

TEST_P(HostAccounts, OnAShareThatIsNotLiveAreSkippedAfterTheFirstDelete) {
  // 'away' has the number 3 in the source, and what the live table holds under that number goes in overwrite mode.
  source().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 3, '2020-01-01'), (1027, 99, '2020-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 3, 1, '2020-01-01'), "
      "(65601, 99, 1, '2020-01-01')");
  live().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 3, '2000-01-01'), (1027, 99, '2000-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 3, 7, '2000-01-01'), "
      "(65601, 99, 7, '2000-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_access_right_for_hox_account"), overwrites() ? 0 : 2);
  EXPECT_EQ(live().count("photo_group_permission_for_hox_account"), overwrites() ? 0 : 2);
}

TEST_P(HostAccounts, FailedInsertEndsTheMerge) {
  source().exec(
      "INSERT INTO photo_upload_right_for_hox_account VALUES (1026, 1, '2020-01-01'), (1027, 1, '2020-01-01');"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 3, '2020-01-01')");
  live().exec(
      "ALTER TABLE photo_upload_right_for_hox_account ADD CHECK (userid <> 1026);"
      "ALTER TABLE photo_group_permission_for_hox_account ADD CHECK (permission <> 3)");
  EXPECT_EQ(merge().status, 0);
  std::vector<::testing::Matcher<const std::string&>> messages;
  const auto add = [&messages](const std::string& statement, const std::vector<std::string>& rest) {
    messages.push_back(::testing::StartsWith("Failed to exec [" + statement + "] (ERROR:  new row for relation "));
    messages.emplace_back(::testing::Eq(rest[1]));
  };
  add("Insert into photo_upload_right_for_hox_account Values (1026, 11, '2020-01-01 00:00:00')",
      failing("", "photo_upload_right_for_hox_account"));
  add("Insert into photo_group_permission_for_hox_account(groupid, shareid, permission, create_time) Values (65600, "
      "11, 3, '2020-01-01 00:00:00')",
      failing("", "photo_group_permission_for_hox_account"));
  expectMessagesMatch(messages);
  EXPECT_EQ(live().count("photo_upload_right_for_hox_account"), 0);
}

TEST_P(HostAccounts, NamesOfAnySpellingAreFound) {
  appliance::setAccounts({{1, "o'neil"}, {2, "a=b"}, {3, "%s"}}, {});
  source().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1, 1), (2, 1), (3, 1)");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_access_right_for_hox_account"), 3);
}

TEST_P(HostAccounts, OfLargeNumbersAreMergedOnceHoweverOften) {
  appliance::setAccounts({{3000000000U, "large"}}, {{3000000001U, "larger"}});
  for (appliance::Database* database : {&live(), &source()}) {
    for (const std::string& table : kRightsTables) {
      database->exec("ALTER TABLE " + table + " ALTER userid TYPE bigint");
    }
    database->exec("ALTER TABLE photo_group_permission_for_hox_account ALTER groupid TYPE bigint");
  }
  for (const std::string& table : kRightsTables) {
    source().exec("INSERT INTO " + table + " VALUES (3000000000, 1, '2020-01-01')");
  }
  source().exec("INSERT INTO photo_group_permission_for_hox_account VALUES (3000000001, 1, 3, '2020-01-01')");
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(merge().status, 0);
    expectNoMessages();
    for (const std::string& table : kRightsTables) {
      expectRows(live(), rightsOf(table), {{"3000000000", "11", "2020-01-01 00:00:00"}});
    }
    expectRows(live(), kPermissions, {{"3000000001", "11", "3", "2020-01-01 00:00:00"}});
  }
}

class HostAccountReaderTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    connection_ = connectTo("photo");
    for (const std::string& table : kRightsTables) {
      live().exec("CREATE TABLE " + table + "_bak AS SELECT * FROM " + table);
    }
    live().exec(
        "CREATE TABLE photo_group_permission_for_hox_account_bak AS SELECT * FROM "
        "photo_group_permission_for_hox_account; CREATE TABLE photo_share_bak AS SELECT 1 AS shareid, 'one' AS "
        "sharename;"
        "INSERT INTO photo_share VALUES (11, 'one')");
    writeFile(kUserFile, "1026 =\"editor\"\n");
    writeFile(kGroupFile, "65600 =\"family\"\n");
  }

  int mergeRights() {
    return KavophotoSyncHoxUserRights(connection_.get(), connection_.get(), "/tmp/backup/", kRightsTables[0].c_str(),
                                      "_bak");
  }

  int mergePermissions() {
    return KavophotoSyncHoxGroupPermission(connection_.get(), connection_.get(), "/tmp/backup/", "_bak");
  }

  // A failed statement is the only message.
  void expectFailed(const std::string& statement) {
    expectMessagesMatch({::testing::StartsWith("Failed to exec [" + statement + "] (ERROR:  ")});
  }

 private:
  Connection connection_;
};

TEST_F(HostAccountReaderTest, FailedStatementOfAnyStepEndsTheRights) {
  live().exec("INSERT INTO photo_access_right_for_hox_account_bak VALUES (1026, 1, '2020-01-01')");
  const auto fails = [this](const std::string& breaking, const std::string& statement, const std::string& mending) {
    live().exec(breaking);
    EXPECT_EQ(mergeRights(), -1);
    expectFailed(statement);
    live().exec(mending);
  };
  const std::string table = "photo_access_right_for_hox_account";
  fails("ALTER TABLE " + table + "_bak RENAME TO gone", "Select * from " + table + "_bak",
        "ALTER TABLE gone RENAME TO " + table + "_bak");
  fails("ALTER TABLE " + table + " RENAME TO gone", "Select * from " + table + " where userid = 1026",
        "ALTER TABLE gone RENAME TO " + table);
  fails("ALTER TABLE " + table + " RENAME shareid TO gone",
        "Delete from " + table + " where userid = 1026 and shareid = 1",
        "ALTER TABLE " + table + " RENAME gone TO shareid");
  fails("ALTER TABLE photo_share_bak RENAME TO gone", "Select * from photo_share_bak where shareid = 1",
        "ALTER TABLE gone RENAME TO photo_share_bak");
  fails("ALTER TABLE photo_share RENAME TO gone", "Select * from photo_share where sharename = 'one'",
        "ALTER TABLE gone RENAME TO photo_share");
  gIsOverwiroteMode = true;
  fails("INSERT INTO " + table +
            " VALUES (1026, 11); CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN RAISE ''refused''; END'; CREATE TRIGGER refuse BEFORE DELETE ON " +
            table + " FOR EACH ROW EXECUTE FUNCTION refuse()",
        "Delete from " + table + " where userid = 1026 and shareid = 11", "DROP TRIGGER refuse ON " + table);
  gIsOverwiroteMode = false;
}

TEST_F(HostAccountReaderTest, FailedStatementOfAnyStepEndsThePermissions) {
  live().exec("INSERT INTO photo_group_permission_for_hox_account_bak VALUES (65600, 1, 2, '2020-01-01')");
  const auto fails = [this](const std::string& breaking, const std::string& statement, const std::string& mending) {
    live().exec(breaking);
    EXPECT_EQ(mergePermissions(), -1);
    expectFailed(statement);
    live().exec(mending);
  };
  const std::string table = "photo_group_permission_for_hox_account";
  fails("ALTER TABLE " + table + "_bak RENAME TO gone", "Select * from " + table + "_bak",
        "ALTER TABLE gone RENAME TO " + table + "_bak");
  fails("ALTER TABLE " + table + " RENAME TO gone", "Select * from " + table + " where groupid = 65600",
        "ALTER TABLE gone RENAME TO " + table);
  fails("ALTER TABLE " + table + " RENAME shareid TO gone",
        "Delete from " + table + " where groupid = 65600 and shareid = 1",
        "ALTER TABLE " + table + " RENAME gone TO shareid");
  fails("ALTER TABLE photo_share_bak RENAME TO gone", "Select * from photo_share_bak where shareid = 1",
        "ALTER TABLE gone RENAME TO photo_share_bak");
  gIsOverwiroteMode = true;
  fails("INSERT INTO " + table +
            " VALUES (65600, 11, 1); CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
            "'BEGIN RAISE ''refused''; END'; CREATE TRIGGER refuse BEFORE DELETE ON " +
            table + " FOR EACH ROW EXECUTE FUNCTION refuse()",
        "Delete from " + table + " where groupid = 65600 and shareid = 11", "DROP TRIGGER refuse ON " + table);
  gIsOverwiroteMode = false;
}

TEST_F(HostAccountReaderTest, GroupFileIsLookedForBehindASlash) {
  live().exec("INSERT INTO photo_group_permission_for_hox_account_bak VALUES (65600, 1, 2, '2020-01-01')");
  const Connection connection = connectTo("photo");
  // Without its last slash the prefix still names the group file, but no longer the user file.
  EXPECT_EQ(KavophotoSyncHoxGroupPermission(connection.get(), connection.get(), "/tmp/backup", "_bak"), 0);
  EXPECT_EQ(live().count("photo_group_permission_for_hox_account"), 1);
  live().exec("INSERT INTO photo_access_right_for_hox_account_bak VALUES (1026, 1, '2020-01-01')");
  EXPECT_EQ(
      KavophotoSyncHoxUserRights(connection.get(), connection.get(), "/tmp/backup", kRightsTables[0].c_str(), "_bak"),
      -1);
  expectMessages({"Failed to fetch hox user (1026)"});
}

TEST_F(HostAccountReaderTest, UnreadableFileWithoutRowsIsNoFailure) {
  appliance::removeAll(kUserFile);
  appliance::removeAll(kGroupFile);
  EXPECT_EQ(mergeRights(), 0);
  EXPECT_EQ(mergePermissions(), 0);
  expectNoMessages();
}

}  // namespace
