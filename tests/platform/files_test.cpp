#include "platform/files.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "support/tool_test.h"

namespace {

using appliance::readFile;
using appliance::writeFile;

constexpr const char* kPath = "/tmp/file";

class FilesTest : public appliance::ToolTest {};

TEST_F(FilesTest, WritingReplacesAndAppendingAdds) {
  writeFile(kPath, "a longer text than before");
  File file = openToWrite(kPath);
  ASSERT_TRUE(file);
  std::fputs("one\n", file.get());
  EXPECT_TRUE(closeWritten(std::move(file)));
  EXPECT_EQ(readFile(kPath), "one\n");
  file = openToAppend(kPath);
  ASSERT_TRUE(file);
  std::fputs("two\n", file.get());
  EXPECT_TRUE(closeWritten(std::move(file)));
  EXPECT_EQ(readFile(kPath), "one\ntwo\n");
}

TEST_F(FilesTest, FollowsNoSymbolicLink) {
  writeFile("/tmp/target", "kept");
  ASSERT_EQ(symlink("/tmp/target", kPath), 0);
  EXPECT_FALSE(openToWrite(kPath));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(openToAppend(kPath));
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(FilesTest, ReportsWhatDidNotReachTheDisk) {
  File file = openToWrite("/dev/full");
  ASSERT_TRUE(file);
  std::fputs("lost", file.get());
  EXPECT_FALSE(closeWritten(std::move(file)));
  appliance::checked();
}

TEST_F(FilesTest, RemovesOnlyWhatIsThere) {
  writeFile(kPath, "");
  EXPECT_TRUE(exists(kPath));
  removeIfThere(kPath);
  EXPECT_FALSE(appliance::exists(kPath));
  removeIfThere(kPath);
  expectNoMessages();
}

TEST_F(FilesTest, FailedRemovalIsLogged) {
  writeFile("/tmp/file/inner", "");
  removeIfThere(kPath);
  expectMessages({"Failed to remove /tmp/file (Directory not empty)"});
}

}  // namespace
