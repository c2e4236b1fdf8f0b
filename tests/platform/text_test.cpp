#include "platform/text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Cut {
  std::string text;
  std::size_t capacity;
  std::string kept;
};

TEST(Text, CutsAtTheCapacityLessOneByte) {
  const std::vector<Cut> cuts = {
      {"abc", 5, "abc"}, {"abc", 4, "abc"}, {"abc", 3, "ab"}, {"abc", 1, ""}, {"abc", 0, ""}, {"", 1, ""},
  };
  for (const Cut& cut : cuts) {
    EXPECT_EQ(cutText(cut.text, cut.capacity), cut.kept) << cut.capacity;
  }
}

TEST(Text, NeverCutsInsideACharacter) {
  const std::string accented = "a\u00e9";
  const std::string euros = "\u20ac\u20ac";
  const std::string face = "x\U0001f600";
  const std::vector<Cut> cuts = {
      {accented, 4, accented}, {accented, 3, "a"},   {accented, 2, "a"}, {euros, 7, euros}, {euros, 6, "\u20ac"},
      {euros, 5, "\u20ac"},    {euros, 4, "\u20ac"}, {euros, 3, ""},     {euros, 2, ""},    {face, 6, face},
      {face, 5, "x"},          {face, 4, "x"},       {face, 3, "x"},     {face, 2, "x"},
  };
  for (const Cut& cut : cuts) {
    EXPECT_EQ(cutText(cut.text, cut.capacity), cut.kept) << cut.text << cut.capacity;
  }
}

TEST(Text, CutsBytesThatAreNoCharactersOneByOne) {
  EXPECT_EQ(cutText("M\xfcller", 3), "M\xfc");
  EXPECT_EQ(cutText("\x80\x80\x80\x80\x80", 4), "\x80\x80\x80");
  EXPECT_EQ(cutText("a\u00e9\x80\x80", 4), "a\u00e9");
  EXPECT_EQ(cutText("\xc0\x80z", 2), "\xc0");
  EXPECT_EQ(cutText("\xff\x80z", 2), "\xff");
}

TEST(Text, FormatsTextsOfAnyLengthWhole) {
  for (const std::size_t length : {0U, 1U, 2046U, 2047U, 2048U, 2049U, 100000U}) {
    const std::string text(length, 't');
    EXPECT_EQ(formatText("%s|%d", text.c_str(), 7), text + "|7") << length;
  }
}

TEST(Text, JoinsAPathWithoutASeparator) {
  EXPECT_EQ(joinPath("/tmp/backup/", "file"), "/tmp/backup/file");
  EXPECT_EQ(joinPath("/tmp/backup", "file"), "/tmp/backupfile");
}

TEST(Text, GivesNoPathWhereTheJoinedOneWouldBeCut) {
  const std::string directory(1000, 'd');
  const std::string name(23, 'n');
  EXPECT_EQ(joinPath(directory, name), directory + name);
  EXPECT_EQ(joinPath(directory, name + "n"), "");
}

TEST(Text, PrintsADoubledPercentSignOnceAndAllElseAsItStands) {
  EXPECT_EQ(asPrinted("100%% of %s and %n%"), "100% of %s and %n%");
  EXPECT_EQ(asPrinted("%%%%"), "%%");
  EXPECT_EQ(asPrinted("%%%"), "%%");
  EXPECT_EQ(asPrinted(""), "");
}

}  // namespace
