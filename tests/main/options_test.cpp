#include "main/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/overwrite_mode.h"

namespace {

using testing::Eq;
using testing::Optional;

struct Parsed {
  bool accepted = false;
  Options options;
  bool overwrites = false;
};

Parsed parse(std::vector<std::string> words) {
  std::string program = "kavophoto_backup";
  std::vector<char*> arguments = {program.data()};
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  // Zero makes the parser forget the list before.
  optind = 0;
  opterr = 0;
  gIsOverwiroteMode = false;
  Parsed parsed;
  parsed.accepted = parseOptions(static_cast<int>(words.size()) + 1, arguments.data(), parsed.options);
  parsed.overwrites = gIsOverwiroteMode;
  gIsOverwiroteMode = false;
  return parsed;
}

TEST(OptionList, StartsInSkipModeWithoutAnyMode) {
  EXPECT_FALSE(gIsOverwiroteMode);
  const Parsed parsed = parse({});
  EXPECT_TRUE(parsed.accepted);
  EXPECT_EQ(parsed.options.mode, Mode::kNone);
  EXPECT_EQ(parsed.options.path, "");
  EXPECT_EQ(parsed.options.temporaryDatabase, std::nullopt);
  EXPECT_FALSE(parsed.overwrites);
}

TEST(OptionList, HasAModeAndAPathPerOption) {
  struct Case {
    const char* option;
    Mode mode;
    bool overwrites;
  };
  for (const Case& one : {Case{"-b", Mode::kBackup, false}, Case{"-r", Mode::kRestore, false},
                          Case{"-e", Mode::kExport, false}, Case{"-i", Mode::kImport, true}}) {
    const Parsed parsed = parse({one.option, "a b/"});
    EXPECT_TRUE(parsed.accepted) << one.option;
    EXPECT_EQ(parsed.options.mode, one.mode) << one.option;
    EXPECT_EQ(parsed.options.path, "a b/") << one.option;
    EXPECT_EQ(parsed.overwrites, one.overwrites) << one.option;
    EXPECT_TRUE(parse({one.option, "a/", "-o"}).overwrites) << one.option;
  }
}

TEST(OptionList, TakesTheLastOfSeveralModesWithItsPath) {
  Parsed parsed = parse({"-b", "a/", "-r", "b/"});
  EXPECT_EQ(parsed.options.mode, Mode::kRestore);
  EXPECT_EQ(parsed.options.path, "b/");
  parsed = parse({"-ra/", "-eb/", "-bc/"});
  EXPECT_EQ(parsed.options.mode, Mode::kBackup);
  EXPECT_EQ(parsed.options.path, "c/");
}

TEST(OptionList, KeepsOverwritingOnceAnImportWasNamed) {
  const Parsed parsed = parse({"-i", "a/", "-r", "b/"});
  EXPECT_EQ(parsed.options.mode, Mode::kRestore);
  EXPECT_TRUE(parsed.overwrites);
}

TEST(OptionList, HasATemporaryDatabase) {
  EXPECT_THAT(parse({"-i", "a/", "-d", "other"}).options.temporaryDatabase, Optional(Eq("other")));
  EXPECT_THAT(parse({"-d", "one", "-dtwo", "-i", "a/"}).options.temporaryDatabase, Optional(Eq("two")));
  EXPECT_THAT(parse({"-d", ""}).options.temporaryDatabase, Optional(Eq("")));
}

TEST(OptionList, IsRefusedForHelpAnUnknownOptionOrAMissingArgument) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"-h"},
                                                {"-b", "a/", "-h"},
                                                {"-x"},
                                                {"-b"},
                                                {"-i", "a/", "-d"},
                                                {"--backup"},
                                                {"-oh"}}) {
    EXPECT_FALSE(parse(words).accepted) << testing::PrintToString(words);
  }
}

TEST(OptionList, IsReadOnlyUpToTheOptionThatEndsIt) {
  EXPECT_FALSE(parse({"-h", "-o"}).overwrites);
  const Parsed parsed = parse({"-b", "a/", "-x", "-r", "b/"});
  EXPECT_EQ(parsed.options.mode, Mode::kBackup);
}

}  // namespace
