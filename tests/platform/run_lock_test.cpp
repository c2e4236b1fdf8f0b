#include "platform/run_lock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::replaceProgram;
using appliance::workDirectory;
using appliance::writeFile;

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
constexpr const char* kRunning = "kavophoto_backup is already running.\n";
constexpr const char* kLost =
    "The lock of this run was lost with its connection. It only renames tables back from now on.";
constexpr const char* kOurSessions =
    "SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kavophoto_backup lock' AND backend_type = 'client "
    "backend'";
// Holds the program until the test lets it go on.
constexpr const char* kHold = "touch /tmp/held; while [ ! -e /tmp/go_on ]; do sleep 0.01; done; ";
constexpr const char* kGoOn = R"(exec "$REAL" "$@")";

class RunLockTest : public appliance::ToolTest {
 protected:
  void TearDown() override {
    releaseRunLock();
    ToolTest::TearDown();
  }

  static void waitFor(const char* file) {
    while (!exists(file)) {
      usleep(5000);
    }
  }

  pid_t startHeld(const std::vector<std::string>& arguments, const char* program) {
    replaceProgram(program, std::string(kHold) + kGoOn);
    const pid_t first = appliance::startTool(arguments);
    waitFor("/tmp/held");
    return first;
  }
  static int letGoOn(pid_t first) {
    writeFile("/tmp/go_on", "");
    return appliance::waitTool(first).status;
  }

  void takeTheLock() { live().exec("SELECT pg_advisory_lock(7737595855798562676)"); }

  // Until the statement gives "t".
  void waitUntil(const std::string& statement) {
    while (live().value(statement) != "t") {
      usleep(5000);
    }
  }
};

TEST_F(RunLockTest, KeepsEveryModeOutWhateverBecomesOfThePidFile) {
  other();
  appliance::writeAccountFiles(workDirectory(), "other");
  takeTheLock();
  const auto before = appliance::contents("photo");
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"-b", workDirectory()},
                                             {"-e", workDirectory()},
                                             {"-r", workDirectory()},
                                             {"-i", workDirectory(), "-d", "other"}}) {
    EXPECT_EQ(run(arguments).status, 255);
    expectMessages({kRunning});
    EXPECT_FALSE(exists(kPidFile));
  }
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_FALSE(exists(workDirectory() + "kavophoto.backup"));
}

TEST_F(RunLockTest, IsHeldUntilTheRunEnds) {
  const pid_t first = startHeld({"-b", workDirectory()}, "/bin/tar");
  appliance::removeAll(kPidFile);
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 255);
  expectMessages({kRunning});
  EXPECT_EQ(letGoOn(first), 0);
  expectNoMessages();
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
}

TEST_F(RunLockTest, NeedsNoneForAUsageExit) {
  takeTheLock();
  EXPECT_EQ(run({"-h"}).status, 255);
  EXPECT_EQ(run({"-i", workDirectory()}).status, 255);
  expectNoMessages();
}

TEST_F(RunLockTest, IsTakenAfterAKilledRunAtOnce) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    const pid_t first = startHeld({"-b", workDirectory()}, "/usr/bin/pg_dump");
    kill(first, SIGKILL);
    appliance::waitTool(first);
    appliance::restorePrograms();
    appliance::removeAll("/tmp/held");
    EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
    expectNoMessages();
  }
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE tablename LIKE '%\\_bak'"), "0");
}

// The statement of a killed run's program goes on waiting on the server.
TEST_F(RunLockTest, EndsTheSessionsOfEarlierRuns) {
  live().exec("BEGIN; LOCK TABLE photo_config IN ACCESS SHARE MODE");
  const pid_t first = appliance::startTool({"-b", workDirectory()});
  appliance::Database observer("photo");
  while (observer.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event_type = 'Lock' AND query LIKE 'ALTER "
                        "TABLE photo_config RENAME%'") != "1") {
    usleep(5000);
  }
  kill(first, SIGKILL);
  appliance::waitTool(first);
  EXPECT_EQ(observer.value("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'ALTER TABLE photo_config RENAME%' "
                           "AND state = 'active' AND pid <> pg_backend_pid()"),
            "1");
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
  expectNoMessages();
  live().exec("COMMIT");
  EXPECT_EQ(observer.value("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'ALTER TABLE photo_config RENAME%' "
                           "AND state = 'active' AND pid <> pg_backend_pid()"),
            "0");
  expectRows(observer, "SELECT tablename FROM pg_tables WHERE tablename LIKE '%\\_bak'", {});
}

TEST_F(RunLockTest, LeavesTheSessionsOfOthersAlone) {
  live().exec(
      "CREATE ROLE somebody LOGIN SUPERUSER; SET application_name = 'kavophoto_backup'; SET SESSION "
      "AUTHORIZATION somebody");
  appliance::Database others("photo");
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
  expectNoMessages();
  EXPECT_EQ(others.value("SELECT 1"), "1");
  others.exec("SELECT 1");
}

TEST_F(RunLockTest, IsTakenAgainWhenTheServerWasRestartedMeanwhile) {
  const auto before = appliance::contents("photo");
  const pid_t first = startHeld({"-b", workDirectory()}, "/usr/bin/pg_dump");
  appliance::server::stop();
  appliance::server::start();
  EXPECT_EQ(letGoOn(first), 0);
  expectMessages({kLost});
  EXPECT_EQ(appliance::contents("photo"), before);
}

// Another run may have worked in between.
TEST_F(RunLockTest, LostAllowsNothingButToRenameBack) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'live')");
  const auto before = appliance::contents("photo");
  replaceProgram("/usr/bin/psql",
                 std::string(R"(case "$5" in *" photo_config RENAME"*) )") + kHold + ";; esac; " + kGoOn);
  const pid_t first = appliance::startTool({"-b", workDirectory()});
  waitFor("/tmp/held");
  live().exec("SELECT pg_terminate_backend(pid) FROM pg_locks WHERE locktype = 'advisory'");
  EXPECT_EQ(letGoOn(first), 0);
  const std::vector<std::string> messages = appliance::takeMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), kLost), 1);
  EXPECT_THAT(messages, ::testing::Contains("KavophotoTableRename: Fail to rename table photo_image\n"));
  EXPECT_THAT(messages, ::testing::Contains("KavophotoDumpDB failed when dumping database.\n"));
  EXPECT_FALSE(exists(workDirectory() + "kavophoto.backup"));
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(RunLockTest, RunsThatAskForItAreTurnedAwayWhileTheOneThatHasItEndsSessions) {
  appliance::Database earlier("photo");
  earlier.exec("SET application_name = 'kavophoto_backup'");
  const pid_t stuck = std::stoi(earlier.value("SELECT pg_backend_pid()"));
  kill(stuck, SIGSTOP);
  appliance::makeDirectories("/tmp/first");
  const pid_t first = appliance::startTool({"-e", "/tmp/first/"});
  waitUntil("SELECT count(*) = 1 FROM pg_locks WHERE locktype = 'advisory'");
  for (int run = 0; run < 3; ++run) {
    appliance::removeAll(kPidFile);
    EXPECT_EQ(this->run({"-b", workDirectory()}).status, 255);
    expectMessages({kRunning});
  }
  kill(stuck, SIGCONT);
  EXPECT_EQ(appliance::waitTool(first).status, 0);
  expectNoMessages();
}

TEST_F(RunLockTest, LostToAnotherRunChangesNothingMore) {
  const pid_t first = startHeld({"-b", workDirectory()}, "/usr/bin/pg_dump");
  live().exec(
      "SELECT pg_terminate_backend(pid) FROM pg_locks WHERE locktype = 'advisory'; SELECT "
      "pg_advisory_lock(7737595855798562676)");
  EXPECT_EQ(letGoOn(first), 0);
  std::vector<std::string> messages = appliance::takeMessages();
  ASSERT_GE(messages.size(), 33U);
  EXPECT_EQ(std::count(messages.begin(), messages.end(), kLost), 1);
  EXPECT_EQ(
      std::count(messages.begin(), messages.end(), "Another run has the lock now, and puts right what this one left."),
      1);
  for (const std::string& table : appliance::tableNames()) {
    EXPECT_THAT(messages, ::testing::Contains("KavophotoTableRenameBack: Fail to rename back table " + table + "\n"));
  }
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE tablename LIKE '%\\_bak'"), "33");
  live().exec("SELECT pg_advisory_unlock_all()");
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
  expectNoMessages();
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE tablename LIKE '%\\_bak'"), "0");
}

// The run would work without the lock otherwise.
TEST_F(RunLockTest, ServerThatComesUpAfterTheStartIsNotUsed) {
  other();
  appliance::makeArchive(workDirectory(), "other");
  const auto before = appliance::contents("photo");
  appliance::server::stop();
  const pid_t first = startHeld({"-r", workDirectory()}, "/bin/tar");
  appliance::server::start();
  EXPECT_EQ(letGoOn(first), 255);
  expectMessages({"Failed to connect to database", "Cant restore Photo DB.\n"});
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(RunLockTest, KeepsTheLockThatItHolds) {
  EXPECT_EQ(takeRunLock(), RunLock::kHeld);
  EXPECT_TRUE(keepRunLock());
  EXPECT_EQ(live().value(kOurSessions), "1");
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 255);
  expectMessages({kRunning});
  releaseRunLock();
  EXPECT_EQ(run({"-e", "/tmp/"}).status, 0);
}

}  // namespace
