#include "smart/earlier_albums.h"

#include <string>

#include "support/tool_test.h"

namespace {

constexpr const char* kFile = "/var/packages/Lumora/etc/smart_albums.before";

class EarlierAlbums : public appliance::ToolTest {
 protected:
  void TearDown() override {
    EXPECT_FALSE(appliance::exists(std::string(kFile) + ".tmp"));
    expectNoMessages();
    ToolTest::TearDown();
  }
};

TEST_F(EarlierAlbums, AreGivenForEverythingThatKilledRunsMadeOfThem) {
  EXPECT_EQ(textBeforeKilledRun("found"), "found");
  keepTextBefore("found", "made first");
  keepTextBefore("found", "made then");
  EXPECT_EQ(textBeforeKilledRun("made first"), "found");
  EXPECT_EQ(textBeforeKilledRun("made then"), "found");
  EXPECT_EQ(textBeforeKilledRun("edited"), "edited");

  keepTextBefore("edited", "made of it");
  EXPECT_EQ(textBeforeKilledRun("made of it"), "edited");
  EXPECT_EQ(textBeforeKilledRun("made first"), "made first");
}

TEST_F(EarlierAlbums, AreDroppedByTheRunThatKeepsThem) {
  keepTextBefore("found", "made");
  dropTextBefore();
  EXPECT_FALSE(appliance::exists(kFile));
  EXPECT_EQ(textBeforeKilledRun("made"), "made");
  dropTextBefore();
}

TEST_F(EarlierAlbums, StayForTheNextRunOfTheKilledOnesMode) {
  const std::string kept = R"({"run":1,"before":"found","after":[7,"made"]})";
  appliance::writeFile(kFile, kept);
  dropTextBefore();
  EXPECT_EQ(appliance::readFile(kFile), kept);
  EXPECT_EQ(textBeforeKilledRun("made"), "found");
}

TEST_F(EarlierAlbums, AreNotTakenFromADamagedFile) {
  for (const char* text :
       {"", "{", "[]", "7", R"({"run":"1","before":"found","after":["made"]})",
        R"({"run":1,"before":7,"after":["made"]})", R"({"run":1,"before":"found","after":"made"})"}) {
    appliance::writeFile(kFile, text);
    EXPECT_EQ(textBeforeKilledRun("made"), "made") << text;
    dropTextBefore();
    EXPECT_EQ(appliance::readFile(kFile), text);
  }
  keepTextBefore("found", "made");
  EXPECT_EQ(textBeforeKilledRun("made"), "found");
}

TEST_F(EarlierAlbums, AreDoneWithoutWhereTheyCannotBeKept) {
  appliance::makeDirectories(std::string(kFile) + "/folder");
  keepTextBefore("found", "made");
  EXPECT_EQ(textBeforeKilledRun("made"), "made");
  appliance::removeAll(kFile);

  appliance::makeDirectories(std::string(kFile) + ".tmp/folder");
  keepTextBefore("found", "made");
  EXPECT_FALSE(appliance::exists(kFile));
  appliance::removeAll(std::string(kFile) + ".tmp");

  appliance::mountSmall("/var/packages/Lumora/etc", 8 * 4096);
  keepTextBefore(std::string(20 * 4096, 'x'), "made");
  EXPECT_FALSE(appliance::exists(kFile));
}

}  // namespace
