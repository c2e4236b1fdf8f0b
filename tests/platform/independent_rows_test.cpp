#include "platform/independent_rows.h"

#include "platform/query.h"
#include "support/tool_test.h"

namespace {

class IndependentRows : public appliance::ToolTest {
 protected:
  bool areIndependent(const std::vector<WrittenTable>& tables = {{"photo_label", {"id", "name", "category"}}}) {
    appliance::checked();
    return rowsAreIndependent(connectTo("photo").get(), tables);
  }
};

TEST_F(IndependentRows, AreThoseOfTheApplicationsTables) {
  EXPECT_TRUE(areIndependent());
  EXPECT_TRUE(areIndependent({{"photo_image", {"id", "path"}},
                              {"photo_comment", {"id", "photo_id", "date", "name"}},
                              {"photo_image_label", {"id", "image_id", "label_id"}}}));
  EXPECT_TRUE(areIndependent({{"photo_log", {"logid", "create_time", "user"}}}));
  EXPECT_TRUE(areIndependent({{"watermark", {"shareid"}}}));
}

TEST_F(IndependentRows, AreNotThoseOfWhatIsNoTable) {
  EXPECT_FALSE(areIndependent({{"missing", {"id"}}}));
  EXPECT_FALSE(areIndependent({{"photo_label", {"id", "name"}}, {"missing", {"id"}}}));
  live().exec("ALTER TABLE photo_label RENAME TO stored; CREATE VIEW photo_label AS SELECT * FROM stored");
  EXPECT_FALSE(areIndependent());
}

TEST_F(IndependentRows, AreNotConnectedByATriggerOrRule) {
  live().exec("CREATE FUNCTION changes() RETURNS trigger LANGUAGE plpgsql AS $$BEGIN RETURN NEW; END$$");
  live().exec("CREATE TRIGGER changes BEFORE INSERT ON photo_label FOR EACH ROW EXECUTE FUNCTION changes()");
  EXPECT_FALSE(areIndependent());
  live().exec("ALTER TABLE photo_label DISABLE TRIGGER changes");
  EXPECT_TRUE(areIndependent());
  live().exec("CREATE RULE also AS ON INSERT TO photo_label DO ALSO NOTIFY labels");
  EXPECT_FALSE(areIndependent());
}

TEST_F(IndependentRows, HaveKeysThatAreEqualOnlyWhenTheyAreSpelledAlike) {
  live().exec("ALTER TABLE photo_label ALTER COLUMN info TYPE char(20)");
  EXPECT_TRUE(areIndependent());
  live().exec("ALTER TABLE photo_label ALTER COLUMN name TYPE varchar(200)");
  EXPECT_TRUE(areIndependent());
  live().exec("ALTER TABLE photo_label ALTER COLUMN name TYPE char(20)");
  EXPECT_FALSE(areIndependent());
  live().exec("CREATE DOMAIN label_name AS text; ALTER TABLE photo_label ALTER COLUMN name TYPE label_name");
  EXPECT_FALSE(areIndependent());
}

TEST_F(IndependentRows, HaveNoOtherUniqueColumns) {
  live().exec("CREATE UNIQUE INDEX ON photo_label (name, category)");
  EXPECT_TRUE(areIndependent());
  live().exec("CREATE INDEX ON photo_label (lower(name))");
  EXPECT_TRUE(areIndependent());
  live().exec("CREATE UNIQUE INDEX by_case ON photo_label (lower(name))");
  EXPECT_FALSE(areIndependent());
  live().exec("DROP INDEX by_case; CREATE UNIQUE INDEX ON photo_label (info)");
  EXPECT_FALSE(areIndependent());
}

TEST_F(IndependentRows, HaveNoDefaultThatLooksAtTheSession) {
  live().exec("ALTER TABLE photo_label ADD COLUMN image bigint DEFAULT currval('photo_image_id_seq')");
  EXPECT_FALSE(areIndependent());
}

TEST_F(IndependentRows, AreNotKnownWithoutAServer) {
  EXPECT_FALSE(rowsAreIndependent(nullptr, {{"photo_label", {"id"}}}));
  appliance::checked();
}

TEST_F(IndependentRows, AreComparedByWhatTheServerPrints) {
  for (const char* const text : {"0", "7", "-7", "2147483648"}) {
    EXPECT_TRUE(isPrintedNumber(text)) << text;
  }
  for (const char* const text : {"", "-", "07", "-0", "+7", " 7", "7 ", "7.0", "1e3"}) {
    EXPECT_FALSE(isPrintedNumber(text)) << text;
  }
  for (const char* const text :
       {"2020-01-02 03:04:05", "2020-01-02 03:04:05.1", "2020-01-02 03:04:05.123456", "2020-01-02 03:04:05+00"}) {
    EXPECT_TRUE(isPrintedTime(text)) << text;
  }
  for (const char* const text :
       {"", "2020-01-02", "2020-01-02T03:04:05", "2020-1-2 03:04:05", "2020-01-02 03:04:05.", "2020-01-02 03:04:05.10",
        "2020-01-02 03:04:05.1234567", "2020-01-02 03:04:05+01", "2020-01-02 03:04:05 BC", "infinity"}) {
    EXPECT_FALSE(isPrintedTime(text)) << text;
  }
  appliance::checked();
}

}  // namespace
