#include "merge/common.h"

#include <unistd.h>

#include <limits>

#include "merge/merge.h"
#include "merge/routine_test.h"
#include "platform/text.h"
#include "support/tool_test.h"

namespace {

class Common : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    connection_ = connectTo("photo");
  }
  DBConnect_tag* connection() { return connection_.get(); }
  // Replaces the entry 'key' of the live photo_config.
  bool mergeKey() {
    return mergeRow(connection(), sql("Select * from photo_config where config_key = 'key'"),
                    sql("Delete from photo_config where config_key = 'key'"),
                    sql("Insert into photo_config Values ('new', 'key', 'new')"));
  }
  Room makeRoomForKey() {
    return makeRoom(connection(), sql("Select * from photo_config where config_key = 'key'"),
                    sql("Delete from photo_config where config_key = 'key'"));
  }
  void expectModules(const appliance::Rows& expected) {
    expectRows(live(), "SELECT module_name FROM photo_config ORDER BY 1", expected);
  }
  static std::string failed(const std::string& statement, const std::string& error) {
    return "Failed to exec [" + statement + "] (" + error + ")";
  }

 private:
  Connection connection_;
};

TEST_F(Common, InsertsARowThatIsNotThereInEitherMode) {
  appliance::refuseWriting(live(), "photo_config", "DELETE", "true");
  for (const bool overwrites : {false, true}) {
    const appliance::OverwriteMode mode(overwrites);
    live().exec("TRUNCATE photo_config");
    EXPECT_TRUE(mergeKey());
    expectModules({{"new"}});
  }
}

TEST_F(Common, KeepsAllRowsThatAreThereInSkipMode) {
  live().exec("INSERT INTO photo_config VALUES ('a', 'key', ''), ('b', 'key', '')");
  EXPECT_TRUE(mergeKey());
  expectModules({{"a"}, {"b"}});
}

TEST_F(Common, ReplacesAllRowsThatAreThereInOverwriteMode) {
  const appliance::OverwriteMode mode(true);
  live().exec("INSERT INTO photo_config VALUES ('a', 'key', ''), ('b', 'key', ''), ('c', 'other', '')");
  EXPECT_TRUE(mergeKey());
  expectModules({{"c"}, {"new"}});
}

TEST_F(Common, RoomIsMadeInOverwriteModeOnly) {
  EXPECT_EQ(makeRoomForKey(), Room::kFree);
  live().exec("INSERT INTO photo_config VALUES ('a', 'key', ''), ('c', 'other', '')");
  EXPECT_EQ(makeRoomForKey(), Room::kTaken);
  expectModules({{"a"}, {"c"}});
  const appliance::OverwriteMode mode(true);
  EXPECT_EQ(makeRoomForKey(), Room::kFree);
  expectModules({{"c"}});
  live().exec("DROP TABLE photo_config");
  EXPECT_EQ(makeRoomForKey(), Room::kFailed);
  expectMessages({failed("Select * from photo_config where config_key = 'key'", appliance::noTable("photo_config"))});
}

TEST_F(Common, StopsAtTheStatementOfARowThatFails) {
  const appliance::OverwriteMode mode(true);
  live().exec("INSERT INTO photo_config VALUES ('a', 'key', '')");
  appliance::refuseWriting(live(), "photo_config", "INSERT", "true");
  EXPECT_FALSE(mergeKey());
  expectMessages({failed("Insert into photo_config Values ('new', 'key', 'new')", appliance::kRefused)});
  expectModules({});

  live().exec("DROP TRIGGER refuse_INSERT ON photo_config; INSERT INTO photo_config VALUES ('a', 'key', '')");
  appliance::refuseWriting(live(), "photo_config", "DELETE", "true");
  EXPECT_FALSE(mergeKey());
  expectMessages({failed("Delete from photo_config where config_key = 'key'", appliance::kRefused)});
  expectModules({{"a"}});

  live().exec("ALTER TABLE photo_config RENAME TO renamed");
  EXPECT_FALSE(mergeKey());
  expectMessages({failed("Select * from photo_config where config_key = 'key'", appliance::noTable("photo_config"))});
}

TEST_F(Common, AFileExistsWhenItsPathLeadsSomewhere) {
  appliance::writeFile("/var/services/photo/a.jpg", "x", 0000);
  ASSERT_EQ(symlink("a.jpg", "/var/services/photo/link.jpg"), 0);
  ASSERT_EQ(symlink("gone.jpg", "/var/services/photo/dangling.jpg"), 0);
  appliance::checked();
  EXPECT_TRUE(fileExists("/var/services/photo/a.jpg"));
  EXPECT_TRUE(fileExists("/var/services/photo"));
  EXPECT_TRUE(fileExists("/var/services/photo/link.jpg"));
  EXPECT_FALSE(fileExists("/var/services/photo/dangling.jpg"));
  EXPECT_FALSE(fileExists("/var/services/photo/gone.jpg"));
  EXPECT_FALSE(fileExists("/var/services/photo/a.jpg/b.jpg"));
  EXPECT_FALSE(fileExists("/var/services/photo/" + std::string(5000, 'x')));
  EXPECT_FALSE(fileExists(""));
}

TEST_F(Common, TheNextNumberIsOneAboveTheHighest) {
  const Statement highest = sql("Select groupid from photo_group order by groupid desc limit 1");
  EXPECT_EQ(nextNumber(connection(), highest, "groupid"), 1);
  live().exec("INSERT INTO photo_group VALUES (7, 'a', ''), (41, 'b', ''), (9, 'c', '')");
  EXPECT_EQ(nextNumber(connection(), highest, "groupid"), 42);
  live().exec("DELETE FROM photo_group WHERE groupid > 7; UPDATE photo_group SET groupid = -5");
  EXPECT_EQ(nextNumber(connection(), highest, "groupid"), -4);
  EXPECT_EQ(nextNumber(connection(), sql("Select NULL as groupid"), "groupid"), 1);
  EXPECT_EQ(nextNumber(connection(), sql("Select 2147483647 as groupid"), "groupid"), 2147483648LL);
  constexpr long long kHighest = std::numeric_limits<long long>::max();
  EXPECT_EQ(nextNumber(connection(), sql("Select 9223372036854775806 as groupid"), "groupid"), kHighest);
  EXPECT_EQ(nextNumber(connection(), sql("Select 9223372036854775807 as groupid"), "groupid"), kHighest);
  EXPECT_EQ(nextNumber(connection(), sql("Select 99999999999999999999 as groupid"), "groupid"), kHighest);
  expectNoMessages();
}

TEST_F(Common, TheNextNumberIsOneWhenTheHighestCannotBeRead) {
  EXPECT_EQ(nextNumber(connection(), sql("Select groupid from gone"), "groupid"), 1);
  expectMessages({failed("Select groupid from gone", appliance::noTable("gone"))});
}

TEST_F(Common, TakesEveryRowOrSaysSo) {
  const auto take = [&](const std::string& refused, int last = 3) {
    Result rows;
    EXPECT_TRUE(execute(connection(), rows, "Select generate_series(1, %s) as number", last));
    std::string taken;
    const bool all = takeEveryRow(rows, [&] {
      const std::string number = fieldText(rows, "number");
      taken += number;
      return number != refused;
    });
    return taken + (all ? " all" : " not all");
  };
  appliance::checked();
  EXPECT_EQ(take(""), "123 all");
  EXPECT_EQ(take("2"), "12 not all");
  EXPECT_EQ(take("3"), "123 not all");
  EXPECT_EQ(take("", 0), " all");
}

TEST_F(Common, FindsAShareByItsName) {
  other().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (7, 'it''s %s'), (8, 'only there'), "
      "(9, repeat('n', 62) || 'éx'), (10, NULL);"
      "CREATE TABLE photo_share_bak (shareid integer, sharename text); INSERT INTO photo_share_bak VALUES (7, "
      "'staged')");
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (41, 'it''s %s'), (42, 'staged'), (43, repeat('n', 62)), "
      "(7, 'other'), (44, repeat('n', 62) || 'é')");
  const Connection from = connectTo("other");
  const auto find = [&](const char* suffix, const char* share, std::size_t capacity) {
    Raw number("unset");
    const Lookup found = findShare({connection(), from.get(), suffix}, Raw(share), capacity, number);
    EXPECT_EQ(found == Lookup::kFound, number.text != "unset");
    return found == Lookup::kMissing ? "missing" : found == Lookup::kFailed ? "failed" : number.text;
  };
  EXPECT_EQ(find("", "7", kTextCapacity), "41");
  EXPECT_EQ(find("_bak", "7", kTextCapacity), "42");
  EXPECT_EQ(find("", "8", kTextCapacity), "missing");
  EXPECT_EQ(find("", "99", kTextCapacity), "missing");
  EXPECT_EQ(find("", "10", kTextCapacity), "missing");
  EXPECT_EQ(find("", "9", 65), "44");
  EXPECT_EQ(find("", "9", 64), "43");
  expectNoMessages();

  EXPECT_EQ(find("", "", kTextCapacity), "failed");
  expectMessages({failed("Select * from photo_share where shareid = ", "ERROR:  syntax error at end of input")});
  live().exec("ALTER TABLE photo_share RENAME TO renamed");
  EXPECT_EQ(find("", "7", kTextCapacity), "failed");
  expectMessages({failed("Select * from photo_share where sharename = 'it''s %s'", appliance::noTable("photo_share"))});
}

struct SimpleRoutine {
  MergeRoutine* routine;
  const char* read;  // the statement that reads a source whose tables' names end in "_gone"
  const char* table;
};

constexpr SimpleRoutine kRoutines[] = {
    {KavophotoSyncConfig, "Select * from photo_config_gone", "photo_config_gone"},
    {KavophotoSyncPhotoLabel, "Select * from photo_label_gone", "photo_label_gone"},
    {KavophotoSyncCategory, "Select * from category_gone", "category_gone"},
    {KavophotoSyncVideoComment, "Select * from video_comment_gone", "video_comment_gone"},
    {KavophotoSyncVideoDesc, "Select * from video_desc_gone", "video_desc_gone"},
    {KavophotoSyncLog, "Select * from photo_log_gone ORDER BY create_time DESC LIMIT 100000", "photo_log_gone"},
    {KavophotoSyncPhotoVideoLabel,
     "Select * from photo_video_label_gone left join photo_label_gone on "
     "photo_video_label_gone.label_id=photo_label_gone.id",
     "photo_video_label_gone"},
    {KavophotoSyncShare, "Select * from photo_share_gone", "photo_share_gone"},
};

TEST_F(Common, EveryRoutineReportsASourceThatCannotBeRead) {
  const auto before = appliance::contents("photo");
  other();
  const Connection from = connectTo("other");
  for (const SimpleRoutine& one : kRoutines) {
    EXPECT_EQ(one.routine(connection(), from.get(), "_gone"), -1) << one.table;
    expectMessages({failed(one.read, appliance::noTable(one.table))});
    EXPECT_EQ(one.routine(connection(), nullptr, "_gone"), -1) << one.table;
    expectMessages({failed(one.read, "no connection")});
    EXPECT_TRUE(KAVODBIsUsable(connection())) << one.table;
  }
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(Common, EveryRoutineSucceedsOnAnEmptySource) {
  other();
  live().exec(
      "INSERT INTO photo_config VALUES ('a', 'key', ''); INSERT INTO photo_log VALUES (1, now(), '', true, 'a')");
  const auto before = appliance::contents("photo");
  const Connection from = connectTo("other");
  for (const SimpleRoutine& one : kRoutines) {
    EXPECT_EQ(one.routine(connection(), from.get(), ""), 0) << one.table;
    EXPECT_TRUE(KAVODBIsUsable(connection())) << one.table;
  }
  EXPECT_EQ(appliance::contents("photo"), before);
  expectNoMessages();
}

TEST_F(Common, EveryRoutineKeepsLiveRowsOfTheSameKeyInSkipMode) {
  appliance::makeDirectories("/var/services/photo/trip");
  appliance::writeFile("/var/services/photo/a.mp4", "film");
  for (appliance::Database* database : {&live(), &other()}) {
    database->exec(
        "INSERT INTO photo_config VALUES ('album', 'order', current_database());"
        "INSERT INTO photo_label (name, category, info) VALUES ('Anna', 1, current_database());"
        "INSERT INTO category (name, hidden, order_number) VALUES ('trips', true, length(current_database()));"
        "INSERT INTO video_comment (path, name, comment, date) VALUES ('/var/services/photo/a.mp4', 'Anna', "
        "current_database(), '2011-01-01');"
        "INSERT INTO video_desc (path, title) VALUES ('/var/services/photo/a.mp4', current_database());"
        "INSERT INTO photo_log VALUES (5, '2011-01-01', current_database(), true, 'anna');"
        "INSERT INTO photo_video_label (video_path, label_id, status) VALUES ('/var/services/photo/a.mp4', 1, false);"
        "INSERT INTO photo_share VALUES (3, 'trip', current_database(), '', true, 0, '', true, true, true, '')");
  }
  const auto before = appliance::contents("photo");
  const Connection from = connectTo("other");
  for (const SimpleRoutine& one : kRoutines) {
    EXPECT_EQ(one.routine(connection(), from.get(), ""), 0) << one.table;
  }
  EXPECT_EQ(appliance::contents("photo"), before);
  expectNoMessages();
}

}  // namespace
