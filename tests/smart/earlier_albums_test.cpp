#include "smart/earlier_albums.h"

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "platform/file_digest.h"
#include "support/tool_test.h"

namespace {

using appliance::workDirectory;

const std::string kFile = "/var/packages/Lumora/etc/smart_albums.before";

std::string notKept(const std::string& reason) {
  return "Failed to write file [" + kFile + "] (" + reason +
         "), the smart albums are translated twice when this is run again";
}

class EarlierAlbums : public appliance::ToolTest {
 protected:
  void TearDown() override {
    EXPECT_FALSE(appliance::exists(kFile + ".tmp"));
    ToolTest::TearDown();
  }
};

TEST_F(EarlierAlbums, AreGivenForWhatRunsOfTheSameOriginMadeOfThem) {
  EXPECT_EQ(textBefore("a", "found"), "found");
  keepTextBefore("a", "found", "found", "made first");
  EXPECT_EQ(textBefore("a", "found"), "found");
  EXPECT_EQ(textBefore("a", "made first"), "found");
  EXPECT_EQ(textBefore("b", "made first"), "made first");
  EXPECT_EQ(textBefore("", "made first"), "made first");
  EXPECT_EQ(textBefore("a", "edited"), "edited");

  // Whether the file is written after this or not.
  keepTextBefore("a", "made first", "found", "made then");
  EXPECT_EQ(textBefore("a", "made first"), "found");
  EXPECT_EQ(textBefore("a", "made then"), "found");

  keepTextBefore("a", "edited", "edited", "made of it");
  EXPECT_EQ(textBefore("a", "made of it"), "edited");
  EXPECT_EQ(textBefore("a", "made then"), "made then");
}

TEST_F(EarlierAlbums, AreKeptForAnotherOriginWhileTheFileMayHoldWhatItMade) {
  keepTextBefore("a", "found", "found", "made by a");
  keepTextBefore("b", "made by a", "made by a", "made by b");
  EXPECT_EQ(textBefore("a", "made by a"), "found");
  EXPECT_EQ(textBefore("b", "made by b"), "made by a");
  // The file was written by b.
  keepTextBefore("c", "made by b", "made by b", "made by c");
  EXPECT_EQ(textBefore("a", "made by a"), "made by a");
  EXPECT_EQ(textBefore("b", "made by b"), "made by a");
  EXPECT_EQ(textBefore("c", "made by c"), "made by b");
}

TEST_F(EarlierAlbums, TakeNoMoreRoomHoweverOftenACommandIsRun) {
  std::string present = "found";
  for (int run = 0; run < 20; ++run) {
    const std::string made = "made by " + std::to_string(run);
    EXPECT_EQ(textBefore("a", present), "found");
    keepTextBefore("a", present, "found", made);
    keepTextBefore("a", present, "found", made);
    present = made;
  }
  EXPECT_EQ(appliance::readFile(kFile),
            "[\n\t{\n\t\t\"after\" : \n\t\t[\n\t\t\t\"made by 18\",\n\t\t\t\"made by 19\"\n\t\t],\n"
            "\t\t\"before\" : \"found\",\n\t\t\"origin\" : \"a\"\n\t}\n]");
}

TEST_F(EarlierAlbums, AreReadByNobodyElse) {
  keepTextBefore("a", "found", "found", "made");
  struct stat status = {};
  ASSERT_EQ(stat(kFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(EarlierAlbums, AreNotKeptWithoutAnOrigin) {
  keepTextBefore("", "found", "found", "made");
  EXPECT_FALSE(appliance::exists(kFile));
}

TEST_F(EarlierAlbums, AreNotTakenFromADamagedFile) {
  const std::string deep(100000, '[');
  for (const std::string& text :
       {std::string(), std::string("["), std::string("{}"), std::string("7"), deep,
        std::string(R"([{"origin":"a","before":"found","after":["made",)") + deep + std::string(100000, ']') + "]}]",
        std::string(R"({"run":1,"before":"found","after":["made"]})"), std::string(R"(["a",7,null,["made"]])"),
        std::string(R"([{"before":"found","after":["made"]}])"),
        std::string(R"([{"origin":1,"before":"found","after":["made"]}])"),
        std::string(R"([{"origin":"a","before":7,"after":["made"]}])"),
        std::string(R"([{"origin":"a","before":"found","after":"made"}])"),
        std::string(R"([{"origin":"a","before":"found","after":["made",7]}])")}) {
    appliance::writeFile(kFile, text);
    EXPECT_EQ(textBefore("a", "made"), "made") << text.substr(0, 100);
    keepTextBefore("a", "found", "found", "made");
    EXPECT_EQ(textBefore("a", "made"), "found") << text.substr(0, 100);
  }
  // What else is in the file is none the worse.
  appliance::writeFile(kFile, R"([7,{"origin":"a","before":"found","after":["made"]}])");
  EXPECT_EQ(textBefore("a", "made"), "found");
}

TEST_F(EarlierAlbums, AreNotTakenFromAnOversizedFile) {
  keepTextBefore("a", "found", "found", "made");
  std::filesystem::resize_file(kFile, (std::uintmax_t{64} << 20U) + 1);
  EXPECT_EQ(textBefore("a", "made"), "made");
  keepTextBefore("a", "found", "found", "made");
  EXPECT_EQ(textBefore("a", "made"), "found");
}

TEST_F(EarlierAlbums, AreDoneWithoutWhereTheyCannotBeKept) {
  appliance::makeDirectories(kFile + "/folder");
  keepTextBefore("a", "found", "found", "made");
  expectMessages({notKept("Is a directory")});
  EXPECT_EQ(textBefore("a", "made"), "made");
  appliance::removeAll(kFile);

  appliance::makeDirectories(kFile + ".tmp/folder");
  keepTextBefore("a", "found", "found", "made");
  expectMessages({notKept("File exists")});
  EXPECT_FALSE(appliance::exists(kFile));
  appliance::removeAll(kFile + ".tmp");

  keepTextBefore("a", "found", std::string(std::size_t{64} << 20U, 'x'), "made");
  expectMessages({notKept("File too large")});
  EXPECT_FALSE(appliance::exists(kFile));

  appliance::mountSmall("/var/packages/Lumora/etc", 8 * 4096);
  keepTextBefore("a", "found", std::string(20 * 4096, 'x'), "made");
  expectMessages({notKept("No space left on device")});
  EXPECT_FALSE(appliance::exists(kFile));
}

TEST_F(EarlierAlbums, OfAnImportComeFromADirectoryAndADatabase) {
  EXPECT_EQ(importOrigin("/tmp/backup/", "other"), "import /tmp/backup other");
  EXPECT_EQ(importOrigin("/tmp/backup", "other"), "import /tmp/backup other");
  EXPECT_EQ(importOrigin("/tmp/missing/", "other"), "");
  std::filesystem::create_symlink("backup", "/tmp/link");
  EXPECT_EQ(importOrigin("/tmp/link/", "other"), "import /tmp/backup other");
  appliance::makeDirectories("/tmp/a b\n%\xFF");
  EXPECT_EQ(importOrigin("/tmp/a b\n%\xFF/", "c d\xC3\xA9"), "import /tmp/a%20b%0a%25%ff c%20d%c3%a9");
  appliance::checked();
}

TEST_F(EarlierAlbums, OfARestoreComeFromADirectoryAndAnArchive) {
  const std::string archive = workDirectory() + "kavophoto.backup";
  EXPECT_EQ(restoreOrigin(workDirectory()), "");
  appliance::writeFile(archive, "abc");
  EXPECT_EQ(restoreOrigin(workDirectory()), "restore /tmp/backup " + fileDigest(archive));
  EXPECT_EQ(restoreOrigin("/tmp/../tmp/backup/"), "restore /tmp/backup " + fileDigest(archive));
  appliance::removeAll(archive);
  ASSERT_EQ(mkfifo(archive.c_str(), 0600), 0);
  EXPECT_EQ(restoreOrigin(workDirectory()), "");
  appliance::checked();
}

}  // namespace
