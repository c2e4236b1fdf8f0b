#include "platform/lookup_index.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/query.h"
#include "support/run_statement.h"
#include "support/tool_test.h"

namespace {

constexpr const char* kIndexes = "SELECT count(*) FROM pg_indexes WHERE indexname LIKE 'kavophoto%'";
// Enough look-ups to be worth an index.
constexpr int kEntries = 1200;

class LookupIndex : public appliance::ToolTest {
 protected:
  // `count` log entries, one a second, of a user "app".
  static void fillLog(appliance::Database& database, int count, const std::string& text) {
    database.exec("INSERT INTO photo_log SELECT i, timestamp '2026-01-01' + i * interval '1 second', '" + text +
                  " ' || i, true, 'app' FROM generate_series(1, " + std::to_string(count) + ") i");
  }
  // From now on every entry that is merged notes in "seen" how many look-up indexes there are at that moment.
  void watchIndexes() {
    live().exec(
        "CREATE TABLE seen (indexes bigint);"
        "CREATE FUNCTION watch() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
        "  INSERT INTO seen SELECT count(*) FROM pg_indexes WHERE tablename = 'photo_log' AND indexname LIKE 'kavo%';"
        "  RETURN new; END $$;"
        "CREATE TRIGGER watch BEFORE INSERT ON photo_log FOR EACH ROW EXECUTE FUNCTION watch()");
  }
  appliance::Outcome import() { return run({"-i", appliance::workDirectory(), "-d", "other"}); }
  // Waits until the query gives "t".
  static void waitUntil(appliance::Database& database, const std::string& query) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (database.value(query) != "t") {
      if (std::chrono::steady_clock::now() > limit) {
        throw std::runtime_error("never true: " + query);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
};

TEST_F(LookupIndex, ExistsOnlyInsideItsTransaction) {
  const Connection connection = connectTo("photo");
  const auto before = appliance::structure("photo");
  for (const char* ending : {"ROLLBACK", "COMMIT"}) {
    KAVODBTransBegin(connection.get());
    EXPECT_TRUE(createLookupIndex(connection.get(), "photo_log", "create_time", 1000));
    Result own;
    ASSERT_TRUE(appliance::runStatement(connection.get(), own, kIndexes));
    ASSERT_TRUE(fetchRow(own));
    EXPECT_EQ(fieldText(own, "count"), "1");
    EXPECT_EQ(live().value(kIndexes), "0");
    if (std::string(ending) == "COMMIT") {
      dropLookupIndex(connection.get());
    }
    ASSERT_TRUE(appliance::runStatement(connection.get(), ending));
    EXPECT_EQ(live().value(kIndexes), "0");
  }
  EXPECT_EQ(appliance::structure("photo"), before);
}

TEST_F(LookupIndex, IsNotMadeForAFewLookUps) {
  const Connection connection = connectTo("photo");
  KAVODBTransBegin(connection.get());
  EXPECT_FALSE(createLookupIndex(connection.get(), "photo_log", "create_time", 999));
  Result own;
  ASSERT_TRUE(appliance::runStatement(connection.get(), own, kIndexes));
  ASSERT_TRUE(fetchRow(own));
  EXPECT_EQ(fieldText(own, "count"), "0");
  expectNoMessages();
}

TEST_F(LookupIndex, LeavesTheTransactionAsItWasWhereItCannotBeMade) {
  const Connection connection = connectTo("photo");
  KAVODBTransBegin(connection.get());
  ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (1, 'kept', '')"));
  EXPECT_FALSE(createLookupIndex(connection.get(), "missing", "create_time", 5000));
  EXPECT_FALSE(createLookupIndex(connection.get(), "photo_log", "missing", 5000));
  ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (2, 'kept too', '')"));
  KAVODBTransCommit(connection.get());
  expectRows(live(), "SELECT groupname FROM photo_group ORDER BY groupid", {{"kept"}, {"kept too"}});
  expectNoMessages();
}

TEST_F(LookupIndex, IsNotMadeWithoutStatistics) {
  const Connection connection = connectTo("photo");
  // Another index whose function fails when it is asked for the statistics of its values.
  fillLog(live(), 10, "old");
  live().exec(
      "CREATE FUNCTION length_of(text) RETURNS integer IMMUTABLE LANGUAGE plpgsql AS 'BEGIN RETURN length($1); END';"
      "CREATE INDEX of_length ON photo_log (length_of(log));"
      "CREATE OR REPLACE FUNCTION length_of(text) RETURNS integer IMMUTABLE LANGUAGE plpgsql AS "
      "'BEGIN RAISE ''refused''; END'");
  KAVODBTransBegin(connection.get());
  EXPECT_FALSE(createLookupIndex(connection.get(), "photo_log", "create_time", 1000));
  Result own;
  ASSERT_TRUE(appliance::runStatement(connection.get(), own, kIndexes));
  ASSERT_TRUE(fetchRow(own));
  EXPECT_EQ(fieldText(own, "count"), "0");
  expectNoMessages();
}

TEST_F(LookupIndex, IsNotMadeInATransactionThatHasFailed) {
  const Connection connection = connectTo("photo");
  KAVODBTransBegin(connection.get());
  Result failed;
  EXPECT_EQ(KAVODBExecute(connection.get(), "SELECT 1/0", &failed.handle), -1);
  EXPECT_FALSE(createLookupIndex(connection.get(), "photo_log", "create_time", 1000));
  EXPECT_EQ(live().value(kIndexes), "0");
  expectNoMessages();
}

TEST_F(LookupIndex, ServesALogMergeAndIsGoneAfterIt) {
  const auto before = appliance::structure("photo");
  fillLog(other(), kEntries, "new");
  fillLog(live(), kEntries / 2, "old");
  watchIndexes();
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT indexes, count(*) FROM seen GROUP BY 1", {{"1", std::to_string(kEntries)}});
  live().exec("DROP TABLE seen; DROP FUNCTION watch CASCADE");
  EXPECT_EQ(appliance::structure("photo"), before);
  expectRows(live(), "SELECT count(*), min(logid), max(logid) FROM photo_log WHERE log LIKE 'new %'",
             {{"1200", "601", "1800"}});
  EXPECT_EQ(live().count("photo_log"), kEntries);
}

TEST_F(LookupIndex, IsNotMadeForAShortLogMerge) {
  fillLog(other(), 999, "new");
  watchIndexes();
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT indexes, count(*) FROM seen GROUP BY 1", {{"0", "999"}});
}

TEST_F(LookupIndex, IsDoneWithoutWhileAnybodyUsesTheLog) {
  fillLog(other(), kEntries, "new");
  watchIndexes();
  for (const char* use : {"SELECT 1 FROM photo_log", "UPDATE photo_log SET log = 'edited' WHERE logid < 0",
                          "LOCK TABLE photo_log IN SHARE UPDATE EXCLUSIVE MODE"}) {
    live().exec("TRUNCATE photo_log, seen");
    appliance::Database user("photo");
    user.exec("BEGIN");
    user.exec(use);
    EXPECT_EQ(import().status, 0) << use;
    expectNoMessages();
    expectRows(live(), "SELECT indexes, count(*) FROM seen GROUP BY 1", {{"0", std::to_string(kEntries)}});
    EXPECT_EQ(live().count("photo_log"), kEntries) << use;
    user.exec("COMMIT");
    EXPECT_EQ(live().value(kIndexes), "0");
  }
}

TEST_F(LookupIndex, IsDoneWithoutWhereItsNameIsTaken) {
  live().exec("CREATE INDEX kavophoto_backup_lookup ON photo_group (groupname)");
  const auto before = appliance::structure("photo");
  fillLog(other(), kEntries, "new");
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_log"), kEntries);
  EXPECT_EQ(appliance::structure("photo"), before);
}

TEST_F(LookupIndex, GoesWithALogMergeThatFails) {
  fillLog(other(), kEntries, "new");
  fillLog(live(), 3, "old");
  live().exec(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
      "  IF new.log = 'new 5' THEN RAISE 'refused'; END IF; RETURN new; END $$;"
      "CREATE TRIGGER refuse BEFORE INSERT ON photo_log FOR EACH ROW EXECUTE FUNCTION refuse()");
  const auto before = appliance::structure("photo");
  EXPECT_EQ(import().status, 0);
  const std::vector<std::string> messages = appliance::takeMessages();
  ASSERT_GE(messages.size(), 2U);
  EXPECT_EQ(messages[0],
            "Failed to exec [Insert into photo_log Values (1199, '2026-01-01 00:00:05', 'new 5', 't', 'app')] "
            "(ERROR:  refused)");
  EXPECT_EQ(messages[1], "Table photo_log sync failed.\n");
  EXPECT_EQ(appliance::structure("photo"), before);
  expectRows(live(), "SELECT log FROM photo_log ORDER BY logid", {{"old 1"}, {"old 2"}, {"old 3"}});
}

TEST_F(LookupIndex, GoesWithAToolThatIsKilled) {
  fillLog(other(), kEntries, "new");
  fillLog(live(), 3, "old");
  live().exec(
      "CREATE FUNCTION pause() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
      "  IF new.log = 'new 600' THEN PERFORM pg_advisory_xact_lock(7); END IF; RETURN new; END $$;"
      "CREATE TRIGGER pause BEFORE INSERT ON photo_log FOR EACH ROW EXECUTE FUNCTION pause()");
  const auto before = appliance::structure("photo");
  live().exec("SELECT pg_advisory_lock(7)");
  const pid_t tool = appliance::startTool({"-i", appliance::workDirectory(), "-d", "other"});
  waitUntil(live(),
            "SELECT EXISTS (SELECT FROM pg_stat_activity WHERE application_name = 'kavophoto_backup' AND "
            "wait_event = 'advisory')");
  kill(tool, SIGKILL);
  EXPECT_EQ(appliance::waitTool(tool).status, -SIGKILL);
  live().exec("SELECT pg_advisory_unlock(7)");
  waitUntil(
      live(),
      "SELECT NOT EXISTS (SELECT FROM pg_stat_activity WHERE application_name = 'kavophoto_backup' AND datname IN "
      "('photo', 'other'))");
  EXPECT_EQ(appliance::structure("photo"), before);
  expectRows(live(), "SELECT log FROM photo_log ORDER BY logid", {{"old 1"}, {"old 2"}, {"old 3"}});
  // The next run replaces the pid file that was left, and merges all of it.
  EXPECT_EQ(import().status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_log"), kEntries);
}

}  // namespace
