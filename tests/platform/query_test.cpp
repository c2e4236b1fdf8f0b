#include "platform/query.h"

#include <string>

#include "support/tool_test.h"

namespace {

class Query : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    connection_ = connectTo("photo");
  }

  Connection connection_;
};

TEST_F(Query, ConnectsAsTheToolsUserOrNotAtAll) {
  Result user;
  ASSERT_TRUE(execute(connection_.get(), user, "SELECT current_user AS name, current_database() AS database"));
  ASSERT_TRUE(fetchRow(user));
  EXPECT_EQ(fieldText(user, "name"), "postgres");
  EXPECT_EQ(fieldText(user, "database"), "photo");
  EXPECT_FALSE(connectTo("missing"));
  expectNoMessages();
}

TEST_F(Query, LogsAFailedStatementWithTheServersReason) {
  Result result;
  EXPECT_FALSE(execute(connection_.get(), result, "Select * from nothing where a = '%%s%%n'"));
  EXPECT_EQ(result.handle, nullptr);
  EXPECT_EQ(rowCount(result), 0);
  EXPECT_FALSE(fetchRow(result));
  EXPECT_EQ(fieldText(result, "a"), "");
  EXPECT_FALSE(execute(connection_.get(), "Insert into photo_group Values (1, 'a'), (1, 'b')"));
  expectMessages(
      {"Failed to exec [Select * from nothing where a = '%s%n'] (ERROR:  relation \"nothing\" does not exist)",
       "Failed to exec [Insert into photo_group Values (1, 'a'), (1, 'b')] (ERROR:  duplicate key value "
       "violates unique constraint \"photo_group_pkey\"  DETAIL:  Key (groupid)=(1) already exists.)"});
}

TEST_F(Query, LogsAHintAndTheWholeStatement) {
  const std::string text(30000, 'x');
  EXPECT_FALSE(execute(connection_.get(), "Select '%s' from photo_shar where lower(1)", Text{text}));
  EXPECT_FALSE(execute(connection_.get(), "Select lower(1)"));
  expectMessages(
      {"Failed to exec [Select '" + text +
           "' from photo_shar where lower(1)] (ERROR:  relation \"photo_shar\" does not exist)",
       "Failed to exec [Select lower(1)] (ERROR:  function lower(integer) does not exist  HINT:  No function "
       "matches the given name and argument types. You might need to add explicit type casts.)"});
}

TEST_F(Query, FailsWithoutAConnection) {
  EXPECT_FALSE(execute(nullptr, "Select 1"));
  expectMessages({"Failed to exec [Select 1] (no connection)"});
}

TEST_F(Query, DoesNotRunAStatementWhoseRawValueWouldEndItsPlace) {
  ASSERT_TRUE(execute(connection_.get(), "Insert into photo_group Values (1, 'a', 'b')"));
  const Statement update = sql("Update photo_group set description = '%s' where groupid = 2", Raw("c' --"));
  EXPECT_FALSE(execute(connection_.get(), update));
  EXPECT_FALSE(execute(nullptr, update));
  Result result;
  ASSERT_TRUE(execute(connection_.get(), result, "Select 1"));
  EXPECT_FALSE(execute(connection_.get(), result, "Delete from photo_group where groupid = %s", Raw("1 or")));
  EXPECT_EQ(result.handle, nullptr);
  const std::string text = "Update photo_group set description = 'c' --' where groupid = 2";
  expectMessages(
      {"Failed to exec [" + text + "] (ERROR:  a value would end its own place in the statement)",
       "Failed to exec [" + text + "] (no connection)",
       "Failed to exec [Delete from photo_group where groupid = 1 or] (ERROR:  syntax error at end of input)"});
  expectRows(live(), "SELECT description FROM photo_group", {{"b"}});
}

TEST_F(Query, ReadsTheRowsOfItsLatestStatement) {
  Result result;
  ASSERT_TRUE(execute(connection_.get(), result, "SELECT i FROM generate_series(1, 3) i"));
  ASSERT_TRUE(fetchRow(result));
  EXPECT_EQ(rowCount(result), 3);
  ASSERT_TRUE(execute(connection_.get(), result, "SELECT 'b' AS i"));
  EXPECT_TRUE(hasRows(result));
  EXPECT_EQ(fieldText(result, "i"), "");
  ASSERT_TRUE(fetchRow(result));
  EXPECT_EQ(fieldText(result, "i"), "b");
  EXPECT_FALSE(fetchRow(result));
  EXPECT_FALSE(fetchRow(result));
  ASSERT_TRUE(execute(connection_.get(), result, "SELECT 1 WHERE false"));
  EXPECT_FALSE(hasRows(result));
  expectNoMessages();
}

TEST_F(Query, CutsAFieldToItsBuffer) {
  Result result;
  ASSERT_TRUE(execute(connection_.get(), result, "SELECT 'ab\u00e9' AS text, NULL AS nothing"));
  ASSERT_TRUE(fetchRow(result));
  EXPECT_EQ(fieldText(result, "text"), "ab\u00e9");
  EXPECT_EQ(fieldText(result, "text", 5), "ab\u00e9");
  EXPECT_EQ(fieldText(result, "text", 4), "ab");
  EXPECT_EQ(fieldText(result, "text", 2), "a");
  EXPECT_EQ(fieldText(result, "nothing"), "");
  EXPECT_EQ(fieldText(result, "unknown"), "");
  expectNoMessages();
}

TEST_F(Query, EscapesATextForUseInsideQuotes) {
  const std::string text = R"(it's \ "%s" '')";
  Result result;
  ASSERT_TRUE(execute(connection_.get(), result, "SELECT '%s' AS text", Text{text}));
  ASSERT_TRUE(fetchRow(result));
  EXPECT_EQ(fieldText(result, "text"), text);
  expectNoMessages();
}

}  // namespace
