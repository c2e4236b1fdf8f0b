#include "platform/for_each_row.h"

#include "merge/routine_test.h"
#include "support/tool_test.h"

namespace {

struct Item {
  int number;
  std::vector<std::string> keys;
};

std::vector<std::string> keysOf(const Item& item) { return item.keys; }

// Run with rows alone and with windows of several sizes.
class ForEachRow : public appliance::ToolTest, public ::testing::WithParamInterface<std::size_t> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    setWindowRows(GetParam());
    connection_ = connectTo("photo");
    live().exec("CREATE TABLE merged (place serial, number integer, transaction bigint DEFAULT txid_current())");
  }
  void TearDown() override {
    setWindowRows(before_);
    ToolTest::TearDown();
  }

  DBConnect_tag* connection() { return connection_.get(); }
  Databases databases() { return {connection(), connection()}; }

  // A listing of the numbers from 1 to `last`.
  void list(int last) { ASSERT_TRUE(execute(connection(), listing_, "Select generate_series(1, %s) as i", last)); }

  static std::optional<Item> read(const Result& row) {
    const int number = std::stoi(fieldText(row, "i"));
    return Item{number, {std::to_string(number)}};
  }
  bool insert(const Item& item) {
    return execute(connection(), "Insert into merged (number) Values (%s)", item.number);
  }
  std::string merged() {
    return live().value("SELECT coalesce(string_agg(number::text, ' ' ORDER BY place), '') FROM merged");
  }

  Connection connection_;
  Result listing_;

 private:
  std::size_t before_ = windowRows();
};

INSTANTIATE_TEST_SUITE_P(Windows, ForEachRow, ::testing::Values(0, 1, 2, 64),
                         [](const auto& tested) { return "Of" + std::to_string(tested.param); });

TEST_P(ForEachRow, MergesEveryRowInOrder) {
  list(130);
  std::vector<int> readRows;
  EXPECT_EQ(forEachRow(
                databases(), listing_,
                [&](const Result& row) {
                  readRows.push_back(std::stoi(fieldText(row, "i")));
                  return read(row);
                },
                [&](const Item& item) { return insert(item); }),
            0);
  EXPECT_EQ(readRows.size(), 130U);
  expectRows(live(), "SELECT count(*) FROM merged WHERE place = number", {{"130"}});
  const std::size_t rows = std::max<std::size_t>(GetParam(), 1);
  EXPECT_EQ(live().value("SELECT count(DISTINCT transaction) FROM merged"), std::to_string((130 + rows - 1) / rows));
  expectNoMessages();
}

TEST_P(ForEachRow, DoesNothingForAnEmptyListing) {
  list(0);
  EXPECT_EQ(forEachRow(databases(), listing_, read, [](const Item&) { return -1; }), 0);
  appliance::checked();
}

TEST_P(ForEachRow, LeavesOutWhatIsNotRead) {
  list(9);
  EXPECT_EQ(forEachRow(
                databases(), listing_,
                [](const Result& row) {
                  std::optional<Item> item = read(row);
                  return item->number % 3 == 0 ? item : std::nullopt;
                },
                [&](const Item& item) { return insert(item); }),
            0);
  EXPECT_EQ(merged(), "3 6 9");
}

TEST_P(ForEachRow, LetsARowSeeWhatRowsOfItsKeysHaveWritten) {
  list(12);
  // Rows 4 and 8 share their second key with the rows after them, the others have one of three keys.
  const auto readShared = [](const Result& row) {
    const int number = std::stoi(fieldText(row, "i"));
    return std::optional(Item{number, {std::to_string(number % 3), "pair" + std::to_string((number + 1) / 2)}});
  };
  EXPECT_EQ(forEachRow(databases(), listing_, readShared,
                       [&](const Item& item) {
                         Result known;
                         EXPECT_TRUE(execute(connection(), known, "Select * from merged where number %% 3 = %s",
                                             item.number % 3));
                         return hasRows(known) || insert(item);
                       }),
            0);
  EXPECT_EQ(merged(), "1 2 3");
  live().exec("TRUNCATE merged");
  list(12);
  EXPECT_EQ(forEachRow(databases(), listing_, readShared, [&](const Item& item) { return insert(item); }), 0);
  expectRows(live(),
             "SELECT a.number, b.number FROM merged a JOIN merged b USING (transaction) WHERE a.number < b.number AND "
             "(a.number % 3 = b.number % 3 OR (a.number + 1) / 2 = (b.number + 1) / 2)",
             {});
  if (GetParam() >= 2) {
    EXPECT_NE(live().value("SELECT count(DISTINCT transaction) FROM merged"), "12");
  }
}

TEST_P(ForEachRow, HandsTheStateOn) {
  list(100);
  live().exec("ALTER TABLE merged ADD CHECK (number <> 70)");
  int sum = 0;
  EXPECT_EQ(forEachRow(
                databases(), listing_, read,
                [&](const Item& item) {
                  sum += item.number;
                  return insert(item) ? 0 : -7;
                },
                sum),
            -7);
  EXPECT_EQ(sum, 70 * 71 / 2);
  EXPECT_EQ(live().value("SELECT max(number) FROM merged"), "69");
  EXPECT_EQ(live().count("merged"), 69);
  expectMessagesMatch(
      {testing::StartsWith("Failed to exec [Insert into merged (number) Values (70)] (ERROR:  new row")});
}

TEST_P(ForEachRow, EndsAtTheFirstRowThatSaysSo) {
  for (const std::size_t first : {1U, 5U, 64U, 65U, 100U}) {
    live().exec("TRUNCATE merged");
    list(100);
    std::size_t reads = 0;
    EXPECT_EQ(forEachRow(
                  databases(), listing_,
                  [&](const Result& row) {
                    ++reads;
                    return read(row);
                  },
                  [&](const Item& item) { return insert(item) && static_cast<std::size_t>(item.number) < first; }),
              -1);
    EXPECT_EQ(live().value("SELECT max(number) || ' ' || count(*) FROM merged"),
              std::to_string(first) + " " + std::to_string(first));
    EXPECT_LE(reads, first + std::max<std::size_t>(GetParam(), 1));
  }
}

TEST_P(ForEachRow, GoesOnAfterAResultThatIsNotNegative) {
  list(3);
  EXPECT_EQ(forEachRow(databases(), listing_, read, [&](const Item& item) { return insert(item) ? 5 : -1; }), 0);
  EXPECT_EQ(merged(), "1 2 3");
}

}  // namespace
