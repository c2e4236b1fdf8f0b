#include "restore/settings.h"

#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::writeFile;

constexpr const char* kLive = "/var/packages/Lumora/etc/settings.conf";
constexpr const char* kMerged = "/var/packages/Lumora/etc/settings.conf.tmp";
constexpr const char* kSaved = "/tmp/backup/settings.conf.bak";

class SettingsTest : public appliance::ToolTest {
 protected:
  static int restore() { return KavophotoRestoreSetting("/tmp/backup/", kSaved); }

  static std::string mergedFrom(const std::string& saved, const std::string& live) {
    writeFile(kSaved, saved);
    writeFile(kLive, live);
    EXPECT_EQ(restore(), 0);
    EXPECT_FALSE(exists(kMerged));
    return readFile(kLive);
  }
};

TEST_F(SettingsTest, SavedValuesWinAndLiveOnlyKeysStay) {
  EXPECT_EQ(mergedFrom("b=\"saved b\"\na=\"saved a\"\n", "z=\"live z\"\na=\"live a\"\nc=\"live c\"\n"),
            "b=\"saved b\"\na=\"saved a\"\nz=\"live z\"\nc=\"live c\"\n");
}

TEST_F(SettingsTest, EmptySavedValueWinsToo) { EXPECT_EQ(mergedFrom("a=\"\"\n", "a=\"live\"\n"), "a=\"\"\n"); }

TEST_F(SettingsTest, EmptySavedFileKeepsTheLiveOne) {
  EXPECT_EQ(mergedFrom("", "a=\"live\"\nb=\"live\"\n"), "a=\"live\"\nb=\"live\"\n");
}

TEST_F(SettingsTest, ReadsEverySpellingAndWritesOne) {
  EXPECT_EQ(mergedFrom("# comment=\"x\"\n  a = \"1\"  \r\nno pair\nb=2\na=3", "c =  \"with \"quotes\" = and %s\"\n"),
            "a=\"3\"\nb=\"2\"\nc=\"with \"quotes\" = and %s\"\n");
}

TEST_F(SettingsTest, CarriesManyKeys) {
  std::string saved;
  std::string live;
  for (int key = 0; key < 10000; ++key) {
    saved += "saved" + std::to_string(key) + "=\"1\"\n";
    live += "live" + std::to_string(key) + "=\"2\"\n";
  }
  EXPECT_TRUE(mergedFrom(saved, live) == saved + live);
}

TEST_F(SettingsTest, MissingLiveFileCountsAsEmpty) {
  writeFile(kSaved, "a=\"1\"\n");
  appliance::removeAll(kLive);
  EXPECT_EQ(restore(), 0);
  EXPECT_EQ(readFile(kLive), "a=\"1\"\n");
}

TEST_F(SettingsTest, KeepsTheModeOfTheLiveFile) {
  writeFile(kSaved, "a=\"1\"\n");
  writeFile(kLive, "", 0600);
  EXPECT_EQ(restore(), 0);
  appliance::RunOptions options;
  options.program = "/usr/bin/stat";
  EXPECT_EQ(appliance::runTool({"-c", "%a", kLive}, options).out, "600\n");
  EXPECT_EQ(readFile(kLive), "a=\"1\"\n");
}

TEST_F(SettingsTest, UnreadableSavedFileChangesNothing) {
  const std::string live = readFile(kLive);
  EXPECT_EQ(restore(), -1);
  appliance::makeDirectories(kSaved);
  EXPECT_EQ(restore(), -1);
  expectMessages({"KavophotoRestoreSetting: read /tmp/backup/settings.conf.bak failed\n",
                  "KavophotoRestoreSetting: read /tmp/backup/settings.conf.bak failed\n"});
  EXPECT_EQ(readFile(kLive), live);
}

TEST_F(SettingsTest, LiveFileThatCannotBeReadIsNotOverwritten) {
  writeFile(kSaved, "a=\"1\"\n");
  appliance::removeAll(kLive);
  appliance::makeDirectories(kLive);
  EXPECT_EQ(restore(), -1);
  expectMessages({"KavophotoRestoreSetting: read /var/packages/Lumora/etc/settings.conf failed\n"});
  EXPECT_FALSE(exists(kMerged));
}

TEST_F(SettingsTest, MergedFileThatCannotBeWrittenLeavesTheLiveOne) {
  writeFile(kSaved, "a=\"1\"\n");
  const std::string live = readFile(kLive);
  appliance::makeDirectories(kMerged);
  EXPECT_EQ(restore(), -1);
  expectMessages({"KavophotoRestoreSetting: write setting config failed"});
  EXPECT_EQ(readFile(kLive), live);
}

TEST_F(SettingsTest, FullDiskLeavesTheLiveFile) {
  writeFile(kSaved, "a=\"" + std::string(100000, 'x') + "\"\n");
  appliance::mountSmall("/var/packages/Lumora/etc", 65536);
  writeFile(kLive, "b=\"2\"\n");
  EXPECT_EQ(restore(), -1);
  expectMessages({"KavophotoRestoreSetting: write setting config failed"});
  EXPECT_EQ(readFile(kLive), "b=\"2\"\n");
}

TEST_F(SettingsTest, FailingCopyIsLoggedWithBothPaths) {
  writeFile(kSaved, "a=\"1\"\n");
  const std::string live = readFile(kLive);
  replaceProgram("/bin/cp", R"(printf '%s\n' "$@" > /tmp/recorded; exit 1)");
  EXPECT_EQ(restore(), -1);
  expectMessages(
      {"KavophotoRestoreSetting: copy /var/packages/Lumora/etc/settings.conf.tmp to "
       "/var/packages/Lumora/etc/settings.conf failed\n"});
  EXPECT_EQ(readFile("/tmp/recorded"),
            "/var/packages/Lumora/etc/settings.conf.tmp\n/var/packages/Lumora/etc/settings.conf\n");
  EXPECT_EQ(readFile(kLive), live);
}

TEST_F(SettingsTest, FailingRemovalIsLoggedAfterTheMerge) {
  writeFile(kSaved, "a=\"1\"\n");
  replaceProgram("/bin/rm", R"(printf '%s\n' "$@" > /tmp/recorded; exit 1)");
  EXPECT_EQ(restore(), -1);
  expectMessages({"KavophotoRestoreSetting: remove /var/packages/Lumora/etc/settings.conf.tmp failed\n"});
  EXPECT_EQ(readFile("/tmp/recorded"), "-f\n/var/packages/Lumora/etc/settings.conf.tmp\n");
  EXPECT_THAT(readFile(kLive), ::testing::StartsWith("a=\"1\"\n"));
}

}  // namespace
