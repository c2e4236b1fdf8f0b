#include "restore/theme.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/overwrite_mode.h"
#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::writeFile;

const std::string kLive = "/var/packages/Lumora/etc/blog/";
const std::string kSaved = "/tmp/backup/theme_bak/";

class ThemeTest : public appliance::ToolTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    gIsOverwiroteMode = GetParam();
    appliance::makeDirectories(kSaved);
  }

  void TearDown() override {
    gIsOverwiroteMode = false;
    ToolTest::TearDown();
  }
};

INSTANTIATE_TEST_SUITE_P(Modes, ThemeTest, ::testing::Bool(),
                         [](const auto& mode) { return std::string(mode.param ? "Overwrite" : "Skip"); });

TEST_P(ThemeTest, LiveFilesAreReplacedOnlyInOverwriteMode) {
  writeFile(kSaved + "both.css", "saved");
  writeFile(kSaved + "new.css", "saved");
  writeFile(kLive + "both.css", "live");
  writeFile(kLive + "only.css", "live");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectNoMessages();
  EXPECT_EQ(readFile(kLive + "both.css"), GetParam() ? "saved" : "live");
  EXPECT_EQ(readFile(kLive + "new.css"), "saved");
  EXPECT_EQ(readFile(kLive + "only.css"), "live");
}

TEST_P(ThemeTest, ModesAndTimesAreKept) {
  writeFile(kSaved + "a.css", "saved", 0640);
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (kSaved + "a.css").c_str(), times, 0), 0);
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  struct stat status = {};
  ASSERT_EQ(stat((kLive + "a.css").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_mtime, 1000000000);
  expectNoMessages();
}

TEST_P(ThemeTest, NamesOfAnySpellingAreCopied) {
  for (const char* name : {"a b", "-rf", "%s%n", "quote'\"", "new\nline"}) {
    writeFile(kSaved + name, name);
  }
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectNoMessages();
  for (const char* name : {"a b", "-rf", "%s%n", "quote'\"", "new\nline"}) {
    EXPECT_EQ(readFile(kLive + name), name);
  }
}

TEST_P(ThemeTest, StartsCopyWithBothPaths) {
  writeFile(kSaved + "a.css", "x");
  replaceProgram("/bin/cp", R"(printf '%s\n' "$@" > /tmp/recorded)");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  EXPECT_EQ(readFile("/tmp/recorded"), "-pf\n/tmp/backup/theme_bak/a.css\n/var/packages/Lumora/etc/blog/\n");
}

TEST_P(ThemeTest, GoesOnAfterAnEntryThatCannotBeCopied) {
  appliance::makeDirectories(kSaved + "%s folder");
  writeFile(kSaved + "good.css", "x");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectMessages({"KavophotoRestoreTheme: failed to copy %s folder.\n"});
  EXPECT_TRUE(exists(kLive + "good.css"));
}

// What the copy has written by then stays, and only overwriting replaces it.
TEST_P(ThemeTest, FullDiskLeavesACutFileUntilRunWithOverwriting) {
  appliance::mountSmall(kLive, 4 * 4096);
  const std::string text(10 * 4096, 'x');
  writeFile(kSaved + "large.css", text);
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectMessages({"KavophotoRestoreTheme: failed to copy large.css.\n"});
  EXPECT_LT(readFile(kLive + "large.css").size(), text.size());

  writeFile("/tmp/cut.css", readFile(kLive + "large.css"));
  appliance::unmountAll();
  writeFile(kLive + "large.css", readFile("/tmp/cut.css"));
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectNoMessages();
  EXPECT_EQ(readFile(kLive + "large.css") == text, GetParam());
}

TEST_P(ThemeTest, EmptySavedDirectoryCopiesNothing) {
  replaceProgram("/bin/cp", "touch /tmp/started");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  EXPECT_FALSE(exists("/tmp/started"));
}

TEST_P(ThemeTest, MissingSavedDirectoryIsAFailure) {
  appliance::removeAll(kSaved);
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), -1);
  expectMessages({"KavophotoRestoreTheme : Fail to open theme_bak.\n"});
}

TEST_P(ThemeTest, MissingLiveDirectoryFailsEveryCopy) {
  appliance::removeAll("/var/packages/Lumora/etc/blog");
  writeFile(kSaved + "a.css", "x");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  expectMessages({"KavophotoRestoreTheme: failed to copy a.css.\n"});
}

// cp would wait for a reader.
TEST_P(ThemeTest, PipeInThePlaceOfALiveThemeStays) {
  const std::string live = kLive + "a.css";
  writeFile(kSaved + "a.css", "x");
  writeFile(kSaved + "b.css", "x");
  ASSERT_EQ(mkfifo(live.c_str(), 0600), 0);
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  if (GetParam()) {
    expectMessages({"KavophotoRestoreTheme: failed to copy a.css.\n"});
  }
  struct stat status = {};
  ASSERT_EQ(stat(live.c_str(), &status), 0);
  EXPECT_TRUE(S_ISFIFO(status.st_mode));
  EXPECT_EQ(readFile(kLive + "b.css"), "x");
}

TEST_P(ThemeTest, FolderInThePlaceOfALiveThemeStays) {
  writeFile(kSaved + "a.css", "x");
  appliance::makeDirectories(kLive + "a.css");
  EXPECT_EQ(KavophotoRestoreTheme("/tmp/backup/"), 0);
  if (GetParam()) {
    expectMessages({"KavophotoRestoreTheme: failed to copy a.css.\n"});
  }
  EXPECT_FALSE(exists(kLive + "a.css/a.css"));
}

}  // namespace
