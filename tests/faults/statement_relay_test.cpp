#include "faults/statement_relay.h"

#include <libpq-fe.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/tool_test.h"

namespace {

using faults::StatementRelay;
using Hold = StatementRelay::Hold;

constexpr Oid kInt4 = 23;

struct FinishConnection {
  void operator()(PGconn* connection) const { PQfinish(connection); }
};
struct ClearResult {
  void operator()(PGresult* result) const { PQclear(result); }
};
using Client = std::unique_ptr<PGconn, FinishConnection>;
using Answer = std::unique_ptr<PGresult, ClearResult>;

// What a client in a process of its own has been told so far.
struct Told {
  std::atomic<int> commands{0};
  std::atomic<int> errors{0};
};

void require(bool isSo) {
  if (!isSo) {
    throw std::runtime_error("a call of libpq fails");
  }
}

void send(PGconn* client, const char* sql) {
  require(PQsendQueryParams(client, sql, 0, nullptr, nullptr, nullptr, nullptr, 0) == 1);
}

void prepareInsert(PGconn* client) {
  const Oid types[] = {kInt4, 0};
  require(PQsendPrepare(client, "insert", "INSERT INTO seen VALUES ($1, $2, nextval('runs'))", 2, types) == 1);
}

void sendInsert(PGconn* client, const std::string& number, const std::string& text) {
  const char* values[] = {number.c_str(), text.c_str()};
  require(PQsendQueryPrepared(client, "insert", 2, values, nullptr, nullptr, 0) == 1);
}

// Reads up to the end of the pipeline.
void readAnswers(PGconn* client, Told& told) {
  for (;;) {
    const Answer answer(PQgetResult(client));
    const ExecStatusType status = PQresultStatus(answer.get());
    if (answer && status == PGRES_PIPELINE_SYNC) {
      return;
    }
    require(PQstatus(client) == CONNECTION_OK);
    if (answer && *PQcmdStatus(answer.get()) != '\0') {
      ++told.commands;
    } else if (answer && status == PGRES_FATAL_ERROR) {
      ++told.errors;
    }
  }
}

void runOne(PGconn* client, const char* sql, Told& told) {
  const Answer answer(PQexecParams(client, sql, 0, nullptr, nullptr, nullptr, nullptr, 0));
  require(PQresultStatus(answer.get()) == PGRES_COMMAND_OK);
  ++told.commands;
}

// A window: BEGIN is statement 1, three inserts follow, COMMIT is statement 5.
void runWindow(PGconn* client, Told& told) {
  require(PQenterPipelineMode(client) == 1);
  send(client, "BEGIN");
  prepareInsert(client);
  sendInsert(client, "1", "one");
  sendInsert(client, "2", "it's");
  require(PQsendFlushRequest(client) == 1 && PQflush(client) == 0);
  sendInsert(client, "3", "three");
  send(client, "COMMIT");
  require(PQpipelineSync(client) == 1);
  readAnswers(client, told);
}

class Relay : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    live().exec("CREATE TABLE seen (number int, text text, run bigint); CREATE SEQUENCE runs START 1");
    void* shared = mmap(nullptr, sizeof(Told), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    told_ = new (shared) Told;
    relay_ = std::make_unique<StatementRelay>(std::filesystem::read_symlink("/proc/self/exe"));
  }

  void TearDown() override {
    if (client_ > 0) {
      kill(client_, SIGKILL);
      waitpid(client_, nullptr, 0);
    }
    relay_.reset();
    munmap(told_, sizeof(Told));
    ToolTest::TearDown();
  }

  template <typename Work>
  void start(Work work) {
    client_ = fork();
    ASSERT_GE(client_, 0);
    if (client_ > 0) {
      return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = EXIT_FAILURE;
    try {
      const std::string folder = relay_->environment().substr(sizeof "PGHOST=" - 1);
      const Client client(PQconnectdb(("dbname=photo user=postgres application_name=client host=" + folder).c_str()));
      require(PQstatus(client.get()) == CONNECTION_OK);
      work(client.get(), *told_);
      status = EXIT_SUCCESS;
    } catch (const std::exception&) {
      status = EXIT_FAILURE;
    }
    _exit(status);
  }

  bool reachesHold() { return relay_->waitUntilHeld(client_); }

  int waitForEnd() {
    int status = 0;
    waitpid(client_, &status, 0);
    client_ = 0;
    return status;
  }

  // The replies of earlier statements are on their way when a hold is reached.
  void expectTold(int commands) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (told_->commands < commands && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(told_->commands, commands);
  }

  // How many inserts the server has run, also those of an open transaction.
  long runs() { return std::stol(live().value("SELECT CASE WHEN is_called THEN last_value ELSE 0 END FROM runs")); }

  void waitUntilSessionEnds() {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (live().value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'client'") != "0") {
      ASSERT_LT(std::chrono::steady_clock::now(), limit);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  StatementRelay& relay() { return *relay_; }
  const Told& told() const { return *told_; }

 private:
  Told* told_ = nullptr;
  pid_t client_ = 0;
  std::unique_ptr<StatementRelay> relay_;
};

TEST_F(Relay, CountsExecutionsOfAPipeline) {
  start(runWindow);
  EXPECT_EQ(waitForEnd(), 0);
  EXPECT_EQ(relay().statements(), 5);
  expectTold(5);
  EXPECT_EQ(live().count("seen"), 3);
}

TEST_F(Relay, HoldsBeforeAStatementWhenAllEarlierOnesHaveRun) {
  for (int statement = 1; statement <= 5; ++statement) {
    SCOPED_TRACE(statement);
    live().exec("ALTER SEQUENCE runs RESTART");
    relay().holdAt(statement, Hold::kBeforeStatement);
    start(runWindow);
    ASSERT_TRUE(reachesHold());
    EXPECT_EQ(relay().statements(), statement - 1);
    EXPECT_EQ(runs(), std::max(0, statement - 2));
    relay().cut();
    EXPECT_NE(waitForEnd(), 0);
    waitUntilSessionEnds();
    EXPECT_EQ(live().count("seen"), 0);
  }
}

TEST_F(Relay, HoldsAfterAStatementHasRunAndBeforeTheClientIsTold) {
  for (int statement = 1; statement <= 4; ++statement) {
    SCOPED_TRACE(statement);
    live().exec("ALTER SEQUENCE runs RESTART");
    relay().holdAt(statement, Hold::kAfterStatement);
    start(runWindow);
    ASSERT_TRUE(reachesHold());
    EXPECT_EQ(relay().statements(), statement);
    EXPECT_EQ(runs(), statement - 1);
    relay().cut();
    EXPECT_NE(waitForEnd(), 0);
    waitUntilSessionEnds();
    EXPECT_EQ(live().count("seen"), 0);
  }
}

TEST_F(Relay, PassesOnTheRepliesToEarlierStatements) {
  for (const Hold hold : {Hold::kBeforeStatement, Hold::kAfterStatement}) {
    live().exec("TRUNCATE seen");
    const int before = told().commands;
    relay().holdAt(4, hold);
    start(runWindow);
    ASSERT_TRUE(reachesHold());
    expectTold(before + 3);
    relay().release();
    EXPECT_EQ(waitForEnd(), 0);
    expectTold(before + 5);
    EXPECT_EQ(live().count("seen"), 3);
  }
}

TEST_F(Relay, TakesTheEndOfAPipelineForAPartOfItsLastStatement) {
  relay().holdAt("COMMIT", Hold::kAfterStatement);
  start(runWindow);
  ASSERT_TRUE(reachesHold());
  EXPECT_EQ(live().count("seen"), 3);
  relay().cut();
  EXPECT_NE(waitForEnd(), 0);
}

TEST_F(Relay, FindsAStatementByItsTextWithTheValuesInPlace) {
  relay().holdAt("VALUES (2, 'it''s', nextval", Hold::kBeforeStatement);
  start(runWindow);
  ASSERT_TRUE(reachesHold());
  EXPECT_EQ(relay().statements(), 2);
  EXPECT_EQ(runs(), 1);
  relay().release();
  EXPECT_EQ(waitForEnd(), 0);
}

TEST_F(Relay, HoldsAfterASingleStatementWhenItIsCommitted) {
  const auto work = [](PGconn* client, Told& told) {
    runOne(client, "INSERT INTO seen VALUES (1)", told);
    const Answer answer(PQexec(client, "INSERT INTO seen VALUES (2); INSERT INTO seen VALUES (3)"));
    require(PQresultStatus(answer.get()) == PGRES_COMMAND_OK);
  };
  relay().holdAt(1, Hold::kAfterStatement);
  start(work);
  ASSERT_TRUE(reachesHold());
  EXPECT_EQ(live().count("seen"), 1);
  EXPECT_EQ(told().commands, 0);
  relay().cut();
  EXPECT_NE(waitForEnd(), 0);

  relay().holdAt(2, Hold::kAfterStatement);
  start(work);
  ASSERT_TRUE(reachesHold());
  EXPECT_EQ(live().count("seen"), 4);
  relay().release();
  EXPECT_EQ(waitForEnd(), 0);
  EXPECT_EQ(relay().statements(), 2);
}

// The second of four statements fails, and the server leaves out the others.
TEST_F(Relay, HoldsAtStatementsThatFailOrAreLeftOut) {
  const auto work = [](PGconn* client, Told& told) {
    require(PQenterPipelineMode(client) == 1);
    send(client, "BEGIN");
    send(client, "SELECT 1 / 0");
    send(client, "SELECT nextval('runs')");
    require(PQsendFlushRequest(client) == 1 && PQflush(client) == 0);
    for (int results = 0; results < 4; ++results) {
      const Answer answer(PQgetResult(client));
      told.errors += answer && PQresultStatus(answer.get()) == PGRES_FATAL_ERROR ? 1 : 0;
    }
    send(client, "SELECT nextval('runs')");
    require(PQpipelineSync(client) == 1);
    readAnswers(client, told);
    send(client, "ROLLBACK");
    require(PQpipelineSync(client) == 1);
    readAnswers(client, told);
  };
  for (const Hold hold : {Hold::kBeforeStatement, Hold::kAfterStatement}) {
    for (int statement = 1; statement <= 5; ++statement) {
      SCOPED_TRACE(statement);
      const int before = told().errors;
      relay().holdAt(statement, hold);
      start(work);
      ASSERT_TRUE(reachesHold());
      EXPECT_EQ(runs(), 0);
      relay().release();
      EXPECT_EQ(waitForEnd(), 0);
      EXPECT_EQ(told().errors, before + 1);
      EXPECT_EQ(relay().statements(), 5);
    }
  }
}

// More than the buffers of all sockets hold, in both directions.
TEST_F(Relay, PassesAPipelineThatIsReadOnlyAtItsEnd) {
  constexpr int kStatements = 2000;
  const auto work = [](PGconn* client, Told& told) {
    require(PQenterPipelineMode(client) == 1);
    const std::string text(4000, 'x');
    for (int statement = 0; statement < kStatements; ++statement) {
      const char* values[] = {text.c_str()};
      require(PQsendQueryParams(client, "SELECT nextval('runs'), $1", 1, nullptr, values, nullptr, nullptr, 0) == 1);
    }
    require(PQpipelineSync(client) == 1);
    readAnswers(client, told);
  };
  for (const Hold hold : {Hold::kBeforeStatement, Hold::kAfterStatement}) {
    live().exec("ALTER SEQUENCE runs RESTART");
    relay().holdAt(kStatements / 2, hold);
    start(work);
    ASSERT_TRUE(reachesHold());
    EXPECT_EQ(runs(), kStatements / 2 - (hold == Hold::kBeforeStatement ? 1 : 0));
    relay().release();
    EXPECT_EQ(waitForEnd(), 0);
    EXPECT_EQ(runs(), kStatements);
  }
  EXPECT_EQ(told().commands, 2 * kStatements);
}

}  // namespace
