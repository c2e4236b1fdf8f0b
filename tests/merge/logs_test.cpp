#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

constexpr const char* kAborted =
    "ERROR:  current transaction is aborted, commands ignored until end of transaction block";

class Logs : public appliance::MergeTest {
 protected:
  void expectEntries(const appliance::Rows& expected) {
    expectRows(live(), "SELECT logid, create_time, log, success, \"user\" FROM photo_log ORDER BY 1", expected);
  }
  // Calls the routine in this process, from a database of its own, in skip mode.
  int mergeDirectly() {
    const Connection destination = connectTo("photo");
    const Connection from = connectTo("other");
    return KavophotoSyncLog(destination.get(), from.get(), "");
  }
};
APPLIANCE_ALL_MODES(Logs);

TEST_P(Logs, NumberTheEntriesOfAnEmptyLogFromOneNewestFirst) {
  source().exec(
      "INSERT INTO photo_log VALUES (70, '2011-01-01', 'oldest', true, 'anna'), "
      "(71, '2013-01-01 10:11:12.5', 'it''s 100%s \\', false, 'o''neil'), (72, '2012-01-01', NULL, true, 'anna'), "
      "(73, '2010-01-01', '', true, NULL)");
  EXPECT_EQ(merge().status, 0);
  expectEntries({{"1", "2013-01-01 10:11:12.5", "it's 100%s \\", "f", "o'neil"},
                 {"2", "2012-01-01 00:00:00", "", "t", "anna"},
                 {"3", "2011-01-01 00:00:00", "oldest", "t", "anna"},
                 {"4", "2010-01-01 00:00:00", "", "t", ""}});
  expectNoMessages();
}

TEST_P(Logs, MatchEntriesByTimeAndUserAndNumberOnFromTheHighest) {
  live().exec(
      "INSERT INTO photo_log VALUES (7, '2012-01-01', 'live', true, 'anna'), (9, '2011-01-01', 'first', true, 'bob'), "
      "(5, '2011-01-01', 'second', true, 'bob')");
  source().exec(
      "INSERT INTO photo_log VALUES (1, '2011-01-01', 'saved', false, 'bob'), (2, '2012-01-01', 'saved', false, "
      "'anna'), "
      "(3, '2012-01-01 00:00:01', 'newest', false, 'anna'), (4, '2010-01-01', 'oldest', false, 'bob')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectEntries({{"10", "2012-01-01 00:00:01", "newest", "f", "anna"},
                   {"11", "2012-01-01 00:00:00", "saved", "f", "anna"},
                   {"12", "2011-01-01 00:00:00", "saved", "f", "bob"},
                   {"13", "2010-01-01 00:00:00", "oldest", "f", "bob"}});
  } else {
    expectEntries({{"5", "2011-01-01 00:00:00", "second", "t", "bob"},
                   {"7", "2012-01-01 00:00:00", "live", "t", "anna"},
                   {"9", "2011-01-01 00:00:00", "first", "t", "bob"},
                   {"10", "2012-01-01 00:00:01", "newest", "f", "anna"},
                   {"11", "2010-01-01 00:00:00", "oldest", "f", "bob"}});
  }
  expectNoMessages();
}

TEST_P(Logs, WrapTheNumberAfterTheLargest) {
  live().exec("INSERT INTO photo_log VALUES (2147483645, '2000-01-01', 'live', true, 'anna')");
  source().exec(
      "INSERT INTO photo_log SELECT number, timestamp '2011-01-05' - number * interval '1 day', number, true, 'anna' "
      "FROM generate_series(1, 4) number");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT logid, log FROM photo_log ORDER BY create_time DESC",
             {{"2147483646", "1"}, {"2147483647", "2"}, {"1", "3"}, {"2", "4"}, {"2147483645", "live"}});
}

TEST_P(Logs, StartAgainAtOneWhenTheLargestNumberIsTaken) {
  live().exec("INSERT INTO photo_log VALUES (2147483647, '2000-01-01', 'live', true, 'anna')");
  source().exec("INSERT INTO photo_log VALUES (9, '2011-01-01', 'saved', true, 'anna')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT logid, log FROM photo_log ORDER BY 1", {{"1", "saved"}, {"2147483647", "live"}});
}

TEST_P(Logs, CutValuesToTheirCapacities) {
  // Blanks around a date or a flag mean nothing: the longest ones that are kept are whole, and one more character would
  // spoil them.
  source().exec(
      "ALTER TABLE photo_log ALTER COLUMN create_time TYPE text, ALTER COLUMN success TYPE text;"
      "INSERT INTO photo_log VALUES "
      "(1, repeat(' ', 44) || '2011-01-01 10:11:12x', repeat('l', 8190) || '1x', repeat(' ', 30) || 'tx', "
      "repeat('u', 1022) || '1x'), "
      "(2, '2012-01-01', repeat('l', 8190) || 'é', 'f', repeat('u', 1022) || 'é'), "
      "(3, '2013-01-01', repeat('l', 8189) || 'é', 'f', repeat('u', 1021) || 'é'), "
      "(4, '2014-01-01', repeat('''', 9000), 'f', repeat('''', 2000))");
  EXPECT_EQ(merge().status, 0);
  expectRows(
      live(),
      "SELECT create_time, octet_length(log), right(log, 1), success, octet_length(\"user\"), right(\"user\", 1) "
      "FROM photo_log ORDER BY 1",
      {{"2011-01-01 10:11:12", "8191", "1", "t", "1023", "1"},
       {"2012-01-01 00:00:00", "8190", "l", "f", "1022", "u"},
       {"2013-01-01 00:00:00", "8191", "é", "f", "1023", "é"},
       {"2014-01-01 00:00:00", "8191", "'", "f", "1023", "'"}});
}

TEST_P(Logs, AreWrittenInOneTransactionAndOtherTablesInOnePerWindow) {
  for (const char* const table : {"photo_log", "photo_config", "category"}) {
    live().exec(std::string("ALTER TABLE ") + table + " ADD COLUMN transaction bigint DEFAULT txid_current()");
  }
  source().exec(
      "INSERT INTO photo_log VALUES (1, '2011-01-01', '', true, 'a'), (2, '2011-01-01', '', true, 'b'), "
      "(3, '2011-01-01', '', true, 'c'); INSERT INTO photo_log SELECT i, '2012-01-01', '', true, 'u' || i FROM "
      "generate_series(4, 130) i;"
      "INSERT INTO photo_config SELECT 'a', i, '' FROM generate_series(1, 130) i;"
      "INSERT INTO category (name, hidden, order_number) SELECT i, true, i FROM generate_series(1, 64) i");
  EXPECT_EQ(merge().status, 0);
  const bool areAlone = GetParam().window == 1;
  expectRows(live(), "SELECT count(*), count(DISTINCT transaction) FROM category", {{"64", areAlone ? "64" : "1"}});
  expectRows(live(), "SELECT count(*), count(DISTINCT transaction) FROM photo_config",
             {{"130", areAlone ? "130" : "3"}});
  expectRows(live(), "SELECT count(*), count(DISTINCT transaction) FROM photo_log", {{"130", "1"}});
}

TEST_P(Logs, EndBeforeTheTransactionWhenTheHighestNumberCannotBeRead) {
  live().exec("DROP TABLE photo_log");
  source().exec(
      "INSERT INTO photo_log VALUES (1, '2011-01-01', '', true, 'anna');"
      "INSERT INTO category (name, hidden, order_number) VALUES ('trips', true, 1)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("SELECT max(logid) as max FROM photo_log", appliance::noTable("photo_log")),
                  "Table photo_log sync failed.\n"});
  EXPECT_EQ(live().count("category"), 1);
}

TEST_P(Logs, FailingLeaveATransactionOpenInWhichNothingMoreIsWritten) {
  appliance::makeDirectories("/var/services/photo/trip");
  appliance::writeFile("/var/packages/Lumora/etc/settings.conf", "site_name=\"Live\"\n");
  live().exec("INSERT INTO photo_log VALUES (5, '2011-01-02', 'live', true, 'anna')");
  source().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('Anna', 0, 'saved');"
      "INSERT INTO photo_config VALUES ('album', 'order', 'saved');"
      "ALTER TABLE photo_log ALTER COLUMN success TYPE text;"
      "INSERT INTO photo_log VALUES (1, '2011-01-03', 'before', 'true', 'anna'), "
      "(2, '2011-01-02', 'known', 'true', 'anna'), (3, '2011-01-01', 'it''s', 'x''', 'o''neil'), "
      "(4, '2010-01-01', 'then', 'true', 'anna');"
      "INSERT INTO photo_share VALUES (1, 'trip', '', '', true, 0, '', true, true, true, '');"
      "INSERT INTO category (name, hidden, order_number) VALUES ('trips', true, 1);"
      "INSERT INTO watermark (shareid) VALUES (1)");
  EXPECT_EQ(merge().status, 0);

  // After the entries before the bad one, the known one too where it is written anew.
  std::vector<std::string> messages = {
      failedToExec("Insert into photo_log Values (" + std::string(overwrites() ? "8" : "7") +
                       ", '2011-01-01 00:00:00', 'it''s', 'x''', 'o''neil')",
                   "ERROR:  invalid input syntax for type boolean: \"x'\""),
      "Table photo_log sync failed.\n"};
  const auto fails = [&messages](const std::string& statement, const std::string& consequence) {
    messages.push_back("Failed to exec [" + statement + "] (" + kAborted + ")");
    if (!consequence.empty()) {
      messages.push_back(consequence);
    }
  };
  if (imports()) {
    fails("Select * from photo_share where sharename = 'trip'", "Table photo_share sync failed.\n");
    fails("Select * from category where name = 'trips'", "Table category sync failed.\n");
    fails("SELECT * FROM watermark WHERE shareid = 1", "Table watermark sync failed.\n");
  } else {
    // The staged tables are read, and dropped in the end, on the same connection.
    std::string staged;
    for (const std::string& table : appliance::tableNames()) {
      staged += (staged.empty() ? "'" : ", '") + table + "_bak'";
    }
    const std::string rights = "Table photo_access_right_for_hox_account sync failed.\n";
    fails("Select * from photo_share_bak", "Table photo_share sync failed.\n");
    fails("Select * from photo_user_bak", "Table photo_user sync failed.\n");
    fails("Select * from video_comment_bak", "Table video_comment sync failed.\n");
    fails("Select * from video_desc_bak", "Table video_desc sync failed.\n");
    fails("Select * from photo_access_right_for_hox_account_bak", rights);
    fails("Select * from photo_upload_right_for_hox_account_bak", rights);
    fails("Select * from photo_manage_right_for_hox_account_bak", rights);
    fails(
        "Select * from photo_video_label_bak left join photo_label_bak on "
        "photo_video_label_bak.label_id=photo_label_bak.id",
        "Table photo_video_label sync failed.\n");
    fails("Select * from category_bak", "Table category sync failed.\n");
    fails("Select * from category_items_bak left join category_bak on category_bak.id=category_items_bak.category_id",
          "Table category_items sync failed.\n");
    fails("Select * from photo_group_bak", "Table photo_group sync failed.\n");
    fails("Select * from photo_group_permission_for_hox_account_bak",
          "Table photo_group_permission_for_hox_account sync failed.\n");
    fails("SELECT * FROM photo_personal_collection_bak", "Table photo_personal_collection sync failed");
    fails("SELECT * FROM photo_personal_collection_for_hox_account_bak",
          "Table photo_personal_collection_for_hox_account sync failed");
    fails("SELECT * FROM photo_personal_collection_for_admin_bak",
          "Table photo_personal_collection_for_admin sync failed");
    fails("SELECT * FROM photo_personal_collection_photo_bak", "");
    fails("SELECT tablename FROM pg_tables WHERE schemaname = 'public' and tablename in (" + staged + ")", "");
  }
  expectMessages(messages);

  expectEntries({{"5", "2011-01-02 00:00:00", "live", "t", "anna"}});
  EXPECT_EQ(live().count("photo_label"), 1);
  EXPECT_EQ(live().count("photo_config"), 1);
  EXPECT_EQ(live().count("photo_share"), 0);
  EXPECT_EQ(live().count("category"), 0);
  EXPECT_EQ(live().count("watermark"), 0);
}

TEST_F(Logs, EndAtALookUpThatFails) {
  source().exec(
      "ALTER TABLE photo_log ALTER COLUMN create_time TYPE text;"
      "INSERT INTO photo_log VALUES (1, '2011-01-01''x', '', true, 'o''neil'), (2, '2010-01-01', '', true, 'anna')");
  EXPECT_EQ(mergeDirectly(), -1);
  expectMessages(
      {failedToExec("Select * from photo_log where create_time = '2011-01-01''x' and photo_log.user = 'o''neil'",
                    "ERROR:  invalid input syntax for type timestamp: \"2011-01-01'x\"")});
  EXPECT_EQ(live().count("photo_log"), 0);
}

TEST_F(Logs, EndAtADeleteThatFailsAndLeaveTheirConnectionInTheTransaction) {
  const appliance::OverwriteMode overwrite(true);
  live().exec("INSERT INTO photo_log VALUES (5, '2011-01-01', 'live', true, 'o''neil')");
  source().exec(
      "INSERT INTO photo_log VALUES (1, '2012-01-01', 'newer', true, 'anna'), (2, '2011-01-01', 'saved', true, "
      "'o''neil')");
  appliance::refuseWriting(live(), "photo_log", "DELETE", "true");
  Connection destination = connectTo("photo");
  const Connection from = connectTo("other");
  EXPECT_EQ(KavophotoSyncLog(destination.get(), from.get(), ""), -1);
  expectMessages(
      {failedToExec("Delete from photo_log where create_time = '2011-01-01 00:00:00' and photo_log.user = 'o''neil'",
                    appliance::kRefused)});
  EXPECT_FALSE(KAVODBIsUsable(destination.get()));
  EXPECT_FALSE(execute(destination.get(), "SELECT 1"));
  expectMessages({failedToExec("SELECT 1", kAborted)});
  destination.reset();
  expectEntries({{"5", "2011-01-01 00:00:00", "live", "t", "o'neil"}});
}

TEST_F(Logs, EndAtAnEntryWithoutTime) {
  source().exec("INSERT INTO photo_log VALUES (1, '2012-01-01', '', true, 'anna'), (2, NULL, '', true, 'anna')");
  EXPECT_EQ(mergeDirectly(), -1);
  // Nulls come first in the falling order.
  expectMessages({failedToExec("Select * from photo_log where create_time = '' and photo_log.user = 'anna'",
                               "ERROR:  invalid input syntax for type timestamp: \"\"")});
  EXPECT_EQ(live().count("photo_log"), 0);
}

TEST_F(Logs, BringOverTheNewestHundredThousandAndLeaveNoIndexBehind) {
  // Most entries are there already, which makes them cheap.
  const std::string entries =
      "INSERT INTO photo_log SELECT number, timestamp '2011-01-01' + number * interval '1 second', 'saved', true, "
      "'anna' FROM generate_series(";
  live().exec(entries + "11, 99995) number");
  source().exec(entries + "1, 100005) number");
  const std::vector<std::string> before = appliance::structure("photo");
  EXPECT_EQ(mergeDirectly(), 0);
  expectRows(live(), "SELECT logid, create_time FROM photo_log WHERE logid > 99995 ORDER BY 1",
             {{"99996", "2011-01-02 03:46:45"},
              {"99997", "2011-01-02 03:46:44"},
              {"99998", "2011-01-02 03:46:43"},
              {"99999", "2011-01-02 03:46:42"},
              {"100000", "2011-01-02 03:46:41"},
              {"100001", "2011-01-02 03:46:40"},
              {"100002", "2011-01-02 03:46:39"},
              {"100003", "2011-01-02 03:46:38"},
              {"100004", "2011-01-02 03:46:37"},
              {"100005", "2011-01-02 03:46:36"},
              {"100006", "2011-01-01 00:00:10"},
              {"100007", "2011-01-01 00:00:09"},
              {"100008", "2011-01-01 00:00:08"},
              {"100009", "2011-01-01 00:00:07"},
              {"100010", "2011-01-01 00:00:06"}});
  EXPECT_EQ(live().count("photo_log"), 100000);
  EXPECT_EQ(appliance::structure("photo"), before);
  expectNoMessages();
}

}  // namespace
