#include "package/installed.h"
#include "support/tool_test.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class Completion : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    unpackPackage();
  }

  // What is offered for the last word of a command line.
  static std::vector<std::string> complete(const std::string& words) {
    appliance::checked();
    return linesOf(runShell("compopt() { :; }; . /tmp/installed/usr/share/bash-completion/completions/kavophoto_backup;"
                            "COMP_WORDS=(kavophoto_backup " +
                                words +
                                "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kavophoto_backup;"
                                "[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"",
                            {}, "/bin/bash")
                       .out);
  }
};

TEST_F(Completion, OffersTheOptions) {
  EXPECT_THAT(complete("''"), ElementsAre("-b", "-r", "-o", "-e", "-i", "-d", "-h"));
  EXPECT_THAT(complete("-r /tmp/ -o"), ElementsAre("-o"));
}

TEST_F(Completion, OffersDirectoriesWithTheirSlash) {
  appliance::makeDirectories("/tmp/photos/first");
  appliance::makeDirectories("/tmp/photos/second");
  appliance::writeFile("/tmp/photos/third", "");
  for (const char* option : {"-b", "-r", "-e", "-i"}) {
    EXPECT_THAT(complete(std::string(option) + " /tmp/photos/"),
                UnorderedElementsAre("/tmp/photos/first/", "/tmp/photos/second/"))
        << option;
  }
}

TEST_F(Completion, OffersTheOtherDatabases) {
  appliance::createDatabase("second");
  EXPECT_THAT(complete("-i /tmp/ -d s"), ElementsAre("second"));
  // The live database itself is no source.
  EXPECT_THAT(complete("-i /tmp/ -d ph"), ElementsAre("photo_template"));
}

}  // namespace
