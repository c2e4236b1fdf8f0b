#include "main/single_instance.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "support/tool_test.h"

namespace {

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
constexpr const char* kRunning = "kavophoto_backup is already running.\n";

class SingleInstance : public appliance::ToolTest {
 protected:
  static std::string endedProcess() {
    const pid_t child = fork();
    if (child == 0) {
      _exit(0);
    }
    waitpid(child, nullptr, 0);
    return std::to_string(child);
  }
  // A backup that is about to pack its members.
  static pid_t startHeldBackup() {
    appliance::replaceProgram(
        "/bin/tar", R"(touch /tmp/packing; while [ ! -e /tmp/go_on ]; do sleep 0.01; done; exec "$REAL" "$@")");
    const pid_t backup = appliance::startTool({"-b", appliance::workDirectory()});
    while (!appliance::exists("/tmp/packing")) {
      usleep(5000);
    }
    return backup;
  }
  appliance::Outcome exportAccounts() { return run({"-e", appliance::workDirectory()}); }
};

TEST_F(SingleInstance, NamesItsOwnProcessInThePidFile) {
  EXPECT_TRUE(takeSingleInstanceGuard());
  EXPECT_EQ(appliance::readFile(kPidFile), std::to_string(getpid()));
  EXPECT_FALSE(takeSingleInstanceGuard());
  removePidFile();
  EXPECT_FALSE(appliance::exists(kPidFile));
  removePidFile();
  expectNoMessages();
}

TEST_F(SingleInstance, HoldsThePidFileWhileItRuns) {
  appliance::replaceProgram("/usr/bin/pg_dump",
                            "[ \"$(cat /tmp/kavophoto_backup.pid)\" = $PPID ] && printf '%s' "
                            "\"$(stat -c %a /tmp/kavophoto_backup.pid)\" > /tmp/mode; exec \"$REAL\" \"$@\"");
  EXPECT_EQ(run({"-b", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::readFile("/tmp/mode"), "644");
  EXPECT_FALSE(appliance::exists(kPidFile));
}

TEST_F(SingleInstance, TurnsASecondRunAwayWhichRemovesThePidFile) {
  appliance::replaceProgram("/usr/bin/pg_dump",
                            R"(touch /tmp/dumping; while [ ! -e /tmp/go_on ]; do sleep 0.02; done; exec "$REAL" "$@")");
  const pid_t first = appliance::startTool({"-b", appliance::workDirectory()});
  while (!appliance::exists("/tmp/dumping")) {
    usleep(5000);
  }
  EXPECT_EQ(appliance::readFile(kPidFile), std::to_string(first));
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-r", "/tmp/backup/"}}) {
    const appliance::Outcome second = run(arguments);
    EXPECT_EQ(second.status, 255);
    EXPECT_EQ(second.out, "");
  }
  expectMessages({kRunning});
  EXPECT_FALSE(appliance::exists(kPidFile));
  // Tables under their staged names, as the first run has them now.
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_tables WHERE schemaname = 'public' AND tablename LIKE '%\\_bak'"),
            "33");
  appliance::writeFile("/tmp/go_on", "");
  EXPECT_EQ(appliance::waitTool(first).status, 0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_image"), 0);
}

TEST_F(SingleInstance, ReplacesAPidFileThatNamesNoLivingProcess) {
  for (const std::string& text : {endedProcess(), std::string(), std::string("0"), std::string("-1"),
                                  std::string("text"), std::string("99999999999999999999")}) {
    appliance::writeFile(kPidFile, text);
    EXPECT_EQ(exportAccounts().status, 0) << text;
    expectNoMessages();
    EXPECT_FALSE(appliance::exists(kPidFile)) << text;
  }
}

TEST_F(SingleInstance, BelievesAPidFileThatNamesALivingProcess) {
  appliance::writeFile(kPidFile, std::to_string(getpid()) + "\n");
  EXPECT_EQ(exportAccounts().status, 255);
  expectMessages({kRunning});
  EXPECT_FALSE(appliance::exists(kPidFile));
  EXPECT_FALSE(appliance::exists("/tmp/backup/kavophoto_backup_hox_account.txt"));
}

TEST_F(SingleInstance, DoesNotBelieveAPidFileOfAnotherOwner) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  appliance::writeFile(kPidFile, std::to_string(getpid()));
  ASSERT_EQ(chown(kPidFile, 1026, 0), 0);
  appliance::replaceProgram("/usr/bin/pg_dump",
                            "[ \"$(cat /tmp/kavophoto_backup.pid)\" = $PPID ] && touch /tmp/replaced; exec \"$REAL\" "
                            "\"$@\"");
  EXPECT_EQ(run({"-b", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists("/tmp/replaced"));
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto.backup"));
  EXPECT_FALSE(appliance::exists(kPidFile));
}

TEST_F(SingleInstance, WritesThroughNoLink) {
  leavePidFile();
  ASSERT_EQ(symlink("/tmp/victim", kPidFile), 0);
  EXPECT_EQ(exportAccounts().status, 0);
  expectMessages({"Failed to open /tmp/kavophoto_backup.pid, errno=[17/File exists]\n"});
  EXPECT_FALSE(appliance::exists("/tmp/victim"));
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto_backup_hox_account.txt"));
}

TEST_F(SingleInstance, RemovesTheLinkAndNotWhatItLeadsTo) {
  appliance::writeFile("/tmp/victim", "precious");
  ASSERT_EQ(symlink("/tmp/victim", kPidFile), 0);
  EXPECT_EQ(exportAccounts().status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::readFile("/tmp/victim"), "precious");
  EXPECT_FALSE(appliance::exists(kPidFile));
}

TEST_F(SingleInstance, GoesOnBesideAFolderInThePlaceOfThePidFile) {
  leavePidFile();
  appliance::makeDirectories(kPidFile);
  EXPECT_EQ(exportAccounts().status, 0);
  expectMessages({"Failed to open /tmp/kavophoto_backup.pid, errno=[17/File exists]\n"});
  EXPECT_TRUE(std::filesystem::is_directory(kPidFile));
}

TEST_F(SingleInstance, GoesOnWithoutAPidFileWhereNoneCanBeMade) {
  appliance::makeDirectories("/var/export");
  appliance::mountReadOnly("/tmp");
  EXPECT_EQ(run({"-e", "/var/export/"}).status, 0);
  expectMessages({"Failed to open /tmp/kavophoto_backup.pid, errno=[30/Read-only file system]\n"});
  EXPECT_TRUE(appliance::exists("/var/export/kavophoto_backup_hox_account.txt"));
}

TEST_F(SingleInstance, KeepsARunThatReachesNoServerOutOfTheDirectoryOfAnother) {
  other();
  const pid_t first = startHeldBackup();
  appliance::RunOptions noServer;
  noServer.env = {"PGPORT=1"};
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"-b", appliance::workDirectory()},
                                             {"-e", appliance::workDirectory()},
                                             {"-r", appliance::workDirectory() + "prefix"},
                                             {"-i", "/tmp/../tmp/backup/", "-d", "other"}}) {
    SCOPED_TRACE(arguments.front());
    appliance::removeAll(kPidFile);
    if (arguments.front() == "-r") {
      appliance::makeDirectories(appliance::workDirectory() + "prefix");
    }
    const appliance::Outcome second = run(arguments, noServer);
    EXPECT_EQ(second.status, 255);
    EXPECT_EQ(second.out, "");
    expectMessages({kRunning});
    EXPECT_FALSE(appliance::exists(kPidFile));
  }
  appliance::writeFile("/tmp/go_on", "");
  EXPECT_EQ(appliance::waitTool(first).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::listArchive(appliance::workDirectory() + "kavophoto.backup"),
            (std::vector<std::string>{"kavophoto_backup.dump", "kavophoto_backup_time.txt",
                                      "kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt",
                                      "theme_bak/", "settings.conf.bak"}));
}

TEST_F(SingleInstance, HoldsTheLockOfTheDirectoryNoLongerThanItLives) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const pid_t first = startHeldBackup();
    kill(first, SIGKILL);
    EXPECT_EQ(appliance::waitTool(first).status, -SIGKILL);
    appliance::restorePrograms();
    appliance::removeAll("/tmp/packing");
    EXPECT_EQ(run({"-b", appliance::workDirectory()}).status, 0);
    expectNoMessages();
    EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto.backup"));
    appliance::removeAll("/tmp/backup/kavophoto.backup");
  }
}

TEST_F(SingleInstance, WaitsForALockThatIsHeldForAMoment) {
  std::optional<Descriptor> held = lockDirectory(appliance::workDirectory());
  ASSERT_TRUE(held && *held);
  EXPECT_FALSE(lockDirectory(appliance::workDirectory() + "prefix"));
  std::thread release([&held] {
    usleep(200000);
    held.reset();
  });
  EXPECT_EQ(exportAccounts().status, 0);
  release.join();
  expectNoMessages();
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto_backup_hox_account.txt"));
}

TEST_F(SingleInstance, LocksNothingButADirectory) {
  appliance::writeFile("/tmp/file", "");
  for (const char* path : {"/tmp/missing/", "/tmp/file/prefix", "no slash"}) {
    const std::optional<Descriptor> lock = lockDirectory(path);
    ASSERT_TRUE(lock) << path;
    EXPECT_FALSE(*lock) << path;
  }
  appliance::checked();
}

TEST_F(SingleInstance, GoesOnWithoutALockInADirectoryThatItMayNotList) {
  ASSERT_EQ(chmod("/tmp/backup", 0333), 0);
  appliance::RunOptions options;
  options.dropPrivileges = true;
  EXPECT_EQ(run({"-e", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists("/tmp/backup/kavophoto_backup_hox_account.txt"));
}

}  // namespace
