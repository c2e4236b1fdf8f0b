#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

const char* const kFailed = "Table watermark sync failed.\n";

class Watermarks : public appliance::MergeTest {
 protected:
  void expectWatermarks(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT shareid, path, opacity, gravity, size, hash, mtime, changed FROM watermark ORDER BY shareid",
               expected);
  }
};
APPLIANCE_ALL_MODES(Watermarks);

TEST_P(Watermarks, GoToTheShareOfTheSameNumber) {
  appliance::makeDirectories("/var/services/photo/saved share");
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (5, 'live share'), (6, 'saved share');"
      "INSERT INTO watermark VALUES (5, 'live', 1, 2, 3, 'live', 4, false), (7, 'only live', 1, 2, 3, '', 4, true)");
  source().exec(
      "INSERT INTO photo_share (shareid, sharename, public, hits, comment, is_subdir, conversion) VALUES "
      "(5, 'saved share', true, 0, true, true, true);"
      "INSERT INTO watermark VALUES (5, 'saved \\ %s é', 11, 12, 13, 'ha''''sh', 12345678901, true), "
      "(6, '', 21, 22, 23, '', 24, false)");
  source().exec("INSERT INTO watermark VALUES (99, 'do''''uble', -31, -32, -33, '', 34, true)");
  EXPECT_EQ(merge().status, 0);
  const std::vector<std::string> saved = {"5", "saved \\ %s é", "11", "12", "13", "ha'sh", "12345678901", "t"};
  const std::vector<std::string> kept = {"5", "live", "1", "2", "3", "live", "4", "f"};
  // Doubled quotes come out as one, because nothing is escaped.
  expectWatermarks({overwrites() ? saved : kept,
                    {"6", "", "21", "22", "23", "", "24", "f"},
                    {"7", "only live", "1", "2", "3", "", "4", "t"},
                    {"99", "do'uble", "-31", "-32", "-33", "", "34", "t"}});
  expectNoMessages();
}

TEST_P(Watermarks, AreNeverCut) {
  source().exec(
      "ALTER TABLE watermark ALTER changed TYPE text; INSERT INTO watermark VALUES "
      "(5, repeat('p', 20000), 1, 2, 3, repeat('h', 20000), 4, repeat('é', 5000))");
  live().exec("ALTER TABLE watermark ALTER changed TYPE text");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT length(path), length(hash), length(changed) FROM watermark", {{"20000", "20000", "5000"}});
}

TEST_P(Watermarks, EndAtAQuoteInThePath) {
  live().exec("INSERT INTO watermark VALUES (2, 'live', 1, 2, 3, '', 4, false)");
  source().exec(
      "INSERT INTO watermark VALUES (1, 'before', 1, 2, 3, '', 4, true), (2, 'it''s', 1, 2, 3, '', 4, true), "
      "(3, 'it''s', 1, 2, 3, '', 4, true), (4, 'then', 1, 2, 3, '', 4, true);"
      "INSERT INTO photo_personal_collection_for_admin (name, is_shared, hidden) VALUES ('next', true, true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec(overwrites() ? "UPDATE watermark SET path = 'it's', opacity = 1, gravity = 2, size = 3, "
                                              "hash = '', mtime = 4, changed = 't' WHERE shareid = 2"
                                            : "INSERT INTO watermark (shareid, path, opacity, gravity, size, hash, "
                                              "mtime, changed) VALUES (3, 'it's', 1, 2, 3, '', 4, 't')",
                               "ERROR:  syntax error at or near \"s\""),
                  kFailed});
  expectRows(live(), "SELECT shareid, path FROM watermark ORDER BY 1", {{"1", "before"}, {"2", "live"}});
  EXPECT_EQ(live().count("photo_personal_collection_for_admin"), 1);
}

TEST_P(Watermarks, AreNoneWhereTheSourceHasNoTable) {
  live().exec("INSERT INTO watermark VALUES (2, 'live', 1, 2, 3, '', 4, false)");
  source().exec("DROP TABLE watermark; INSERT INTO photo_group VALUES (1, 'other table', '')");
  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("watermark"), 1);
  EXPECT_EQ(live().count("photo_group"), 1);
}

TEST_P(Watermarks, EndAtALookUpThatFails) {
  live().exec("DROP TABLE watermark");
  source().exec("INSERT INTO watermark VALUES (2, 'saved', 1, 2, 3, '', 4, false)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("SELECT * FROM watermark WHERE shareid = 2", noTable("watermark")), kFailed});
}

class WatermarkRoutine : public appliance::RoutineTest {};
APPLIANCE_ALL_ARRANGEMENTS(WatermarkRoutine);

TEST_P(WatermarkRoutine, RunsItsStatementsInOrder) {
  live().exec("INSERT INTO watermark VALUES (6, 'live', 1, 2, 3, '', 4, false)");
  source().exec("INSERT INTO watermark VALUES (5, 'p', 1, 2, 3, 'h', 4, true), (6, 'q', 11, 12, 13, 'i', 14, false)");
  EXPECT_EQ(call(KavophotoSyncWatermark), 0);
  std::vector<std::string> expected = {
      "source: SELECT * FROM watermark{}", "live: SELECT * FROM watermark WHERE shareid = 5",
      "live: INSERT INTO watermark (shareid, path, opacity, gravity, size, hash, mtime, changed) VALUES (5, 'p', 1, 2, "
      "3, 'h', 4, 't')",
      "live: SELECT * FROM watermark WHERE shareid = 6"};
  if (overwrites()) {
    expected.emplace_back(
        "live: UPDATE watermark SET path = 'q', opacity = 11, gravity = 12, size = 13, hash = 'i', mtime = 14, changed "
        "= 'f' WHERE shareid = 6");
  }
  expectStatements(expected);
}

TEST_P(WatermarkRoutine, TellsFailuresApart) {
  source().exec("INSERT INTO watermark VALUES (5, 'saved', 1, 2, 3, '', 4, true)");
  appliance::refuseWriting(live(), "watermark", "INSERT", "true");
  EXPECT_EQ(call(KavophotoSyncWatermark), -3);
  expectMessages(
      {std::string("Failed to exec [INSERT INTO watermark (shareid, path, opacity, gravity, size, hash, mtime, "
                   "changed) VALUES (5, 'saved', 1, 2, 3, '', 4, 't')] (") +
       kRefused + ")"});

  live().exec(
      "ALTER TABLE watermark DISABLE TRIGGER ALL; INSERT INTO watermark VALUES (5, 'live', 1, 2, 3, '', 4, true);"
      "ALTER TABLE watermark ENABLE TRIGGER ALL");
  appliance::refuseWriting(live(), "watermark", "UPDATE", "true");
  EXPECT_EQ(call(KavophotoSyncWatermark), overwrites() ? -3 : 0);
  if (overwrites()) {
    expectMessages(
        {std::string("Failed to exec [UPDATE watermark SET path = 'saved', opacity = 1, gravity = 2, size = 3, "
                     "hash = '', mtime = 4, changed = 't' WHERE shareid = 5] (") +
         kRefused + ")"});
  }
  expectRows(live(), "SELECT path FROM watermark", {{"live"}});

  live().exec("DROP TABLE watermark");
  EXPECT_EQ(call(KavophotoSyncWatermark), -2);
  expectMessages({"Failed to exec [SELECT * FROM watermark WHERE shareid = 5] (" + noTable("watermark") + ")"});

  source().exec("DROP TABLE watermark");
  EXPECT_EQ(call(KavophotoSyncWatermark), 0);
  expectNoMessages();
  EXPECT_EQ(call([](DBConnect_tag* destination, DBConnect_tag*, const char* suffix) {
              return KavophotoSyncWatermark(destination, nullptr, suffix);
            }),
            0);
  expectNoMessages();
}

TEST_P(WatermarkRoutine, EndsAtANullNumberOrAQuoteInAnyColumn) {
  struct Case {
    std::string column;
    std::string value;
    std::string error;
  };
  const std::string comma = "ERROR:  syntax error at or near \",\"";
  const std::string quote = "ERROR:  syntax error at or near \"s\"";
  const std::string flag = "ERROR:  invalid input syntax for type boolean: \"\"";
  const std::vector<Case> cases = {
      {"opacity", "NULL", comma}, {"gravity", "NULL", comma}, {"size", "NULL", comma},       {"mtime", "NULL", comma},
      {"path", "'it''s'", quote}, {"hash", "'it''s'", quote}, {"changed", "'it''s'", quote}, {"changed", "NULL", flag}};
  source().exec("ALTER TABLE watermark ALTER changed TYPE text");
  for (const Case& one : cases) {
    SCOPED_TRACE(one.column);
    live().exec("DELETE FROM watermark");
    if (overwrites()) {
      live().exec("INSERT INTO watermark VALUES (2, 'live', 1, 2, 3, '', 4, false)");
    }
    source().exec(
        "DELETE FROM watermark; INSERT INTO watermark VALUES (2, 'saved', 1, 2, 3, '', 4, true);"
        "UPDATE watermark SET " +
        one.column + " = " + one.value + "; INSERT INTO watermark VALUES (3, 'then', 1, 2, 3, '', 4, true)");
    EXPECT_EQ(call(KavophotoSyncWatermark), -3);
    expectMessagesMatch({testing::EndsWith("] (" + one.error + ")")});
    expectRows(live(), "SELECT path FROM watermark", overwrites() ? appliance::Rows{{"live"}} : appliance::Rows{});
  }
}

TEST_P(WatermarkRoutine, TakesOtherNullsAsEmptyTexts) {
  live().exec("INSERT INTO watermark VALUES (2, 'live', 1, 2, 3, 'live', 4, false)");
  source().exec("INSERT INTO watermark VALUES (1, NULL, 1, 2, 3, NULL, 4, true), (2, NULL, 1, 2, 3, NULL, 4, true)");
  EXPECT_EQ(call(KavophotoSyncWatermark), 0);
  const std::string live2 = overwrites() ? "" : "live";
  expectRows(live(), "SELECT shareid, path, hash FROM watermark ORDER BY 1", {{"1", "", ""}, {"2", live2, live2}});
}

TEST_P(WatermarkRoutine, EndsAtARowWithoutAShare) {
  source().exec(
      "ALTER TABLE watermark DROP CONSTRAINT watermark_pkey; ALTER TABLE watermark ALTER shareid DROP NOT NULL;"
      "INSERT INTO watermark VALUES (NULL, 'saved', 1, 2, 3, '', 4, true)");
  EXPECT_EQ(call(KavophotoSyncWatermark), -2);
  expectMessages({"Failed to exec [SELECT * FROM watermark WHERE shareid = ] (ERROR:  syntax error at end of input)"});
}

}  // namespace
