#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/tool_test.h"

namespace {

using testing::IsSupersetOf;

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
constexpr const char* kUsers = "kavophoto_backup_hox_account.txt";
constexpr const char* kUsage =
    "Usage: kavophoto_backup [-r|-b|-i|-e] p [-d temp_db_name] [-o]\n"
    "\t   -b Backup photo database.\n"
    "\t   -e [export_path] Export photo database.\n"
    "\t   -i [import_path] -d [temp_db_name]:Import photo database.\n"
    "\t   -r Restore photo database.\n"
    "\t\tp Path to store backup file or to get restore file.\n"
    "\t   -o Overwrite mode for restoring photo database. Default is skip mode.\n"
    "\n";

class CommandLine : public appliance::ToolTest {
 protected:
  // The printed text behind the banner, which must be there.
  static std::string behindBanner(const std::string& text) {
    const std::size_t end = text.find('\n') + 1;
    EXPECT_THAT(text.substr(0, end), testing::MatchesRegex("kavophoto_backup [0-9.]+\n"));
    return text.substr(end);
  }
  static void expectUsage(const appliance::Outcome& outcome) {
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(behindBanner(outcome.out), kUsage);
  }
  static void expectMissingPath(const appliance::Outcome& outcome) {
    const std::string line = "Input path doesn't exist.\n\n";
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(outcome.out.substr(0, line.size()), line);
    EXPECT_EQ(behindBanner(outcome.out.substr(line.size())), kUsage);
  }
  static std::string missingPath(const std::string& path, const std::string& reason = "No such file or directory") {
    return "Input path (" + path + ") doesn't exist, errno=" + reason + ".";
  }
  static appliance::RunOptions in(const std::string& directory) {
    appliance::RunOptions options;
    options.cwd = directory;
    return options;
  }
};

TEST_F(CommandLine, PrintsItsUsageWhenItIsNotUnderstood) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-h"}, {"-b", "/tmp/backup/", "-h"}, {"-x"}, {"-r"}, {"-i", "/tmp/backup/", "-d"}}) {
    appliance::writeFile(kPidFile, std::to_string(getpid()));
    expectUsage(run(words));
    // Whoever made it.
    EXPECT_FALSE(appliance::exists(kPidFile));
  }
  expectNoMessages();
  EXPECT_FALSE(appliance::exists("/tmp/backup/kavophoto.backup"));
}

TEST_F(CommandLine, SaysThatThePathDoesNotExist) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{}, {"-o"}, {"-d", "other"}, {"only words"}, {"-b", ""}}) {
    expectMissingPath(run(words));
    expectMessages({missingPath("")});
  }
  for (const std::string mode : {"-b", "-r", "-e", "-i"}) {
    appliance::writeFile(kPidFile, std::to_string(getpid()));
    expectMissingPath(run({mode, "/tmp/100%s/", "-d", "other"}));
    expectMessages({missingPath("/tmp/100%s/")});
    EXPECT_FALSE(appliance::exists(kPidFile));
  }
}

TEST_F(CommandLine, SaysWhyThePathCannotBeSeen) {
  appliance::writeFile("/tmp/file", "x");
  expectMissingPath(run({"-b", "/tmp/file/"}));
  expectMessages({missingPath("/tmp/file/", "Not a directory")});
  appliance::makeDirectories("/tmp/closed/backup");
  ASSERT_EQ(chmod("/tmp/closed", 0), 0);
  appliance::RunOptions options;
  options.dropPrivileges = true;
  expectMissingPath(run({"-b", "/tmp/closed/backup/"}, options));
  expectMessages({missingPath("/tmp/closed/backup/", "Permission denied")});
}

TEST_F(CommandLine, PrintsItsUsageForAnImportWithoutADatabase) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  const auto before = appliance::contents("photo");
  expectUsage(run({"-i", "/tmp/backup/"}));
  expectUsage(run({"-o", "-i", "/tmp/backup/"}));
  expectNoMessages();
  EXPECT_EQ(appliance::contents("photo"), before);
  // Only behind the path check and the guard.
  expectMissingPath(run({"-i", "/tmp/missing/"}));
  expectMessages({missingPath("/tmp/missing/")});
  appliance::writeFile(kPidFile, std::to_string(getpid()));
  EXPECT_EQ(run({"-i", "/tmp/backup/"}).out, "");
  expectMessages({"kavophoto_backup is already running.\n"});
}

TEST_F(CommandLine, RunsTheLastOfSeveralModes) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'restored')");
  appliance::makeDirectories("/tmp/a");
  appliance::makeDirectories("/tmp/b");
  appliance::makeArchive("/tmp/b/", "other");
  EXPECT_EQ(run({"-b", "/tmp/a/", "-r", "/tmp/b/"}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"restored"}});
  EXPECT_FALSE(appliance::exists("/tmp/a/kavophoto.backup"));
  // The path that counts is checked alone.
  EXPECT_EQ(run({"-r", "/tmp/missing/", "-e", "/tmp/a/"}).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists(std::string("/tmp/a/") + kUsers));
}

TEST_F(CommandLine, BacksUpTheSameWithAndWithoutOverwriting) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  const auto before = appliance::contents("photo");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-b", "/tmp/backup/"}, {"-o", "-b", "/tmp/backup/"}}) {
    const appliance::Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    expectNoMessages();
    EXPECT_THAT(
        appliance::listArchive("/tmp/backup/kavophoto.backup"),
        testing::ElementsAre("kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
                             "kavophoto_backup_hox_group_account.txt", "theme_bak/", "settings.conf.bak"));
    EXPECT_EQ(appliance::contents("photo"), before);
    appliance::removeAll("/tmp/backup/kavophoto.backup");
  }
}

TEST_F(CommandLine, EndsWellAfterABackupThatFailed) {
  appliance::replaceProgram("/usr/bin/pg_dump", "exit 1");
  EXPECT_EQ(run({"-b", "/tmp/backup/"}).status, 0);
  expectMessages({"KavophotoDumpDB failed when dumping database.\n"});
  EXPECT_FALSE(appliance::exists("/tmp/backup/kavophoto.backup"));
}

TEST_F(CommandLine, RestoresInSkipModeUnlessToldToOverwrite) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'saved')");
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'live')");
  appliance::makeArchive("/tmp/backup/", "other");
  EXPECT_EQ(run({"-r", "/tmp/backup/"}).status, 0);
  expectRows(live(), "SELECT config_value FROM photo_config", {{"live"}});
  EXPECT_EQ(run({"-r", "/tmp/backup/", "-o"}).status, 0);
  expectRows(live(), "SELECT config_value FROM photo_config", {{"saved"}});
  expectNoMessages();
}

TEST_F(CommandLine, RemovesTheOldArchiveAfterARestoreThatSucceeded) {
  const std::string old = "/tmp/backup/kavophoto_backup.tar.gz";
  appliance::writeFile(old, "x");
  EXPECT_EQ(run({"-r", "/tmp/backup/"}).status, 255);
  expectMessages(
      {"KavophotoRestoreDB failed: no backup file /tmp/backup/kavophoto.backup.\n", "Cant restore Photo DB.\n"});
  EXPECT_TRUE(appliance::exists(old));
  appliance::makeArchive("/tmp/backup/", "photo");
  EXPECT_EQ(run({"-r", "/tmp/backup/"}).status, 0);
  expectNoMessages();
  EXPECT_FALSE(appliance::exists(old));
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto.backup"));
}

TEST_F(CommandLine, ReportsAnOldArchiveThatCannotBeRemoved) {
  appliance::makeArchive("/tmp/backup/", "photo");
  appliance::writeFile("/tmp/backup/kavophoto_backup.tar.gz/x", "x");
  EXPECT_EQ(run({"-r", "/tmp/backup/"}).status, 0);
  expectMessages({"Failed to remove /tmp/backup/kavophoto_backup.tar.gz (Directory not empty)"});
}

TEST_F(CommandLine, GluesFileNamesToAPathWithoutASlash) {
  appliance::makeArchive("/tmp/backup/", "photo");
  appliance::writeFile("/tmp/backup/kavophoto_backup.tar.gz", "x");
  EXPECT_EQ(run({"-r", "/tmp/backup"}).status, 255);
  expectMessages(
      {"KavophotoRestoreDB failed: no backup file /tmp/backupkavophoto.backup.\n", "Cant restore Photo DB.\n"});
  EXPECT_EQ(run({"-e", "/tmp/backup"}).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists(std::string("/tmp/backup") + kUsers));

  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::makeArchive("/tmp/backup", "other");
  appliance::writeFile("/tmp/backupkavophoto_backup.tar.gz", "x");
  // The archive's members have no glued names.
  appliance::replaceProgram("/bin/tar",
                            "mkdir /tmp/members; \"$REAL\" \"$1\" \"$2\" -C /tmp/members && cd /tmp/members && "
                            "for member in *; do mv \"$member\" \"/tmp/backup$member\"; done");
  EXPECT_EQ(run({"-r", "/tmp/backup"}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
  EXPECT_FALSE(appliance::exists("/tmp/backupkavophoto_backup.tar.gz"));
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto_backup.tar.gz"));
}

TEST_F(CommandLine, TakesARelativePathAsOneInTheCurrentDirectory) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  EXPECT_EQ(run({"-b", "backup/"}, in("/tmp")).status, 0);
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto.backup"));
  live().exec("TRUNCATE photo_config");
  EXPECT_EQ(run({"-r", "../backup/"}, in("/tmp/backup")).status, 0);
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
  appliance::makeDirectories("/tmp/backup/back");
  EXPECT_EQ(run({"-e", "back"}, in("/tmp/backup")).status, 0);
  EXPECT_TRUE(appliance::exists(std::string("/tmp/backup/back") + kUsers));
  EXPECT_EQ(run({"-e", "./"}, in("/")).status, 0);
  EXPECT_TRUE(appliance::exists(std::string("/") + kUsers));
  appliance::removeAll(std::string("/") + kUsers);
  appliance::removeAll("/kavophoto_backup_hox_group_account.txt");
  expectNoMessages();
}

TEST_F(CommandLine, KeepsARelativePathWhereTheCurrentDirectoryIsGone) {
  appliance::RunOptions shell;
  shell.program = "/bin/sh";
  EXPECT_EQ(
      run({"-c", "mkdir /tmp/gone; cd /tmp/gone; rmdir /tmp/gone; exec " + appliance::toolPath() + " -e ./"}, shell)
          .status,
      0);
  const std::string users = "Failed to open file: ./kavophoto_backup_hox_account.txt.\n";
  expectMessages({users, "failed when photo_access_right_for_hox_account.\n", users,
                  "failed when photo_upload_right_for_hox_account.\n", users,
                  "failed when photo_manage_right_for_hox_account.\n",
                  "Failed to open file: ./kavophoto_backup_hox_group_account.txt.\n",
                  "failed when photo_group_permission_for_hox_account.\n"});
}

TEST_F(CommandLine, FailsWithoutAServerInEveryMode) {
  appliance::makeArchive("/tmp/backup/", "photo");
  appliance::server::stop();
  EXPECT_EQ(run({"-r", "/tmp/backup/"}).status, 255);
  expectMessages({"Failed to connect to database", "Cant restore Photo DB.\n"});
  EXPECT_EQ(run({"-b", "/tmp/backup/"}).status, 0);
  EXPECT_THAT(appliance::takeMessages(),
              IsSupersetOf({std::string("KavophotoDumpDB failed when dumping database.\n")}));
  appliance::server::start();
  EXPECT_EQ(live().count("photo_image"), 0);
}

// With a path that was cut, "rm -rf" would get the directory itself.
TEST_F(CommandLine, RefusesADirectoryThatItsFileNamesDoNotFit) {
  const std::string part = std::string(240, 'd') + "/";
  std::string directory = "/tmp/";
  while (directory.size() + part.size() < 1023) {
    directory += part;
  }
  for (const std::size_t length : {985U, 1014U, 1023U, 1024U}) {
    const std::string longest = directory + std::string(length - directory.size() - 1, 'e') + "/";
    appliance::writeFile(longest + "precious", "text");
    const std::string refused = "The path of the directory is too long (" + std::to_string(length) +
                                " bytes): with the names of the files it must stay below 1024.";
    EXPECT_EQ(run({"-b", longest}).status, 0);
    expectMessages({refused});
    EXPECT_EQ(run({"-e", longest}).status, 0);
    expectMessages({refused});
    EXPECT_EQ(run({"-r", longest}).status, 255);
    expectMessages({refused, "Cant restore Photo DB.\n"});
    EXPECT_EQ(run({"-i", longest, "-d", "other"}).status, 255);
    expectMessages({refused});
    EXPECT_EQ(appliance::readFile(longest + "precious"), "text");
  }
}

TEST_F(CommandLine, WorksInTheLongestDirectoryThatItsFileNamesFit) {
  std::string directory = "/tmp/";
  while (directory.size() < 984) {
    directory += std::string(std::min<std::size_t>(239, 984 - directory.size() - 1), 'd') + "/";
  }
  ASSERT_EQ(directory.size(), 984U);
  appliance::writeFile(directory + "precious", "text");
  EXPECT_EQ(run({"-b", directory}).status, 0);
  EXPECT_EQ(run({"-r", directory, "-o"}).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::readFile(directory + "precious"), "text");
}

}  // namespace
