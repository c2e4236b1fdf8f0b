#include <filesystem>
#include <fstream>

#include "faults/crash_matrix.h"
#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::workDirectory;
using appliance::writeFile;
using crash::Mode;

using Messages = std::vector<std::string>;

const std::string kSettings = "/var/packages/Lumora/etc/settings.conf";
const std::string kCannot = "Cant restore Photo DB.\n";

class Files : public appliance::ToolTest {
 protected:
  appliance::Outcome runMode(Mode mode) { return run(crash::commandLine(mode)); }

  static void fill(const std::string& folder) {
    std::ofstream filler(folder + "/filler", std::ios::binary);
    while (filler.put('x').flush()) {
    }
  }
};

TEST_F(Files, ArchiveCutAtAnyOfTwentyPlacesLeavesTheDatabaseAsItWas) {
  crash::layOut(Mode::kRestoreOverwrite);
  const std::string archive = workDirectory() + "kavophoto.backup";
  const std::string whole = readFile(archive);
  const auto before = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  for (std::size_t place = 0; place < 20; ++place) {
    writeFile(archive, whole.substr(0, whole.size() * place / 20));
    EXPECT_EQ(runMode(Mode::kRestoreOverwrite).status, 255) << place;
    expectMessages({"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
  }
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_EQ(appliance::structure("photo"), structure);
  EXPECT_FALSE(exists(workDirectory() + "kavophoto_backup.dump"));
}

TEST_F(Files, FullDiskUnderTheUnpackedArchiveLeavesTheDatabaseAsItWas) {
  crash::layOut(Mode::kRestoreOverwrite);
  const std::string whole = readFile(workDirectory() + "kavophoto.backup");
  const auto before = appliance::contents("photo");
  appliance::mountSmall("/tmp/backup", (whole.size() / 4096 + 2) * 4096);
  writeFile(workDirectory() + "kavophoto.backup", whole);
  EXPECT_EQ(runMode(Mode::kRestoreOverwrite).status, 255);
  expectMessages({"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_EQ(readFile(workDirectory() + "kavophoto.backup"), whole);
}

TEST_F(Files, FullDiskUnderThePidFileIsLoggedAndTheRunGoesOn) {
  appliance::mountSmall("/tmp", 65536);
  appliance::makeDirectories(workDirectory());
  fill("/tmp");
  EXPECT_EQ(run({"-e", workDirectory()}).status, 0);
  expectMessages({"Failed to write /tmp/kavophoto_backup.pid (No space left on device)"});
}

TEST_F(Files, SettingsThatCannotBeInstalledStayBesideTheLiveOnes) {
  crash::layOut(Mode::kRestoreSkip);
  replaceProgram("/bin/cp", R"(case "$1" in *settings.conf.tmp) exit 1 ;; esac; exec "$REAL" "$@")");
  EXPECT_EQ(runMode(Mode::kRestoreSkip).status, 0);
  const Messages messages = appliance::takeMessages();
  EXPECT_THAT(messages, testing::IsSupersetOf({"KavophotoRestoreSetting: copy "
                                               "/var/packages/Lumora/etc/settings.conf.tmp to "
                                               "/var/packages/Lumora/etc/settings.conf failed\n",
                                               "Restore Setting Config Failed"}));
  EXPECT_EQ(readFile(kSettings), "site_name=\"Live\"\nlive=\"yes\"\n");
  EXPECT_EQ(readFile(kSettings + ".tmp"), "site_name=\"Saved\"\nsaved=\"yes\"\nlive=\"yes\"\n");
}

TEST_F(Files, SettingsKeepBinaryZeros) {
  crash::layOut(Mode::kRestoreSkip);
  const std::string zeros("zero=\"a\0b\"\n", 11);
  writeFile(kSettings, zeros);
  EXPECT_EQ(runMode(Mode::kRestoreSkip).status, 0);
  appliance::takeMessages();
  EXPECT_EQ(readFile(kSettings), "site_name=\"Saved\"\nsaved=\"yes\"\n" + zeros);
}

// A program that is not there, fails, or is killed.
struct Broken {
  const char* name;
  const char* script;
};

class BrokenProgram : public Files, public ::testing::WithParamInterface<Broken> {
 protected:
  static void breakProgram(const std::string& path) {
    if (*GetParam().script == '\0') {
      appliance::hideProgram(path);
    } else {
      replaceProgram(path, GetParam().script);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Ways, BrokenProgram,
                         ::testing::Values(Broken{"Missing", ""}, Broken{"Failing", "exit 3"},
                                           Broken{"Killed", "kill -9 $$"}),
                         [](const auto& way) { return way.param.name; });

TEST_P(BrokenProgram, LeavesTheDatabaseAsItWasInABackup) {
  crash::layOut(Mode::kBackup);
  const auto before = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  const std::vector<std::pair<std::string, Messages>> programs = {
      {"/usr/bin/pg_dump", {"KavophotoDumpDB failed when dumping database.\n"}},
      {"/bin/tar", {"KavophotoDumpDB failed when tar files.\n"}},
      {"/bin/cp",
       {"KavophotoCopyThemeDir: failed to copy kept.css.\n", "KavophotoCopyThemeDir: failed to copy live.css.\n",
        "Copy /var/packages/Lumora/etc/settings failed.\n"}},
      {"/bin/rm",
       {"KavophotoDumpDB failed when rm theme_bak.\n", "KavophotoDumpDB failed when rm settings.conf.bak\n"}},
  };
  for (const auto& [program, messages] : programs) {
    breakProgram(program);
    EXPECT_EQ(runMode(Mode::kBackup).status, 0);
    EXPECT_THAT(appliance::takeMessages(), testing::UnorderedElementsAreArray(messages)) << program;
    EXPECT_EQ(appliance::contents("photo"), before) << program;
    EXPECT_EQ(appliance::structure("photo"), structure) << program;
    appliance::restorePrograms();
    std::filesystem::remove_all(workDirectory() + "theme_bak");
  }
}

TEST_P(BrokenProgram, RenamingTheTablesLeavesThemWhereTheyAre) {
  crash::layOut(Mode::kBackup);
  const auto before = appliance::contents("photo");
  breakProgram("/usr/bin/psql");
  EXPECT_EQ(runMode(Mode::kBackup).status, 0);
  Messages expected;
  for (const std::string& table : appliance::tableNames()) {
    expected.push_back("KavophotoTableRename: Fail to rename table " + table + "\n");
  }
  expected.emplace_back("KavophotoDumpDB failed when dumping database.\n");
  for (const std::string& table : appliance::tableNames()) {
    expected.push_back("KavophotoTableRenameBack: Fail to rename back table " + table + "\n");
  }
  expectMessages(expected);
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_P(BrokenProgram, LeavesTheDatabaseAsItWasInARestoreThatCannotDoWithout) {
  crash::layOut(Mode::kRestoreOverwrite);
  const auto before = appliance::contents("photo");
  breakProgram("/bin/tar");
  EXPECT_EQ(runMode(Mode::kRestoreOverwrite).status, 255);
  expectMessages({"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
  appliance::restorePrograms();

  breakProgram("/usr/bin/pg_restore");
  EXPECT_EQ(runMode(Mode::kRestoreOverwrite).status, 255);
  expectMessages(
      {"Failed when executing commend: /usr/bin/pg_restore -U postgres -l "
       "/tmp/backup/kavophoto_backup.dump\n",
       "KavophotoRestoreDB failed when get TOC entries list.\n", kCannot});
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_P(BrokenProgram, IsDoneWithoutInARestoreThatCan) {
  const crash::Reference& reference = crash::referenceOf(Mode::kRestoreOverwrite);
  crash::layOut(Mode::kRestoreOverwrite);
  for (const char* program : {"/usr/bin/psql", "/bin/cp", "/bin/rm"}) {
    breakProgram(program);
  }
  EXPECT_EQ(runMode(Mode::kRestoreOverwrite).status, 0);
  Messages expected;
  for (const char* table : {"photo_image_bak", "video_comment_bak", "video_desc_bak", "photo_video_label_bak"}) {
    expected.push_back(std::string("addDBPrimaryKey failed (/usr/bin/psql photo -U postgres -c ALTER TABLE ") + table +
                       " ADD CONSTRAINT " + table + "_pkey PRIMARY KEY (id)).");
  }
  expected.push_back("KavophotoRestoreSetting: copy " + kSettings + ".tmp to " + kSettings + " failed\n");
  for (const char* message :
       {"Restore Setting Config Failed", "KavophotoRestoreTheme: failed to copy kept.css.\n",
        "KavophotoRestoreTheme: failed to copy new.css.\n", "KavophotoDumpDB failed when rm theme_bak.\n"}) {
    expected.emplace_back(message);
  }
  expected.insert(expected.end(), reference.after.messages.begin(), reference.after.messages.end());
  EXPECT_THAT(appliance::takeMessages(), testing::UnorderedElementsAreArray(expected));
  EXPECT_EQ(named::rows(live()), reference.after.rows);
}

}  // namespace
