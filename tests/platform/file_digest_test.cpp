#include "platform/file_digest.h"

#include <sys/stat.h>

#include <filesystem>

#include "support/tool_test.h"

namespace {

const std::string kFile = "/tmp/file";

class FileDigest : public appliance::ToolTest {};

TEST_F(FileDigest, IsTheOneThatOthersCompute) {
  appliance::writeFile(kFile, "");
  EXPECT_EQ(fileDigest(kFile), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  appliance::writeFile(kFile, "abc");
  EXPECT_EQ(fileDigest(kFile), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  // Longer than one read.
  appliance::writeFile(kFile, std::string(1000000, 'a'));
  EXPECT_EQ(fileDigest(kFile), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  appliance::checked();
}

TEST_F(FileDigest, FollowsALinkToAnOrdinaryFileOnly) {
  appliance::writeFile(kFile, "abc");
  std::filesystem::create_symlink("file", "/tmp/link");
  EXPECT_EQ(fileDigest("/tmp/link"), fileDigest(kFile));
  EXPECT_EQ(fileDigest("/tmp/missing"), "");
  EXPECT_EQ(fileDigest("/tmp"), "");
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  EXPECT_EQ(fileDigest("/tmp/pipe"), "");
  EXPECT_EQ(fileDigest("/dev/zero"), "");
  appliance::checked();
}

TEST_F(FileDigest, IsEmptyWhereTheFileCannotBeRead) {
  // Its first page is never there.
  EXPECT_EQ(fileDigest("/proc/self/mem"), "");
  appliance::checked();
}

}  // namespace
