#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

constexpr const char* kAllColumns =
    "SELECT shareid, sharename, title, description, public, hits, cover, comment, is_subdir, conversion, password FROM "
    "photo_share ORDER BY shareid";

class Shares : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    for (const char* folder : {"trip", "home", "it's", "new"}) {
      appliance::makeDirectories(std::string("/var/services/photo/") + folder);
    }
  }
  // Calls the routine in this process, from a database of its own.
  int mergeDirectly(bool overwrite) {
    const appliance::OverwriteMode mode(overwrite);
    const Connection destination = connectTo("photo");
    const Connection from = connectTo("other");
    return KavophotoSyncShare(destination.get(), from.get(), "");
  }
  // Lets the source hold texts that the live columns would refuse.
  void loosenTypes() {
    source().exec(
        "ALTER TABLE photo_share ALTER COLUMN public TYPE text, ALTER COLUMN hits TYPE text, ALTER COLUMN comment TYPE "
        "text, ALTER COLUMN is_subdir TYPE text, ALTER COLUMN conversion TYPE text");
  }
};
APPLIANCE_ALL_MODES(Shares);

TEST_P(Shares, KeepTheirNumberAndTakeTheSourcesColumnsOnlyInOverwriteMode) {
  live().exec(
      "INSERT INTO photo_share VALUES (40, 'trip', 'live', 'live', true, 1, 'live', true, true, true, 'live'), "
      "(3, 'home', 'live', 'live', true, 2, 'live', true, true, true, 'live'), "
      "(4, 'home', 'double', 'live', true, 2, 'live', true, true, true, 'live'), "
      "(5, 'only live', 'live', 'live', true, 2, 'live', true, true, true, 'live')");
  source().exec(
      "INSERT INTO photo_share VALUES (3, 'trip', 'it''s %s', 'a\\''b', false, 11, 'c''s', false, false, false, 's'), "
      "(40, 'home', NULL, NULL, false, 12, NULL, false, true, false, NULL)");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectRows(live(), kAllColumns,
               {{"3", "home", "", "", "f", "12", "", "f", "t", "f", ""},
                {"4", "home", "", "", "f", "12", "", "f", "t", "f", ""},
                {"5", "only live", "live", "live", "t", "2", "live", "t", "t", "t", "live"},
                {"40", "trip", "it's %s", "a\\'b", "f", "11", "c's", "f", "f", "f", "s"}});
  } else {
    expectRows(live(), kAllColumns,
               {{"3", "home", "live", "live", "t", "2", "live", "t", "t", "t", "live"},
                {"4", "home", "double", "live", "t", "2", "live", "t", "t", "t", "live"},
                {"5", "only live", "live", "live", "t", "2", "live", "t", "t", "t", "live"},
                {"40", "trip", "live", "live", "t", "1", "live", "t", "t", "t", "live"}});
  }
  expectNoMessages();
}

TEST_P(Shares, NewOnesGetConsecutiveNumbersAboveTheHighest) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (41, 'a'), (7, 'trip');"
      "INSERT INTO photo_share (shareid, sharename, title) VALUES (9, 'it''s', 'live')");
  source().exec(
      "INSERT INTO photo_share VALUES (900, 'new', 'n''t', 'n''d', true, 5, 'n''c', false, true, false, 'pw'), "
      "(7, 'home', NULL, NULL, false, 6, NULL, true, false, true, NULL), "
      "(8, 'it''s', 'saved', NULL, false, 7, NULL, true, false, true, NULL)");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT shareid, sharename, title, description, public, hits, cover, comment, is_subdir, conversion, "
             "password FROM photo_share WHERE shareid > 41 ORDER BY 1",
             {{"42", "new", "n't", "n'd", "t", "5", "n'c", "f", "t", "f", "pw"},
              {"43", "home", "", "", "f", "6", "", "t", "f", "t", ""}});
  expectRows(live(), "SELECT sharename, title FROM photo_share WHERE shareid = 9",
             {{"it's", overwrites() ? "saved" : "live"}});
  expectNoMessages();
}

TEST_P(Shares, OfAnEmptyTableStartAtOneAndEqualNamesAreOneShare) {
  source().exec(
      "INSERT INTO photo_share VALUES (90, 'trip', 'z first', '', true, 0, '', true, true, true, ''), "
      "(91, 'trip', 'a last', '', true, 0, '', true, true, true, ''), "
      "(92, NULL, 'the photo folder itself', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT shareid, sharename, title FROM photo_share ORDER BY 1",
             {{"1", "trip", overwrites() ? "a last" : "z first"}, {"2", "", "the photo folder itself"}});
}

TEST_P(Shares, WithoutAFolderAreSkippedSilently) {
  live().exec("INSERT INTO photo_share (shareid, sharename, title) VALUES (3, 'gone', 'live')");
  // Without a number of hits no statement would do.
  source().exec(
      "INSERT INTO photo_share VALUES (1, 'gone', 'saved', '', true, NULL, '', true, true, true, ''), "
      "(2, repeat('x', 9000), 'saved', '', true, NULL, '', true, true, true, ''), "
      "(3, 'trip', 'saved', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT shareid, sharename, title FROM photo_share ORDER BY 1",
             {{"3", "gone", "live"}, {"4", "trip", "saved"}});
  expectNoMessages();
}

TEST_P(Shares, CutValuesToTheirCapacities) {
  // Blanks around a flag or a number mean nothing: the longest ones that are kept end in what counts.
  loosenTypes();
  source().exec(
      "INSERT INTO photo_share VALUES "
      "(1, 'trip', repeat('t', 8190) || '1x', repeat('d', 8190) || '1x', repeat(' ', 30) || 'tx', "
      "repeat(' ', 29) || '123', repeat('c', 8190) || '1x', repeat(' ', 30) || 'tx', repeat(' ', 30) || 'fx', "
      "repeat(' ', 30) || 'tx', repeat('p', 8190) || '1x'), "
      "(2, 'home', repeat('t', 8190) || 'é', repeat('d', 8190) || 'é', 'f', '1 + 1', repeat('c', 8190) || 'é', 'f', "
      "'f', 'f', repeat('p', 8190) || 'é'), "
      "(3, 'new', repeat('''', 9000), repeat('''', 9000), 'f', '0', repeat('''', 9000), 'f', 'f', 'f', '')");
  if (overwrites()) {
    live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'trip'), (2, 'home')");
  }
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT octet_length(title), right(title, 1), octet_length(description), right(description, 1), public, "
             "hits, octet_length(cover), right(cover, 1), comment, is_subdir, conversion, octet_length(password), "
             "right(password, 1) FROM photo_share ORDER BY shareid",
             {{"8191", "1", "8191", "1", "t", "12", "8191", "1", "t", "f", "t", "8191", "1"},
              {"8190", "t", "8190", "d", "f", "2", "8190", "c", "f", "f", "f", "8190", "p"},
              {"8191", "'", "8191", "'", "f", "0", "8191", "'", "f", "f", "f", "0", ""}});
}

TEST_P(Shares, GetNumbersBeyondThirtyTwoBits) {
  live().exec(
      "ALTER TABLE photo_share ALTER shareid TYPE bigint;"
      "INSERT INTO photo_share (shareid, sharename) VALUES (2147483647, 'live')");
  source().exec(
      "INSERT INTO photo_share VALUES (1, 'trip', '', '', true, 0, '', true, true, true, ''), "
      "(2, 'it''s', '', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT shareid, sharename FROM photo_share ORDER BY 1",
             {{"2147483647", "live"}, {"2147483648", "trip"}, {"2147483649", "it's"}});
}

TEST_P(Shares, EndWhereTheirNumbersAreUsedUp) {
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (2147483647, 'live')");
  source().exec("INSERT INTO photo_share VALUES (1, 'trip', '', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Insert into photo_share "
                    "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,conversion) "
                    "Values (2147483648, 'trip', '', '', 't', 0, '', 't', 't', '', 't')",
                    "ERROR:  integer out of range"),
       "Table photo_share sync failed.\n"});
  expectRows(live(), "SELECT shareid FROM photo_share", {{"2147483647"}});
}

TEST_P(Shares, EndAtALookUpThatFails) {
  live().exec("DROP TABLE photo_share");
  source().exec("INSERT INTO photo_share VALUES (1, 'it''s', '', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Select * from photo_share where sharename = 'it''s'", appliance::noTable("photo_share")),
       "Table photo_share sync failed.\n"});
}

TEST_P(Shares, EndAtAShareWithoutHitsAndKeepWhatWasWritten) {
  live().exec("INSERT INTO photo_share (shareid, sharename, title) VALUES (5, 'trip', 'live')");
  if (overwrites()) {
    live().exec("INSERT INTO photo_share (shareid, sharename, title) VALUES (3, 'it''s', 'live')");
  }
  source().exec(
      "INSERT INTO photo_share VALUES (1, 'trip', 'saved', '', true, 0, '', true, true, true, ''), "
      "(2, 'it''s', 't''s', 'd''s', true, NULL, 'c''s', false, true, false, 'pw'), "
      "(3, 'new', 'saved', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  const std::string statement =
      overwrites()
          ? "Update photo_share set title = 't''s', description = 'd''s', public = 't', hits = , cover = 'c''s', "
            "comment "
            "= 'f', is_subdir = 't', password = 'pw', conversion = 'f'  where sharename = 'it''s'"
          : "Insert into photo_share "
            "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,conversion) Values (6, "
            "'it''s', 't''s', 'd''s', 't', , 'c''s', 'f', 't', 'pw', 'f')";
  expectMessages(
      {failedToExec(statement, "ERROR:  syntax error at or near \",\""), "Table photo_share sync failed.\n"});
  if (overwrites()) {
    expectRows(live(), "SELECT shareid, title FROM photo_share ORDER BY 1", {{"3", "live"}, {"5", "saved"}});
  } else {
    expectRows(live(), "SELECT shareid, title FROM photo_share", {{"5", "live"}});
  }
}

TEST_P(Shares, TakeOneAsTheNumberWhenTheHighestCannotBeRead) {
  live().exec(
      "ALTER TABLE photo_share RENAME COLUMN shareid TO number; INSERT INTO photo_share (number, sharename) VALUES (1, "
      "'a')");
  source().exec("INSERT INTO photo_share VALUES (1, 'trip', '', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select shareid from photo_share order by shareid desc limit 1",
                               "ERROR:  column \"shareid\" does not exist"),
                  failedToExec("Insert into photo_share "
                               "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,"
                               "conversion) Values (1, 'trip', '', '', 't', 0, '', 't', 't', '', 't')",
                               R"(ERROR:  column "shareid" of relation "photo_share" does not exist)"),
                  "Table photo_share sync failed.\n"});
  expectRows(live(), "SELECT number, sharename FROM photo_share", {{"1", "a"}});
}

struct RawValue {
  const char* column;
  const char* value;  // of that column in the source, in SQL
  const char* shown;  // the same in the statement
  const char* insertError;
  const char* updateError;
};

constexpr const char* kNearOne = "ERROR:  syntax error at or near \"1\"";
constexpr const char* kNearComma = "ERROR:  syntax error at or near \",\"";
constexpr const char* kNoFlag = "ERROR:  invalid input syntax for type boolean: \"\"";

// A null password is an empty one.
constexpr RawValue kRawValues[] = {
    {"public", "'1'''", "1'", kNearOne, kNearOne},
    {"public", "NULL", "", kNoFlag, kNoFlag},
    {"hits", "'1'''", "1'", "ERROR:  syntax error at or near \"', '', '\"",
     "ERROR:  syntax error at or near \"', cover = '', comment = '\""},
    {"hits", "NULL", "", kNearComma, kNearComma},
    {"comment", "'1'''", "1'", kNearOne, kNearOne},
    {"comment", "NULL", "", kNoFlag, kNoFlag},
    {"is_subdir", "'1'''", "1'", kNearOne, kNearOne},
    {"is_subdir", "NULL", "", kNoFlag, kNoFlag},
    {"password", "'1'''", "1'", kNearOne, kNearOne},
    {"conversion", "'1'''", "1'", "ERROR:  unterminated quoted string at or near \"'1'')\"",
     "ERROR:  syntax error at or near \"trip\""},
    {"conversion", "NULL", "", kNoFlag, kNoFlag},
};

TEST_F(Shares, EndAtAQuoteOrNullInAColumnThatIsNotEscaped) {
  loosenTypes();
  for (const RawValue& raw : kRawValues) {
    SCOPED_TRACE(std::string(raw.column) + " = " + raw.value);
    const auto shown = [&raw](const std::string& column) {
      return std::string(column == raw.column ? raw.shown : "1");
    };
    source().exec(
        "DELETE FROM photo_share; INSERT INTO photo_share VALUES (1, 'trip', '', '', '1', '1', '', '1', '1', '1', '1');"
        "UPDATE photo_share SET " +
        std::string(raw.column) + " = " + raw.value + ";" +
        "INSERT INTO photo_share VALUES (2, 'new', '', '', '1', '1', '', '1', '1', '1', '1')");

    live().exec("DELETE FROM photo_share; INSERT INTO photo_share (shareid, sharename) VALUES (7, 'a')");
    EXPECT_EQ(mergeDirectly(true), -1);
    expectMessages(
        {failedToExec("Insert into photo_share "
                      "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,conversion) "
                      "Values (8, 'trip', '', '', '" +
                          shown("public") + "', " + shown("hits") + ", '', '" + shown("comment") + "', '" +
                          shown("is_subdir") + "', '" + shown("password") + "', '" + shown("conversion") + "')",
                      raw.insertError)});
    expectRows(live(), "SELECT shareid, title FROM photo_share", {{"7", "(null)"}});

    live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (6, 'trip')");
    EXPECT_EQ(mergeDirectly(true), -1);
    expectMessages({failedToExec("Update photo_share set title = '', description = '', public = '" + shown("public") +
                                     "', hits = " + shown("hits") + ", cover = '', comment = '" + shown("comment") +
                                     "', is_subdir = '" + shown("is_subdir") + "', password = '" + shown("password") +
                                     "', conversion = '" + shown("conversion") + "'  where sharename = 'trip'",
                                 raw.updateError)});
    expectRows(live(), "SELECT shareid, title FROM photo_share ORDER BY 1", {{"6", "(null)"}, {"7", "(null)"}});
  }
}

TEST_F(Shares, EndWhenTheNumberOneThatStandsInForTheHighestIsTaken) {
  // Sorting by the number is what fails, so the look-ups by name still work.
  live().exec(
      "ALTER TABLE photo_share RENAME TO stored; INSERT INTO stored (shareid, sharename) VALUES (1, 'a');"
      "CREATE FUNCTION refused(integer) RETURNS integer LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION 'refused'; END$$;"
      "CREATE VIEW photo_share AS SELECT refused(shareid) AS shareid, sharename, title, description, public, hits, "
      "cover, comment, is_subdir, conversion, password FROM stored;"
      "CREATE RULE store AS ON INSERT TO photo_share DO INSTEAD INSERT INTO stored (shareid, sharename) VALUES "
      "(NEW.shareid, NEW.sharename)");
  source().exec(
      "INSERT INTO photo_share VALUES (1, 'trip', '', '', true, 0, '', true, true, true, ''), "
      "(2, 'home', '', '', true, 0, '', true, true, true, '')");
  EXPECT_EQ(mergeDirectly(false), -1);
  expectMessages({failedToExec("Select shareid from photo_share order by shareid desc limit 1", appliance::kRefused),
                  failedToExec("Insert into photo_share "
                               "(shareid,sharename,title,description,public,hits,cover,comment,is_subdir,password,"
                               "conversion) Values (1, 'trip', '', '', 't', 0, '', 't', 't', '', 't')",
                               "ERROR:  duplicate key value violates unique constraint \"photo_share_pkey\"  DETAIL:  "
                               "Key (shareid)=(1) already exists.")});
  expectRows(live(), "SELECT shareid, sharename FROM stored", {{"1", "a"}});
}

}  // namespace
