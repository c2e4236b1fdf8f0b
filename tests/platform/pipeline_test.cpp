#include "platform/pipeline.h"

#include <poll.h>

#include <utility>

#include "platform/query.h"
#include "support/run_statement.h"
#include "support/tool_test.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class PipelineTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    connection_ = connectTo("photo");
  }

  DBConnect_tag* connection() { return connection_.get(); }

  // Waits for the reply to the oldest statement. False when it failed.
  static bool take(DBConnect_tag* connection, Result& result) {
    appliance::checked();
    for (;;) {
      DBResult_tag* taken = nullptr;
      const Reply reply = takeReply(connection, &taken);
      if (reply != Reply::kNotYet) {
        KAVODBFreeResult(std::exchange(result.handle, taken));
        result.row = nullptr;
        return reply == Reply::kReady;
      }
      pollfd server = {pipelineSocket(connection), POLLIN, 0};
      poll(&server, 1, -1);
    }
  }
  bool take(Result& result) { return take(connection(), result); }

  static Statement insertGroup(int number, const char* name) {
    return sql("Insert into photo_group Values (%s, '%s', '')", number, Text{name});
  }

  // A pipeline with these statements, whose replies are read until one fails. What endPipeline says.
  bool runPipeline(const std::vector<Statement>& statements, bool keeps = true) {
    EXPECT_TRUE(beginPipeline(connection(), true));
    for (const Statement& statement : statements) {
      EXPECT_TRUE(addToPipeline(connection(), statement));
    }
    EXPECT_TRUE(flushPipeline(connection()));
    Result result;
    bool isReady = true;
    for (std::size_t at = 0; at < statements.size() && isReady; ++at) {
      isReady = take(result);
    }
    return endPipeline(connection(), keeps);
  }

  std::string valueOf(const Statement& statement) {
    Result result;
    EXPECT_TRUE(execute(connection(), result, statement));
    EXPECT_TRUE(fetchRow(result));
    return fieldText(result, "v");
  }
  std::string preparedStatements() { return valueOf(sql("Select count(*) as v from pg_prepared_statements")); }

  void expectGroups(const appliance::Rows& expected) {
    expectRows(live(), "SELECT groupname FROM photo_group ORDER BY groupid", expected);
  }

  Connection connection_;
};

TEST_F(PipelineTest, GivesTheReplyToEachStatementInTurn) {
  ASSERT_TRUE(beginPipeline(connection(), true));
  for (int number = 1; number <= 3; ++number) {
    ASSERT_TRUE(addToPipeline(connection(), insertGroup(number, "it's")));
    ASSERT_TRUE(addToPipeline(connection(), sql("Select groupid, groupname, NULL as nothing from photo_group where "
                                                "groupid <= %s order by groupid desc",
                                                number)));
  }
  ASSERT_TRUE(flushPipeline(connection()));
  Result result;
  for (int number = 1; number <= 3; ++number) {
    ASSERT_TRUE(take(result));
    EXPECT_EQ(rowCount(result), 0);
    EXPECT_FALSE(fetchRow(result));
    ASSERT_TRUE(take(result));
    EXPECT_EQ(rowCount(result), number);
    EXPECT_EQ(fieldText(result, "groupid"), "");
    ASSERT_TRUE(fetchRow(result));
    EXPECT_EQ(fieldText(result, "groupid"), std::to_string(number));
    EXPECT_EQ(fieldText(result, "groupname"), "it's");
    EXPECT_EQ(fieldText(result, "nothing"), "");
    EXPECT_EQ(fieldText(result, "unknown"), "");
  }
  // Nothing is committed before the end.
  expectGroups({});
  EXPECT_TRUE(endPipeline(connection(), true));
  expectGroups({{"it's"}, {"it's"}, {"it's"}});
  EXPECT_FALSE(fetchRow(result) && fetchRow(result) && fetchRow(result));
}

TEST_F(PipelineTest, PreparesAStatementOnce) {
  EXPECT_TRUE(runPipeline({insertGroup(1, "a"), insertGroup(2, "b"), sql("Select 1")}));
  EXPECT_EQ(preparedStatements(), "2");
  EXPECT_TRUE(runPipeline({insertGroup(3, "c")}));
  EXPECT_EQ(preparedStatements(), "2");
  expectRows(live(), "SELECT groupname FROM photo_group ORDER BY 1", {{"a"}, {"b"}, {"c"}});
}

TEST_F(PipelineTest, PreparesAStatementForEachMixOfTypesAndNames) {
  const auto select = [](const Name& table, const Raw& number) {
    return sql("Select * from %s where groupid = %s", table, number);
  };
  EXPECT_TRUE(runPipeline({select("photo_group", Raw("1")), select("photo_group", Raw("3000000000")),
                           select("photo_group", Raw("1.5")), select("photo_user_group", Raw("1")),
                           select("photo_user_group", Raw("2"))}));
  EXPECT_EQ(preparedStatements(), "4");
}

TEST_F(PipelineTest, SendsAsTextWhatIsNoPlainValue) {
  const auto count = [](const Raw& number) {
    return sql("Insert into photo_group Select %s, count(*), '' from photo_group", number);
  };
  EXPECT_TRUE(
      runPipeline({count(Raw("1 + 1")), count(Raw("1e1")),
                   sql("Delete from photo_group where groupid in (%s)", List::ofNumbers("10, 11")),
                   sql("Insert into photo_group Select 3, groupname, '' from photo_group where groupname in (%s)",
                       List::of({"it's", "0"}, ","))}));
  EXPECT_EQ(preparedStatements(), "0");
  expectRows(live(), "SELECT groupid, groupname FROM photo_group ORDER BY 1", {{"2", "0"}, {"3", "0"}});
}

TEST_F(PipelineTest, SendsAsTextWhatIsMoreThanAServerShouldKeep) {
  std::vector<std::string> names;
  for (int number = 0; number < 510; ++number) {
    names.push_back("c" + std::to_string(number));
  }
  std::vector<Statement> statements;
  for (const std::string& name : names) {
    statements.push_back(sql("Select 1 as %s", Name(name)));
  }
  statements.push_back(insertGroup(1, "last"));
  EXPECT_TRUE(runPipeline(statements));
  EXPECT_EQ(preparedStatements(), "500");
  expectGroups({{"last"}});
}

TEST_F(PipelineTest, DoesNotSendAStatementWhoseValueWouldEndItsPlace) {
  ASSERT_TRUE(beginPipeline(connection(), true));
  EXPECT_TRUE(addToPipeline(connection(), insertGroup(1, "a")));
  EXPECT_FALSE(addToPipeline(connection(), sql("Insert into photo_group Values (2, '%s', '')", Raw("b', ''); --"))));
  EXPECT_FALSE(addToPipeline(connection(), sql("Delete from photo_group where groupid = %s", Raw("1 or true"))));
  EXPECT_TRUE(endPipeline(connection(), true));
  expectGroups({{"a"}});
}

TEST_F(PipelineTest, KeepsWhatNobodyHasReadTheRepliesTo) {
  ASSERT_TRUE(beginPipeline(connection(), true));
  EXPECT_TRUE(addToPipeline(connection(), insertGroup(1, "a")));
  EXPECT_TRUE(addToPipeline(connection(), insertGroup(2, "b")));
  EXPECT_TRUE(endPipeline(connection(), true));
  expectGroups({{"a"}, {"b"}});
}

TEST_F(PipelineTest, TakesEverythingBackWhenItIsNotKept) {
  EXPECT_FALSE(runPipeline({insertGroup(1, "a")}, false));
  expectGroups({});
  EXPECT_EQ(preparedStatements(), "0");
  EXPECT_TRUE(runPipeline({insertGroup(1, "b")}));
  expectGroups({{"b"}});
}

TEST_F(PipelineTest, TakesEverythingBackWhenAStatementFails) {
  for (const bool isRead : {true, false}) {
    ASSERT_TRUE(beginPipeline(connection(), true));
    for (const int number : {1, 1, 2}) {
      ASSERT_TRUE(addToPipeline(connection(), insertGroup(number, "a")));
    }
    ASSERT_TRUE(flushPipeline(connection()));
    if (isRead) {
      Result result;
      EXPECT_TRUE(take(result));
      EXPECT_FALSE(take(result));
      EXPECT_EQ(result.handle, nullptr);
    }
    EXPECT_FALSE(endPipeline(connection(), true));
    expectGroups({});
    EXPECT_TRUE(execute(connection(), "Select 1"));
  }
  expectNoMessages();
}

TEST_F(PipelineTest, TakesEverythingBackWhenAStatementCannotBePrepared) {
  EXPECT_FALSE(runPipeline({insertGroup(1, "a"), sql("Select * from missing")}));
  expectGroups({});
  live().exec("CREATE TABLE missing (i integer)");
  EXPECT_TRUE(runPipeline({insertGroup(1, "a"), sql("Select * from missing")}));
  expectGroups({{"a"}});
}

TEST_F(PipelineTest, IsAPartOfTheOpenTransaction) {
  KAVODBTransBegin(connection());
  ASSERT_TRUE(execute(connection(), insertGroup(1, "before")));
  EXPECT_FALSE(runPipeline({insertGroup(2, "not kept")}, false));
  EXPECT_FALSE(runPipeline({insertGroup(3, "failed"), insertGroup(3, "failed")}));
  EXPECT_TRUE(runPipeline({insertGroup(4, "kept")}));
  expectGroups({});
  KAVODBTransCommit(connection());
  expectGroups({{"before"}, {"kept"}});
  expectNoMessages();
}

TEST_F(PipelineTest, DoesNotBeginWhereNoStatementCanRun) {
  EXPECT_FALSE(beginPipeline(nullptr, true));
  KAVODBTransBegin(connection());
  Result result;
  ASSERT_FALSE(appliance::runStatement(connection(), result, "Select * from missing"));
  EXPECT_FALSE(beginPipeline(connection(), true));
  EXPECT_FALSE(beginPipeline(connection(), false));
  appliance::checked();
}

TEST_F(PipelineTest, ReadsWithoutATransaction) {
  live().exec("INSERT INTO photo_group VALUES (1, 'a', ''), (2, 'b', '')");
  for (int time = 0; time < 3; ++time) {
    // What is read row by row before must not change how the next statement is read.
    Result listing;
    ASSERT_TRUE(execute(connection(), listing, "Select * from photo_group"));
    ASSERT_TRUE(beginPipeline(connection(), false));
    ASSERT_TRUE(addToPipeline(connection(), sql("Select * from photo_group where groupid < %s", 9)));
    ASSERT_TRUE(flushPipeline(connection()));
    Result result;
    ASSERT_TRUE(take(result));
    EXPECT_EQ(rowCount(result), 2);
    EXPECT_TRUE(endPipeline(connection(), true));
  }
  ASSERT_TRUE(beginPipeline(connection(), false));
  EXPECT_TRUE(endPipeline(connection(), true));
  EXPECT_EQ(preparedStatements(), "1");
}

TEST_F(PipelineTest, FailsForATableThatHasChangedAndThenNoMore) {
  const auto select = [] { return sql("Select * from photo_group"); };
  EXPECT_TRUE(runPipeline({select()}));
  live().exec("ALTER TABLE photo_group ADD COLUMN more text");
  EXPECT_FALSE(runPipeline({select()}));
  EXPECT_TRUE(runPipeline({select()}));
  expectNoMessages();
}

TEST_F(PipelineTest, RunsItsStatementsAsTheyWouldRunAlone) {
  ASSERT_TRUE(execute(connection(), "SET default_transaction_isolation = serializable"));
  live().exec(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION 'refused'; END$$;"
      "CREATE CONSTRAINT TRIGGER late AFTER INSERT ON photo_group DEFERRABLE INITIALLY DEFERRED FOR EACH ROW WHEN "
      "(NEW.groupname = 'bad') EXECUTE FUNCTION refuse()");
  ASSERT_TRUE(beginPipeline(connection(), true));
  ASSERT_TRUE(addToPipeline(connection(), sql("Select current_setting('transaction_isolation') as v")));
  ASSERT_TRUE(addToPipeline(connection(), insertGroup(1, "bad")));
  ASSERT_TRUE(flushPipeline(connection()));
  Result result;
  ASSERT_TRUE(take(result));
  ASSERT_TRUE(fetchRow(result));
  EXPECT_EQ(fieldText(result, "v"), "read committed");
  EXPECT_FALSE(take(result)) << "a deferred constraint fails at its statement";
  EXPECT_FALSE(endPipeline(connection(), true));
}

TEST_F(PipelineTest, KeepsNothingWhenItCannotBeCommitted) {
  live().exec(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION 'refused'; END$$;"
      "CREATE FUNCTION defer() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN SET CONSTRAINTS ALL DEFERRED; RETURN NEW; "
      "END$$;"
      "CREATE TRIGGER early BEFORE INSERT ON photo_group FOR EACH ROW EXECUTE FUNCTION defer();"
      "CREATE CONSTRAINT TRIGGER late AFTER INSERT ON photo_group DEFERRABLE INITIALLY DEFERRED FOR EACH ROW WHEN "
      "(NEW.groupname = 'bad') EXECUTE FUNCTION refuse()");
  EXPECT_FALSE(runPipeline({insertGroup(1, "a"), insertGroup(2, "bad")}));
  expectGroups({});
  EXPECT_TRUE(runPipeline({insertGroup(1, "a")}));
  expectGroups({{"a"}});
}

TEST_F(PipelineTest, TellsWhyTheConnectionWasLost) {
  for (const bool isWaitedFor : {true, false}) {
    connection_ = connectTo("photo");
    ASSERT_TRUE(beginPipeline(connection(), true));
    ASSERT_TRUE(addToPipeline(connection(), sql("Select 1")));
    ASSERT_TRUE(flushPipeline(connection()));
    Result result;
    ASSERT_TRUE(take(result));
    appliance::server::terminateBackends("photo");
    // Added and sent or not, a statement has no reply any more.
    if (addToPipeline(connection(), sql("Select 2")) && flushPipeline(connection()) && isWaitedFor) {
      EXPECT_FALSE(take(result));
    }
    EXPECT_FALSE(endPipeline(connection(), true));
    EXPECT_FALSE(beginPipeline(connection(), true));
    EXPECT_FALSE(execute(connection(), "Select 3"));
    expectMessagesMatch(
        {StartsWith("Failed to exec [Select 3] (FATAL:  terminating connection due to administrator "
                    "command")});
    // It is told once.
    EXPECT_FALSE(execute(connection(), "Select 4"));
    expectMessagesMatch({HasSubstr("no connection to the server")});
  }
}

// What is logged when the connection is lost after this and is closed then.
class LostPipeline : public PipelineTest {
 protected:
  std::vector<std::string> messagesAfter(const std::vector<Statement>& statements, bool keeps) {
    connection_ = connectTo("photo");
    EXPECT_EQ(runPipeline(statements, keeps), keeps);
    appliance::server::terminateBackends("photo");
    Result result;
    EXPECT_FALSE(appliance::runStatement(connection(), result, "Select 1"));
    connection_.reset();
    return appliance::takeMessages();
  }
};

TEST_F(LostPipeline, IsReportedWhenItHasWritten) {
  const std::vector<std::string> lost = {
      "The last rows written to database photo may be lost. Run the same command again."};
  EXPECT_EQ(messagesAfter({insertGroup(1, "a"), sql("Select 1")}, true), lost);
  EXPECT_EQ(messagesAfter({sql("Update photo_group set groupname = '%s'", Text{"b"})}, true), lost);
  EXPECT_EQ(messagesAfter({sql("Delete from photo_group where groupid = %s", 1)}, true), lost);
}

TEST_F(LostPipeline, IsNoMatterWhenItHasWrittenNothing) {
  const std::vector<std::string> none;
  EXPECT_EQ(messagesAfter({insertGroup(1, "a")}, false), none);
  EXPECT_EQ(messagesAfter({sql("Select 1"), sql("Delete from photo_group where groupid = %s", 7)}, true), none);
}

TEST_F(PipelineTest, TellsThePlannerOfATableThatHasGrown) {
  const auto knownTables = [this] {
    return live().value("SELECT string_agg(DISTINCT tablename, ' ') FROM pg_stats WHERE schemaname = 'public'");
  };
  const auto insert = [this](int count, bool keeps) {
    std::vector<Statement> statements;
    for (int number = 0; number < count; ++number) {
      statements.push_back(sql("Insert into photo_label(name, category, info) Values ('%s', 1, '')", number));
    }
    EXPECT_EQ(runPipeline(statements, keeps), keeps);
  };
  insert(1000, false);
  insert(999, true);
  EXPECT_EQ(knownTables(), "(null)");
  // Not inside a transaction.
  KAVODBTransBegin(connection());
  insert(1, true);
  EXPECT_EQ(knownTables(), "(null)");
  KAVODBTransCommit(connection());
  EXPECT_EQ(knownTables(), "photo_label");
}

}  // namespace
