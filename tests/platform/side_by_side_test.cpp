#include "platform/side_by_side.h"

#include <new>

#include "merge/routine_test.h"
#include "platform/log.h"
#include "platform/query.h"
#include "support/run_statement.h"
#include "support/tool_test.h"

namespace {

using appliance::kRefused;
using appliance::WindowRows;

constexpr std::size_t kWindow = 64;

class SideBySide : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    other();
    setWindowRows(kWindow);
    destination_ = connectTo("photo");
    source_ = connectTo("other");
    live().exec("CREATE TABLE merged (place serial, row integer, transaction bigint DEFAULT txid_current())");
  }
  void TearDown() override {
    setWindowRows(before_);
    ToolTest::TearDown();
  }

  DBConnect_tag* destination() { return destination_.get(); }
  DBConnect_tag* source() { return source_.get(); }

  int run(std::size_t count, const std::function<int(std::size_t)>& row) {
    return runRows({destination(), source()}, count, row, [this] { ++takenBack_; });
  }
  bool insert(std::size_t row) { return execute(destination(), "Insert into merged (row) Values (%s)", row); }
  void select(int times) {
    for (int time = 0; time < times; ++time) {
      EXPECT_TRUE(execute(destination(), "Select %s", time));
    }
  }
  // The rows that are written, in their order.
  std::string merged() {
    return live().value("SELECT coalesce(string_agg(row::text, ' ' ORDER BY place), '') FROM merged");
  }
  std::string transactions() { return live().value("SELECT count(DISTINCT transaction) FROM merged"); }
  void refuseRow(int row) { appliance::refuseWriting(live(), "merged", "INSERT", "NEW.row = " + std::to_string(row)); }
  static std::string refused(int row) {
    return "Failed to exec [Insert into merged (row) Values (" + std::to_string(row) + ")] (" + kRefused + ")";
  }

  int takenBack_ = 0;
  Connection destination_;
  Connection source_;

 private:
  std::size_t before_ = windowRows();
};

TEST_F(SideBySide, LetsTheNextRowGoOnWhereOneWaits) {
  std::string steps;
  const auto row = [&](std::size_t number) {
    EXPECT_EQ(isBesideOthers(), windowRows() > 0);
    steps += std::to_string(number) + "a ";
    EXPECT_TRUE(insert(number));
    steps += std::to_string(number) + "b ";
    return 0;
  };
  EXPECT_EQ(run(3, row), 0);
  EXPECT_EQ(steps, "0a 1a 2a 0b 1b 2b ");
  EXPECT_EQ(merged(), "0 1 2");
  EXPECT_EQ(transactions(), "1");
  EXPECT_EQ(takenBack_, 0);
  EXPECT_FALSE(isBesideOthers());

  const WindowRows alone(0);
  steps.clear();
  EXPECT_EQ(run(3, row), 0);
  EXPECT_EQ(steps, "0a 0b 1a 1b 2a 2b ");
  EXPECT_EQ(merged(), "0 1 2 0 1 2");
  EXPECT_EQ(transactions(), "4");
  expectNoMessages();
}

TEST_F(SideBySide, RunsAnyNumberOfRows) {
  for (const std::size_t count : {0U, 1U, 2U, 200U, 1024U}) {
    live().exec("TRUNCATE merged RESTART IDENTITY");
    EXPECT_EQ(run(count, [&](std::size_t number) { return insert(number) ? 0 : -1; }), 0);
    EXPECT_EQ(live().value("SELECT count(*) FROM merged WHERE place = row + 1"), std::to_string(count));
  }
  EXPECT_EQ(takenBack_, 0);
}

TEST_F(SideBySide, GivesEachRowTheRowsOfItsOwnStatements) {
  EXPECT_EQ(
      run(50,
          [&](std::size_t number) {
            Result outer;
            EXPECT_TRUE(execute(destination(), outer, "Select generate_series(1, %s) + %s as i", number % 5, number));
            EXPECT_EQ(rowCount(outer), static_cast<long long>(number % 5));
            for (std::size_t at = 1; fetchRow(outer); ++at) {
              EXPECT_EQ(fieldText(outer, "i"), std::to_string(number + at));
              Result inner;
              EXPECT_TRUE(execute(source(), inner, "Select '%s' as name", Text{fieldText(outer, "i") + "'"}));
              EXPECT_TRUE(fetchRow(inner));
              EXPECT_EQ(fieldText(inner, "name"), std::to_string(number + at) + "'");
            }
            return 0;
          }),
      0);
  EXPECT_EQ(takenBack_, 0);
  appliance::checked();
}

TEST_F(SideBySide, ReadsTheSourceBesideTheDestinationOrInIt) {
  other().exec("INSERT INTO photo_group SELECT i, 'other ' || i, '' FROM generate_series(0, 99) i");
  live().exec("INSERT INTO photo_group SELECT i, 'live ' || i, '' FROM generate_series(0, 99) i");
  const auto copy = [&](DBConnect_tag* from) {
    return runRows(
        {destination(), from}, 100,
        [&](std::size_t number) {
          Result group;
          return execute(from, group, "Select * from photo_group where groupid = %s", number) && fetchRow(group) &&
                         execute(destination(), "Insert into photo_config Values ('%s', '%s', '')",
                                 textField(group, "groupname"), number)
                     ? 0
                     : -1;
        },
        [this] { ++takenBack_; });
  };
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(copy(source()), 0);
    EXPECT_EQ(copy(destination()), 0);
  }
  EXPECT_EQ(takenBack_, 0);
  expectRows(live(),
             "SELECT split_part(module_name, ' ', 1), count(*) FROM photo_config WHERE config_key = "
             "split_part(module_name, ' ', 2) GROUP BY 1 ORDER BY 1",
             {{"live", "200"}, {"other", "200"}});
}

TEST_F(SideBySide, SendsMessagesInTheOrderOfTheRows) {
  EXPECT_EQ(run(3,
                [&](std::size_t number) {
                  KAVO_LOG("row %zu begins", number);
                  select(static_cast<int>(3 - number));
                  KAVO_LOG("row %zu ends", number);
                  return 0;
                }),
            0);
  expectMessages({"row 0 begins", "row 0 ends", "row 1 begins", "row 1 ends", "row 2 begins", "row 2 ends"});
}

TEST_F(SideBySide, TakesBackAndRunsAgainOneByOneWhenAStatementFails) {
  refuseRow(2);
  int changed = 0;
  std::vector<std::size_t> ends;
  EXPECT_EQ(runRows(
                {destination(), source()}, 4,
                [&](std::size_t number) {
                  KAVO_LOG("row %zu", number);
                  ++changed;
                  if (!insert(number)) {
                    return -3;
                  }
                  ends.push_back(number);
                  return 0;
                },
                [&] {
                  EXPECT_EQ(changed, 4);
                  changed = 0;
                  ends.clear();
                  ++takenBack_;
                }),
            -3);
  EXPECT_EQ(takenBack_, 1);
  EXPECT_EQ(changed, 3);
  EXPECT_EQ(ends, (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(merged(), "0 1");
  EXPECT_EQ(transactions(), "2");
  expectMessages({"row 0", "row 1", "row 2", refused(2)});
  EXPECT_TRUE(KAVODBIsUsable(destination()));
}

TEST_F(SideBySide, EndsAtANegativeResultWithWhatTheRowsBeforeHaveWritten) {
  EXPECT_EQ(run(4,
                [&](std::size_t number) {
                  EXPECT_TRUE(insert(number));
                  KAVO_LOG("row %zu", number);
                  return number == 1 ? -2 : 0;
                }),
            -2);
  EXPECT_EQ(takenBack_, 1);
  EXPECT_EQ(merged(), "0 1");
  expectMessages({"row 0", "row 1"});
}

TEST_F(SideBySide, KeepsWhatARowWritesBeforeAndAfterAStatementThatFails) {
  refuseRow(100);
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    live().exec("TRUNCATE merged");
    EXPECT_EQ(run(3,
                  [&](std::size_t number) {
                    EXPECT_TRUE(insert(number));
                    EXPECT_EQ(insert(number == 1 ? 100 : number + 10), number != 1);
                    EXPECT_TRUE(insert(number + 20));
                    return 0;
                  }),
              0);
    EXPECT_EQ(merged(), "0 10 20 1 21 2 12 22");
    expectMessages({refused(100)});
  }
}

TEST_F(SideBySide, RunsAgainWhenAStatementOnTheSourceFails) {
  EXPECT_EQ(run(3,
                [&](std::size_t number) {
                  EXPECT_TRUE(insert(number));
                  return execute(source(), "Select 1 / (%s - 1)", number) ? 0 : -1;
                }),
            -1);
  EXPECT_EQ(merged(), "0 1");
  expectMessages({"Failed to exec [Select 1 / (1 - 1)] (ERROR:  division by zero)"});
  EXPECT_TRUE(KAVODBIsUsable(source()));
}

TEST_F(SideBySide, NeverRunsAStatementWhoseValueWouldEndItsPlace) {
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    live().exec("TRUNCATE merged");
    EXPECT_EQ(run(3,
                  [&](std::size_t number) {
                    const Raw value(number == 1 ? "1), (7" : "1");
                    return execute(destination(), "Insert into merged (row) Values (%s)", value) ? 0 : -1;
                  }),
              -1);
    EXPECT_EQ(merged(), "1");
    expectMessages(
        {"Failed to exec [Insert into merged (row) Values (1), (7)] (ERROR:  a value would end its own place in the "
         "statement)"});
  }
}

TEST_F(SideBySide, EndsWhereARowCannotBeCommitted) {
  live().exec(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RAISE EXCEPTION 'refused'; END$$;"
      "CREATE CONSTRAINT TRIGGER late AFTER INSERT ON merged DEFERRABLE INITIALLY DEFERRED FOR EACH ROW WHEN "
      "(NEW.row = 1) EXECUTE FUNCTION refuse()");
  const auto row = [&](std::size_t number) { return insert(number) ? 0 : -4; };
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    // A statement alone fails where it breaks the constraint.
    EXPECT_EQ(run(3, row), -4);
    EXPECT_EQ(merged(), "0");
    expectMessages({refused(1)});
    live().exec("TRUNCATE merged");
  }
  live().exec(
      "CREATE FUNCTION defer() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN SET CONSTRAINTS ALL DEFERRED; RETURN NEW; "
      "END$$; CREATE TRIGGER early BEFORE INSERT ON merged FOR EACH ROW EXECUTE FUNCTION defer()");
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    EXPECT_EQ(run(3, row), -1);
    EXPECT_EQ(merged(), "0");
    expectMessages({std::string("Failed to exec [COMMIT] (") + kRefused + ")"});
    EXPECT_TRUE(KAVODBIsUsable(destination()));
    live().exec("TRUNCATE merged");
  }
}

TEST_F(SideBySide, RunsARowAgainThatGaveWayToAnotherSession) {
  // The sequence counts on where a transaction is taken back: a window's, and that of the row alone.
  live().exec(
      "CREATE SEQUENCE conflicts; CREATE FUNCTION give_way() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN "
      "IF nextval('conflicts') <= 2 THEN RAISE EXCEPTION 'deadlock' USING ERRCODE = '40P01'; END IF; RETURN NEW; "
      "END$$; CREATE TRIGGER give_way BEFORE INSERT ON merged FOR EACH ROW WHEN (NEW.row = 11) "
      "EXECUTE FUNCTION give_way()");
  const auto row = [&](std::size_t number) {
    EXPECT_TRUE(insert(number));
    insert(number + 10);
    return 0;
  };
  EXPECT_EQ(run(3, row), 0);
  EXPECT_EQ(merged(), "0 10 1 11 2 12");
  EXPECT_EQ(transactions(), "3");
  expectNoMessages();
}

TEST_F(SideBySide, RunsARowThatAlwaysGivesWayAStatementAtATime) {
  live().exec(
      "CREATE FUNCTION give_way() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN "
      "RAISE EXCEPTION 'deadlock' USING ERRCODE = '40P01'; END$$; CREATE TRIGGER give_way BEFORE INSERT ON merged "
      "FOR EACH ROW WHEN (NEW.row = 11) EXECUTE FUNCTION give_way()");
  const auto row = [&](std::size_t number) {
    EXPECT_TRUE(insert(number));
    insert(number + 10);
    EXPECT_TRUE(insert(number + 20));
    return 0;
  };
  EXPECT_EQ(run(2, row), 0);
  EXPECT_EQ(merged(), "0 10 20 1 21");
  EXPECT_EQ(transactions(), "3");
  expectMessages({"Failed to exec [Insert into merged (row) Values (11)] (ERROR:  deadlock)"});
}

TEST_F(SideBySide, RunsRowsAloneForWhichThereIsNoMemorySideBySide) {
  const auto row = [&](std::size_t number) {
    EXPECT_TRUE(insert(number));
    if (isBesideOthers() && number == 1) {
      throw std::bad_alloc();
    }
    return 0;
  };
  EXPECT_EQ(run(3, row), 0);
  EXPECT_EQ(merged(), "0 1 2");
  EXPECT_EQ(transactions(), "3");
  EXPECT_EQ(takenBack_, 1);
}

TEST_F(SideBySide, IsAPartOfTheOpenTransaction) {
  KAVODBTransBegin(destination());
  EXPECT_EQ(run(3, [&](std::size_t number) { return insert(number) ? 0 : -1; }), 0);
  EXPECT_EQ(run(2, [&](std::size_t number) { return insert(number + 3) ? 0 : -1; }), 0);
  EXPECT_EQ(merged(), "");
  KAVODBTransCommit(destination());
  EXPECT_EQ(merged(), "0 1 2 3 4");
  EXPECT_EQ(transactions(), "1");
  EXPECT_EQ(takenBack_, 0);
}

TEST_F(SideBySide, LeavesTheOpenTransactionFailedAsAStatementWould) {
  refuseRow(1);
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    KAVODBTransBegin(destination());
    EXPECT_EQ(run(3, [&](std::size_t number) { return insert(number) || number == 1 ? 0 : -1; }), -1);
    const std::string aborted =
        "ERROR:  current transaction is aborted, commands ignored until end of transaction block";
    expectMessages({refused(1), "Failed to exec [Insert into merged (row) Values (2)] (" + aborted + ")"});
    EXPECT_FALSE(KAVODBIsUsable(destination()));
    // Each row runs, and fails, as it would alone.
    EXPECT_EQ(run(2, [&](std::size_t number) { return insert(number) ? -5 : 0; }), 0);
    expectMessages({"Failed to exec [Insert into merged (row) Values (0)] (" + aborted + ")",
                    "Failed to exec [Insert into merged (row) Values (1)] (" + aborted + ")"});
    KAVODBTransCommit(destination());
    EXPECT_EQ(merged(), "");
  }
}

TEST_F(SideBySide, GivesTurnsInTheOrderOfTheRows) {
  appliance::checked();
  std::string turns;
  const auto row = [&](std::size_t number) {
    select(static_cast<int>(10 - number));
    if (number % 3 == 1) {
      select(20);
      return 0;
    }
    {
      const Turn turn;
      turns += std::to_string(number);
      select(3);
      turns += " ";
    }
    select(2);
    return 0;
  };
  EXPECT_EQ(run(7, row), 0);
  EXPECT_EQ(turns, "0 2 3 5 6 ");
  EXPECT_EQ(takenBack_, 0);
  const WindowRows alone(0);
  turns.clear();
  EXPECT_EQ(run(7, row), 0);
  EXPECT_EQ(turns, "0 2 3 5 6 ");
}

TEST_F(SideBySide, NumbersWhatIsSentInTurnInTheOrderOfTheRows) {
  const auto row = [&](std::size_t number) {
    select(number % 2 == 0 ? 7 : 1);
    takeTurn();
    return insert(number) ? 0 : -1;
  };
  EXPECT_EQ(run(10, row), 0);
  EXPECT_EQ(merged(), "0 1 2 3 4 5 6 7 8 9");
  EXPECT_EQ(takenBack_, 0);
}

TEST_F(SideBySide, TakesBackARowThatWaitsForItsTurn) {
  refuseRow(0);
  EXPECT_EQ(run(3,
                [&](std::size_t number) {
                  select(number == 0 ? 3 : 0);
                  const Turn turn;
                  return insert(number) || number == 0 ? 0 : -1;
                }),
            0);
  EXPECT_EQ(takenBack_, 1);
  EXPECT_EQ(merged(), "1 2");
  expectMessages({refused(0)});
}

TEST_F(SideBySide, RunsRowsWithTheSameClaimOneByOne) {
  const auto claimAll = [&](const std::vector<std::string>& keys) {
    takenBack_ = 0;
    live().exec("TRUNCATE merged");
    const int status = run(keys.size(), [&](std::size_t number) {
      select(1);
      claim(keys[number]);
      Result known;
      const bool isKnown =
          execute(destination(), known, "Select * from merged where row = %s", Raw(keys[number])) && hasRows(known);
      return isKnown || execute(destination(), "Insert into merged (row) Values (%s)", Raw(keys[number])) ? 0 : -1;
    });
    EXPECT_EQ(status, 0);
    return merged();
  };
  EXPECT_EQ(claimAll({"1", "2", "3"}), "1 2 3");
  EXPECT_EQ(takenBack_, 0);
  EXPECT_EQ(claimAll({"1", "2", "1", "3"}), "1 2 3");
  EXPECT_EQ(takenBack_, 1);
  // The claims of a window end with it.
  EXPECT_EQ(claimAll({"3", "2"}), "3 2");
  EXPECT_EQ(takenBack_, 0);
  expectNoMessages();
}

TEST_F(SideBySide, LeavesARowRoomForLongMessages) {
  const std::string text(300000, '\n');
  EXPECT_EQ(run(64,
                [&](std::size_t number) {
                  select(1);
                  KAVO_LOG("%s%s%s", text.c_str(), text.c_str(), text.c_str());
                  return execute(destination(), "Select '%s'", Text{text}) && number < 100 ? 0 : -1;
                }),
            0);
  EXPECT_EQ(appliance::takeMessages().size(), 64U);
}

TEST_F(SideBySide, DoesNotFailForATableThatHasChanged) {
  const auto row = [&](std::size_t number) {
    return execute(destination(), "Select * from merged") && insert(number) ? 0 : -1;
  };
  EXPECT_EQ(run(2, row), 0);
  live().exec("ALTER TABLE merged ADD COLUMN more text");
  EXPECT_EQ(run(2, row), 0);
  EXPECT_EQ(takenBack_, 1);
  EXPECT_EQ(run(2, row), 0);
  EXPECT_EQ(takenBack_, 1);
  EXPECT_EQ(merged(), "0 1 0 1 0 1");
  expectNoMessages();
}

TEST_F(SideBySide, SaysWhyAConnectionWasLost) {
  for (const std::size_t rows : {kWindow, std::size_t{0}}) {
    const WindowRows window(rows);
    for (const char* const database : {"photo", "other"}) {
      SCOPED_TRACE(std::to_string(rows) + database);
      destination_ = connectTo("photo");
      source_ = connectTo("other");
      bool isCut = false;
      EXPECT_EQ(run(5,
                    [&](std::size_t number) {
                      if (number == 3 && !isCut) {
                        isCut = true;
                        appliance::server::terminateBackends(database);
                      }
                      return execute(destination(), "Select %s", number) && execute(source(), "Select %s", number) ? 0
                                                                                                                   : -6;
                    }),
                -6);
      const std::string lost = "] (FATAL:  terminating connection due to administrator command";
      const bool isSource = std::string(database) == "other";
      expectMessagesMatch({testing::StartsWith("Failed to exec [Select " + std::to_string(rows > 0 ? 0 : 3) + lost)});
      EXPECT_EQ(KAVODBIsUsable(destination()), isSource);
    }
  }
}

TEST_F(SideBySide, EndsWithoutAConnection) {
  destination_.reset();
  EXPECT_EQ(run(2, [&](std::size_t number) { return insert(number) ? 0 : -1; }), -1);
  expectMessages({"Failed to exec [Insert into merged (row) Values (0)] (no connection)"});
}

TEST_F(SideBySide, TakesTheNumberOfRowsFromTheEnvironment) {
  other().exec("INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 130) i");
  live().exec("ALTER TABLE photo_config ADD COLUMN transaction bigint DEFAULT txid_current()");
  const std::vector<std::pair<std::string, std::string>> windows = {
      {"0", "130"}, {"1", "130"}, {"50", "3"}, {"129", "2"}, {"1024", "1"}, {"1025", "2"},
      {"x", "2"},   {"", "2"},    {"-1", "2"}, {"10x", "2"}, {" 1", "2"},   {"99999999999999999999", "2"}};
  for (const auto& [window, expected] : windows) {
    live().exec("TRUNCATE photo_config");
    appliance::RunOptions options;
    options.env = {"KAVOPHOTO_WINDOW=" + window};
    EXPECT_EQ(ToolTest::run({"-i", appliance::workDirectory(), "-d", "other"}, options).status, 0);
    EXPECT_EQ(live().value("SELECT count(DISTINCT transaction) FROM photo_config"), expected) << window;
    EXPECT_EQ(live().count("photo_config"), 130);
  }
  expectNoMessages();
}

}  // namespace
