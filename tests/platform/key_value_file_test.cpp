#include "platform/key_value_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/tool_test.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr std::size_t kPlenty = 1024;
constexpr const char* kFile = "/tmp/pairs";

class KeyValueFile : public appliance::ToolTest {
 protected:
  std::string valueOf(const std::string& line, const char* key = "key") {
    appliance::writeFile(kFile, line + "\n");
    std::string value = "untouched";
    EXPECT_EQ(KLIBCFileGetKeyValue(kFile, key, value, kPlenty), 0) << line;
    appliance::checked();
    return value;
  }
  std::vector<std::pair<std::string, std::string>> pairsOf(const std::string& text) {
    appliance::writeFile(kFile, text);
    const SzHashHandle hash = KLIBCSzHashAlloc(8);
    EXPECT_GE(KLIBCFileGetPair(kFile, *hash), 0);
    appliance::checked();
    return hash->pairs;
  }
};

TEST_F(KeyValueFile, TrimsBlanksAndStripsOnePairOfQuotes) {
  for (const char* line : {"key=\"one two\"", "  key\t =  \"one two\" \t", "key=one two", "key = one two\r",
                           "key=\"one two\"\nother=\"x\"", "other=\"x\"\nkey=\"one two\""}) {
    EXPECT_EQ(valueOf(line), "one two") << line;
  }
  EXPECT_EQ(valueOf("key=\"  padded \""), "  padded ");
  EXPECT_EQ(valueOf("1026 =\"editor\"", "1026"), "editor");
}

TEST_F(KeyValueFile, KeepsQuotesAndEqualsSignsInsideAValue) {
  EXPECT_EQ(valueOf("key=\"a=b=\""), "a=b=");
  EXPECT_EQ(valueOf("key=\"say \"hi\"\""), "say \"hi\"");
  EXPECT_EQ(valueOf("key=\"\"quoted\"\""), "\"quoted\"");
  EXPECT_EQ(valueOf("key=\""), "\"");
  EXPECT_EQ(valueOf("key=\"open"), "\"open");
  EXPECT_EQ(valueOf("key=\"\""), "");
  EXPECT_EQ(valueOf("key="), "");
}

TEST_F(KeyValueFile, IgnoresCommentsAndLinesWithoutAnEqualsSign) {
  EXPECT_THAT(pairsOf("# a comment = no pair\n#b=\"1\"\n  #c=\"1\"\nno pair\n\n   \nd=\"1\"\nlast=2"),
              ElementsAre(Pair("d", "1"), Pair("last", "2")));
}

TEST_F(KeyValueFile, TakesTheLastLineOfAKeyThatStandsTwice) {
  EXPECT_EQ(valueOf("key=\"first\"\nkey=\"second\""), "second");
  EXPECT_THAT(pairsOf("a=\"1\"\nb=\"2\"\na=\"3\"\n"), ElementsAre(Pair("a", "3"), Pair("b", "2")));
}

TEST_F(KeyValueFile, ReadsALineOfAnyLength) {
  const std::string text(300000, 'v');
  EXPECT_THAT(pairsOf("a=\"" + text + "\"\nb=\"2\"\n"), ElementsAre(Pair("a", text), Pair("b", "2")));
}

TEST_F(KeyValueFile, ReadsPairsOverWhatTheMapHoldsAndCountsThem) {
  appliance::writeFile(kFile, "b=\"new\"\nc=\"3\"\nc=\"4\"\n");
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  KLIBCSzHashSetValue(*hash, "a", "1");
  KLIBCSzHashSetValue(*hash, "b", "old");
  EXPECT_EQ(KLIBCFileGetPair(kFile, *hash), 3);
  EXPECT_THAT(hash->pairs, ElementsAre(Pair("a", "1"), Pair("b", "new"), Pair("c", "4")));
  appliance::checked();
}

TEST_F(KeyValueFile, CutsAValueToItsBufferButNotInsideACharacter) {
  appliance::writeFile(kFile, "key=\"ab\u00e9d\"\n");
  const std::vector<std::pair<std::size_t, std::string>> cuts = {
      {6, "ab\u00e9d"}, {5, "ab\u00e9"}, {4, "ab"}, {2, "a"}};
  for (const auto& [capacity, kept] : cuts) {
    std::string value;
    EXPECT_EQ(KLIBCFileGetKeyValue(kFile, "key", value, capacity), 0);
    EXPECT_EQ(value, kept) << capacity;
  }
  appliance::checked();
}

TEST_F(KeyValueFile, LeavesTheValueAloneWhenThereIsNone) {
  appliance::writeFile(kFile, "Key=\"1\"\n#key=\"2\"\nkey\n");
  std::string value = "untouched";
  for (const char* path : {kFile, "/tmp/missing", "/tmp"}) {
    EXPECT_EQ(KLIBCFileGetKeyValue(path, "key", value, kPlenty), -1) << path;
    EXPECT_EQ(value, "untouched");
  }
  appliance::checked();
}

TEST_F(KeyValueFile, SaysWhyAFileCannotBeRead) {
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  errno = 0;
  EXPECT_EQ(KLIBCFileGetPair("/tmp/missing", *hash), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(KLIBCFileGetPair("/tmp", *hash), -1);
  EXPECT_EQ(errno, EISDIR);
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  errno = 0;
  EXPECT_EQ(KLIBCFileGetPair(kFile, *hash), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(hash->pairs.empty());
  appliance::checked();
}

TEST_F(KeyValueFile, IsReadUpToSixtyFourMebibytes) {
  constexpr std::uintmax_t kMost = std::uintmax_t{64} << 20U;
  appliance::writeFile(kFile, "key=\"value\"\n");
  std::filesystem::resize_file(kFile, kMost);
  std::string value;
  EXPECT_EQ(KLIBCFileGetKeyValue(kFile, "key", value, kPlenty), 0);
  EXPECT_EQ(value, "value");
  std::filesystem::resize_file(kFile, kMost + 1);
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  errno = 0;
  EXPECT_EQ(KLIBCFileGetPair(kFile, *hash), -1);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_TRUE(hash->pairs.empty());
  appliance::checked();
}

TEST_F(KeyValueFile, KeepsBinaryZeros) {
  const std::string value("a\0b", 3);
  EXPECT_THAT(pairsOf("key=\"" + value + "\"\nlast=" + value), ElementsAre(Pair("key", value), Pair("last", value)));
}

TEST_F(KeyValueFile, ReadsBackWhatItWrote) {
  appliance::writeFile(kFile, "old=\"contents that are longer than the new ones, all of which must go\"\n");
  const SzHashHandle written = KLIBCSzHashAlloc(8);
  KLIBCSzHashSetValue(*written, "z", "plain");
  KLIBCSzHashSetValue(*written, "quoted", "say \"hi\"");
  KLIBCSzHashSetValue(*written, "a", "x=y");
  KLIBCSzHashSetValue(*written, "empty", "");
  KLIBCSzHashSetValue(*written, "percent", "100%s%n");
  ASSERT_EQ(KLIBCFileSetPair(kFile, *written), 0);
  EXPECT_EQ(appliance::readFile(kFile),
            "z=\"plain\"\nquoted=\"say \"hi\"\"\na=\"x=y\"\nempty=\"\"\npercent=\"100%s%n\"\n");
  const SzHashHandle read = KLIBCSzHashAlloc(8);
  EXPECT_EQ(KLIBCFileGetPair(kFile, *read), 5);
  EXPECT_EQ(read->pairs, written->pairs);
}

TEST_F(KeyValueFile, SaysWhyAFileCannotBeWritten) {
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  KLIBCSzHashSetValue(*hash, "key", std::string(100000, 'v'));
  errno = 0;
  EXPECT_EQ(KLIBCFileSetPair("/tmp/missing/pairs", *hash), -1);
  EXPECT_EQ(errno, ENOENT);
  appliance::mountSmall("/tmp/small", 8192);
  errno = 0;
  EXPECT_EQ(KLIBCFileSetPair("/tmp/small/pairs", *hash), -1);
  EXPECT_EQ(errno, ENOSPC);
  appliance::checked();
}

TEST_F(KeyValueFile, IsWrittenIntoNoPipeAndThroughNoLink) {
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  errno = 0;
  EXPECT_EQ(KLIBCFileSetPair(kFile, *hash), -1);
  EXPECT_EQ(errno, ENXIO);
  appliance::writeFile("/tmp/target", "kept");
  ASSERT_EQ(symlink("/tmp/target", "/tmp/link"), 0);
  errno = 0;
  EXPECT_EQ(KLIBCFileSetPair("/tmp/link", *hash), -1);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(appliance::readFile("/tmp/target"), "kept");
}

TEST_F(KeyValueFile, SeesADiskThatIsFullForASmallFile) {
  appliance::mountSmall("/tmp/small", 8192);
  appliance::writeFile("/tmp/small/filler", std::string(8192, 'x'));
  const SzHashHandle hash = KLIBCSzHashAlloc(8);
  KLIBCSzHashSetValue(*hash, "key", "value");
  errno = 0;
  EXPECT_EQ(KLIBCFileSetPair("/tmp/small/pairs", *hash), -1);
  EXPECT_EQ(errno, ENOSPC);
  appliance::checked();
}

}  // namespace
