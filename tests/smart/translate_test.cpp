#include "smart/translate.h"

#include "platform/query.h"
#include "support/tool_test.h"

namespace {

class TranslateIdList : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    other();
    destination_ = connectTo("photo");
    source_ = connectTo("other");
  }
  void TearDown() override {
    destination_.reset();
    source_.reset();
    ToolTest::TearDown();
  }

  // The translated list; "(-1)" when the routine failed and left the result as it was.
  std::string translate(const std::string& ids, const std::string& kind = "people", const char* suffix = "") {
    return translateOn(destination_.get(), source_.get(), ids, kind, suffix);
  }

  std::string translateOn(DBConnect_tag* destination, DBConnect_tag* source, const std::string& ids,
                          const std::string& kind = "people", const char* suffix = "") {
    appliance::checked();
    std::string result = "before";
    const int status = KavophotoTranslateIdList(destination, source, ids, result, suffix, kind);
    if (status == 0) {
      return result;
    }
    EXPECT_EQ(status, -1);
    EXPECT_EQ(result, "before");
    return "(-1)";
  }

  static std::string literal(const std::string& text) { return List::of({text}, ",").text; }

  Connection destination_;
  Connection source_;
};

TEST_F(TranslateIdList, FindsLabelsByNameForEveryKindButAlbums) {
  other().exec(
      "INSERT INTO photo_label (id, name, category) VALUES (12, 'Anna', 0), (15, 'Rome', 1), (3, 'Sunset', 2)");
  other().exec("INSERT INTO photo_share (shareid, sharename) VALUES (12, 'holidays')");
  live().exec(
      "INSERT INTO photo_label (id, name, category) VALUES (71, 'Sunset', 2), (70, 'Anna', 0), (72, 'Rome', 1)");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (5, 'holidays')");
  for (const char* kind : {"people", "geo", "desc", "ALBUMS", "album", ""}) {
    EXPECT_EQ(translate("12", kind), "70") << kind;
  }
  EXPECT_EQ(translate("12", "albums"), "5");
}

TEST_F(TranslateIdList, GivesTheNumbersInTheDestinationsRowOrder) {
  other().exec("INSERT INTO photo_label (id, name, category) VALUES (1, 'a', 0), (2, 'b', 0), (3, 'c', 0)");
  live().exec("INSERT INTO photo_label (id, name, category) VALUES (9, 'c', 0), (30, 'a', 0), (4, 'b', 0)");
  EXPECT_EQ(translate("1,2,3"), "9,30,4");
  EXPECT_EQ(translate(" 3 , 1"), "9,30");
}

TEST_F(TranslateIdList, ComparesNamesOnly) {
  other().exec("INSERT INTO photo_label (id, name, category) VALUES (1, 'Paris', 0)");
  live().exec("INSERT INTO photo_label (id, name, category) VALUES (7, 'Paris', 0), (8, 'Paris', 1), (9, 'paris', 0)");
  EXPECT_EQ(translate("1", "people"), "7,8");
}

TEST_F(TranslateIdList, ListsADestinationRowOnceForANameOfSeveralSourceRows) {
  other().exec("INSERT INTO photo_label (id, name, category) VALUES (1, 'Paris', 0), (2, 'Paris', 1)");
  live().exec("INSERT INTO photo_label (id, name, category) VALUES (7, 'Paris', 0)");
  EXPECT_EQ(translate("1,2"), "7");
}

TEST_F(TranslateIdList, DropsNamesThatTheDestinationLacks) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a'), (2, 'gone'), (3, 'c')");
  other().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'gone'), (2, 'b')");
  live().exec("INSERT INTO photo_label (id, name) VALUES (11, 'a'), (13, 'c')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'other'), (12, 'b')");
  EXPECT_EQ(translate("1,2,3"), "11,13");
  EXPECT_EQ(translate("1,2,99", "albums"), "12");
}

TEST_F(TranslateIdList, FailsWhenNoNumberExistsInTheSource) {
  live().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a')");
  EXPECT_EQ(translate("1", "geo"), "(-1)");
  EXPECT_EQ(translate("1", "albums"), "(-1)");
  expectMessages({"No match labels", "No match labels"});
}

TEST_F(TranslateIdList, FailsWhenNoNameExistsInTheDestination) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a'), (2, 'b')");
  other().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a')");
  EXPECT_EQ(translate("1,2", "desc"), "(-1)");
  EXPECT_EQ(translate("1", "albums"), "(-1)");
  expectMessages({"No match labels", "No match labels"});
}

TEST_F(TranslateIdList, RefusesListsThatCouldBeMoreThanNumbersBeforeAnyStatement) {
  std::vector<std::string> messages;
  // Without connections any statement would be reported as one that failed.
  for (const char* ids : {"12,a", "Z", "1|2", "(1", "1)", "-1", "1,-2", "1) OR (1=1", "1 -- 2", "NULL"}) {
    EXPECT_EQ(translateOn(nullptr, nullptr, ids), "(-1)") << ids;
    EXPECT_FALSE(isIdList(ids)) << ids;
    messages.push_back(std::string("Invalid ID [") + ids + "]");
  }
  expectMessages(messages);
}

TEST_F(TranslateIdList, LetsEveryOtherCharacterPass) {
  for (const char* ids :
       {"", "1", "1,2", " 1 , 2 ", "1;2", "1'2", "1.5", "+1", "100%", "\xc3\xa9", "1\n2", "_[]{}\\$"}) {
    EXPECT_TRUE(isIdList(ids)) << ids;
  }
  appliance::checked();
}

TEST_F(TranslateIdList, ReportsAListThatIsNoListToTheServer) {
  EXPECT_EQ(translate(""), "(-1)");
  EXPECT_EQ(translate("", "albums"), "(-1)");
  EXPECT_EQ(translate("1,2,"), "(-1)");
  EXPECT_EQ(translate("99999999999999999999"), "(-1)");
  expectMessages(
      {"Failed to exec [SELECT name FROM photo_label WHERE id IN ()] (ERROR:  syntax error at or near \")\")",
       "Failed to exec [SELECT sharename AS name FROM photo_share WHERE shareid IN ()] (ERROR:  syntax error at or "
       "near \")\")",
       "Failed to exec [SELECT name FROM photo_label WHERE id IN (1,2,)] (ERROR:  syntax error at or near \")\")",
       "No match labels"});
}

TEST_F(TranslateIdList, EscapesQuotesInTheList) {
  EXPECT_EQ(translate("1','2"), "(-1)");
  expectMessages(
      {"Failed to exec [SELECT name FROM photo_label WHERE id IN (1'',''2)] (ERROR:  syntax error at or near "
       "\"''\")"});
}

TEST_F(TranslateIdList, NeverRunsASecondStatement) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a')");
  EXPECT_EQ(translate("1;2"), "(-1)");
  expectMessages(
      {"Failed to exec [SELECT name FROM photo_label WHERE id IN (1;2)] (ERROR:  syntax error at or near "
       "\";\")"});
}

TEST_F(TranslateIdList, ReadsTheStagedTablesOfOneConnection) {
  live().exec("CREATE TABLE photo_share_bak AS TABLE photo_share; CREATE TABLE photo_label_bak AS TABLE photo_label");
  live().exec("INSERT INTO photo_share_bak (shareid, sharename) VALUES (1, 'trips'), (2, 'kids')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'kids'), (2, 'else'), (3, 'trips')");
  live().exec("INSERT INTO photo_label_bak (id, name) VALUES (1, 'Anna')");
  live().exec("INSERT INTO photo_label (id, name) VALUES (1, 'Ben'), (6, 'Anna')");
  EXPECT_EQ(translateOn(destination_.get(), destination_.get(), "1", "albums", "_bak"), "3");
  EXPECT_EQ(translateOn(destination_.get(), destination_.get(), "1,2", "albums", "_bak"), "1,3");
  EXPECT_EQ(translateOn(destination_.get(), destination_.get(), "1", "people", "_bak"), "6");
}

TEST_F(TranslateIdList, CarriesAnyTextInANameUnharmed) {
  const std::vector<std::string> names = {"it's",
                                          "''",
                                          "@KAVO:VAR",
                                          "'@KAVO:VAR',",
                                          "back\\slash",
                                          "\\'",
                                          "100%s %n",
                                          "\"double\"",
                                          "a,b",
                                          "line\nbreak",
                                          "\xe6\xbc\xa2\xf0\x9f\x98\x80",
                                          "$$x$$",
                                          "x'); DROP TABLE photo_label; --"};
  std::string sourceIds;
  std::string liveIds;
  for (std::size_t at = 0; at < names.size(); ++at) {
    const std::string sourceId = std::to_string(at + 1);
    const std::string liveId = std::to_string(at + 500);
    other().exec("INSERT INTO photo_label (id, name) VALUES (" + sourceId + ", " + literal(names[at]) + ")");
    live().exec("INSERT INTO photo_label (id, name) VALUES (" + liveId + ", " + literal(names[at]) + ")");
    // Alone it is the last of the list, in the whole list it is an inner one.
    EXPECT_EQ(translate(sourceId), liveId) << names[at];
    sourceIds.append(sourceIds.empty() ? "" : ",").append(sourceId);
    liveIds.append(liveIds.empty() ? "" : ",").append(liveId);
  }
  EXPECT_EQ(translate(sourceIds), liveIds);
  EXPECT_EQ(live().count("photo_label"), static_cast<long>(names.size()));
}

TEST_F(TranslateIdList, TakesANullNameAsTheEmptyText) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, NULL)");
  live().exec("INSERT INTO photo_label (id, name) VALUES (7, NULL), (8, '')");
  EXPECT_EQ(translate("1"), "8");
}

TEST_F(TranslateIdList, CutsNeitherNamesNorStatements) {
  const std::string longName = "repeat('\xc3\xa9', 9000)";
  for (appliance::Database* database : {&other(), &live()}) {
    database->exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, " + longName + "), (2, " + longName +
                   " || 'x')");
    database->exec("INSERT INTO photo_label (id, name) SELECT i, 'label ' || i FROM generate_series(10000, 13000) i");
  }
  EXPECT_EQ(translate("1", "albums"), "1");
  std::string all;
  for (int id = 10000; id <= 13000; ++id) {
    all += (all.empty() ? "" : ",") + std::to_string(id);
  }
  EXPECT_EQ(translate(all), all);
}

TEST_F(TranslateIdList, ReportsAStatementThatFailsInTheDestination) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a''b'), (2, 'c')");
  other().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'a')");
  live().exec("DROP TABLE photo_label; DROP TABLE photo_share");
  EXPECT_EQ(translate("1,2"), "(-1)");
  EXPECT_EQ(translate("1", "albums"), "(-1)");
  expectMessages(
      {"Failed to exec [SELECT id FROM photo_label WHERE name IN ('a''b','c')] (ERROR:  relation "
       "\"photo_label\" does not exist)",
       "Failed to exec [SELECT shareid AS id FROM photo_share WHERE sharename IN ('a')] (ERROR:  relation "
       "\"photo_share\" does not exist)"});
}

TEST_F(TranslateIdList, ReportsAStatementThatFailsInTheSource) {
  EXPECT_EQ(translate("1", "people", "_bak"), "(-1)");
  EXPECT_EQ(translate("1", "albums", "_bak"), "(-1)");
  expectMessages(
      {"Failed to exec [SELECT name FROM photo_label_bak WHERE id IN (1)] (ERROR:  relation "
       "\"photo_label_bak\" does not exist)",
       "Failed to exec [SELECT sharename AS name FROM photo_share_bak WHERE shareid IN (1)] (ERROR:  "
       "relation \"photo_share_bak\" does not exist)"});
}

TEST_F(TranslateIdList, ReportsAMissingConnection) {
  other().exec("INSERT INTO photo_label (id, name) VALUES (1, 'a')");
  EXPECT_EQ(translateOn(destination_.get(), nullptr, "1", "people", "_bak"), "(-1)");
  EXPECT_EQ(translateOn(destination_.get(), nullptr, "1", "albums"), "(-1)");
  EXPECT_EQ(translateOn(nullptr, source_.get(), "1"), "(-1)");
  expectMessages(
      {"Failed to KAVODBEscapeStringEX3[SELECT name FROM photo_label_bak WHERE id IN (@KAVO:VAR)]",
       "Failed to KAVODBEscapeStringEX3[SELECT sharename AS name FROM photo_share WHERE shareid IN (@KAVO:VAR)]",
       "Failed to KAVODBEscapeStringEX3[SELECT id FROM photo_label WHERE name IN ()]"});
}

}  // namespace
