#include <unistd.h>

#include <csignal>

#include "support/filled_tables.h"
#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::replaceProgram;
using appliance::workDirectory;

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
constexpr const char* kRunning = "kavophoto_backup is already running.\n";

class ConcurrentRuns : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    appliance::setAccounts({{1, "one"}, {2, "two"}, {3, "three"}}, {{1, "uno"}, {2, "due"}, {3, "tre"}});
    appliance::fillTables("photo");
    other();
    appliance::makeArchive(workDirectory(), "other");
    appliance::makeDirectories("/tmp/nightly");
  }

  static void waitFor(const char* file) {
    while (!exists(file)) {
      usleep(5000);
    }
  }
};

TEST_F(ConcurrentRuns, BackupThatFollowsARefusedRunDoesNotTakeTheTablesOfARestore) {
  const auto before = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  replaceProgram("/bin/cp", R"(touch /tmp/held; while [ ! -e /tmp/go_on ]; do sleep 0.01; done; exec "$REAL" "$@")");
  const pid_t restore = appliance::startTool({"-r", workDirectory()});
  waitFor("/tmp/held");
  EXPECT_EQ(run({"-b", "/tmp/nightly/"}).status, 255);
  EXPECT_FALSE(exists(kPidFile));
  EXPECT_EQ(run({"-b", "/tmp/nightly/"}).status, 255);
  expectMessages({kRunning, kRunning});
  EXPECT_FALSE(exists("/tmp/nightly/kavophoto.backup"));
  appliance::writeFile("/tmp/go_on", "");
  EXPECT_EQ(appliance::waitTool(restore).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_EQ(appliance::structure("photo"), structure);
}

class EndedRestore : public ConcurrentRuns, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Signals, EndedRestore, ::testing::Values(SIGTERM, SIGKILL),
                         [](const auto& signal) { return std::string(sigabbrev_np(signal.param)); });

// The program that loads is slow to start. It must not come to its work when the restore is over.
TEST_P(EndedRestore, LoadsNothingIntoTheTablesOfTheNextBackup) {
  const auto before = appliance::contents("photo");
  replaceProgram(
      "/usr/bin/pg_restore",
      R"([ "$3" = -d ] || exec "$REAL" "$@"; touch /tmp/held; sleep 0.5; touch /tmp/lives; exec "$REAL" "$@")");
  const pid_t restore = appliance::startTool({"-r", workDirectory()});
  waitFor("/tmp/held");
  kill(restore, GetParam());
  EXPECT_EQ(appliance::waitTool(restore).status, -GetParam());
  replaceProgram("/usr/bin/pg_dump", R"(sleep 1; exec "$REAL" "$@")");
  EXPECT_EQ(run({"-b", "/tmp/nightly/"}).status, 0);
  expectNoMessages();
  EXPECT_FALSE(exists("/tmp/lives"));
  EXPECT_EQ(appliance::contents("photo"), before);
}

// The program is dead, but the server copies what it got from it, and commits.
TEST_P(EndedRestore, LeavesNoSessionThatLoads) {
  const auto before = appliance::contents("photo");
  replaceProgram("/usr/bin/pg_restore", R"sh([ "$3" = -d ] || exec "$REAL" "$@"
                 exec /usr/bin/psql photo -U postgres -qc "SELECT pg_sleep(1); CREATE TABLE photo_log_bak (id int)")sh");
  const pid_t restore = appliance::startTool({"-r", workDirectory()});
  while (live().value("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'SELECT pg_sleep%' AND pid <> "
                      "pg_backend_pid()") != "1") {
    usleep(5000);
  }
  kill(restore, GetParam());
  EXPECT_EQ(appliance::waitTool(restore).status, -GetParam());
  EXPECT_EQ(run({"-b", "/tmp/nightly/"}).status, 0);
  expectNoMessages();
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_stat_activity WHERE query LIKE 'SELECT pg_sleep%' AND pid <> "
                         "pg_backend_pid()"),
            "0");
  EXPECT_EQ(appliance::contents("photo"), before);
}

}  // namespace
