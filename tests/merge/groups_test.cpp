#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

const char* const kFailed = "Table photo_group sync failed.\n";

class Groups : public appliance::MergeTest {
 protected:
  void expectGroups(const appliance::Rows& expected) {
    expectRows(live(), "SELECT groupid, groupname, description FROM photo_group ORDER BY 1", expected);
  }
  void expectMembers(const appliance::Rows& expected) {
    expectRows(live(), "SELECT groupid, userid FROM photo_user_group ORDER BY 1, 2", expected);
  }
  void expectPermissions(const appliance::Rows& expected) {
    expectRows(live(), "SELECT groupid, shareid, permission, create_time FROM photo_group_permission ORDER BY 1, 2, 4",
               expected);
  }
  // Users and shares of the same names on both sides, under other numbers.
  void fillUsersAndShares() {
    live().exec(
        "INSERT INTO photo_user (userid, username) VALUES (1, 'ben'), (2, 'an''na');"
        "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'beta'), (2, 'al''pha')");
    source().exec(
        "INSERT INTO photo_user VALUES (1, 'an''na', '', '', false, false, false, ''), "
        "(2, 'ben', '', '', false, false, false, '');"
        "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'al''pha'), (2, 'beta'), (4, 'without folder')");
  }
};
APPLIANCE_ALL_MODES(Groups);

TEST_P(Groups, MatchByNameAndGetTheNextNumbers) {
  live().exec("INSERT INTO photo_group VALUES (7, 'only live', 'a'), (3, 'bo''th', 'live')");
  source().exec(
      "INSERT INTO photo_group VALUES (7, 'it''s \\ %s', 'it''s \\ %d'), (90, 'bo''th', 'sa''ved'), (8, 'new', NULL), "
      "(9, 'twice', 'first'), (10, 'twice', 'last')");
  EXPECT_EQ(merge().status, 0);
  expectGroups({{"3", "bo'th", overwrites() ? "sa'ved" : "live"},
                {"7", "only live", "a"},
                {"8", "it's \\ %s", "it's \\ %d"},
                {"9", "new", ""},
                {"10", "twice", overwrites() ? "last" : "first"}});
  expectNoMessages();
}

TEST_P(Groups, AreNumberedFromOneInAnEmptyTable) {
  source().exec("INSERT INTO photo_group VALUES (7, 'a', ''), (3, 'b', '')");
  EXPECT_EQ(merge().status, 0);
  expectGroups({{"1", "a", ""}, {"2", "b", ""}});
}

TEST_P(Groups, BringMembersAndPermissionsWithLiveNumbers) {
  fillUsersAndShares();
  appliance::swallowInsert(live(), "photo_user", "NEW.username = 'lost'");
  live().exec(
      "INSERT INTO photo_group VALUES (5, 'other', ''), (6, 'both', '');"
      "INSERT INTO photo_user_group VALUES (1, 5), (1, 6), (77, 6);"
      "INSERT INTO photo_group_permission VALUES (5, 1, 1, '2001-01-01'), (6, 1, 1, '2001-01-01'), "
      "(6, 9, 1, '2001-01-01')");
  // User 3 does not get into the live database, user 99 is none; share 4 has no folder, share 99 is none.
  source().exec(
      "INSERT INTO photo_user VALUES (3, 'lost', '', '', false, false, false, ''), "
      "(4, 'new', '', '', false, false, false, '');"
      "INSERT INTO photo_group VALUES (5, 'both', ''), (6, 'new', '');"
      "INSERT INTO photo_user_group VALUES (1, 5), (3, 5), (99, 5), (4, 5), (2, 6), (1, 6), (1, 77);"
      "INSERT INTO photo_group_permission VALUES (5, 1, 3, '2011-01-01 10:11:12.5'), (5, 4, 3, '2012-01-01'), "
      "(5, 99, 3, '2013-01-01'), (6, 2, 2, '2014-01-01'), (6, 2, 1, '2015-01-01'), (77, 1, 1, '2016-01-01')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMembers({{"5", "1"}, {"6", "2"}, {"6", "3"}, {"7", "1"}, {"7", "2"}});
    expectPermissions({{"5", "1", "1", "2001-01-01 00:00:00"},
                       {"6", "2", "3", "2011-01-01 10:11:12.5"},
                       {"7", "1", "2", "2014-01-01 00:00:00"},
                       {"7", "1", "1", "2015-01-01 00:00:00"}});
  } else {
    expectMembers({{"5", "1"}, {"6", "1"}, {"6", "77"}, {"7", "1"}, {"7", "2"}});
    expectPermissions({{"5", "1", "1", "2001-01-01 00:00:00"},
                       {"6", "1", "1", "2001-01-01 00:00:00"},
                       {"6", "9", "1", "2001-01-01 00:00:00"},
                       {"7", "1", "2", "2014-01-01 00:00:00"},
                       {"7", "1", "1", "2015-01-01 00:00:00"}});
  }
  expectRows(live(), "SELECT userid, username FROM photo_user WHERE username = 'new'", {{"3", "new"}});
  expectNoMessages();
}

TEST_P(Groups, HaveValuesCutToTheirCapacities) {
  live().exec(
      "ALTER TABLE photo_group_permission ALTER create_time TYPE text, ALTER permission TYPE numeric;"
      "INSERT INTO photo_user (userid, username) VALUES (1, repeat('u', 1023));"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, repeat('s', 1023));"
      "INSERT INTO photo_group VALUES (1, repeat('o', 1023), ''), (2, repeat('o', 1024), 'too long')");
  source().exec(
      "ALTER TABLE photo_user ALTER userid TYPE numeric; ALTER TABLE photo_share ALTER shareid TYPE numeric;"
      "ALTER TABLE photo_group ALTER groupid TYPE numeric;"
      "ALTER TABLE photo_user_group ALTER userid TYPE numeric, ALTER groupid TYPE numeric;"
      "ALTER TABLE photo_group_permission ALTER create_time TYPE text, ALTER permission TYPE numeric, "
      "ALTER shareid TYPE numeric, ALTER groupid TYPE numeric;"
      "INSERT INTO photo_user VALUES (repeat('5', 31)::numeric, repeat('u', 1024), '', '', false, false, false, '');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (repeat('6', 31)::numeric, repeat('s', 1024));"
      "INSERT INTO photo_group VALUES (repeat('4', 40)::numeric, repeat('g', 1022) || 'é', repeat('g', 1022) || 'é'), "
      "(5, repeat('h', 1021) || 'éx', repeat('''', 2000)), (6, repeat('o', 1024), 'saved');"
      "INSERT INTO photo_user_group VALUES (repeat('5', 50)::numeric, repeat('4', 31)::numeric);"
      "INSERT INTO photo_group_permission VALUES "
      "(repeat('4', 31)::numeric, repeat('6', 50)::numeric, repeat('7', 16)::numeric, repeat('d', 126) || 'é'), "
      "(5, repeat('6', 31)::numeric, repeat('8', 15)::numeric, repeat('d', 125) || 'éx')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT groupid, groupname, description FROM photo_group WHERE groupid <> 2 ORDER BY 1",
             {{"1", std::string(1023, 'o'), overwrites() ? "saved" : ""},
              {"3", std::string(1022, 'g'), std::string(1022, 'g')},
              {"4", std::string(1021, 'h') + "é", std::string(1023, '\'')}});
  expectMembers({{"3", "1"}});
  expectPermissions({{"3", "1", std::string(15, '7'), std::string(126, 'd')},
                     {"4", "1", std::string(15, '8'), std::string(125, 'd') + "é"}});
  expectNoMessages();
}

TEST_P(Groups, CutLiveNumbersToTheirCapacities) {
  live().exec(
      "ALTER TABLE photo_user ALTER userid TYPE numeric; ALTER TABLE photo_share ALTER shareid TYPE numeric;"
      "ALTER TABLE photo_group ALTER groupid TYPE numeric;"
      "ALTER TABLE photo_user_group ALTER userid TYPE numeric, ALTER groupid TYPE numeric;"
      "ALTER TABLE photo_group_permission ALTER shareid TYPE numeric, ALTER groupid TYPE numeric;"
      "INSERT INTO photo_user (userid, username) VALUES (repeat('5', 40)::numeric, 'user');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (repeat('6', 40)::numeric, 'share');"
      "INSERT INTO photo_group VALUES (repeat('4', 40)::numeric, 'both', '')");
  source().exec(
      "INSERT INTO photo_user VALUES (1, 'user', '', '', false, false, false, '');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'share'); INSERT INTO photo_group VALUES (1, 'both', "
      "'');"
      "INSERT INTO photo_user_group VALUES (1, 1); INSERT INTO photo_group_permission VALUES (1, 1, 1, '2001-01-01')");
  EXPECT_EQ(merge().status, 0);
  const std::string group(31, '4');
  appliance::Rows members;
  appliance::Rows permissions;
  if (overwrites()) {
    members = {{group, std::string(31, '5')}};
    permissions = {{group, std::string(31, '6'), "1", "2001-01-01 00:00:00"}};
  }
  expectMembers(members);
  expectPermissions(permissions);
}

TEST_P(Groups, EndAtAStatementThatFails) {
  live().exec("INSERT INTO photo_group VALUES (4, 'both', 'live')");
  appliance::refuseWriting(live(), "photo_group", "INSERT", "NEW.groupname = 'it''s'");
  appliance::refuseWriting(live(), "photo_group", "UPDATE", "NEW.groupname = 'both'");
  source().exec(
      "INSERT INTO photo_group VALUES (1, 'before', ''), (2, 'both', 'saved'), (3, 'it''s', ''), (5, 'then', '');"
      "INSERT INTO watermark VALUES (1, 'next table', 1, 1, 1, '', 1, true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec(overwrites() ? "UPDATE photo_group SET description = 'saved' where groupname = 'both'"
                                            : "Insert into photo_group VALUES('6', 'it''s', '')",
                               kRefused),
                  kFailed});
  expectGroups({{"4", "both", "live"}, {"5", "before", ""}});
  EXPECT_EQ(live().count("watermark"), 1);
}

TEST_P(Groups, EndWhereTheSourceCannotBeRead) {
  source().exec("DROP TABLE photo_group; INSERT INTO watermark VALUES (1, 'next table', 1, 1, 1, '', 1, true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_group" + suffix(), noTable("photo_group" + suffix())), kFailed});
  EXPECT_EQ(live().count("watermark"), 1);
}

TEST_P(Groups, EndAtALookUpThatFails) {
  live().exec("INSERT INTO photo_group VALUES (8, 'it''s', '')");
  appliance::refuseReading(live(), "photo_group", "groupname = 'it''s'");
  source().exec("INSERT INTO photo_group VALUES (2, 'before', ''), (3, 'it''s', ''), (4, 'then', '')");
  EXPECT_EQ(merge().status, 0);
  // The group that cannot be read keeps the highest number from being found, which makes the next one 1.
  expectMessages({failedToExec("Select groupid from photo_group order by groupid desc limit 1", kRefused),
                  failedToExec("Select * from photo_group where groupname = 'it''s'", kRefused), kFailed});
  expectRows(live(), "SELECT groupid, groupname FROM photo_group_stored ORDER BY 1", {{"1", "before"}, {"8", "it's"}});
}

TEST_P(Groups, EndWhereTheWrittenGroupCannotBeRead) {
  appliance::refuseReading(live(), "photo_group", "groupname = 'it''s'");
  source().exec("INSERT INTO photo_group VALUES (2, 'before', ''), (3, 'it''s', ''), (4, 'then', '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_group where groupname = 'it''s'", kRefused), kFailed});
  expectRows(live(), "SELECT groupid, groupname FROM photo_group_stored ORDER BY 1", {{"1", "before"}, {"2", "it's"}});
}

TEST_P(Groups, WithoutARowAfterTheInsertGetNothingElse) {
  fillUsersAndShares();
  appliance::swallowInsert(live(), "photo_group", "NEW.groupname = 'lost'");
  source().exec(
      "INSERT INTO photo_group VALUES (2, 'lost', ''), (4, 'then', '');"
      "INSERT INTO photo_user_group VALUES (1, 2), (1, 4);"
      "INSERT INTO photo_group_permission VALUES (2, 1, 1, '2001-01-01'), (4, 1, 1, '2002-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectGroups({{"1", "then", ""}});
  expectMembers({{"1", "2"}});
  expectPermissions({{"1", "2", "1", "2002-01-01 00:00:00"}});
  expectNoMessages();
}

TEST_P(Groups, KeepWhatWasCopiedBeforeAMemberOrPermissionFails) {
  fillUsersAndShares();
  appliance::refuseWriting(live(), "photo_user_group", "INSERT", "NEW.userid = 1 AND NEW.groupid = 1");
  source().exec(
      "ALTER TABLE photo_group_permission ALTER create_time TYPE text;"
      "INSERT INTO photo_group VALUES (2, 'some', ''), (4, 'then', '');"
      "INSERT INTO photo_user_group VALUES (1, 2), (2, 2), (1, 2), (1, 4), (2, 4);"
      "INSERT INTO photo_group_permission VALUES (2, 1, 1, '2001-01-01'), (2, 1, 1, 'it''s'), (2, 1, 1, '2003-01-01'), "
      "(4, 1, 1, '2004-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Insert into photo_user_group(userid, groupid) Values (1, 1)", kRefused),
                  failedToExec("Insert into photo_group_permission(groupid, shareid, permission, create_time) Values "
                               "(1, 2, 1, 'it's')",
                               "ERROR:  syntax error at or near \"s\"")});
  expectGroups({{"1", "some", ""}, {"2", "then", ""}});
  expectMembers({{"1", "2"}, {"2", "1"}, {"2", "2"}});
  expectPermissions({{"1", "2", "1", "2001-01-01 00:00:00"}, {"2", "2", "1", "2004-01-01 00:00:00"}});
}

TEST_P(Groups, GoOnWhereMembersCannotBeEmptiedAndPermissionsCannotBeRead) {
  fillUsersAndShares();
  live().exec("DROP TABLE photo_user_group");
  source().exec(
      "DROP TABLE photo_group_permission; INSERT INTO photo_group VALUES (2, 'some', ''), (4, 'then', '');"
      "INSERT INTO photo_user_group VALUES (1, 2)");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> messages;
  for (const auto& [saved, stored] : {std::pair<std::string, std::string>{"2", "1"}, {"4", "2"}}) {
    messages.push_back(
        failedToExec("Delete from photo_user_group where groupid = " + stored, noTable("photo_user_group")));
    messages.push_back(failedToExec("Select * from photo_group_permission" + suffix() + " where groupid = " + saved,
                                    noTable("photo_group_permission" + suffix())));
  }
  expectMessages(messages);
  expectGroups({{"1", "some", ""}, {"2", "then", ""}});
}

TEST_P(Groups, GoOnWherePermissionsCannotBeEmptiedAndMembersCannotBeRead) {
  fillUsersAndShares();
  live().exec("DROP TABLE photo_group_permission");
  source().exec(
      "DROP TABLE photo_user_group; INSERT INTO photo_group VALUES (2, 'some', ''), (4, 'then', '');"
      "INSERT INTO photo_group_permission VALUES (2, 1, 1, '2001-01-01')");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> messages;
  for (const auto& [saved, stored] : {std::pair<std::string, std::string>{"2", "1"}, {"4", "2"}}) {
    messages.push_back(failedToExec("Select * from photo_user_group" + suffix() + " where groupid = " + saved,
                                    noTable("photo_user_group" + suffix())));
    messages.push_back(failedToExec("Delete from photo_group_permission where groupid = " + stored,
                                    noTable("photo_group_permission")));
  }
  expectMessages(messages);
  expectGroups({{"1", "some", ""}, {"2", "then", ""}});
}

TEST_P(Groups, GoOnWhereAUserOrShareCannotBeLookedUp) {
  fillUsersAndShares();
  live().exec(
      "INSERT INTO photo_user (userid, username) VALUES (9, 'bad');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (9, 'bad');"
      "INSERT INTO photo_group VALUES (6, 'two', ''); INSERT INTO photo_user_group VALUES (1, 6);"
      "INSERT INTO photo_group_permission VALUES (6, 1, 7, '2000-01-01')");
  // Refused once the groups are merged; the users themselves are found.
  appliance::refuseReading(live(), "photo_user",
                           "username = 'bad' AND EXISTS (SELECT 1 FROM photo_group WHERE groupname = 'one')");
  appliance::refuseReading(live(), "photo_share", "sharename = 'bad'");
  source().exec(
      "ALTER TABLE photo_user_group ALTER userid TYPE text; ALTER TABLE photo_group_permission ALTER shareid TYPE text;"
      "INSERT INTO photo_user VALUES (8, 'bad', '', '', false, false, false, '');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (8, 'bad');"
      "INSERT INTO photo_group VALUES (2, 'one', ''), (4, 'two', '');"
      "INSERT INTO photo_user_group VALUES ('1', 2), ('8', 2), ('2', 2), ('1', 4), ('x', 4), ('2', 4);"
      "INSERT INTO photo_group_permission VALUES (2, '1', 1, '2001-01-01'), (2, '8', 1, '2002-01-01'), "
      "(2, '1', 1, '2003-01-01'), (4, '1', 1, '2004-01-01'), (4, 'x', 1, '2005-01-01'), (4, '1', 1, '2006-01-01')");
  EXPECT_EQ(merge().status, 0);
  const std::string noColumn = "ERROR:  column \"x\" does not exist";
  std::vector<std::string> messages = {failedToExec("Select * from photo_user where username = 'bad'", kRefused),
                                       failedToExec("Select * from photo_share where sharename = 'bad'", kRefused)};
  if (overwrites()) {
    messages.push_back(failedToExec("Select * from photo_user" + suffix() + " where userid = x", noColumn));
    messages.push_back(failedToExec("Select * from photo_share" + suffix() + " where shareid = x", noColumn));
  }
  expectMessages(messages);
  // Copied whole or not at all; of the new group there is nothing to keep.
  expectMembers({{"6", "1"}});
  expectPermissions({{"6", "1", "7", "2000-01-01 00:00:00"}});
}

// Groups of the same names on both sides, with other members and permissions.
class KnownGroups : public Groups {
 protected:
  void SetUp() override {
    Groups::SetUp();
    fillUsersAndShares();
    live().exec(
        "INSERT INTO photo_group VALUES (3, 'one', ''), (4, 'two', '');"
        "INSERT INTO photo_user_group VALUES (1, 3), (1, 4);"
        "INSERT INTO photo_group_permission VALUES (3, 1, 7, '2000-01-01'), (4, 1, 7, '2000-01-01')");
    source().exec(
        "INSERT INTO photo_group VALUES (7, 'one', ''), (8, 'two', '');"
        "INSERT INTO photo_user_group VALUES (1, 7), (1, 8);"
        "INSERT INTO photo_group_permission VALUES (7, 1, 1, '2001-01-01'), (8, 1, 1, '2001-01-01')");
  }
  void expectMembersKept(bool kept) {
    const std::string user = kept || !overwrites() ? "1" : "2";
    expectMembers({{"3", user}, {"4", user}});
  }
  void expectPermissionsKept(bool kept) {
    if (kept || !overwrites()) {
      expectPermissions({{"3", "1", "7", "2000-01-01 00:00:00"}, {"4", "1", "7", "2000-01-01 00:00:00"}});
    } else {
      expectPermissions({{"3", "2", "1", "2001-01-01 00:00:00"}, {"4", "2", "1", "2001-01-01 00:00:00"}});
    }
  }
  // One for each group when it is overwritten: both groups refer to user 1 and share 1 of the source.
  void expectFailures(std::vector<std::string> messages, const std::string& table, const std::string& column,
                      const std::vector<std::string>& numbers) {
    for (const std::string& number : overwrites() ? numbers : std::vector<std::string>()) {
      messages.push_back(failedToExec("Select * from " + table + suffix() + " where " + column + " = " + number,
                                      noTable(table + suffix())));
    }
    expectMessages(messages);
  }
  // What the merge of the table itself logs when the source lacks it.
  std::vector<std::string> unread(const std::string& table) const {
    return {failedToExec("Select * from " + table + suffix(), noTable(table + suffix())),
            "Table " + table + " sync failed.\n"};
  }
};
APPLIANCE_ALL_MODES(KnownGroups);

TEST_P(KnownGroups, AreReplacedByWhatTheSourceHas) {
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  expectMembersKept(false);
  expectPermissionsKept(false);
}

TEST_P(KnownGroups, KeepTheirMembersWhenTheSourceLacksThem) {
  source().exec("DROP TABLE photo_user_group");
  EXPECT_EQ(merge().status, 0);
  expectFailures({}, "photo_user_group", "groupid", {"7", "8"});
  expectMembersKept(true);
  expectPermissionsKept(false);
}

TEST_P(KnownGroups, KeepTheirMembersWhenTheSourceLacksTheUsers) {
  source().exec("DROP TABLE photo_user");
  EXPECT_EQ(merge().status, 0);
  expectFailures(unread("photo_user"), "photo_user", "userid", {"1", "1"});
  expectMembersKept(true);
  expectPermissionsKept(false);
}

TEST_P(KnownGroups, KeepTheirPermissionsWhenTheSourceLacksThem) {
  source().exec("DROP TABLE photo_group_permission");
  EXPECT_EQ(merge().status, 0);
  expectFailures({}, "photo_group_permission", "groupid", {"7", "8"});
  expectMembersKept(false);
  expectPermissionsKept(true);
}

TEST_P(KnownGroups, KeepTheirPermissionsWhenTheSourceLacksTheShares) {
  source().exec("DROP TABLE photo_share");
  EXPECT_EQ(merge().status, 0);
  expectFailures(unread("photo_share"), "photo_share", "shareid", {"1", "1"});
  expectMembersKept(false);
  expectPermissionsKept(true);
}

TEST_P(Groups, WithOneNumberHaveThePermissionsOfTheLast) {
  live().exec(
      "ALTER TABLE photo_group DROP CONSTRAINT photo_group_pkey;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'one'), (2, 'two');"
      "INSERT INTO photo_group VALUES (5, 'first', ''), (5, 'last', '');"
      "INSERT INTO photo_group_permission VALUES (5, 1, 9, '2000-01-01 00:00:00')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'one'), (2, 'two');"
      "INSERT INTO photo_group VALUES (5, 'first', ''), (6, 'last', '');"
      "INSERT INTO photo_group_permission VALUES (5, 1, 7, '2001-01-01 00:00:00'), (6, 2, 8, '2002-01-01 00:00:00')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT groupid, shareid, permission FROM photo_group_permission",
             {overwrites() ? std::vector<std::string>{"5", "2", "8"} : std::vector<std::string>{"5", "1", "9"}});
}

TEST_P(Groups, GetNumbersBeyondThirtyTwoBits) {
  live().exec(
      "ALTER TABLE photo_group ALTER groupid TYPE bigint; INSERT INTO photo_group VALUES (2147483647, 'live', '')");
  source().exec("INSERT INTO photo_group VALUES (1, 'new', '')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  expectGroups({{"2147483647", "live", ""}, {"2147483648", "new", ""}});
}

class GroupRoutine : public appliance::RoutineTest {};
APPLIANCE_ALL_ARRANGEMENTS(GroupRoutine);

TEST_P(GroupRoutine, RunsItsStatementsInOrder) {
  live().exec(
      "INSERT INTO photo_user (userid, username) VALUES (3, 'it''s');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'it''s'); INSERT INTO photo_group VALUES (40, 'old', "
      "'')");
  source().exec(
      "INSERT INTO photo_user (userid, username) VALUES (7, 'it''s'), (8, 'only saved');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (70, 'it''s'), (71, 'only saved');"
      "INSERT INTO photo_group VALUES (5, 'n''ew', 'd''e'), (6, 'old', 'o''d');"
      "INSERT INTO photo_user_group VALUES (7, 5), (8, 5), (9, 6);"
      "INSERT INTO photo_group_permission VALUES (5, 70, 3, '2001-01-01'), (5, 71, 3, '2001-01-01'), "
      "(6, 99, 3, '2001-01-01')");
  EXPECT_EQ(call(KavophotoSyncGroup), 0);
  std::vector<std::string> expected = {
      "source: Select * from photo_group{}",
      "live: Select * from photo_group where groupname = 'n''ew'",
      "live: Select groupid from photo_group order by groupid desc limit 1",
      "live: Insert into photo_group VALUES('41', 'n''ew', 'd''e')",
      "live: Select * from photo_group where groupname = 'n''ew'",
      "source: Select * from photo_user_group{} where groupid = 5",
      "source: Select * from photo_user{} where userid = 7",
      "live: Select * from photo_user where username = 'it''s'",
      "source: Select * from photo_user{} where userid = 8",
      "live: Select * from photo_user where username = 'only saved'",
      "live: Delete from photo_user_group where groupid = 41",
      "live: Insert into photo_user_group(userid, groupid) Values (3, 41)",
      "source: Select * from photo_group_permission{} where groupid = 5",
      "source: Select * from photo_share{} where shareid = 70",
      "live: Select * from photo_share where sharename = 'it''s'",
      "source: Select * from photo_share{} where shareid = 71",
      "live: Select * from photo_share where sharename = 'only saved'",
      "live: Delete from photo_group_permission where groupid = 41",
      "live: Insert into photo_group_permission(groupid, shareid, permission, create_time) Values "
      "(41, 1, 3, '2001-01-01 00:00:00')",
      "live: Select * from photo_group where groupname = 'old'",
  };
  if (overwrites()) {
    expected.insert(expected.end(), {"live: UPDATE photo_group SET description = 'o''d' where groupname = 'old'",
                                     "live: Select * from photo_group where groupname = 'old'",
                                     "source: Select * from photo_user_group{} where groupid = 6",
                                     "source: Select * from photo_user{} where userid = 9",
                                     "live: Delete from photo_user_group where groupid = 40",
                                     "source: Select * from photo_group_permission{} where groupid = 6",
                                     "source: Select * from photo_share{} where shareid = 99",
                                     "live: Delete from photo_group_permission where groupid = 40"});
  }
  expectStatements(expected);
}

TEST_P(GroupRoutine, EndsWithMinusOneAtItsOwnStatementsOnly) {
  source().exec("INSERT INTO photo_group VALUES (5, 'new', ''); INSERT INTO photo_user_group VALUES (1, 5)");
  live().exec("DROP TABLE photo_user_group");
  EXPECT_EQ(call(KavophotoSyncGroup), 0);
  live().exec("DROP TABLE photo_group");
  EXPECT_EQ(call(KavophotoSyncGroup), -1);
  expectMessages(
      {"Failed to exec [Delete from photo_user_group where groupid = 1] (" + noTable("photo_user_group") + ")",
       "Failed to exec [Select * from photo_group where groupname = 'new'] (" + noTable("photo_group") + ")"});
}

}  // namespace
