#include "restore/toc.h"

#include <unistd.h>

#include "support/tool_test.h"

namespace {

using appliance::exists;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::writeFile;

class TocTest : public appliance::ToolTest {
 protected:
  // What the list file holds when pg_restore prints this.
  static std::string listOf(const std::string& listing) {
    writeFile("/tmp/listing", listing);
    replaceProgram("/usr/bin/pg_restore", "cat /tmp/listing");
    EXPECT_EQ(makeTocFile("/tmp/backup/"), 0);
    return readFile("/tmp/backup/toc_file");
  }
};

TEST_F(TocTest, KeepsTheLinesThatNameTables) {
  const std::string listing =
      ";\n; Archive created at 2026-03-07\n;     dbname: photo\n\n"
      "215; 1259 16400 TABLE public photo_share_bak postgres\n"
      "216; 1259 16401 SEQUENCE public photo_label_id_seq postgres\n"
      "3400; 0 0 SEQUENCE OWNED BY public photo_label_id_seq postgres\n"
      "; a comment about TABLES\n"
      "\n\n"
      "3401; 0 16400 TABLE DATA public photo_share_bak postgres\n"
      "3402; 2606 16402 CONSTRAINT public photo_share_bak photo_share_pkey postgres\n"
      "3403; 1259 16403 INDEX public photo_share_sharename_index postgres\n"
      "3404; 0 0 table lower case\n"
      "the last line names a TABLE and has no end";
  const std::string kept =
      "215; 1259 16400 TABLE public photo_share_bak postgres\n"
      "; a comment about TABLES\n"
      "3401; 0 16400 TABLE DATA public photo_share_bak postgres\n"
      "the last line names a TABLE and has no end\n";
  EXPECT_EQ(tableEntries(listing), kept);
  EXPECT_EQ(listOf(listing), kept);
}

TEST_F(TocTest, EmptyListingMakesAnEmptyList) {
  EXPECT_EQ(tableEntries(""), "");
  EXPECT_EQ(tableEntries("\n\n\n"), "");
  EXPECT_EQ(listOf(""), "");
}

TEST_F(TocTest, ListingWithoutTablesMakesAnEmptyList) {
  EXPECT_EQ(listOf("1; SEQUENCE public x\n2; INDEX public y\n"), "");
}

TEST_F(TocTest, ReplacesAnOldList) {
  writeFile("/tmp/backup/toc_file", "old entries that are longer than the new ones TABLE\n");
  EXPECT_EQ(listOf("TABLE\n"), "TABLE\n");
}

TEST_F(TocTest, HoldsAListingLargerThanAPipe) {
  std::string listing;
  for (int line = 0; line < 20000; ++line) {
    listing += std::to_string(line) + "; TABLE public photo_share_bak postgres\n";
  }
  EXPECT_TRUE(listOf(listing) == listing);
}

TEST_F(TocTest, AsksForTheDumpOfTheDirectory) {
  replaceProgram("/usr/bin/pg_restore", R"(printf '%s\n' "$@" > /tmp/recorded)");
  EXPECT_EQ(makeTocFile("/tmp/backup/"), 0);
  EXPECT_EQ(readFile("/tmp/recorded"), "-U\npostgres\n-l\n/tmp/backup/kavophoto_backup.dump\n");
}

TEST_F(TocTest, FailingListingIsLoggedWithItsCommand) {
  writeFile("/tmp/backup/kavophoto_backup.dump", "no dump");
  writeFile("/tmp/backup/toc_file.tmp", "");
  EXPECT_EQ(makeTocFile("/tmp/backup/"), -1);
  expectMessages(
      {"Failed when executing commend: /usr/bin/pg_restore -U postgres -l /tmp/backup/kavophoto_backup.dump\n"});
  EXPECT_FALSE(exists("/tmp/backup/toc_file"));
  EXPECT_FALSE(exists("/tmp/backup/toc_file.tmp"));
}

TEST_F(TocTest, ListThatCannotBeOpenedIsLoggedWithItsPath) {
  appliance::makeDirectories("/tmp/backup/toc_file");
  replaceProgram("/usr/bin/pg_restore", "echo TABLE");
  EXPECT_EQ(makeTocFile("/tmp/backup/"), -1);
  expectMessages({"Failed to open file: /tmp/backup/toc_file.\n"});
}

TEST_F(TocTest, SymbolicLinkInPlaceOfTheListIsNotFollowed) {
  writeFile("/tmp/target", "kept");
  ASSERT_EQ(symlink("/tmp/target", "/tmp/backup/toc_file"), 0);
  replaceProgram("/usr/bin/pg_restore", "echo TABLE");
  EXPECT_EQ(makeTocFile("/tmp/backup/"), -1);
  expectMessages({"Failed to open file: /tmp/backup/toc_file.\n"});
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(TocTest, FullDiskUnderTheListIsLogged) {
  appliance::mountSmall("/tmp/backup", 4096);
  replaceProgram("/usr/bin/pg_restore", "seq -f 'TABLE %g' 10000");
  EXPECT_EQ(makeTocFile("/tmp/backup/"), -1);
  expectMessages({"Failed to write file: /tmp/backup/toc_file.\n"});
}

TEST_F(TocTest, RemovesATemporaryList) {
  writeFile("/tmp/backup/toc_file.tmp", "");
  EXPECT_EQ(listOf("TABLE\n"), "TABLE\n");
  EXPECT_FALSE(exists("/tmp/backup/toc_file.tmp"));
}

TEST(ForeignRows, AreThoseOfAnyTableThatIsNoStagedCopy) {
  const std::string copies =
      "; TABLE DATA public of a comment\n\n"
      "215; 1259 16412 TABLE public photo_label_bak postgres\n"
      "216; 1259 16413 TABLE public anything postgres\n"
      "3312; 0 16412 TABLE DATA public photo_label_bak postgres\n"
      "3313; 0 16413 TABLE DATA public photo_image_bak some body\n";
  EXPECT_EQ(foreignRows(copies), std::nullopt);
  EXPECT_EQ(foreignRows(""), std::nullopt);
  EXPECT_EQ(foreignRows(copies + "3314; 0 16414 TABLE DATA public photo_label postgres"),
            "public photo_label postgres");
  EXPECT_EQ(foreignRows(copies + "3314; 0 16414 TABLE DATA other photo_label_bak postgres\n"),
            "other photo_label_bak postgres");
}

}  // namespace
