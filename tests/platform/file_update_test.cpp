#include "platform/file_update.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "support/tool_test.h"

namespace {

constexpr const char* kFile = "/tmp/folder/file";

class FileUpdated : public appliance::ToolTest {
 protected:
  static struct stat statusOf(const char* path) {
    struct stat status = {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status;
  }
  static long entriesIn(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return std::distance(begin(entries), end(entries));
  }
};

TEST_F(FileUpdated, HoldsTheNewTextWhole) {
  appliance::writeFile(kFile, "a longer old text\n");
  const std::string text = std::string("with \0 zero %s\n", 15) + std::string(300000, 'x');
  EXPECT_EQ(updateFile(kFile, text), FileUpdate::kWritten);
  EXPECT_EQ(appliance::readFile(kFile), text);
  EXPECT_EQ(updateFile(kFile, ""), FileUpdate::kWritten);
  EXPECT_EQ(appliance::readFile(kFile), "");
  EXPECT_EQ(entriesIn("/tmp/folder"), 1);
}

TEST_F(FileUpdated, KeepsItsOwnerGroupAndMode) {
  appliance::writeFile(kFile, "old", 0640);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(kFile, 1026, 65600), 0);
  }
  ASSERT_EQ(chmod(kFile, 02640), 0);
  const struct stat before = statusOf(kFile);
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kWritten);
  const struct stat after = statusOf(kFile);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(appliance::readFile(kFile), "new");
}

TEST_F(FileUpdated, IsReplacedAndNotRewritten) {
  appliance::writeFile(kFile, "old");
  ASSERT_EQ(::link(kFile, "/tmp/folder/reader"), 0);
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kWritten);
  EXPECT_EQ(appliance::readFile("/tmp/folder/reader"), "old");
}

TEST_F(FileUpdated, StaysBehindTheLinkThatLeadsToIt) {
  appliance::writeFile("/tmp/elsewhere/file", "old");
  appliance::makeDirectories("/tmp/folder");
  ASSERT_EQ(symlink("../elsewhere/file", kFile), 0);
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kWritten);
  EXPECT_TRUE(std::filesystem::is_symlink(kFile));
  EXPECT_EQ(appliance::readFile("/tmp/elsewhere/file"), "new");
  EXPECT_EQ(entriesIn("/tmp/elsewhere"), 1);
}

TEST_F(FileUpdated, ReplacesWhatAKilledRunLeftBesideIt) {
  appliance::writeFile(kFile, "old");
  appliance::writeFile("/tmp/precious", "kept");
  ASSERT_EQ(symlink("/tmp/precious", "/tmp/folder/file.tmp"), 0);
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kWritten);
  EXPECT_EQ(appliance::readFile(kFile), "new");
  EXPECT_EQ(appliance::readFile("/tmp/precious"), "kept");
  EXPECT_EQ(entriesIn("/tmp/folder"), 1);
}

TEST_F(FileUpdated, IsWrittenInPlaceWhereNothingCanBeMadeBesideIt) {
  appliance::writeFile(kFile, "a longer old text", 0640);
  appliance::makeDirectories("/tmp/folder/file.tmp");
  const struct stat before = statusOf(kFile);
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kWritten);
  EXPECT_EQ(appliance::readFile(kFile), "new");
  EXPECT_EQ(statusOf(kFile).st_ino, before.st_ino);
  EXPECT_TRUE(appliance::exists("/tmp/folder/file.tmp"));
}

TEST_F(FileUpdated, IsWrittenInPlaceWhereSomethingIsMountedOnIt) {
  appliance::writeFile(kFile, "old");
  ASSERT_EQ(mount(kFile, kFile, nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(updateFile(kFile, "the new text"), FileUpdate::kWritten);
  EXPECT_EQ(umount2(kFile, MNT_DETACH), 0);
  EXPECT_EQ(appliance::readFile(kFile), "the new text");
  EXPECT_EQ(entriesIn("/tmp/folder"), 1);
}

TEST_F(FileUpdated, KeepsItsTextOnAFullDisk) {
  appliance::mountSmall("/tmp/folder", 16384);
  appliance::writeFile(kFile, "old");
  errno = 0;
  EXPECT_EQ(updateFile(kFile, std::string(100000, 'x')), FileUpdate::kNotWritten);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(appliance::readFile(kFile), "old");
  EXPECT_EQ(entriesIn("/tmp/folder"), 1);
}

TEST_F(FileUpdated, SaysThatItIsFullWhenWrittenInPlace) {
  appliance::mountSmall("/tmp/folder", 16384);
  appliance::writeFile(kFile, "old");
  appliance::makeDirectories("/tmp/folder/file.tmp");
  errno = 0;
  EXPECT_EQ(updateFile(kFile, std::string(100000, 'x')), FileUpdate::kNotWritten);
  EXPECT_EQ(errno, ENOSPC);
  appliance::checked();
}

TEST_F(FileUpdated, IsNotOpenedWhenItIsMissingAFolderOrReadOnly) {
  EXPECT_EQ(updateFile("/tmp/missing", "new"), FileUpdate::kNotOpened);
  EXPECT_FALSE(appliance::exists("/tmp/missing"));
  appliance::makeDirectories("/tmp/folder");
  EXPECT_EQ(updateFile("/tmp/folder", "new"), FileUpdate::kNotOpened);
  appliance::writeFile(kFile, "old");
  appliance::mountReadOnly("/tmp/folder");
  EXPECT_EQ(updateFile(kFile, "new"), FileUpdate::kNotOpened);
  EXPECT_EQ(appliance::readFile(kFile), "old");
}

TEST_F(FileUpdated, IsNotOpenedWhenItIsAPipe) {
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  EXPECT_EQ(updateFile("/tmp/pipe", "new"), FileUpdate::kNotOpened);
  EXPECT_TRUE(std::filesystem::is_fifo("/tmp/pipe"));
  EXPECT_FALSE(appliance::exists("/tmp/pipe.tmp"));
}

TEST_F(FileUpdated, IsReadWhole) {
  const std::string text = std::string("zero \0 inside\n", 14) + std::string(200000, 'y');
  appliance::writeFile(kFile, text);
  std::string read = "before";
  EXPECT_TRUE(readWholeFile(kFile, read));
  EXPECT_EQ(read, text);
  appliance::checked();
}

TEST_F(FileUpdated, SaysWhyItCannotBeRead) {
  std::string text;
  errno = 0;
  EXPECT_FALSE(readWholeFile("/tmp/missing", text));
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_FALSE(readWholeFile("/tmp", text));
  EXPECT_EQ(errno, EISDIR);
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  errno = 0;
  EXPECT_FALSE(readWholeFile("/tmp/pipe", text));
  EXPECT_EQ(errno, EINVAL);
  appliance::checked();
}

TEST_F(FileUpdated, IsReadUpToSixtyFourMebibytes) {
  constexpr std::uintmax_t kMost = std::uintmax_t{64} << 20U;
  appliance::writeFile(kFile, "begin");
  std::filesystem::resize_file(kFile, kMost);
  std::string text;
  EXPECT_TRUE(readWholeFile(kFile, text));
  EXPECT_EQ(text.size(), kMost);
  EXPECT_EQ(text.substr(0, 5), "begin");
  std::filesystem::resize_file(kFile, kMost + 1);
  errno = 0;
  EXPECT_FALSE(readWholeFile(kFile, text));
  EXPECT_EQ(errno, EFBIG);
  appliance::checked();
}

TEST_F(FileUpdated, IsNotReadOnWhenItHoldsMoreThanItClaims) {
  // One entry for every page that a process could have, in a file that claims to be empty.
  constexpr const char* kEndless = "/proc/self/pagemap";
  EXPECT_EQ(statusOf(kEndless).st_size, 0);
  std::string text;
  errno = 0;
  EXPECT_FALSE(readWholeFile(kEndless, text));
  EXPECT_EQ(errno, EFBIG);
  appliance::checked();
}

}  // namespace
