#include "package/installed.h"
#include "support/tool_test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

const std::string kDirectory = "/var/backups/photos";

class NightlyBackup : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    unpackPackage();
  }

  static appliance::Outcome backUp(const std::vector<std::string>& variables = {}) {
    std::vector<std::string> all = {"KAVOPHOTO_BACKUP_DIRECTORY=" + kDirectory};
    all.insert(all.end(), variables.begin(), variables.end());
    return runShell("exec /tmp/installed/usr/libexec/kavophoto-backup/nightly-backup", all);
  }

  static std::vector<std::string> names() {
    appliance::checked();
    return linesOf(outputOf("ls -1 " + kDirectory));
  }

  static void addArchive(const std::string& date) {
    appliance::writeFile(kDirectory + "/" + date + "/kavophoto.backup", "older");
  }

  // Nothing new is kept and nothing older is lost.
  static void expectOnlyOlder() {
    EXPECT_THAT(names(), ElementsAre("2020-01-01_030000"));
    EXPECT_EQ(appliance::readFile(kDirectory + "/2020-01-01_030000/kavophoto.backup"), "older");
  }

  // Puts a script in the place of the tool, with the path of the archive that it is to make in "$archive" and that of a
  // good one in "$good".
  static void standIn(const std::string& script) {
    appliance::makeDirectories("/tmp/good");
    appliance::makeArchive("/tmp/good/", "photo");
    appliance::writeFile(
        "/tmp/programs/kavophoto_backup",
        "#!/bin/sh\nset -e\ngood=/tmp/good/kavophoto.backup\narchive=\"$2\"kavophoto.backup\n" + script, 0755);
  }
};

TEST_F(NightlyBackup, MakesAnArchiveInADatedDirectoryThatOnlyItsOwnerCanRead) {
  EXPECT_EQ(backUp().status, 0);
  const std::vector<std::string> made = names();
  ASSERT_THAT(made, SizeIs(1));
  EXPECT_THAT(made[0], MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2}_[0-9]{6}"));
  EXPECT_EQ(appliance::listArchive(kDirectory + "/" + made[0] + "/kavophoto.backup").size(),
            appliance::archiveMembers().size());
  EXPECT_EQ(outputOf("stat -c %a " + kDirectory + " " + kDirectory + "/*/ " + kDirectory + "/*/kavophoto.backup"),
            "700\n700\n600\n");
}

TEST_F(NightlyBackup, KeepsTheNewestSevenAndWhatIsNotItsOwn) {
  for (int day = 1; day <= 9; ++day) {
    addArchive("2020-01-0" + std::to_string(day) + "_030000");
  }
  standIn(R"(cp "$good" "$archive")");
  appliance::writeFile(kDirectory + "/2020-01-02_030000/note", "mine");
  appliance::writeFile(kDirectory + "/by hand/kavophoto.backup", "mine");
  EXPECT_EQ(backUp().status, 0);
  EXPECT_THAT(names(), ElementsAre("2020-01-02_030000", "2020-01-04_030000", "2020-01-05_030000", "2020-01-06_030000",
                                   "2020-01-07_030000", "2020-01-08_030000", "2020-01-09_030000",
                                   MatchesRegex("20[0-9-]+_[0-9]{6}"), "by hand"));
  EXPECT_FALSE(appliance::exists(kDirectory + "/2020-01-02_030000/kavophoto.backup"));
  EXPECT_EQ(appliance::readFile(kDirectory + "/2020-01-02_030000/note"), "mine");
}

TEST_F(NightlyBackup, KeepsAsManyAsItIsTold) {
  addArchive("2020-01-01_030000");
  addArchive("2020-01-02_030000");
  standIn(R"(cp "$good" "$archive")");
  EXPECT_EQ(backUp({"KAVOPHOTO_BACKUP_KEEP=2"}).status, 0);
  EXPECT_THAT(names(), ElementsAre("2020-01-02_030000", MatchesRegex("20[0-9-]+_[0-9]{6}")));
}

TEST_F(NightlyBackup, FailsWhenNoArchiveWasMade) {
  addArchive("2020-01-01_030000");
  appliance::hideProgram("/usr/bin/pg_dump");
  const appliance::Outcome outcome = backUp({"KAVOPHOTO_BACKUP_KEEP=1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, EndsWith("nightly-backup: no archive was made; see journalctl -t kavophoto_backup\n"));
  expectMessages({"KavophotoDumpDB failed when dumping database.\n"});
  expectOnlyOlder();
}

TEST_F(NightlyBackup, FailsWhenTheToolFails) {
  addArchive("2020-01-01_030000");
  appliance::writeFile("/tmp/kavophoto_backup.pid", std::to_string(getpid()));
  const appliance::Outcome outcome = backUp({"KAVOPHOTO_BACKUP_KEEP=1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, HasSubstr("nightly-backup: kavophoto_backup ended with status 255"));
  expectMessages({"kavophoto_backup is already running.\n"});
  expectOnlyOlder();
}

TEST_F(NightlyBackup, FailsWhenTheArchiveIsCut) {
  addArchive("2020-01-01_030000");
  standIn(R"(head -c 2000 "$good" > "$archive")");
  const appliance::Outcome outcome = backUp({"KAVOPHOTO_BACKUP_KEEP=1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.err, EndsWith("nightly-backup: the archive cannot be read through\n"));
  expectOnlyOlder();
}

TEST_F(NightlyBackup, FailsWhenTheArchiveIsEmpty) {
  addArchive("2020-01-01_030000");
  standIn(R"(: > "$archive")");
  EXPECT_EQ(backUp({"KAVOPHOTO_BACKUP_KEEP=1"}).status, 1);
  expectOnlyOlder();
}

TEST_F(NightlyBackup, FailsWhenTheArchiveLacksAMember) {
  addArchive("2020-01-01_030000");
  for (const std::string& member : appliance::archiveMembers()) {
    standIn(R"(mkdir /tmp/part; cd /tmp/part; tar -xzf "$good"; rm -r )" + member +
            "; tar -czf \"$archive\" *; rm -r /tmp/part");
    const appliance::Outcome outcome = backUp({"KAVOPHOTO_BACKUP_KEEP=1"});
    EXPECT_EQ(outcome.status, 1) << member;
    EXPECT_THAT(outcome.err, HasSubstr("nightly-backup: the archive lacks " + member)) << member;
    expectOnlyOlder();
  }
}

TEST_F(NightlyBackup, RefusesSettingsThatMakeNoSense) {
  addArchive("2020-01-01_030000");
  for (const char* keep : {"0", "-1", "07", "seven", "1 2"}) {
    const appliance::Outcome outcome = backUp({std::string("KAVOPHOTO_BACKUP_KEEP=") + keep});
    EXPECT_EQ(outcome.status, 1) << keep;
    EXPECT_EQ(outcome.err,
              std::string("nightly-backup: KAVOPHOTO_BACKUP_KEEP is not a positive number: ") + keep + "\n");
  }
  EXPECT_EQ(backUp({"KAVOPHOTO_BACKUP_DIRECTORY=photos"}).err,
            "nightly-backup: KAVOPHOTO_BACKUP_DIRECTORY is not an absolute path: photos\n");
  expectOnlyOlder();
}

TEST_F(NightlyBackup, StartsAfreshAfterAnInterruptedOne) {
  appliance::writeFile(kDirectory + "/unfinished/kavophoto.backup", "half");
  EXPECT_EQ(backUp().status, 0);
  EXPECT_THAT(names(), ElementsAre(MatchesRegex("20[0-9-]+_[0-9]{6}")));
}

}  // namespace
