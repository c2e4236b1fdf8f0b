#include "platform/result_rows.h"

#include <fcntl.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/tool_test.h"

namespace {

constexpr const char* kSpillDirectory = "/tmp/spill";
// More than a first piece in memory and a piece that waits to be written.
constexpr std::size_t kLarge = std::size_t{2} << 20U;

class ResultRowsTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    appliance::makeDirectories(kSpillDirectory);
    setSpillDirectory(kSpillDirectory);
  }
  void TearDown() override {
    setSpillDirectory("");
    unsetenv("TMPDIR");
    ToolTest::TearDown();
  }

  static std::vector<std::string> row(int number) {
    return {std::to_string(number), std::string(static_cast<std::size_t>(number % 97), 'v'), "", "\u00e9"};
  }
  // Rows 0, 1, 2 ... until they take `bytes`.
  static int append(ResultRows& rows, std::size_t bytes) {
    int number = 0;
    for (std::size_t size = 0; size < bytes; ++number) {
      const std::vector<std::string> texts = row(number);
      appendRow(rows, {texts.begin(), texts.end()});
      for (const std::string& text : texts) {
        size += text.size() + 1;
      }
    }
    return number;
  }
  static void expectRowsBack(ResultRows& rows, int count) {
    appliance::checked();
    EXPECT_EQ(rows.count, count);
    for (int number = 0; number < count; ++number) {
      ASSERT_TRUE(nextRow(rows)) << number;
      ASSERT_EQ(std::vector<std::string>(rows.fields.begin(), rows.fields.end()), row(number));
    }
    EXPECT_FALSE(nextRow(rows));
    EXPECT_FALSE(nextRow(rows));
  }
  static std::string placeOfFile(const ResultRows& rows) {
    char path[256] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(rows.file.get());
    return readlink(link.c_str(), path, sizeof path - 1) > 0 ? path : "";
  }
};

TEST_F(ResultRowsTest, AreNoneAtFirst) {
  ResultRows rows;
  expectRowsBack(rows, 0);
}

TEST_F(ResultRowsTest, StayInMemoryWhileTheyAreFew) {
  ResultRows rows;
  const int count = append(rows, 200000);
  EXPECT_FALSE(rows.file);
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, WaitInANamelessFileWhenTheyAreMany) {
  ResultRows rows;
  const int count = append(rows, kLarge);
  EXPECT_THAT(placeOfFile(rows), testing::AllOf(testing::StartsWith(kSpillDirectory), testing::EndsWith("(deleted)")));
  EXPECT_GT(rows.spilled, kLarge / 2);
  EXPECT_LT(rows.head.capacity() + rows.tail.capacity(), kLarge);
  EXPECT_TRUE((fcntl(rows.file.get(), F_GETFD) & FD_CLOEXEC) != 0);
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, MayBeLargerThanAPieceEach) {
  const std::vector<std::size_t> sizes = {10, 3000000, 0, 700000, 262144, 262143, 5, 1000000};
  ResultRows rows;
  for (const std::size_t size : sizes) {
    const std::string text(size, 'r');
    appendRow(rows, {text, "end"});
  }
  for (const std::size_t size : sizes) {
    ASSERT_TRUE(nextRow(rows)) << size;
    EXPECT_EQ(std::string(rows.fields[0]).size(), size);
    EXPECT_STREQ(rows.fields[1], "end");
  }
  EXPECT_FALSE(nextRow(rows));
  appliance::checked();
}

TEST_F(ResultRowsTest, MayHaveNoFields) {
  ResultRows rows;
  for (int number = 0; number < 200000; ++number) {
    appendRow(rows, {});
  }
  for (int number = 0; number < 200000; ++number) {
    ASSERT_TRUE(nextRow(rows));
    ASSERT_TRUE(rows.fields.empty());
  }
  EXPECT_FALSE(nextRow(rows));
  appliance::checked();
}

TEST_F(ResultRowsTest, GoToTheTemporaryDirectoryWhereTheirOwnIsReadOnly) {
  appliance::mountReadOnly(kSpillDirectory);
  appliance::makeDirectories("/tmp/other");
  setenv("TMPDIR", "/tmp/other", 1);
  ResultRows rows;
  const int count = append(rows, kLarge);
  EXPECT_THAT(placeOfFile(rows), testing::StartsWith("/tmp/other/"));
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, GoToTheTemporaryDirectoryUntilTheirOwnIsSet) {
  setSpillDirectory("");
  ResultRows rows;
  const int count = append(rows, kLarge);
  EXPECT_THAT(placeOfFile(rows), testing::StartsWith("/tmp/"));
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, StayInMemoryWhereNoFileCanBeMade) {
  setSpillDirectory("/tmp/missing");
  setenv("TMPDIR", "/tmp/missing too", 1);
  ResultRows rows;
  const int count = append(rows, kLarge);
  EXPECT_FALSE(rows.file);
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, StayInMemoryFromWhereTheDiskIsFull) {
  appliance::mountSmall(kSpillDirectory, std::size_t{640} * 1024);
  ResultRows rows;
  const int count = append(rows, kLarge);
  EXPECT_THAT(placeOfFile(rows), testing::StartsWith(kSpillDirectory));
  EXPECT_GT(rows.spilled, 0U);
  EXPECT_GT(rows.tail.size(), kLarge / 2);
  expectRowsBack(rows, count);
}

TEST_F(ResultRowsTest, LeaveNothingBehind) {
  {
    ResultRows rows;
    append(rows, kLarge);
    EXPECT_EQ(run({"-c", "ls -A /tmp/spill"},
                  [] {
                    appliance::RunOptions shell;
                    shell.program = "/bin/sh";
                    return shell;
                  }())
                  .out,
              "");
  }
  expectNoMessages();
}

TEST_F(ResultRowsTest, ReportAFileThatCannotBeReadBack) {
  ResultRows rows;
  append(rows, kLarge);
  while (rows.headRead < rows.head.size()) {
    ASSERT_TRUE(nextRow(rows));
  }
  rows.file.reset(open("/tmp", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(nextRow(rows));
  expectMessages({"Failed to read a result back from its temporary file (Is a directory)"});
}

}  // namespace
