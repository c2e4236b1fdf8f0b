#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

class Labels : public appliance::MergeTest {
 protected:
  void expectLabels(const appliance::Rows& expected) {
    expectRows(live(), "SELECT name, category, info FROM photo_label ORDER BY 1, 2, 3", expected);
  }
};
APPLIANCE_ALL_MODES(Labels);

TEST_P(Labels, MatchesLabelsByNameAndCategory) {
  live().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('Anna', 0, 'live'), ('Rome', 1, 'live'), "
      "('twice', 2, 'first'), ('twice', 2, 'second'), ('twice', 1, 'live')");
  source().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('Anna', 0, 'saved'), ('Anna', 1, 'saved'), "
      "('twice', 2, 'saved'), ('again', 0, 'z first'), ('again', 0, 'a last')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectLabels({{"Anna", "0", "saved"},
                  {"Anna", "1", "saved"},
                  {"Rome", "1", "live"},
                  {"again", "0", "a last"},
                  {"twice", "1", "live"},
                  {"twice", "2", "saved"}});
  } else {
    expectLabels({{"Anna", "0", "live"},
                  {"Anna", "1", "saved"},
                  {"Rome", "1", "live"},
                  {"again", "0", "z first"},
                  {"twice", "1", "live"},
                  {"twice", "2", "first"},
                  {"twice", "2", "second"}});
  }
  expectNoMessages();
}

TEST_P(Labels, LetsTheLiveDatabaseNumberThem) {
  live().exec(
      "INSERT INTO photo_label VALUES (5, 'Anna', 0, 'live'), (6, 'Rome', 1, 'live');"
      "SELECT setval('photo_label_id_seq', 40)");
  source().exec("INSERT INTO photo_label VALUES (6, 'Anna', 0, 'saved'), (900, 'new', 0, 'saved')");
  EXPECT_EQ(merge().status, 0);
  const char* const numbers = "SELECT id, name FROM photo_label ORDER BY 1";
  if (overwrites()) {
    expectRows(live(), numbers, {{"6", "Rome"}, {"41", "Anna"}, {"42", "new"}});
  } else {
    expectRows(live(), numbers, {{"5", "Anna"}, {"6", "Rome"}, {"41", "new"}});
  }
}

TEST_P(Labels, KeepsQuotesInNamesAndInfos) {
  live().exec("INSERT INTO photo_label (name, category, info) VALUES ('it''s', 1, 'live')");
  source().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('it''s', 1, '''%s\\'''), ('''%%', 1, ''''), ('x', 1, "
      "NULL), "
      "(NULL, 1, 'without name')");
  EXPECT_EQ(merge().status, 0);
  expectLabels({{"", "1", "without name"},
                {"'%%", "1", "'"},
                {"it's", "1", overwrites() ? R"('%s\')" : "live"},
                {"x", "1", ""}});
}

TEST_P(Labels, CutsValuesToTheirCapacities) {
  // Blanks around a number mean nothing, so the longest category that is kept ends in its first digit.
  source().exec(
      "ALTER TABLE photo_label ALTER COLUMN category TYPE text;"
      "INSERT INTO photo_label (name, category, info) VALUES "
      "(repeat('m', 1022) || '1x', repeat(' ', 8190) || '12', repeat('i', 1022) || '1x'), "
      "(repeat('n', 1022) || 'é', '1', repeat('i', 1022) || 'é'), "
      "(repeat('o', 1021) || 'é', '2', repeat('i', 1021) || 'é'), "
      "(repeat('''', 2000), '3', repeat('''', 2000))");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT left(name, 1), octet_length(name), right(name, 1), category, octet_length(info), right(info, 1) "
             "FROM photo_label ORDER BY 1",
             {{"'", "1023", "'", "3", "1023", "'"},
              {"m", "1023", "1", "1", "1023", "1"},
              {"n", "1022", "n", "1", "1022", "i"},
              {"o", "1023", "é", "2", "1023", "é"}});
}

TEST_P(Labels, TakeTheCategoryIntoTheStatementsAsItIs) {
  live().exec("INSERT INTO photo_label (name, category, info) VALUES ('Anna', 2, 'live')");
  source().exec(
      "ALTER TABLE photo_label ALTER COLUMN category TYPE text;"
      "INSERT INTO photo_label (name, category, info) VALUES ('before', '1', ''), ('Anna', '1 + 1', 'saved'), "
      "('then', '1', '')");
  EXPECT_EQ(merge().status, 0);
  // The look-up computes the sum; quoted in the insert it is no number.
  if (overwrites()) {
    expectMessages({failedToExec("Insert into photo_label (name, category, info) Values ('Anna', '1 + 1', 'saved')",
                                 "ERROR:  invalid input syntax for type integer: \"1 + 1\""),
                    "Table photo_label sync failed.\n"});
    expectLabels({{"before", "1", ""}});
  } else {
    expectNoMessages();
    expectLabels({{"Anna", "2", "live"}, {"before", "1", ""}, {"then", "1", ""}});
  }
}

TEST_P(Labels, EndAtAQuoteInTheCategory) {
  source().exec(
      "ALTER TABLE photo_label ALTER COLUMN category TYPE text;"
      "INSERT INTO photo_label (name, category) VALUES ('before', '1'), ('it''s', '1'''), ('then', '1')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_label where name = 'it''s' and category = 1'",
                               "ERROR:  unterminated quoted string at or near \"'\""),
                  "Table photo_label sync failed.\n"});
  expectLabels({{"before", "1", ""}});
}

TEST_P(Labels, EndAtALabelWithoutCategory) {
  source().exec("INSERT INTO photo_label (name, category) VALUES ('before', 1), ('Anna', NULL), ('then', 1)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_label where name = 'Anna' and category = ",
                               "ERROR:  syntax error at end of input"),
                  "Table photo_label sync failed.\n"});
  expectLabels({{"before", "1", ""}});
}

TEST_P(Labels, EndAtADeleteThatFails) {
  live().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('it''s', 1, 'live');"
      "CREATE TABLE tagged (label integer REFERENCES photo_label (id)); INSERT INTO tagged VALUES (1)");
  source().exec("INSERT INTO photo_label (name, category, info) VALUES ('it''s', 1, 'saved'), ('then', 1, 'saved')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMessages(
        {failedToExec("Delete from photo_label where name = 'it''s' and category = 1",
                      "ERROR:  update or delete on table \"photo_label\" violates foreign key constraint "
                      "\"tagged_label_fkey\" on table \"tagged\"  DETAIL:  Key (id)=(1) is still referenced from "
                      "table \"tagged\"."),
         "Table photo_label sync failed.\n"});
    expectLabels({{"it's", "1", "live"}});
  } else {
    expectNoMessages();
    expectLabels({{"it's", "1", "live"}, {"then", "1", "saved"}});
  }
}

TEST_P(Labels, FailingLeavesTheOtherTablesToBeMerged) {
  appliance::refuseWriting(live(), "photo_label", "INSERT", "NEW.info = 'bad'");
  source().exec(
      "INSERT INTO photo_label (name, category, info) VALUES ('before', 1, ''), ('Anna', 1, 'bad');"
      "INSERT INTO photo_config VALUES ('album', 'order', 'saved'); INSERT INTO category (name, hidden, order_number) "
      "VALUES ('trips', false, 1)");
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Insert into photo_label (name, category, info) Values ('Anna', '1', 'bad')", appliance::kRefused),
       "Table photo_label sync failed.\n"});
  expectLabels({{"before", "1", ""}});
  EXPECT_EQ(live().count("photo_config"), 1);
  EXPECT_EQ(live().count("category"), 1);
}

}  // namespace
