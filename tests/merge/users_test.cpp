#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

const char* const kRightTables[] = {"photo_access_right", "photo_upload_right", "photo_manage_right"};
const char* const kFailed = "Table photo_user sync failed.\n";
const char* const kUsers =
    "SELECT userid, username, description, password, disabled, lock_pass, admin, email FROM photo_user ORDER BY userid";

class Users : public appliance::MergeTest {
 protected:
  void expectRights(const char* table, const appliance::Rows& expected) {
    expectRows(live(), std::string("SELECT userid, shareid, create_time FROM ") + table + " ORDER BY 1, 2, 3",
               expected);
  }
  void makeRaw() {
    for (appliance::Database* database : {&live(), &source()}) {
      database->exec(
          "ALTER TABLE photo_user ALTER disabled TYPE text, ALTER lock_pass TYPE text, ALTER admin TYPE text;"
          "ALTER TABLE photo_access_right ALTER create_time TYPE text;"
          "ALTER TABLE photo_upload_right ALTER create_time TYPE text;"
          "ALTER TABLE photo_manage_right ALTER create_time TYPE text");
    }
  }
};
APPLIANCE_ALL_MODES(Users);

TEST_P(Users, WithOneNumberHaveTheRightsOfTheLast) {
  live().exec(
      "ALTER TABLE photo_user DROP CONSTRAINT photo_user_pkey;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'one'), (2, 'two');"
      "INSERT INTO photo_user (userid, username) VALUES (5, 'first'), (5, 'last');"
      "INSERT INTO photo_access_right VALUES (5, 1, '2000-01-01 00:00:00')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'one'), (2, 'two');"
      "INSERT INTO photo_user VALUES (5, 'first', '', '', false, false, false, ''), "
      "(6, 'last', '', '', false, false, false, '');"
      "INSERT INTO photo_access_right VALUES (5, 1, '2001-01-01 00:00:00'), (6, 2, '2002-01-01 00:00:00')");
  EXPECT_EQ(merge().status, 0);
  expectRights("photo_access_right", {overwrites() ? std::vector<std::string>{"5", "2", "2002-01-01 00:00:00"}
                                                   : std::vector<std::string>{"5", "1", "2000-01-01 00:00:00"}});
}

TEST_P(Users, MatchByNameAndGetTheNextNumbers) {
  live().exec(
      "INSERT INTO photo_user VALUES (7, 'only live', 'a', 'b', false, false, false, 'c'), "
      "(3, 'both', 'live', 'live', false, false, false, 'live')");
  source().exec(
      "INSERT INTO photo_user VALUES (7, 'it''s \\ %s', 'it''s \\ %d', 'pw', true, false, true, 'a@b'), "
      "(90, 'both', 'sa''ved', 'saved', true, true, false, 'saved'), "
      "(8, 'new', NULL, NULL, false, true, false, NULL), (9, 'twice', 'first', '', true, true, true, ''), "
      "(10, 'twice', 'last', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  const std::vector<std::string> kept = {"3", "both", "live", "live", "f", "f", "f", "live"};
  const std::vector<std::string> updated = {"3", "both", "sa'ved", "saved", "t", "t", "f", "saved"};
  const std::vector<std::string> first = {"10", "twice", "first", "", "t", "t", "t", ""};
  const std::vector<std::string> last = {"10", "twice", "last", "", "f", "f", "f", ""};
  expectRows(live(), kUsers,
             {overwrites() ? updated : kept,
              {"7", "only live", "a", "b", "f", "f", "f", "c"},
              {"8", "it's \\ %s", "it's \\ %d", "pw", "t", "f", "t", "a@b"},
              {"9", "new", "", "", "f", "t", "f", ""},
              overwrites() ? last : first});
  expectNoMessages();
}

TEST_P(Users, AreNumberedFromOneInAnEmptyTable) {
  source().exec(
      "INSERT INTO photo_user VALUES (7, 'a', '', '', false, false, false, ''), "
      "(3, 'b', '', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT userid, username FROM photo_user ORDER BY 1", {{"1", "a"}, {"2", "b"}});
}

TEST_P(Users, BringTheirRightsWithLiveNumbers) {
  appliance::makeDirectories("/var/services/photo/new share");
  // Every number stands for something else on the other side.
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'beta'), (2, 'al''pha'), (3, 'only live');"
      "INSERT INTO photo_user (userid, username) VALUES (5, 'other'), (6, 'both')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename, public, hits, comment, is_subdir, conversion) VALUES "
      "(1, 'al''pha', true, 0, true, true, true), (2, 'beta', true, 0, true, true, true), "
      "(3, 'new share', true, 0, true, true, true), (4, 'without folder', true, 0, true, true, true);"
      "INSERT INTO photo_user VALUES (5, 'both', '', '', false, false, false, ''), "
      "(6, 'new', '', '', false, false, false, '')");
  for (const std::string table : kRightTables) {
    live().exec("INSERT INTO " + table + " VALUES (5, 1, '2001-01-01'), (6, 3, '2001-01-01'), (6, 1, '2001-01-01')");
    // The rights on shares 4 and 99 are lost: the first has no folder here, the second is no share at all.
    source().exec("INSERT INTO " + table +
                  " VALUES (5, 1, '2011-01-01 10:11:12.5'), (5, 2, '2012-01-01'), (5, 4, '2013-01-01'), "
                  "(5, 99, '2014-01-01'), (6, 3, '2015-01-01'), (6, 1, '2016-01-01'), (6, 1, '2017-01-01'), "
                  "(77, 1, '2018-01-01')");
  }
  source().exec("UPDATE photo_upload_right SET create_time = create_time + interval '1 year'");
  source().exec("UPDATE photo_manage_right SET create_time = create_time + interval '2 years'");
  EXPECT_EQ(merge().status, 0);
  int year = 2011;
  for (const char* table : kRightTables) {
    const auto date = [&year](int after) { return std::to_string(year + after) + "-01-01 00:00:00"; };
    const std::string saved = std::to_string(year) + "-01-01 10:11:12.5";
    const std::string before = "2001-01-01 00:00:00";
    appliance::Rows expected = {{"5", "1", before}};
    if (overwrites()) {
      expected.insert(expected.end(), {{"6", "1", date(1)}, {"6", "2", saved}});
    } else {
      expected.insert(expected.end(), {{"6", "1", before}, {"6", "3", before}});
    }
    expected.insert(expected.end(), {{"7", "2", date(5)}, {"7", "2", date(6)}, {"7", "4", date(4)}});
    expectRights(table, expected);
    ++year;
  }
  expectNoMessages();
}

TEST_P(Users, LoseTheRightsThatTheSourceDoesNotHaveWhenOverwritten) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a'); INSERT INTO photo_user (userid, username) VALUES "
      "(5, 'both')");
  for (const std::string table : kRightTables) {
    live().exec("INSERT INTO " + table + " VALUES (5, 1, '2001-01-01')");
  }
  source().exec("INSERT INTO photo_user VALUES (6, 'both', '', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  for (const char* table : kRightTables) {
    EXPECT_EQ(live().count(table), overwrites() ? 0 : 1) << table;
  }
}

TEST_P(Users, HaveValuesCutToTheirCapacities) {
  makeRaw();
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a'); INSERT INTO photo_user (userid, username) "
      "VALUES (1, repeat('o', 1023)), (2, repeat('o', 1024))");
  source().exec(
      "ALTER TABLE photo_share ALTER shareid TYPE numeric; ALTER TABLE photo_user ALTER userid TYPE numeric;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (repeat('4', 31)::numeric, 'a');"
      "INSERT INTO photo_user SELECT repeat('3', 40)::numeric, u || 'é', u || 'é', u || 'é', t, t, t, u || 'é' "
      "FROM (SELECT repeat('u', 1022) AS u, repeat('t', 30) || 'é' AS t) AS long;"
      "INSERT INTO photo_user SELECT 2, v || 'éz', repeat('''', 2000), v || 'éz', t, t, t, v || 'éz' "
      "FROM (SELECT repeat('v', 1021) AS v, repeat('t', 29) || 'éz' AS t) AS long;"
      "INSERT INTO photo_user SELECT 4, repeat('o', 1024), 'saved', p || 'éz', t, t, t, p || 'é' "
      "FROM (SELECT repeat('p', 1022) AS p, repeat('t', 31) || 'é' AS t) AS long");
  for (const std::string table : kRightTables) {
    source().exec("ALTER TABLE " + table + " ALTER userid TYPE numeric, ALTER shareid TYPE numeric;" + "INSERT INTO " +
                  table +
                  " VALUES (repeat('3', 31)::numeric, repeat('4', 50)::numeric, repeat('d', 62) || 'é'), "
                  "(2, repeat('4', 31)::numeric, repeat('d', 61) || 'éx')");
  }
  EXPECT_EQ(merge().status, 0);
  const std::string t30(30, 't');
  const std::string u(1022, 'u');
  const std::string v = std::string(1021, 'v') + "é";
  const std::string t29 = std::string(29, 't') + "é";
  const std::string p(1022, 'p');
  const std::string t31(31, 't');
  appliance::Rows expected = {{"3", u, u, u, t30, t30, t30, u}, {"4", v, std::string(1023, '\''), v, t29, t29, t29, v}};
  const std::string name(1023, 'o');
  if (overwrites()) {
    expected.insert(expected.begin(), {"1", name, "saved", p, t31, t31, t31, p});
  }
  expectRows(live(), "SELECT * FROM photo_user WHERE password <> '' ORDER BY userid", expected);
  for (const char* table : kRightTables) {
    expectRights(table, {{"3", "1", std::string(62, 'd')}, {"4", "1", std::string(61, 'd') + "é"}});
  }
  expectNoMessages();
}

TEST_P(Users, CutTheNameOfARightsShareToItsCapacity) {
  live().exec(
      "DROP INDEX photo_share_sharename_index;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (4, repeat('s', 8191))");
  source().exec(
      "DROP INDEX photo_share_sharename_index;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (9, repeat('s', 9000));"
      "INSERT INTO photo_user VALUES (6, 'new', '', '', false, false, false, '')");
  for (const std::string table : kRightTables) {
    source().exec("INSERT INTO " + table + " VALUES (6, 9, '2001-01-01')");
  }
  EXPECT_EQ(merge().status, 0);
  for (const char* table : kRightTables) {
    expectRights(table, {{"1", "4", "2001-01-01 00:00:00"}});
  }
}

TEST_P(Users, CutLiveNumbersToTheirCapacities) {
  for (const std::string table : kRightTables) {
    live().exec("ALTER TABLE " + table + " ALTER userid TYPE numeric, ALTER shareid TYPE numeric; INSERT INTO " +
                table + " VALUES (repeat('3', 31)::numeric, 9, '2001-01-01')");
    source().exec("INSERT INTO " + table + " VALUES (6, 9, '2011-01-01')");
  }
  live().exec(
      "ALTER TABLE photo_share ALTER shareid TYPE numeric; ALTER TABLE photo_user ALTER userid TYPE numeric;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (repeat('4', 40)::numeric, 'a');"
      "INSERT INTO photo_user (userid, username) VALUES (repeat('3', 40)::numeric, 'both')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (9, 'a');"
      "INSERT INTO photo_user VALUES (6, 'both', '', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  const std::string user(31, '3');
  for (const char* table : kRightTables) {
    expectRights(table, {overwrites() ? std::vector<std::string>{user, std::string(31, '4'), "2011-01-01 00:00:00"}
                                      : std::vector<std::string>{user, "9", "2001-01-01 00:00:00"}});
  }
}

TEST_P(Users, EndAtAQuoteInAColumnThatIsNotEscaped) {
  live().exec("INSERT INTO photo_user VALUES (4, 'both', 'live', 'live', false, false, false, 'live')");
  source().exec(
      "INSERT INTO photo_user VALUES (1, 'before', '', 'do''''uble', true, true, true, ''), "
      "(2, 'both', 'saved', 'saved', true, true, true, 'x''; DROP TABLE photo_group; --'), "
      "(3, 'new', '', 'it''s', true, true, true, ''), (5, 'then', '', '', true, true, true, '');"
      "INSERT INTO photo_group VALUES (1, 'next table', '')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMessages({failedToExec("UPDATE photo_user SET description = 'saved', password = 'saved', disabled = 't', "
                                 "lock_pass = 't', admin = 't', email = 'x'; DROP TABLE photo_group; --' where "
                                 "username = 'both'",
                                 "ERROR:  cannot insert multiple commands into a prepared statement"),
                    kFailed});
  } else {
    expectMessages({failedToExec("Insert into photo_user VALUES(6, 'new', '', 'it's', 't', 't', 't', '')",
                                 "ERROR:  syntax error at or near \"s\""),
                    kFailed});
  }
  expectRows(live(), kUsers,
             {{"4", "both", "live", "live", "f", "f", "f", "live"}, {"5", "before", "", "do'uble", "t", "t", "t", ""}});
  expectRows(live(), "SELECT groupname FROM photo_group", {{"next table"}});
}

TEST_P(Users, EndWhereTheSourceCannotBeRead) {
  source().exec("DROP TABLE photo_user; INSERT INTO photo_group VALUES (1, 'next table', '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_user" + suffix(), noTable("photo_user" + suffix())), kFailed});
  EXPECT_EQ(live().count("photo_group"), 1);
}

TEST_P(Users, EndAtALookUpThatFails) {
  live().exec("INSERT INTO photo_user (userid, username) VALUES (8, 'it''s')");
  appliance::refuseReading(live(), "photo_user", "username = 'it''s'");
  source().exec(
      "INSERT INTO photo_user VALUES (2, 'before', '', '', false, false, false, ''), "
      "(3, 'it''s', '', '', false, false, false, ''), (4, 'then', '', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  // The user that cannot be read keeps the highest number from being found, which makes the next one 1.
  expectMessages({failedToExec("Select userid from photo_user order by userid desc limit 1", kRefused),
                  failedToExec("Select * from photo_user where username = 'it''s'", kRefused), kFailed});
  expectRows(live(), "SELECT userid, username FROM photo_user_stored ORDER BY 1", {{"1", "before"}, {"8", "it's"}});
}

TEST_P(Users, EndWhereTheWrittenUserCannotBeRead) {
  appliance::refuseReading(live(), "photo_user", "username = 'it''s'");
  source().exec(
      "INSERT INTO photo_user VALUES (2, 'before', '', '', false, false, false, ''), "
      "(3, 'it''s', '', '', false, false, false, ''), (4, 'then', '', '', false, false, false, '');"
      "INSERT INTO photo_access_right VALUES (3, 1, '2001-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_user where username = 'it''s'", kRefused), kFailed});
  expectRows(live(), "SELECT userid, username FROM photo_user_stored ORDER BY 1", {{"1", "before"}, {"2", "it's"}});
}

TEST_P(Users, WithoutARowAfterTheInsertGetNoRights) {
  appliance::swallowInsert(live(), "photo_user", "NEW.username = 'lost'");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a');"
      "INSERT INTO photo_user VALUES (2, 'lost', '', '', false, false, false, ''), "
      "(4, 'then', '', '', false, false, false, '');"
      "INSERT INTO photo_access_right VALUES (2, 1, '2001-01-01'), (4, 1, '2002-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT userid, username FROM photo_user", {{"1", "then"}});
  expectRights("photo_access_right", {{"1", "1", "2002-01-01 00:00:00"}});
  expectNoMessages();
}

TEST_P(Users, KeepTheRightsThatWereCopiedBeforeOneFails) {
  makeRaw();
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a');"
      "ALTER TABLE photo_access_right ALTER create_time DROP DEFAULT, "
      "ALTER create_time TYPE timestamp USING create_time::timestamp");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (6, 'a');"
      "INSERT INTO photo_user VALUES (2, 'some', '', '', 'f', 'f', 'f', ''), (4, 'then', '', '', 'f', 'f', 'f', '')");
  for (const std::string table : kRightTables) {
    source().exec("INSERT INTO " + table + " VALUES (2, 6, '2001-01-01 00:00:00'), (2, 6, '" +
                  (table == "photo_access_right" ? "late" : "it''s") +
                  "'), (2, 6, '2003-01-01 00:00:00'), (4, 6, '2004-01-01 00:00:00')");
  }
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Insert into photo_access_right Values (1, 1, 'late')",
                    "ERROR:  invalid input syntax for type timestamp: \"late\""),
       failedToExec("Insert into photo_upload_right Values (1, 1, 'it's')", "ERROR:  syntax error at or near \"s\""),
       failedToExec("Insert into photo_manage_right Values (1, 1, 'it's')", "ERROR:  syntax error at or near \"s\"")});
  for (const char* table : kRightTables) {
    expectRights(table, {{"1", "1", "2001-01-01 00:00:00"}, {"2", "1", "2004-01-01 00:00:00"}});
  }
}

TEST_P(Users, GoOnAfterATableOfRightsThatCannotBeEmptiedOrRead) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a'); DROP TABLE photo_access_right;"
      "INSERT INTO photo_user (userid, username) VALUES (9, 'other'); INSERT INTO photo_upload_right VALUES (9, 1)");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (6, 'a'); DROP TABLE photo_upload_right;"
      "INSERT INTO photo_user VALUES (2, 'some', '', '', false, false, false, ''), "
      "(4, 'then', '', '', false, false, false, '');"
      "INSERT INTO photo_manage_right VALUES (2, 6, '2001-01-01'), (4, 6, '2004-01-01')");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> messages;
  for (const auto& [saved, stored] : {std::pair<std::string, std::string>{"2", "10"}, {"4", "11"}}) {
    messages.push_back(
        failedToExec("Delete from photo_access_right where userid = " + stored, noTable("photo_access_right")));
    messages.push_back(failedToExec("Select * from photo_upload_right" + suffix() + " where userid = " + saved,
                                    noTable("photo_upload_right" + suffix())));
  }
  expectMessages(messages);
  EXPECT_EQ(live().count("photo_upload_right"), 1);
  expectRights("photo_manage_right", {{"10", "1", "2001-01-01 00:00:00"}, {"11", "1", "2004-01-01 00:00:00"}});
}

TEST_P(Users, GoOnWhereAShareCannotBeLookedUp) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a'), (2, 'bad');"
      "INSERT INTO photo_user (userid, username) VALUES (3, 'known');"
      "INSERT INTO photo_access_right VALUES (3, 1, '2000-01-01'); INSERT INTO photo_upload_right VALUES (3, 2, "
      "'2000-01-01'); INSERT INTO photo_manage_right VALUES (3, 1, '2000-01-01')");
  appliance::refuseReading(live(), "photo_share", "sharename = 'bad'");
  source().exec(
      "ALTER TABLE photo_manage_right ALTER shareid TYPE text;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (6, 'a'), (7, 'bad');"
      "INSERT INTO photo_user VALUES (2, 'some', '', '', false, false, false, ''), "
      "(5, 'known', '', '', false, false, false, '');"
      "INSERT INTO photo_access_right VALUES (2, 6, '2001-01-01'), (2, 7, '2002-01-01'), (2, 6, '2003-01-01');"
      "INSERT INTO photo_upload_right VALUES (2, 6, '2004-01-01');"
      "INSERT INTO photo_manage_right VALUES (2, '6', '2005-01-01'), (2, 'x', '2006-01-01'), (2, '6', '2007-01-01');"
      "INSERT INTO photo_access_right VALUES (5, 6, '2001-01-01'), (5, 7, '2002-01-01');"
      "INSERT INTO photo_upload_right VALUES (5, 6, '2004-01-01');"
      "INSERT INTO photo_manage_right VALUES (5, '6', '2005-01-01'), (5, 'x', '2006-01-01')");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> messages;
  for (int user = 0; user < (overwrites() ? 2 : 1); ++user) {
    messages.push_back(failedToExec("Select * from photo_share where sharename = 'bad'", kRefused));
    messages.push_back(failedToExec("Select * from photo_share" + suffix() + " where shareid = x",
                                    "ERROR:  column \"x\" does not exist"));
  }
  expectMessages(messages);
  // A table of rights is copied whole or not at all; of a new user there is nothing to keep.
  const std::string before = "2000-01-01 00:00:00";
  const std::string saved = "2004-01-01 00:00:00";
  expectRights("photo_access_right", {{"3", "1", before}});
  expectRights("photo_upload_right",
               {overwrites() ? std::vector<std::string>{"3", "1", saved} : std::vector<std::string>{"3", "2", before},
                {"4", "1", saved}});
  expectRights("photo_manage_right", {{"3", "1", before}});
}

// Users of the same names on both sides, with rights in every table that differ.
class KnownUsers : public Users {
 protected:
  void SetUp() override {
    Users::SetUp();
    live().exec(
        "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a');"
        "INSERT INTO photo_user (userid, username) VALUES (3, 'anna'), (4, 'ben')");
    source().exec(
        "INSERT INTO photo_share (shareid, sharename) VALUES (6, 'a');"
        "INSERT INTO photo_user VALUES (7, 'anna', '', '', false, false, false, ''), "
        "(8, 'ben', '', '', false, false, false, '')");
    for (const std::string table : kRightTables) {
      live().exec("INSERT INTO " + table + " VALUES (3, 1, '2000-01-01'), (4, 1, '2000-01-01')");
      source().exec("INSERT INTO " + table + " VALUES (7, 6, '2001-01-01'), (8, 6, '2001-01-01')");
    }
  }
  void expectDates(const char* table, const std::string& date) {
    expectRights(table, {{"3", "1", date}, {"4", "1", date}});
  }
};
APPLIANCE_ALL_MODES(KnownUsers);

TEST_P(KnownUsers, KeepTheRightsOfATableThatTheSourceLacks) {
  for (const std::string missing : kRightTables) {
    SCOPED_TRACE(missing);
    for (const std::string table : kRightTables) {
      live().exec("UPDATE " + table + " SET create_time = '2000-01-01'");
    }
    source().exec("ALTER TABLE " + missing + " RENAME TO hidden");
    EXPECT_EQ(merge().status, 0);
    source().exec("ALTER TABLE hidden RENAME TO " + missing);
    std::vector<std::string> messages;
    if (overwrites()) {
      for (const char* user : {"7", "8"}) {
        messages.push_back(failedToExec("Select * from " + missing + suffix() + " where userid = " + user,
                                        noTable(missing + suffix())));
      }
    }
    expectMessages(messages);
    for (const char* table : kRightTables) {
      expectDates(table, overwrites() && table != missing ? "2001-01-01 00:00:00" : "2000-01-01 00:00:00");
    }
  }
}

TEST_P(KnownUsers, KeepAllRightsWhenTheSourceLacksTheShares) {
  source().exec("DROP TABLE photo_share");
  EXPECT_EQ(merge().status, 0);
  const std::string share = "photo_share" + suffix();
  std::vector<std::string> messages = {failedToExec("Select * from " + share, noTable(share)),
                                       "Table photo_share sync failed.\n"};
  if (overwrites()) {
    messages.insert(messages.end(), 6, failedToExec("Select * from " + share + " where shareid = 6", noTable(share)));
  }
  expectMessages(messages);
  for (const char* table : kRightTables) {
    expectDates(table, "2000-01-01 00:00:00");
  }
}

TEST_P(Users, GetNumbersBeyondThirtyTwoBits) {
  live().exec(
      "ALTER TABLE photo_user ALTER userid TYPE bigint;"
      "INSERT INTO photo_user (userid, username) VALUES (3000000000, 'live')");
  source().exec("INSERT INTO photo_user VALUES (1, 'new', '', '', false, false, false, '')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT userid, username FROM photo_user ORDER BY 1",
             {{"3000000000", "live"}, {"3000000001", "new"}});
}

class UserRoutine : public appliance::RoutineTest {};
APPLIANCE_ALL_ARRANGEMENTS(UserRoutine);

TEST_P(UserRoutine, RunsItsStatementsInOrder) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'it''s');"
      "INSERT INTO photo_user (userid, username) VALUES (40, 'old')");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (70, 'it''s'), (71, 'only saved');"
      "INSERT INTO photo_user VALUES (5, 'n''ew', 'd''e', 'pw', true, false, true, 'a@b'), "
      "(6, 'old', 'o''d', 'p', false, true, false, 'c@d');"
      "INSERT INTO photo_access_right VALUES (5, 70, '2001-01-01'), (6, 99, '2002-01-01');"
      "INSERT INTO photo_upload_right VALUES (5, 71, '2003-01-01'), (6, 70, '2004-01-01');"
      "INSERT INTO photo_manage_right VALUES (5, 70, '2005-01-01')");
  EXPECT_EQ(call(KavophotoSyncUser), 0);
  std::vector<std::string> expected = {
      "source: Select * from photo_user{}",
      "live: Select * from photo_user where username = 'n''ew'",
      "live: Select userid from photo_user order by userid desc limit 1",
      "live: Insert into photo_user VALUES(41, 'n''ew', 'd''e', 'pw', 't', 'f', 't', 'a@b')",
      "live: Select * from photo_user where username = 'n''ew'",
      "source: Select * from photo_access_right{} where userid = 5",
      "source: Select * from photo_share{} where shareid = 70",
      "live: Select * from photo_share where sharename = 'it''s'",
      "live: Delete from photo_access_right where userid = 41",
      "live: Insert into photo_access_right Values (41, 1, '2001-01-01 00:00:00')",
      "source: Select * from photo_upload_right{} where userid = 5",
      "source: Select * from photo_share{} where shareid = 71",
      "live: Select * from photo_share where sharename = 'only saved'",
      "live: Delete from photo_upload_right where userid = 41",
      "source: Select * from photo_manage_right{} where userid = 5",
      "source: Select * from photo_share{} where shareid = 70",
      "live: Select * from photo_share where sharename = 'it''s'",
      "live: Delete from photo_manage_right where userid = 41",
      "live: Insert into photo_manage_right Values (41, 1, '2005-01-01 00:00:00')",
      "live: Select * from photo_user where username = 'old'",
  };
  if (overwrites()) {
    expected.insert(
        expected.end(),
        {"live: UPDATE photo_user SET description = 'o''d', password = 'p', disabled = 'f', lock_pass = 't', admin = "
         "'f', email = 'c@d' where username = 'old'",
         "live: Select * from photo_user where username = 'old'",
         "source: Select * from photo_access_right{} where userid = 6",
         "source: Select * from photo_share{} where shareid = 99",
         "live: Delete from photo_access_right where userid = 40",
         "source: Select * from photo_upload_right{} where userid = 6",
         "source: Select * from photo_share{} where shareid = 70",
         "live: Select * from photo_share where sharename = 'it''s'",
         "live: Delete from photo_upload_right where userid = 40",
         "live: Insert into photo_upload_right Values (40, 1, '2004-01-01 00:00:00')",
         "source: Select * from photo_manage_right{} where userid = 6",
         "live: Delete from photo_manage_right where userid = 40"});
  }
  expectStatements(expected);
}

TEST_P(UserRoutine, EndsAtAQuoteInAnyColumnThatIsNotEscaped) {
  source().exec("ALTER TABLE photo_user ALTER disabled TYPE text, ALTER lock_pass TYPE text, ALTER admin TYPE text");
  for (const std::string column : {"password", "disabled", "lock_pass", "admin", "email"}) {
    SCOPED_TRACE(column);
    live().exec("DELETE FROM photo_user; INSERT INTO photo_user VALUES (4, 'old', 'live')");
    source().exec(
        "DELETE FROM photo_user; INSERT INTO photo_user VALUES (1, 'before', '', '', 't', 't', 't', '');"
        "INSERT INTO photo_user SELECT id, name, '', '', 't', 't', 't', '' FROM (VALUES (2, 'old'), "
        "(3, 'new')) AS bad (id, name); UPDATE photo_user SET " +
        column +
        " = 'it''s' WHERE userid IN (2, 3);"
        "INSERT INTO photo_user VALUES (5, 'then', '', '', 't', 't', 't', '')");
    EXPECT_EQ(call(KavophotoSyncUser), -1);
    expectMessagesMatch(
        {testing::AllOf(testing::StartsWith(overwrites() ? "Failed to exec [UPDATE photo_user SET "
                                                         : "Failed to exec [Insert into photo_user "),
                        testing::HasSubstr("'it's'"), testing::EndsWith("] (ERROR:  syntax error at or near \"s\")"))});
    expectRows(live(), "SELECT userid, username, description FROM photo_user ORDER BY 1",
               {{"4", "old", "live"}, {"5", "before", ""}});
  }
}

TEST_P(UserRoutine, EndsWithoutAConnection) {
  source().exec("INSERT INTO photo_user VALUES (5, 'new', '', '', true, false, true, '')");
  EXPECT_EQ(call([](DBConnect_tag* destination, DBConnect_tag*, const char* suffix) {
              return KavophotoSyncUser(destination, nullptr, suffix);
            }),
            -1);
  EXPECT_EQ(call([](DBConnect_tag*, DBConnect_tag* from, const char* suffix) {
              return KavophotoSyncUser(nullptr, from, suffix);
            }),
            -1);
  expectMessages({"Failed to exec [Select * from photo_user" + std::string(GetParam().suffix) + "] (no connection)",
                  "Failed to exec [Select * from photo_user where username = 'new'] (no connection)"});
}

}  // namespace
