#include "support/appliance.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

#include "support/internals.h"
#include "support/merge_test.h"
#include "support/sample.h"

namespace {

using appliance::Outcome;
using appliance::RunOptions;
using testing::ElementsAre;
using testing::HasSubstr;

RunOptions shell(bool dropPrivileges = false) {
  RunOptions options;
  options.program = "/bin/sh";
  options.dropPrivileges = dropPrivileges;
  return options;
}

class ApplianceTest : public appliance::ToolTest {};

TEST_F(ApplianceTest, HasFreshFilesOfItsOwn) {
  EXPECT_TRUE(appliance::exists("/var/services/photo"));
  EXPECT_TRUE(appliance::exists("/var/packages/Lumora/etc/blog"));
  EXPECT_FALSE(appliance::exists("/var/lib"));
  EXPECT_EQ(appliance::readFile("/etc.defaults/VERSION"), "majorversion=\"7\"\nbuildnumber=\"1803\"\n");
}

TEST_F(ApplianceTest, LeavesTheMachinesFoldersAlone) {
  const int machine = appliance::internals::machineRoot();
  ASSERT_EQ(faccessat(machine, "tmp", F_OK, 0), 0);
  const std::vector<std::string> paths = {"tmp/appliance_probe", "var/appliance_probe", "etc.defaults/appliance_probe"};
  for (const std::string& path : paths) {
    appliance::writeFile("/" + path, "x");
    EXPECT_NE(faccessat(machine, path.c_str(), F_OK, 0), 0) << path;
  }
  struct stat mine {};
  struct stat machines {};
  ASSERT_EQ(stat("/etc/passwd", &mine), 0);
  ASSERT_EQ(fstatat(machine, "etc/passwd", &machines, 0), 0);
  EXPECT_FALSE(mine.st_dev == machines.st_dev && mine.st_ino == machines.st_ino);
  appliance::checked();
}

TEST_F(ApplianceTest, TakesTheMessagesInOrder) {
  openlog(nullptr, 0, LOG_USER);
  for (int number = 0; number < 100; ++number) {
    syslog(LOG_ERR, "%s:%d message %d\n", "kavophoto_backup", 7, number);
  }
  closelog();
  const std::vector<std::string> messages = appliance::takeMessages();
  ASSERT_EQ(messages.size(), 100U);
  EXPECT_EQ(messages.front(), "message 0\n");
  EXPECT_EQ(messages.back(), "message 99\n");
}

TEST_F(ApplianceTest, KeepsALongMessageWhole) {
  const std::string statement(60000, 's');
  syslog(LOG_ERR, "kavophoto_backup:1 %s", statement.c_str());
  expectMessages({statement});
}

TEST_F(ApplianceTest, MarksAMessageOfAnotherForm) {
  syslog(LOG_WARNING, "kavophoto_backup:7 too soft");
  syslog(LOG_ERR, "without a line");
  expectMessagesMatch({testing::StartsWith("MALFORMED: <12>"), testing::StartsWith("MALFORMED: <11>")});
}

TEST_F(ApplianceTest, RunsAProgramAndKeepsItsStreamsApart) {
  const Outcome outcome = run({"-c", "echo out; echo err >&2; pwd; exit 3"}, shell());
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "out\n/\n");
  EXPECT_EQ(outcome.err, "err\n");
  EXPECT_GT(outcome.peakKilobytes, 0);
  EXPECT_EQ(run({"-c", "kill -9 $$"}, shell()).status, -SIGKILL);
  appliance::checked();
}

TEST_F(ApplianceTest, DoesNotWaitForAChildLeftBehind) {
  EXPECT_EQ(run({"-c", "sleep 30 & echo started"}, shell()).out, "started\n");
  appliance::checked();
}

TEST_F(ApplianceTest, EndsAProgramThatHangs) {
  RunOptions options = shell();
  options.timeoutSeconds = 1;
  EXPECT_THROW(run({"-c", "sleep 30"}, options), std::runtime_error);
  appliance::checked();
}

TEST_F(ApplianceTest, RefusesWritesOnAReadOnlyMount) {
  appliance::makeDirectories("/tmp/sealed");
  appliance::mountReadOnly("/tmp/sealed");
  EXPECT_NE(run({"-c", "echo x > /tmp/sealed/file"}, shell()).status, 0);
  appliance::unmountAll();
  EXPECT_EQ(run({"-c", "echo x > /tmp/sealed/file"}, shell()).status, 0);
  EXPECT_TRUE(appliance::exists("/tmp/sealed/file"));
}

TEST_F(ApplianceTest, FillsASmallFileSystem) {
  appliance::mountSmall("/tmp/small/", std::size_t{64} * 1024);
  EXPECT_NE(run({"-c", "head -c 200000 /dev/zero > /tmp/small/file"}, shell()).status, 0);
  EXPECT_TRUE(appliance::exists("/tmp/small/file"));
}

TEST_F(ApplianceTest, MakesFileModesCount) {
  appliance::writeFile("/tmp/closed", "x", 0);
  EXPECT_NE(run({"-c", "cat /tmp/closed"}, shell(true)).status, 0);
  appliance::checked();
}

TEST_F(ApplianceTest, ReplacesHidesAndRestoresPrograms) {
  appliance::replaceProgram("/usr/bin/psql", R"(echo "fake $#"; exec "$REAL" "$@")");
  RunOptions psql;
  psql.program = "/usr/bin/psql";
  const std::vector<std::string> arguments = {"photo", "-U", "postgres", "-At", "-c", "SELECT 'a b'"};
  EXPECT_EQ(run(arguments, psql).out, "fake 6\na b\n");
  // The other programs of the same folder stay as they are.
  RunOptions dump;
  dump.program = "/usr/bin/pg_dump";
  EXPECT_THAT(run({"--version"}, dump).out, HasSubstr("pg_dump"));
  appliance::hideProgram("/bin/tar");
  EXPECT_NE(run({"-c", "/bin/tar --version"}, shell()).status, 0);
  appliance::restorePrograms();
  EXPECT_EQ(run(arguments, psql).out, "a b\n");
  EXPECT_EQ(run({"-c", "/bin/tar --version"}, shell()).status, 0);
  appliance::checked();
}

TEST_F(ApplianceTest, HasItsOwnAccounts) {
  EXPECT_EQ(run({"-c", "id -nu 1026 && id -nu 1028"}, shell()).out, "editor\nfirst last\n");
  appliance::setAccounts({{4000, "somebody"}}, {{4001, "some group"}});
  EXPECT_EQ(run({"-c", "id -nu 4000"}, shell()).out, "somebody\n");
  EXPECT_NE(run({"-c", "id -nu 1026"}, shell()).status, 0);
  appliance::checked();
}

TEST_F(ApplianceTest, StopsStartsAndKillsTheServer) {
  live().exec("INSERT INTO photo_group VALUES (1, 'kept', '')");
  appliance::server::stop();
  EXPECT_THROW(appliance::Database("photo"), std::runtime_error);
  appliance::server::start();
  expectRows(live(), "SELECT groupname FROM photo_group", {{"kept"}});
  const pid_t before = appliance::server::pid();
  appliance::server::killHard();
  appliance::server::start();
  EXPECT_NE(appliance::server::pid(), before);
  appliance::server::restart({"work_mem=3MB"});
  EXPECT_EQ(live().value("SHOW work_mem"), "3MB");
  appliance::reset();
  EXPECT_EQ(appliance::Database("photo").value("SHOW work_mem"), "4MB");
}

TEST_F(ApplianceTest, ResetsEverything) {
  live().exec("INSERT INTO photo_group VALUES (1, 'gone', '')");
  other();
  appliance::writeFile("/var/services/photo/a/b.jpg", "x");
  appliance::reset();
  EXPECT_EQ(live().count("photo_group"), 0);
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_database WHERE datname = 'other'"), "0");
  EXPECT_FALSE(appliance::exists("/var/services/photo/a"));
}

TEST_F(ApplianceTest, HasEveryTable) {
  for (const std::string& table : appliance::tableNames()) {
    EXPECT_EQ(live().count(table), 0) << table;
  }
  EXPECT_EQ(live().count("video"), 0);
  EXPECT_EQ(appliance::tableNames().size(), 33U);
  EXPECT_EQ(appliance::contents("photo").size(), 34U);
}

TEST_F(ApplianceTest, SeesADifferenceOfStructure) {
  const std::vector<std::string> before = appliance::structure("photo");
  live().exec("DROP INDEX photo_image_path_index");
  std::vector<std::string> lost;
  const std::vector<std::string> after = appliance::structure("photo");
  std::set_difference(before.begin(), before.end(), after.begin(), after.end(), std::back_inserter(lost));
  EXPECT_EQ(lost.size(), 2U);
  live().exec("SELECT nextval('photo_image_id_seq')");
  EXPECT_NE(appliance::structure("photo"), after);
}

TEST_F(ApplianceTest, MakesDatabasesOfOtherEncodings) {
  appliance::createDatabase("latin", "LATIN1");
  appliance::Database latin("latin");
  EXPECT_EQ(latin.value("SHOW server_encoding"), "LATIN1");
  EXPECT_EQ(latin.count("photo_share"), 0);
}

TEST_F(ApplianceTest, MakesAnArchiveOfSixMembersInOrder) {
  other().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1, '2026-01-01')");
  appliance::ArchiveOptions options;
  options.theme = {{"style.css", "body"}};
  const std::vector<std::string> before = appliance::structure("other");
  appliance::makeArchive(appliance::workDirectory(), "other", options);
  EXPECT_EQ(appliance::structure("other"), before);
  const std::string archive = appliance::workDirectory() + "kavophoto.backup";
  EXPECT_THAT(
      appliance::listArchive(archive),
      ElementsAre("kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
                  "kavophoto_backup_hox_group_account.txt", "theme_bak/", "theme_bak/style.css", "settings.conf.bak"));
  EXPECT_EQ(run({"-c", "tar -xzOf " + archive + " kavophoto_backup_hox_account.txt"}, shell()).out,
            "1026 =\"editor\"\n");
  EXPECT_EQ(run({"-c", "tar -xzf " + archive +
                           " -C /tmp && pg_restore -l /tmp/kavophoto_backup.dump | grep -c 'TABLE public'"},
                shell())
                .out,
            "33\n");
}

TEST_F(ApplianceTest, LeavesOutMembers) {
  appliance::ArchiveOptions options;
  options.leaveOut = {"kavophoto_backup.dump", "theme_bak", "settings.conf.bak"};
  appliance::makeArchive(appliance::workDirectory(), "photo", options);
  EXPECT_EQ(appliance::listArchive(appliance::workDirectory() + "kavophoto.backup").size(), 3U);
}

TEST_F(ApplianceTest, FillsASampleWithoutEmptyTables) {
  appliance::fillSample("photo");
  appliance::SampleOptions options;
  options.firstNumber = 7000;
  options.flavour = "second";
  options.files = false;
  other();
  appliance::fillSample("other", options);
  for (const auto& [table, rows] : appliance::contents("photo")) {
    EXPECT_FALSE(rows.empty()) << table;
  }
  EXPECT_EQ(live().count("photo_image"), 12 * 120);
  const std::string names = "SELECT sharename FROM photo_share ORDER BY sharename";
  EXPECT_EQ(live().rows(names), other().rows(names));
  EXPECT_EQ(live().value("SELECT min(id) FROM photo_image"), "1");
  EXPECT_EQ(other().value("SELECT min(id) FROM photo_image"), "7001");
  EXPECT_TRUE(appliance::exists("/var/services/photo/album1/img1.jpg"));
  EXPECT_THAT(appliance::readFile("/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG"), HasSubstr("\"1,2\""));
}

}  // namespace
