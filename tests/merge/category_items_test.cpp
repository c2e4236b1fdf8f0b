#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

const char* const kFailed = "Table category_items sync failed.\n";

class CategoryItems : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    appliance::makeDirectories("/var/services/photo/alpha");
    // "trips" has the number 1 in the source and gets another one.
    live().exec(
        "INSERT INTO category (id, name, hidden, order_number) VALUES (1, 'only live', false, 50), "
        "(7, 'tri''ps', false, 51); SELECT setval('category_id_seq', 40);"
        "INSERT INTO photo_share (shareid, sharename) VALUES (3, 'three'), (4, 'four');"
        "INSERT INTO photo_label (id, name, category, info) VALUES (5, 'five', 0, ''), (6, 'six', 0, '')");
    source().exec("INSERT INTO category (id, name, hidden, order_number) VALUES (1, 'tri''ps', false, 60)");
  }
  // The category's name, or its number where it has none.
  void expectItems(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT coalesce(c.name, category_id::text), type, i.order_number, album_id, tag_id, smart_id "
               "FROM category_items i LEFT JOIN category c ON c.id = category_id ORDER BY 1, 2, 3, 4, 5, 6",
               expected);
  }
};
APPLIANCE_ALL_MODES(CategoryItems);

TEST_P(CategoryItems, KeepTheirMembersNumbersAndGoToTheCategoryOfTheName) {
  source().exec(
      "INSERT INTO category_items (category_id, type, order_number, album_id, tag_id, smart_id) VALUES "
      "(1, 'Album', 11, 3, 5, 'x'), (1, 'ALBUM', 12, 99, NULL, NULL), (1, 'Tag', 13, 3, 5, 'x'), "
      "(1, 'tag', 14, NULL, 99, NULL), (1, 'sMART', 15, 3, 5, 'no such album'), (1, 'video', 16, 3, 5, 'x'), "
      "(1, NULL, 17, 3, 5, 'x'), (1, '', 18, 3, 5, 'x')");
  EXPECT_EQ(merge().status, 0);
  // The order number is the item's, though its category has one, too.
  expectItems({{"tri'ps", "album", "11", "3", "(null)", "(null)"},
               {"tri'ps", "smart", "15", "(null)", "(null)", "no such album"},
               {"tri'ps", "tag", "13", "(null)", "5", "(null)"}});
  expectNoMessages();
}

TEST_P(CategoryItems, AreFoundByTheSourcesNumbers) {
  // The live items of category 1 stand in the way, those of the category of that name do not.
  live().exec(
      "INSERT INTO category_items (category_id, type, order_number, album_id, tag_id, smart_id) VALUES "
      "(1, 'album', 1, 3, NULL, NULL), (1, 'odd', 2, 3, NULL, NULL), (1, 'tag', 3, NULL, 5, NULL), "
      "(1, 'smart', 4, NULL, NULL, 'a'), (1, 'album', 5, 4, NULL, NULL), (2, 'tag', 6, NULL, 6, NULL)");
  source().exec(
      "INSERT INTO category_items (category_id, type, order_number, album_id, tag_id, smart_id) VALUES "
      "(1, 'album', 11, 3, NULL, NULL), (1, 'tag', 12, NULL, 5, NULL), (1, 'smart', 13, NULL, NULL, 'a'), "
      "(1, 'tag', 14, NULL, 6, NULL)");
  EXPECT_EQ(merge().status, 0);
  const appliance::Rows kept = {{"2", "tag", "6", "(null)", "6", "(null)"},
                                {"only live", "album", "5", "4", "(null)", "(null)"}};
  if (overwrites()) {
    expectItems({kept[0],
                 kept[1],
                 {"tri'ps", "album", "11", "3", "(null)", "(null)"},
                 {"tri'ps", "smart", "13", "(null)", "(null)", "a"},
                 {"tri'ps", "tag", "12", "(null)", "5", "(null)"},
                 {"tri'ps", "tag", "14", "(null)", "6", "(null)"}});
  } else {
    expectItems({kept[0],
                 {"only live", "album", "1", "3", "(null)", "(null)"},
                 kept[1],
                 {"only live", "odd", "2", "3", "(null)", "(null)"},
                 {"only live", "smart", "4", "(null)", "(null)", "a"},
                 {"only live", "tag", "3", "(null)", "5", "(null)"},
                 {"tri'ps", "tag", "14", "(null)", "6", "(null)"}});
  }
  expectNoMessages();
}

TEST_P(CategoryItems, EndAtACategoryThatIsNotLive) {
  appliance::swallowInsert(live(), "category", "NEW.name = 'lo''st'");
  source().exec(
      "INSERT INTO category (id, name, hidden, order_number) VALUES (2, 'lo''st', false, 1);"
      "INSERT INTO category_items (category_id, type, order_number, album_id) VALUES (1, 'album', 1, 3), "
      "(2, 'album', 2, 3), (1, 'album', 3, 4); INSERT INTO photo_group VALUES (1, 'next table', '')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({"Failed to fetch row [select id, name from category where name = 'lo''st']", kFailed});
  expectItems({{"tri'ps", "album", "1", "3", "(null)", "(null)"}});
  EXPECT_EQ(live().count("photo_group"), 1);
}

TEST_P(CategoryItems, EndAtACategoryThatTheSourceLacks) {
  source().exec(
      "INSERT INTO category_items (category_id, type, order_number, smart_id) VALUES (99, 'other', 1, 'a'), "
      "(99, 'smart', 1, 'a')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({"Failed to fetch row [select id, name from category where name = '']", kFailed});
  expectItems({});
}

TEST_P(CategoryItems, EndAtAQuoteInAMembersNumber) {
  source().exec(
      "INSERT INTO category_items (category_id, type, order_number, smart_id) VALUES (1, 'smart', 1, 'before'), "
      "(1, 'smart', 2, 'it''s'), (1, 'smart', 3, 'then')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from category_items where category_id = '1' and smart_id = 'it's'",
                               "ERROR:  syntax error at or near \"s\""),
                  kFailed});
  expectItems({{"tri'ps", "smart", "1", "(null)", "(null)", "before"}});
}

TEST_P(CategoryItems, EndWhereTheSourceCannotBeRead) {
  source().exec("DROP TABLE category_items; INSERT INTO photo_group VALUES (1, 'next table', '')");
  EXPECT_EQ(merge().status, 0);
  const std::string s = suffix();
  expectMessages({failedToExec("Select * from category_items" + s + " left join category" + s + " on category" + s +
                                   ".id=category_items" + s + ".category_id",
                               noTable("category_items" + s)),
                  kFailed});
  EXPECT_EQ(live().count("photo_group"), 1);
}

class CategoryItemRoutine : public appliance::RoutineTest {
 protected:
  std::string failedToExec(const std::string& statement, const std::string& error) {
    return "Failed to exec [" + statement + "] (" + error + ")";
  }
};
APPLIANCE_ALL_ARRANGEMENTS(CategoryItemRoutine);

TEST_P(CategoryItemRoutine, RunsItsStatementsInOrder) {
  live().exec(
      "INSERT INTO category (id, name) VALUES (7, 'it''s'); INSERT INTO photo_share (shareid) VALUES (3), (4);"
      "INSERT INTO photo_label (id) VALUES (5); INSERT INTO category_items (category_id, album_id) VALUES (1, 4);"
      "INSERT INTO category_items (category_id, tag_id) VALUES (1, 6);"
      "INSERT INTO category_items (category_id, smart_id) VALUES (1, 'b')");
  source().exec(
      "INSERT INTO category (id, name, order_number) VALUES (1, 'it''s', 60);"
      "INSERT INTO category_items (category_id, type, order_number, album_id, tag_id, smart_id) VALUES "
      "(1, 'Album', 11, 3, NULL, NULL), (1, 'tag', 12, NULL, 5, NULL), (1, 'smart', 13, NULL, NULL, 'a'), "
      "(1, 'video', 14, 3, 5, 'a'), (1, 'album', 15, 4, NULL, NULL), (1, 'tag', 16, NULL, 6, NULL), "
      "(1, 'smart', 17, NULL, NULL, 'b')");
  EXPECT_EQ(call(KavophotoSyncCategoryItems), 0);
  const std::string findCategory = "live: select id, name from category where name = 'it''s'";
  std::vector<std::string> expected = {
      "source: Select * from category_items{} left join category{} on category{}.id=category_items{}.category_id",
      "live: Select * from category_items where category_id = '1' and album_id = '3'",
      findCategory,
      "live: select * from photo_share where shareid = '3'",
      "live: Insert into category_items (category_id, type, order_number, album_id) Values ('7', 'album', '11', '3')",
      "live: Select * from category_items where category_id = '1' and tag_id = '5'",
      findCategory,
      "live: select * from photo_label where id = '5'",
      "live: Insert into category_items (category_id, type, order_number, tag_id) Values ('7', 'tag', '12', '5')",
      "live: Select * from category_items where category_id = '1' and smart_id = 'a'",
      findCategory,
      "live: Insert into category_items (category_id, type, order_number, smart_id) Values ('7', 'smart', '13', 'a')",
      "live: Select * from category_items where category_id = '1' and album_id = '4'",
  };
  const auto add = [&](std::vector<std::string> more) {
    if (overwrites()) {
      expected.insert(expected.end(), more.begin(), more.end());
    }
  };
  add({"live: Delete from category_items where category_id = '1' and album_id = '4'", findCategory,
       "live: select * from photo_share where shareid = '4'",
       "live: Insert into category_items (category_id, type, order_number, album_id) Values ('7', 'album', '15', "
       "'4')"});
  expected.emplace_back("live: Select * from category_items where category_id = '1' and tag_id = '6'");
  // The item is deleted, though its label is not live.
  add({"live: Delete from category_items where category_id = '1' and tag_id = '6'", findCategory,
       "live: select * from photo_label where id = '6'"});
  expected.emplace_back("live: Select * from category_items where category_id = '1' and smart_id = 'b'");
  add({"live: Delete from category_items where category_id = '1' and smart_id = 'b'", findCategory,
       "live: Insert into category_items (category_id, type, order_number, smart_id) Values ('7', 'smart', '17', "
       "'b')"});
  expectStatements(expected);
}

TEST_P(CategoryItemRoutine, EndsWithMinusOneAtAnyStatementThatFails) {
  struct Case {
    std::string type;
    std::string column;
    std::string table;  // to be missing in the live database
    std::string statement;
  };
  const std::vector<Case> cases = {
      {"album", "album_id", "category_items",
       "Select * from category_items where category_id = '1' and album_id = '8'"},
      {"tag", "tag_id", "category", "select id, name from category where name = 'trips'"},
      {"album", "album_id", "photo_share", "select * from photo_share where shareid = '8'"},
      {"tag", "tag_id", "photo_label", "select * from photo_label where id = '8'"},
  };
  live().exec("INSERT INTO category (id, name) VALUES (7, 'trips')");
  source().exec("INSERT INTO category (id, name) VALUES (1, 'trips')");
  for (const Case& one : cases) {
    SCOPED_TRACE(one.statement);
    live().exec("ALTER TABLE " + one.table + " RENAME TO away");
    source().exec("DELETE FROM category_items; INSERT INTO category_items (category_id, type, order_number, " +
                  one.column + ") VALUES (1, '" + one.type + "', 1, '8')");
    EXPECT_EQ(call(KavophotoSyncCategoryItems), -1);
    expectMessages({failedToExec(one.statement, noTable(one.table))});
    live().exec("ALTER TABLE away RENAME TO " + one.table);
  }
}

TEST_P(CategoryItemRoutine, EndsWithMinusOneAtAWriteThatFails) {
  live().exec(
      "INSERT INTO category (id, name) VALUES (7, 'trips');"
      "INSERT INTO category_items (category_id, smart_id) VALUES (1, 'there')");
  appliance::refuseWriting(live(), "category_items", "DELETE", "true");
  appliance::refuseWriting(live(), "category_items", "INSERT", "NEW.smart_id = 'new'");
  source().exec(
      "INSERT INTO category (id, name) VALUES (1, 'trips');"
      "INSERT INTO category_items (category_id, type, order_number, smart_id) VALUES (1, 'smart', 1, 'there'), "
      "(1, 'smart', 2, 'new'), (1, 'smart', 3, 'then')");
  EXPECT_EQ(call(KavophotoSyncCategoryItems), -1);
  expectMessages({failedToExec(
      overwrites()
          ? "Delete from category_items where category_id = '1' and smart_id = 'there'"
          : "Insert into category_items (category_id, type, order_number, smart_id) Values ('7', 'smart', '2', "
            "'new')",
      kRefused)});
  expectRows(live(), "SELECT smart_id FROM category_items", {{"there"}});
}

TEST_P(CategoryItemRoutine, CutsValuesToTheirCapacities) {
  for (appliance::Database* database : {&live(), &source()}) {
    database->exec(
        "ALTER TABLE category_items ALTER category_id TYPE text, ALTER order_number TYPE text, "
        "ALTER album_id TYPE text, ALTER tag_id TYPE text; ALTER TABLE category ALTER id DROP DEFAULT, "
        "ALTER id TYPE text; ALTER TABLE photo_share ALTER shareid TYPE text;"
        "ALTER TABLE photo_label ALTER id DROP DEFAULT, ALTER id TYPE text");
  }
  live().exec(
      "INSERT INTO photo_share (shareid) VALUES (repeat('a', 31)); INSERT INTO photo_label (id) VALUES (repeat('t', "
      "30));"
      "INSERT INTO category (id, name) VALUES (repeat('n', 40), repeat('c', 1022)), ('7', repeat('''', 1023));"
      "INSERT INTO category_items (category_id, type, smart_id) VALUES (repeat('k', 31), 'here', repeat('s', 31))");
  source().exec(
      "INSERT INTO category (id, name) VALUES (repeat('k', 40), repeat('c', 1022) || 'é'), ('1', repeat('''', 2000));"
      "INSERT INTO category_items (category_id, type, order_number, album_id, tag_id, smart_id) VALUES "
      "(repeat('k', 40), 'album', repeat('o', 30) || 'é', repeat('a', 40), '', ''), "
      "(repeat('k', 40), 'tag', repeat('o', 29) || 'éx', '', repeat('t', 30) || 'é', ''), "
      "(repeat('k', 40), 'smart', '', '', '', repeat('s', 40)), "
      "(repeat('k', 40), 'smart', '', '', '', repeat('r', 29) || 'éx'), ('1', 'smart', '', '', '', '1')");
  EXPECT_EQ(call(KavophotoSyncCategoryItems), 0);
  const std::string category(31, 'n');
  appliance::Rows expected = {
      {"7", "smart", "", "(null)", "(null)", "1"},
      {category, "album", std::string(30, 'o'), std::string(31, 'a'), "(null)", "(null)"},
      {category, "smart", "", "(null)", "(null)", std::string(29, 'r') + "é"},
      {category, "tag", std::string(29, 'o') + "é", "(null)", std::string(30, 't'), "(null)"},
  };
  // The item that stands in the way under the cut numbers.
  const std::string smart(31, 's');
  if (overwrites()) {
    expected.insert(expected.begin() + 3, {category, "smart", "", "(null)", "(null)", smart});
  } else {
    expected.insert(expected.begin() + 1, {std::string(31, 'k'), "here", "(null)", "(null)", "(null)", smart});
  }
  expectRows(live(),
             "SELECT category_id, type, order_number, album_id, tag_id, smart_id FROM category_items "
             "ORDER BY category_id, type, smart_id",
             expected);
  expectNoMessages();
}

}  // namespace
