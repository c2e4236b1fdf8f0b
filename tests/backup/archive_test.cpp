#include "backup/archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "backup/backup_time.h"
#include "main/registry.h"
#include "platform/query.h"
#include "platform/run_lock.h"
#include "restore/staging.h"
#include "support/filled_tables.h"
#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::fillTables;
using appliance::hideProgram;
using appliance::listArchive;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::tableNames;
using appliance::workDirectory;
using appliance::writeFile;

// Appends each argument of the program's runs as a line, and an empty line after each run.
constexpr const char* kRecord = R"(printf '%s\n' "$@" >> /tmp/recorded; echo >> /tmp/recorded; )";
constexpr const char* kGoOn = R"(exec "$REAL" "$@")";

class ArchiveTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    before_ = appliance::contents("photo");
  }

  appliance::Outcome backUp(const appliance::RunOptions& options = {}) { return run({"-b", workDirectory()}, options); }

  // A backup ends with status 0 whatever happened.
  void backUpWith(const std::vector<std::string>& messages, const appliance::RunOptions& options = {}) {
    EXPECT_EQ(backUp(options).status, 0);
    expectMessages(messages);
  }

  static std::vector<std::string> filesLeft() {
    appliance::checked();
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(workDirectory())) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  void expectDatabaseAsBefore() { EXPECT_EQ(appliance::contents("photo"), before_); }

  // A member of the archive, unpacked.
  static std::string member(const std::string& name) {
    appliance::RunOptions options;
    options.program = "/bin/tar";
    const auto outcome = appliance::runTool({"-xzOf", workDirectory() + "kavophoto.backup", name}, options);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.out;
  }

  static std::vector<std::string> membersWith(const std::vector<std::string>& themes) {
    std::vector<std::string> members = {"kavophoto_backup.dump", "kavophoto_backup_time.txt",
                                        "kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt",
                                        "theme_bak/"};
    for (const std::string& theme : themes) {
      members.push_back("theme_bak/" + theme);
    }
    members.emplace_back("settings.conf.bak");
    return members;
  }

 private:
  std::map<std::string, std::vector<std::string>> before_;
};

TEST_F(ArchiveTest, LeavesTheDatabaseIdenticalAndOnlyTheArchiveBehind) {
  appliance::setAccounts({{1, "one"}, {2, "two"}, {3, "three"}}, {{1, "uno"}, {2, "due"}, {3, "tre"}});
  fillTables("photo");
  writeFile("/var/packages/Lumora/etc/blog/style.css", "body {}");
  const auto contents = appliance::contents("photo");
  const auto structure = appliance::structure("photo");

  backUpWith({});

  EXPECT_EQ(appliance::contents("photo"), contents);
  EXPECT_EQ(appliance::structure("photo"), structure);
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({"style.css"}));
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"kavophoto.backup"});
  EXPECT_EQ(member("theme_bak/style.css"), "body {}");
  EXPECT_EQ(member("settings.conf.bak"), readFile("/var/packages/Lumora/etc/settings.conf"));
  const std::string users = "1 =\"one\"\n2 =\"two\"\n3 =\"three\"\n";
  EXPECT_EQ(member("kavophoto_backup_hox_account.txt"), users + users + users);
  EXPECT_EQ(member("kavophoto_backup_hox_group_account.txt"), "1 =\"uno\"\n2 =\"due\"\n3 =\"tre\"\n");
}

TEST_F(ArchiveTest, DumpsTheStagedNamesOfAllTables) {
  fillTables("photo", 0);
  backUpWith({});
  writeFile("/tmp/dump", member("kavophoto_backup.dump"));
  appliance::RunOptions options;
  options.program = "/usr/bin/pg_restore";
  const std::string listing = appliance::runTool({"-l", "/tmp/dump"}, options).out;
  for (const std::string& table : tableNames()) {
    EXPECT_THAT(listing, ::testing::HasSubstr(" TABLE public " + table + "_bak postgres\n"));
    EXPECT_THAT(listing, ::testing::HasSubstr(" TABLE DATA public " + table + "_bak postgres\n"));
  }
}

TEST_F(ArchiveTest, StartsPgDumpWithOneOptionForEachTable) {
  replaceProgram("/usr/bin/pg_dump", std::string(kRecord) + kGoOn);
  backUpWith({});
  std::string expected = "-U\npostgres\n-F\nc\n-d\nphoto\n";
  for (const std::string& table : tableNames()) {
    expected += "-t\n" + table + "_bak\n";
  }
  EXPECT_EQ(readFile("/tmp/recorded"), expected + "-f\n/tmp/backup/kavophoto_backup.dump\n\n");
}

TEST_F(ArchiveTest, RenamesAllTablesInOrderThereAndBack) {
  replaceProgram("/usr/bin/psql", std::string(kRecord) + kGoOn);
  backUpWith({});
  std::string there;
  std::string back;
  for (const std::string& table : tableNames()) {
    there += "photo\n-U\npostgres\n-c\nALTER TABLE " + table + " RENAME TO " + table + "_bak;\n\n";
    back += "photo\n-U\npostgres\n-c\nALTER TABLE " + table + "_bak RENAME TO " + table + ";\n\n";
  }
  EXPECT_EQ(readFile("/tmp/recorded"), there + back);
}

TEST_F(ArchiveTest, PacksTheMembersFromTheWorkDirectory) {
  replaceProgram("/bin/tar", std::string("pwd >> /tmp/recorded; ") + kRecord + kGoOn);
  backUpWith({});
  EXPECT_EQ(readFile("/tmp/recorded"),
            "/tmp/backup\n-zcvf\n/tmp/backup/kavophoto.backup\nkavophoto_backup.dump\nkavophoto_backup_time.txt\n"
            "kavophoto_backup_hox_account.txt\nkavophoto_backup_hox_group_account.txt\ntheme_bak\nsettings.conf.bak\n"
            "-C\n/tmp/backup/\n\n");
}

TEST_F(ArchiveTest, WritesTheLocalTimeAndBothVersions) {
  writeFile("/etc.defaults/VERSION", "majorversion=\"4\"\nbuildnumber=\"18%%03\"\n");
  writeFile("/var/packages/Lumora/INFO", "package=\"Lumora\"\nversion = 6.0-2636\n");
  appliance::RunOptions options;
  options.env = {"TZ=UTC-5"};
  const auto text = [](std::time_t time) {
    std::tm local = {};
    time += 5L * 3600;
    gmtime_r(&time, &local);
    return backupTimeText(local, "18%%03", "6.0-2636");
  };
  const std::string first = text(std::time(nullptr));
  backUpWith({}, options);
  EXPECT_THAT(member("kavophoto_backup_time.txt"), ::testing::AnyOf(first, text(std::time(nullptr))));
}

TEST_F(ArchiveTest, KeepsADirectoryThatIsAPlainPrefix) {
  appliance::makeDirectories("/tmp/backup/sub");
  EXPECT_EQ(run({"-b", "/tmp/backup/sub"}).status, 0);
  expectMessages({"KavophotoDumpDB failed when tar files.\n"});
  EXPECT_TRUE(exists("/tmp/backup/subkavophoto.backup"));
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"sub", "subkavophoto.backup"}));
}

TEST_F(ArchiveTest, WorksWithARelativeDirectory) {
  appliance::RunOptions options;
  options.cwd = "/tmp";
  EXPECT_EQ(run({"-b", "backup/"}, options).status, 0);
  expectNoMessages();
  EXPECT_EQ(listArchive("/tmp/backup/kavophoto.backup"), membersWith({}));
}

TEST_F(ArchiveTest, FailingDumpRenamesBackAndLeavesNoDump) {
  replaceProgram("/usr/bin/pg_dump", R"(echo part > /tmp/backup/kavophoto_backup.dump; exit 1)");
  backUpWith({"KavophotoDumpDB failed when dumping database.\n"});
  expectDatabaseAsBefore();
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, MissingPgDumpIsAFailedDump) {
  hideProgram("/usr/bin/pg_dump");
  backUpWith({"KavophotoDumpDB failed when dumping database.\n"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, MissingVersionsEndTheBackup) {
  const std::string message = "KavophotoDumpDB failed when KLIBCFileGetKeyValue.\n";
  appliance::removeAll("/etc.defaults/VERSION");
  backUpWith({message});
  writeFile("/etc.defaults/VERSION", "majorversion=\"4\"\n");
  backUpWith({message});
  writeFile("/etc.defaults/VERSION", "buildnumber=\"1803\"\n");
  appliance::removeAll("/var/packages/Lumora/INFO");
  backUpWith({message});
  expectDatabaseAsBefore();
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, BackupTimeFileThatCannotBeOpenedEndsTheBackup) {
  appliance::makeDirectories("/tmp/backup/kavophoto_backup_time.txt");
  backUpWith({"KavophotoDumpDB failed to open /tmp/backup/kavophoto_backup_time.txt.\n"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, UnknownAccountEndsTheBackup) {
  for (const char* table : {"photo_access_right_for_hox_account", "photo_upload_right_for_hox_account",
                            "photo_manage_right_for_hox_account"}) {
    live().exec(std::string("INSERT INTO ") + table + " VALUES (4711, 1)");
    backUpWith(
        {"Failed to fetch hox user (4711)", std::string("KavophotoDumpHoxUserOnDB failed when ") + table + ".\n"});
    live().exec(std::string("DELETE FROM ") + table);
  }
  live().exec("INSERT INTO photo_group_permission_for_hox_account VALUES (4712, 1)");
  backUpWith({"Failed to fetch hox user (4712)",
              "KavophotoDumpHoxUserOnDB failed when photo_group_permission_for_hox_account.\n"});
  live().exec("DELETE FROM photo_group_permission_for_hox_account");
  expectDatabaseAsBefore();
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, LeftoverAccountFileGainsLines) {
  live().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1)");
  writeFile("/tmp/backup/kavophoto_backup_hox_account.txt", "1 =\"old\"\n");
  backUpWith({});
  EXPECT_EQ(member("kavophoto_backup_hox_account.txt"), "1 =\"old\"\n1026 =\"editor\"\n");
  EXPECT_FALSE(exists("/tmp/backup/kavophoto_backup_hox_account.txt"));
}

TEST_F(ArchiveTest, CopiesPlainThemeFilesOnlyWithTheirModesAndTimes) {
  const std::string blog = "/var/packages/Lumora/etc/blog/";
  const std::vector<std::string> names = {"a b", "%s%n", "-rf", "quote'\"", "new\nline"};
  for (const std::string& name : names) {
    writeFile(blog + name, name, 0640);
  }
  writeFile(blog + "folder/inner", "x");
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (blog + "a b").c_str(), times, 0), 0);

  backUpWith({});

  auto members = listArchive(workDirectory() + "kavophoto.backup");
  auto expected = membersWith(names);
  std::sort(members.begin(), members.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(members, expected);
  appliance::RunOptions options;
  options.program = "/bin/tar";
  appliance::runTool({"-xzf", workDirectory() + "kavophoto.backup", "-C", "/tmp"}, options);
  struct stat status = {};
  ASSERT_EQ(stat("/tmp/theme_bak/a b", &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_mtime, 1000000000);
}

TEST_F(ArchiveTest, GoesOnAfterAThemeFileThatCannotBeCopied) {
  writeFile("/var/packages/Lumora/etc/blog/bad.css", "x");
  writeFile("/var/packages/Lumora/etc/blog/good.css", "x");
  replaceProgram("/bin/cp", R"(case "$2" in *bad.css) exit 1;; esac; exec "$REAL" "$@")");
  backUpWith({"KavophotoCopyThemeDir: failed to copy bad.css.\n"});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({"good.css"}));
}

TEST_F(ArchiveTest, ReplacesALeftoverThemeCopy) {
  writeFile("/tmp/backup/theme_bak/old.css", "x");
  backUpWith({});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
}

TEST_F(ArchiveTest, MissingThemeDirectoryEndsTheBackup) {
  appliance::removeAll("/var/packages/Lumora/etc/blog");
  backUpWith({"KavophotoCopyThemeDir : Fail to open theme dir.\n",
              "KavophotoDumpHoxUserOnDB failed when KavophotoCopyThemeDir.\n"});
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, ThemeCopyThatCannotBeMadeEndsTheBackup) {
  writeFile("/tmp/backup/theme_bak", "in the way");
  hideProgram("/bin/rm");
  backUpWith({"KavophotoDumpDB failed when rm theme_bak.\n", "KavophotoCopyThemeDir : Fail to create theme_bak dir.\n",
              "KavophotoDumpHoxUserOnDB failed when KavophotoCopyThemeDir.\n",
              "KavophotoDumpDB failed when rm theme_bak.\n"});
  EXPECT_FALSE(exists("/tmp/backup/kavophoto.backup"));
}

TEST_F(ArchiveTest, MissingSettingsFileEndsTheBackup) {
  appliance::removeAll("/var/packages/Lumora/etc/settings.conf");
  backUpWith({"Copy /var/packages/Lumora/etc/settings failed.\n"});
  expectDatabaseAsBefore();
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, FailingRemovalsOfCopiesAreLoggedOnly) {
  replaceProgram("/bin/rm", "exit 1");
  backUpWith({"KavophotoDumpDB failed when rm theme_bak.\n", "KavophotoDumpDB failed when rm settings.conf.bak\n"});
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto.backup", "settings.conf.bak", "theme_bak"}));
}

TEST_F(ArchiveTest, DirectoryThatIsNoneEndsTheBackup) {
  writeFile("/tmp/backup/file", "");
  EXPECT_EQ(run({"-b", "/tmp/backup/file"}).status, 0);
  expectMessages({"change directory to /tmp/backup/file failed."});
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"file"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, VanishedStartDirectoryEndsTheBackup) {
  appliance::makeDirectories("/tmp/gone");
  appliance::RunOptions options;
  options.cwd = "/tmp/gone";
  replaceProgram("/usr/bin/psql", std::string("rmdir /tmp/gone 2> /dev/null; cd /; ") + kGoOn);
  backUpWith({"KavophotoDumpDB failed to getcwd, backup process is terminated"}, options);
  expectDatabaseAsBefore();
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, StartDirectoryThatVanishesMeanwhileIsLogged) {
  appliance::makeDirectories("/tmp/gone");
  appliance::RunOptions options;
  options.cwd = "/tmp/gone";
  replaceProgram("/usr/bin/pg_dump", std::string("rmdir /tmp/gone; ") + kGoOn);
  backUpWith({"change directory to /tmp/gone failed."}, options);
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, TarThatEndsWellNeedsNoCheck) {
  replaceProgram("/bin/tar", R"("$REAL" "$@"; exit 0)");
  backUpWith({});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
}

TEST_F(ArchiveTest, TarThatReportsAnErrorAfterAWholeArchiveIsNoFailure) {
  replaceProgram("/bin/tar", R"("$REAL" "$@"; exit 2)");
  backUpWith({});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
}

TEST_F(ArchiveTest, TarThatDoesNotStartLeavesAnOlderArchiveAndFails) {
  backUpWith({});
  const std::string older = readFile(workDirectory() + "kavophoto.backup");
  live().exec("INSERT INTO photo_share VALUES (1, 'added')");
  hideProgram("/bin/tar");
  backUpWith({"KavophotoDumpDB failed when tar files.\n"});
  EXPECT_TRUE(readFile(workDirectory() + "kavophoto.backup") == older);
}

TEST_F(ArchiveTest, CutArchiveIsAFailedTarAndIsNotRemoved) {
  replaceProgram("/bin/tar", R"("$REAL" "$@"; truncate -s -4 /tmp/backup/kavophoto.backup; exit 2)");
  backUpWith({"KavophotoDumpDB failed when tar files.\n"});
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"kavophoto.backup"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, TarThatLeavesAFileOutIsAFailure) {
  writeFile("/var/packages/Lumora/etc/blog/a.css", "x");
  writeFile("/var/packages/Lumora/etc/blog/b.css", "x");
  replaceProgram("/bin/tar", R"(exec "$REAL" --exclude=theme_bak/a.css "$@")");
  backUpWith({"KavophotoDumpDB failed when tar files.\n"});
}

TEST_F(ArchiveTest, FullDiskUnderTheDumpFailsTheDump) {
  appliance::mountSmall("/tmp/backup", 16384);
  backUpWith({"KavophotoDumpDB failed when dumping database.\n"});
  EXPECT_TRUE(filesLeft().empty());
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, FullDiskUnderTheBackupTimeFailsIt) {
  appliance::mountSmall("/tmp/backup", 1U << 20U);
  replaceProgram("/usr/bin/pg_dump", R"("$REAL" "$@"; cat /dev/zero >> /tmp/backup/kavophoto_backup.dump; exit 0)");
  backUpWith({"KavophotoDumpDB failed to write /tmp/backup/kavophoto_backup_time.txt.\n"});
  EXPECT_TRUE(filesLeft().empty());
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, FullDiskUnderTheAccountsFailsThem) {
  live().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1)");
  appliance::mountSmall("/tmp/backup", 1U << 20U);
  // One page stays free, which the backup time takes.
  replaceProgram("/usr/bin/pg_dump", R"("$REAL" "$@"; cat /dev/zero >> /tmp/backup/kavophoto_backup.dump
    truncate -s -4096 /tmp/backup/kavophoto_backup.dump; exit 0)");
  backUpWith({"Failed to write file: /tmp/backup/kavophoto_backup_hox_account.txt.\n",
              "KavophotoDumpHoxUserOnDB failed when photo_access_right_for_hox_account.\n"});
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, FullDiskUnderTheArchiveFailsTar) {
  appliance::mountSmall("/tmp/backup", 1U << 20U);
  replaceProgram("/usr/bin/pg_dump",
                 R"("$REAL" "$@"; head -c 700000 /dev/urandom >> /tmp/backup/kavophoto_backup.dump)");
  backUpWith({"KavophotoDumpDB failed when tar files.\n"});
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"kavophoto.backup"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, ReadOnlyDirectoryFailsTheDump) {
  appliance::mountReadOnly("/tmp/backup");
  backUpWith({"KavophotoDumpDB failed when dumping database.\n"});
  EXPECT_TRUE(filesLeft().empty());
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, UnreachableServerFailsEveryStepButEnds) {
  appliance::server::stop();
  std::vector<std::string> messages;
  for (const std::string& table : tableNames()) {
    messages.push_back("KavophotoTableRename: Fail to rename table " + table + "\n");
  }
  messages.emplace_back("KavophotoDumpDB failed when dumping database.\n");
  for (const std::string& table : tableNames()) {
    messages.push_back("KavophotoTableRenameBack: Fail to rename back table " + table + "\n");
  }
  backUpWith(messages);
  EXPECT_TRUE(filesLeft().empty());
}

TEST_F(ArchiveTest, ServerThatGoesAwayAfterTheDumpFailsTheAccounts) {
  replaceProgram("/usr/bin/pg_dump", R"("$REAL" "$@"; kill -INT )" + std::to_string(appliance::server::pid()) + R"(
    while /usr/bin/psql -U postgres -c 'SELECT 1' photo > /dev/null 2>&1; do sleep 0.05; done)");
  std::vector<std::string> messages = {"Failed to connect to database",
                                       "KavophotoDumpHoxUserOnDB failed when photo_access_right_for_hox_account.\n",
                                       "The lock of this run was lost with its connection. It only renames tables back "
                                       "from now on."};
  for (const std::string& table : tableNames()) {
    messages.push_back("KavophotoTableRenameBack: Fail to rename back table " + table + "\n");
  }
  EXPECT_EQ(backUp().status, 0);
  expectMessages(messages);

  // The rows wait under their staged names until the server is back.
  appliance::restorePrograms();
  appliance::server::stop();
  appliance::server::start();
  backUpWith({});
  expectDatabaseAsBefore();
}

class KilledBackupTest : public ArchiveTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(KilledBackupTest, IsUndoneBeforeAnyMode) {
  fillTables("photo");
  appliance::setAccounts({{1, "one"}, {2, "two"}, {3, "three"}}, {{1, "uno"}, {2, "due"}, {3, "tre"}});
  other();
  appliance::makeArchive(workDirectory(), "other");
  const auto contents = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  replaceProgram("/usr/bin/pg_dump", "kill -9 $PPID");
  EXPECT_EQ(backUp().status, -9);
  EXPECT_NE(appliance::contents("photo"), contents);
  appliance::restorePrograms();

  const std::string mode = GetParam();
  EXPECT_EQ(run({mode, workDirectory(), mode == "-i" ? "-dother" : "-o"}).status, 0);

  expectNoMessages();
  EXPECT_EQ(appliance::contents("photo"), contents);
  if (mode != "-r") {
    EXPECT_EQ(appliance::structure("photo"), structure);
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, KilledBackupTest, ::testing::Values("-b", "-e", "-r", "-i"),
                         [](const auto& mode) { return std::string(mode.param + 1); });

TEST_F(ArchiveTest, HoldsTheLiveRowsAfterARestoreThatStoppedHalfway) {
  live().exec("INSERT INTO photo_config VALUES ('album', 'sort', 'name')");
  appliance::ArchiveOptions old;
  old.build = "1802";
  appliance::makeArchive(workDirectory(), "photo", old);
  writeFile("/var/packages/Lumora/target/photo_scripts/cover_convert.sh", "#!/bin/sh\nexit 1\n", 0755);
  EXPECT_EQ(run({"-r", workDirectory()}).status, 255);
  expectMessages(
      {"Failed when executing commend: /var/packages/Lumora/target/photo_scripts/cover_convert.sh restore "
       "skip.\n",
       "Cant restore Photo DB.\n"});
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE tablename LIKE '%\\_bak'"), "33");
  live().exec("UPDATE photo_config SET config_value = 'date'");
  const auto edited = appliance::contents("photo").at("photo_config");

  backUpWith({});
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE tablename LIKE '%\\_bak'"), "0");
  EXPECT_EQ(appliance::contents("photo").at("photo_config"), edited);

  live().exec("DELETE FROM photo_config");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::contents("photo").at("photo_config"), edited);
}

TEST_F(ArchiveTest, SharedLeftoverOfAnOlderRestoreIsNotDumpedInPlaceOfTheLiveTable) {
  live().exec("INSERT INTO photo_share VALUES (1, 'live')");
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec("CREATE TABLE photo_share_bak AS SELECT 2 AS shareid, 'stale'::text AS sharename");
  backUpWith({});
  expectRows(live(), "SELECT shareid, sharename FROM photo_share", {{"1", "live"}});
  writeFile("/tmp/dump", member("kavophoto_backup.dump"));
  appliance::RunOptions options;
  options.program = "/usr/bin/pg_restore";
  EXPECT_THAT(appliance::runTool({"-f", "-", "-t", "photo_share_bak", "/tmp/dump"}, options).out,
              ::testing::AllOf(::testing::HasSubstr("live"), ::testing::Not(::testing::HasSubstr("stale"))));
}

class StagedNameTest : public ArchiveTest {
 protected:
  // No program is started, and the archive of the day before stays.
  void expectNothingDone(const std::vector<::testing::Matcher<const std::string&>>& messages) {
    writeFile(workDirectory() + "kavophoto.backup", "older");
    for (const char* program : {"/usr/bin/psql", "/usr/bin/pg_dump", "/bin/tar"}) {
      replaceProgram(program, "touch /tmp/started");
    }
    const auto before = appliance::contents("photo");
    EXPECT_EQ(backUp().status, 0);
    expectMessagesMatch(messages);
    EXPECT_FALSE(exists("/tmp/started"));
    EXPECT_EQ(readFile(workDirectory() + "kavophoto.backup"), "older");
    EXPECT_EQ(appliance::contents("photo"), before);
    appliance::restorePrograms();
  }
};

TEST_F(StagedNameTest, TakenBySomebodysTableMakesNoArchive) {
  live().exec("CREATE TABLE photo_share_bak AS SELECT 2 AS shareid, 'precious'::text AS sharename");
  expectNothingDone(
      {"Table photo_share_bak is left alone, it may be the only copy of its rows: table photo_share exists too, and no "
       "restore made photo_share_bak. Compare the two, drop or rename the one that is not needed, and run again."});
  live().exec("ALTER TABLE photo_share_bak RENAME TO my_share");
  backUpWith({});
  expectRows(live(), "SELECT sharename FROM my_share", {{"precious"}});
}

TEST_F(StagedNameTest, TakenByACopyThatCannotBeDroppedMakesNoArchive) {
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec("CREATE TABLE photo_share_bak (LIKE photo_share); CREATE VIEW v AS SELECT * FROM photo_share_bak");
  expectNothingDone({"Failed to execute commend: DROP TABLE photo_share_bak",
                     ::testing::StartsWith("Table photo_share_bak, a copy of table photo_share that a restore made, "
                                           "cannot be dropped (ERROR:  cannot drop table photo_share_bak because")});
}

TEST_F(StagedNameTest, TakenByAnIndexMakesNoArchive) {
  live().exec("CREATE INDEX photo_share_bak ON photo_log (logid)");
  expectNothingDone(
      {"photo_share_bak is no table, but a table needs the name for a while. Rename or drop it and run "
       "again."});
}

// The application finds its table missing while the backup has it and makes a new one.
TEST_F(StagedNameTest, TakenByTheLiveTableBecauseTheApplicationMadeAnotherOneKeepsItsRows) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'precious')");
  replaceProgram(
      "/usr/bin/pg_dump",
      R"("$REAL" "$@"; /usr/bin/psql photo -U postgres -qc 'CREATE TABLE photo_config (LIKE photo_config_bak)')");
  backUpWith({"KavophotoTableRenameBack: Fail to rename back table photo_config\n"});
  expectNothingDone(
      {"Table photo_config_bak is left alone, it may be the only copy of its rows: table photo_config exists too, and "
       "no restore made photo_config_bak. Compare the two, drop or rename the one that is not needed, and run again."});
  expectRows(live(), "SELECT config_value FROM photo_config_bak", {{"precious"}});
  live().exec("DROP TABLE photo_config");
  backUpWith({});
  expectRows(live(), "SELECT config_value FROM photo_config", {{"precious"}});
}

TEST_F(ArchiveTest, TablesThatCouldNotBeRenamedAreSaidToBeMissing) {
  replaceProgram("/usr/bin/psql",
                 R"(case "$5" in *" photo_image RENAME"*|*" category RENAME"*) exit 1;; esac; exec "$REAL" "$@")");
  backUpWith({"KavophotoTableRename: Fail to rename table photo_image\n",
              "KavophotoTableRename: Fail to rename table category\n", "The archive does not hold table photo_image.",
              "The archive does not hold table category.",
              "KavophotoTableRenameBack: Fail to rename back table photo_image\n",
              "KavophotoTableRenameBack: Fail to rename back table category\n"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, PartitionedTableIsSaidToBeWithoutItsRows) {
  live().exec(
      "DROP TABLE photo_log; CREATE TABLE photo_log (logid integer) PARTITION BY RANGE (logid);"
      "CREATE TABLE part PARTITION OF photo_log DEFAULT; INSERT INTO photo_log VALUES (1)");
  backUpWith({"The archive does not hold the rows of table photo_log, only its columns."});
  EXPECT_EQ(live().count("photo_log"), 1);
}

TEST_F(ArchiveTest, ViewInThePlaceOfATableIsSaidToBeMissing) {
  live().exec("DROP TABLE photo_log; CREATE VIEW photo_log AS SELECT 1 AS logid");
  backUpWith({"The archive does not hold table photo_log."});
  EXPECT_EQ(live().count("photo_log"), 1);
}

TEST_F(ArchiveTest, DumpThatCannotBeListedIsLoggedAndPacked) {
  hideProgram("/usr/bin/pg_restore");
  backUpWith({"Failed when executing commend: /usr/bin/pg_restore -U postgres -l /tmp/backup/kavophoto_backup.dump\n"});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
}

// cp would wait for a writer, with all tables under their staged names.
TEST_F(ArchiveTest, PipeInThePlaceOfTheSettingsEndsTheBackup) {
  appliance::removeAll("/var/packages/Lumora/etc/settings.conf");
  ASSERT_EQ(mkfifo("/var/packages/Lumora/etc/settings.conf", 0600), 0);
  backUpWith({"Copy /var/packages/Lumora/etc/settings failed.\n"});
  expectDatabaseAsBefore();
}

TEST_F(ArchiveTest, PipeAmongTheThemesIsLeftOut) {
  ASSERT_EQ(mkfifo("/var/packages/Lumora/etc/blog/pipe", 0600), 0);
  writeFile("/var/packages/Lumora/etc/blog/style.css", "body {}");
  backUpWith({"KavophotoCopyThemeDir: failed to copy pipe.\n"});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({"style.css"}));
}

// Somebody makes a table of that name while the backup stages its own.
TEST_F(ArchiveTest, ForeignTableUnderAStagedNameIsNotTakenForTheLiveOne) {
  replaceProgram(
      "/usr/bin/psql",
      R"(case "$5" in *" photo_config RENAME"*) "$REAL" photo -U postgres -qc "CREATE TABLE photo_config_bak )"
      R"(AS SELECT 1 AS id";; esac; exec "$REAL" "$@")");
  backUpWith({"KavophotoTableRename: Fail to rename table photo_config\n",
              "The archive does not hold table photo_config.",
              "KavophotoTableRenameBack: Fail to rename back table photo_config\n"});
  EXPECT_EQ(live().count("photo_config_bak"), 1);
}

TEST_F(ArchiveTest, RowsOfInheritingTablesAreSaidToBeMissing) {
  live().exec(
      "CREATE TABLE old_log () INHERITS (photo_log); INSERT INTO old_log VALUES (1, '2011-01-01', 'l', true, 'u')");
  backUpWith({"The archive does not hold the rows of the tables that inherit from table photo_log."});
  EXPECT_EQ(live().count("photo_log"), 1);
}

class WrittenName : public ArchiveTest, public ::testing::WithParamInterface<const char*> {
 protected:
  static void placeSpecialFiles() {
    const std::string kind = GetParam();
    for (const char* name : {"kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
                             "kavophoto_backup_hox_group_account.txt", "settings.conf.bak", "kavophoto.backup"}) {
      const std::string path = workDirectory() + name;
      const int placed = kind == "Pipe"     ? mkfifo(path.c_str(), 0600)
                         : kind == "Socket" ? mknod(path.c_str(), S_IFSOCK | 0600, 0)
                                            : symlink("/dev/null", path.c_str());
      ASSERT_EQ(placed, 0) << name;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Kinds, WrittenName, ::testing::Values("Pipe", "Socket", "LinkToADevice"),
                         [](const auto& kind) { return std::string(kind.param); });

// pg_dump, cp and tar would wait for a reader of a pipe, with all tables under their staged names.
TEST_P(WrittenName, SpecialFilesAreRemoved) {
  placeSpecialFiles();
  backUpWith({});
  EXPECT_EQ(filesLeft(), std::vector<std::string>{"kavophoto.backup"});
  EXPECT_EQ(listArchive(workDirectory() + "kavophoto.backup"), membersWith({}));
  EXPECT_TRUE(exists("/dev/null"));
  expectDatabaseAsBefore();
}

TEST_F(StagedNameTest, SpecialFilesThatCannotBeRemovedMakeNoArchive) {
  ASSERT_EQ(mkfifo((workDirectory() + "settings.conf.bak").c_str(), 0600), 0);
  for (const char* program : {"/usr/bin/psql", "/usr/bin/pg_dump", "/bin/tar"}) {
    replaceProgram(program, "touch /tmp/started");
  }
  appliance::mountReadOnly("/tmp/backup");
  backUpWith({"Failed to remove /tmp/backup/settings.conf.bak (Read-only file system)"});
  EXPECT_FALSE(exists("/tmp/started"));
  expectDatabaseAsBefore();
}

// The server accepts no further connection, but this run has its lock.
TEST_F(ArchiveTest, ServerThatCannotBeReachedAnyMoreMakesNoArchive) {
  EXPECT_TRUE(keepRunLock());
  const char* const given = std::getenv("PGHOST");
  const std::string host = given != nullptr ? given : "";
  setenv("PGHOST", "/nowhere", 1);
  EXPECT_EQ(KavophotoDumpDB(workDirectory().c_str(), kTableList), -1);
  setenv("PGHOST", host.c_str(), 1);
  expectMessages({"Failed to connect to database"});
  expectDatabaseAsBefore();
  EXPECT_EQ(filesLeft(), std::vector<std::string>{});
}

}  // namespace
