#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

class Categories : public appliance::MergeTest {
 protected:
  void expectCategories(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT name, hidden, order_number, create_date, modify_date FROM category "
               "ORDER BY name, order_number",
               expected);
  }
};
APPLIANCE_ALL_MODES(Categories);

TEST_P(Categories, MatchByNameAndKeepTheDatesOfTheSource) {
  live().exec(
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
      "('trips', false, 1, '2001-01-01', '2001-01-02'), ('only live', true, 2, '2001-01-03', '2001-01-04'), "
      "('twice', true, 3, '2001-01-05', '2001-01-06'), ('twice', false, 4, '2001-01-07', '2001-01-08')");
  source().exec(
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
      "('trips', true, 11, '2011-01-01 10:11:12.345678', '2012-02-29 23:59:59'), "
      "('twice', false, 12, '2011-01-01', '2012-01-01'), ('new', true, 13, '2011-01-01 00:00:01', '2012-01-01'), "
      "('again', true, 14, '2011-01-01', '2012-01-01'), ('again', true, 5, '2011-01-01', '2012-01-01')");
  EXPECT_EQ(merge().status, 0);
  const std::string date = "2011-01-01 00:00:00";
  const std::string change = "2012-01-01 00:00:00";
  if (overwrites()) {
    expectCategories({{"again", "t", "5", date, change},
                      {"new", "t", "13", "2011-01-01 00:00:01", change},
                      {"only live", "t", "2", "2001-01-03 00:00:00", "2001-01-04 00:00:00"},
                      {"trips", "t", "11", "2011-01-01 10:11:12.345678", "2012-02-29 23:59:59"},
                      {"twice", "f", "12", date, change}});
  } else {
    expectCategories({{"again", "t", "14", date, change},
                      {"new", "t", "13", "2011-01-01 00:00:01", change},
                      {"only live", "t", "2", "2001-01-03 00:00:00", "2001-01-04 00:00:00"},
                      {"trips", "f", "1", "2001-01-01 00:00:00", "2001-01-02 00:00:00"},
                      {"twice", "t", "3", "2001-01-05 00:00:00", "2001-01-06 00:00:00"},
                      {"twice", "f", "4", "2001-01-07 00:00:00", "2001-01-08 00:00:00"}});
  }
  expectNoMessages();
}

TEST_P(Categories, LetTheLiveDatabaseNumberThem) {
  live().exec(
      "INSERT INTO category (id, name) VALUES (5, 'it''s'), (6, 'other'); SELECT setval('category_id_seq', 40)");
  source().exec(
      "INSERT INTO category (id, name, hidden, order_number) VALUES (6, 'it''s', true, 1), (900, '''', true, 2)");
  EXPECT_EQ(merge().status, 0);
  const char* const numbers = "SELECT id, name FROM category ORDER BY 1";
  if (overwrites()) {
    expectRows(live(), numbers, {{"6", "other"}, {"41", "it's"}, {"42", "'"}});
  } else {
    expectRows(live(), numbers, {{"5", "it's"}, {"6", "other"}, {"41", "'"}});
  }
}

TEST_P(Categories, CutValuesToTheirCapacities) {
  // Blanks around a flag, a number or a date mean nothing, so each value is one of the longest that is kept, and one
  // character that must go: the next one would spoil it, without its own last one it would mean something else.
  source().exec(
      "ALTER TABLE category ALTER COLUMN hidden TYPE text, ALTER COLUMN order_number TYPE text, "
      "ALTER COLUMN create_date TYPE text, ALTER COLUMN modify_date TYPE text;"
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
      "(repeat('m', 1022) || '1x', repeat(' ', 14) || 'tx', repeat(' ', 29) || '123', "
      "repeat(' ', 12) || '2011-01-01 10:11:12x', repeat(' ', 12) || '2012-02-29 23:59:59x'), "
      "(repeat('n', 1022) || 'é', 'f', '2', '2011-01-01', '2012-01-01'), "
      "(repeat('o', 1021) || 'é', 'f', '3', '2011-01-01', '2012-01-01'), "
      "(repeat('''', 2000), 'f', '4', '2011-01-01', '2012-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT left(name, 1), octet_length(name), right(name, 1) FROM category ORDER BY 1",
             {{"'", "1023", "'"}, {"m", "1023", "1"}, {"n", "1022", "n"}, {"o", "1023", "é"}});
  expectRows(live(), "SELECT hidden, order_number, create_date, modify_date FROM category WHERE name LIKE 'm%'",
             {{"t", "12", "2011-01-01 10:11:12", "2012-02-29 23:59:59"}});
}

TEST_P(Categories, EndAtADeleteThatFails) {
  live().exec(
      "INSERT INTO category (name) VALUES ('it''s');"
      "CREATE TABLE member (category integer REFERENCES category (id)); INSERT INTO member VALUES (1)");
  source().exec("INSERT INTO category (name, hidden, order_number) VALUES ('it''s', true, 1), ('then', true, 2)");
  EXPECT_EQ(merge().status, 0);
  const char* const names = "SELECT name FROM category ORDER BY 1";
  if (overwrites()) {
    expectMessages({failedToExec("Delete from category where name = 'it''s'",
                                 "ERROR:  update or delete on table \"category\" violates foreign key constraint "
                                 "\"member_category_fkey\" on table \"member\"  DETAIL:  Key (id)=(1) is still "
                                 "referenced from table \"member\"."),
                    "Table category sync failed.\n"});
    expectRows(live(), names, {{"it's"}});
  } else {
    expectNoMessages();
    expectRows(live(), names, {{"it's"}, {"then"}});
  }
}

TEST_P(Categories, EndAtALookUpThatFails) {
  live().exec("DROP TABLE category");
  source().exec("INSERT INTO category (name, hidden, order_number) VALUES ('it''s', true, 1), ('then', true, 2)");
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("Select * from category where name = 'it''s'", "ERROR:  relation \"category\" does not exist"),
       "Table category sync failed.\n"});
}

TEST_P(Categories, EndAtAnInsertThatFailsAndKeepWhatWasWritten) {
  live().exec("INSERT INTO category (name) VALUES ('live')");
  if (overwrites()) {
    live().exec("INSERT INTO category (name) VALUES ('it''s')");
  }
  source().exec(
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
      "('before', 't', '1', '2011-01-01', '2012-01-01'), ('it''s', 't', NULL, '2011-01-01', '2012-01-01'), "
      "('then', 't', '1', '2011-01-01', '2012-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Insert into category (name, hidden, order_number, create_date, modify_date) Values "
                               "('it''s', 't', '', '2011-01-01 00:00:00', '2012-01-01 00:00:00')",
                               "ERROR:  invalid input syntax for type integer: \"\""),
                  "Table category sync failed.\n"});
  expectRows(live(), "SELECT name FROM category ORDER BY 1", {{"before"}, {"live"}});
}

struct RawValue {
  const char* column;
  const char* value;     // of that column in the source, in SQL
  const char* inserted;  // what the insert's values are then, after the name
  const char* error;
};

constexpr RawValue kRawValues[] = {
    {"hidden", "'t'''", "'t'', '1', '2011-01-01', '2012-01-01'", "syntax error at or near \"1\""},
    {"order_number", "'1'''", "'t', '1'', '2011-01-01', '2012-01-01'", "syntax error at or near \"2011\""},
    {"create_date", "''''", "'t', '1', ''', '2012-01-01'", "syntax error at or near \"2012\""},
    {"modify_date", "''''", "'t', '1', '2011-01-01', '''", "unterminated quoted string at or near \"''')\""},
    {"hidden", "NULL", "'', '1', '2011-01-01', '2012-01-01'", "invalid input syntax for type boolean: \"\""},
    {"order_number", "NULL", "'t', '', '2011-01-01', '2012-01-01'", "invalid input syntax for type integer: \"\""},
    {"create_date", "NULL", "'t', '1', '', '2012-01-01'", "invalid input syntax for type timestamp: \"\""},
    {"modify_date", "NULL", "'t', '1', '2011-01-01', ''", "invalid input syntax for type timestamp: \"\""},
};

TEST_F(Categories, EndAtAQuoteOrNullInAColumnThatIsNotEscaped) {
  source().exec(
      "ALTER TABLE category ALTER COLUMN hidden TYPE text, ALTER COLUMN order_number TYPE text, "
      "ALTER COLUMN create_date TYPE text, ALTER COLUMN modify_date TYPE text");
  for (const RawValue& raw : kRawValues) {
    SCOPED_TRACE(std::string(raw.column) + " " + raw.value);
    live().exec("DELETE FROM category; INSERT INTO category (name, order_number) VALUES ('live', 7)");
    source().exec(
        "DELETE FROM category; INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
        "('before', 't', '1', '2011-01-01', '2012-01-01')");
    source().exec(
        "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES "
        "('it''s', 't', '1', '2011-01-01', '2012-01-01'), ('then', 't', '1', '2011-01-01', '2012-01-01');"
        "UPDATE category SET " +
        std::string(raw.column) + " = " + raw.value + " WHERE name = 'it''s';" +
        // Behind the changed row again, which moved to the end.
        "UPDATE category SET order_number = order_number WHERE name = 'then'");
    const Connection destination = connectTo("photo");
    const Connection from = connectTo("other");
    EXPECT_EQ(KavophotoSyncCategory(destination.get(), from.get(), ""), -1);
    expectMessages({failedToExec(
        std::string("Insert into category (name, hidden, order_number, create_date, modify_date) Values ('it''s', ") +
            raw.inserted + ")",
        std::string("ERROR:  ") + raw.error)});
    expectRows(live(), "SELECT name, order_number FROM category ORDER BY 1", {{"before", "1"}, {"live", "7"}});
  }
}

}  // namespace
