#include "platform/statement.h"

#include <libpq-fe.h>

#include "platform/query.h"
#include "support/run_statement.h"
#include "support/tool_test.h"

namespace {

using testing::ElementsAre;

// What must not compile as a whole stands in statement_rejected.cpp; these are the rules of a single place.
constexpr TemplatePlace firstPlace(std::string_view text) {
  bool insideText = false;
  return nextPlace(text, 0, insideText);
}
static_assert(firstPlace("a = '%s'").hasOwnQuotes);
static_assert(!firstPlace("a = 'x%s'").hasOwnQuotes && firstPlace("a = 'x%s'").isInsideText);
static_assert(!firstPlace("a = '%sx'").hasOwnQuotes);
static_assert(!firstPlace("a = '' || %s || ''").isInsideText);
static_assert(firstPlace("a like '%%' and b = %s").begin == 20);
static_assert(firstPlace("a = 'it''s' and b = '%s'").hasOwnQuotes);
static_assert(firstPlace("no place, 100%%").begin == std::string_view::npos);
static_assert(fits<Text>(firstPlace("'%s'")) && !fits<Text>(firstPlace("%s")) && !fits<Text>(firstPlace("'%s '")));
static_assert(fits<Raw>(firstPlace("'%s'")) && fits<Raw>(firstPlace("%s")) && !fits<Raw>(firstPlace("' %s'")));
static_assert(fits<int>(firstPlace("'%s'")) && fits<int>(firstPlace("%s")) && !fits<int>(firstPlace("'%s '")));
static_assert(fits<List>(firstPlace("(%s)")) && !fits<List>(firstPlace("'%s'")));
static_assert(fits<QuotedOrNull>(firstPlace("%s")) && !fits<QuotedOrNull>(firstPlace("'%s'")));
static_assert(fits<Name>(firstPlace("%s")) && fits<Name>(firstPlace("'%s'")));
static_assert(!StatementValue<std::string> && !StatementValue<const char*> && !StatementValue<double>);

constexpr unsigned kNoType = 0;
constexpr unsigned kInt8 = 20;
constexpr unsigned kInt4 = 23;
constexpr unsigned kNumeric = 1700;

class StatementTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    connection_ = connectTo("photo");
  }

  static void expectTexts(const Statement& statement, const std::string& text, const std::string& parameters) {
    appliance::checked();
    EXPECT_EQ(statementText(statement), text);
    EXPECT_EQ(parameterText(statement), parameters);
  }

  // The values of the parameters, NULL as "(null)"; "(none)" when only the text says the same.
  static std::vector<std::string> valuesOf(const Statement& statement) {
    appliance::checked();
    Parameters parameters;
    if (!separateParameters(statement, parameters)) {
      return {"(none)"};
    }
    std::vector<std::string> values;
    for (const char* value : parameters.values) {
      values.emplace_back(value != nullptr ? value : "(null)");
    }
    return values;
  }

  static std::vector<unsigned> typesOf(const Statement& statement) {
    Parameters parameters;
    EXPECT_TRUE(separateParameters(statement, parameters));
    return parameters.types;
  }

  static std::string keyOf(const Statement& statement) {
    Parameters parameters;
    EXPECT_TRUE(separateParameters(statement, parameters));
    return parameters.key;
  }

  using Reply = std::unique_ptr<PGresult, void (*)(PGresult*)>;

  // Runs the statement with its values apart.
  Reply runWithParameters(const Statement& statement) {
    appliance::checked();
    Parameters parameters;
    EXPECT_TRUE(separateParameters(statement, parameters)) << statementText(statement);
    Reply reply(PQexecParams(live().raw(), parameterText(statement).c_str(), static_cast<int>(parameters.values.size()),
                             parameters.types.data(), parameters.values.data(), nullptr, nullptr, 0),
                PQclear);
    return reply;
  }

  Connection connection_;
};

TEST_F(StatementTest, PutsEachKindOfValueInItsPlace) {
  expectTexts(sql("Select 1"), "Select 1", "Select 1");
  expectTexts(sql("a = '%s'", Text{"it's ''%s'' $1"}), "a = 'it''s ''''%s'''' $1'", "a = $1");
  expectTexts(sql("a = '%s' and b = %s", Raw("o''neil"), Raw("-1.5")), "a = 'o''neil' and b = -1.5",
              "a = $1 and b = $2");
  expectTexts(sql("a = '%s' and b = %s", 7, -8LL), "a = '7' and b = -8", "a = $1 and b = $2");
  expectTexts(sql("(%s, %s)", QuotedOrNull{Raw("2011-01-01")}, QuotedOrNull{}), "('2011-01-01', NULL)", "($1, $2)");
  expectTexts(sql("%s in (%s)", Name("id"), List::of({"a", "it's", ""}, ", ")), "id in ('a', 'it''s', '')",
              "id in ('a', 'it''s', '')");
  expectTexts(sql("id in (%s) and a = '%s'", List::ofNumbers("1, 2"), Text{"x"}), "id in (1, 2) and a = 'x'",
              "id in (1, 2) and a = $1");
  expectTexts(sql("Select * from %s%s where %s = '%s'", Name("photo_image"), Name("_bak"), Name("path"), Text{"p"}),
              "Select * from photo_image_bak where path = 'p'", "Select * from photo_image_bak where path = $1");
  expectTexts(sql("a like '%%' and b = '%s' and c = '100%%'", Text{"%%"}), "a like '%' and b = '%%' and c = '100%'",
              "a like '%' and b = $1 and c = '100%'");
  expectTexts(sql("f('%s','%s',%s)", Text{""}, Raw(), 0), "f('','',0)", "f($1,$2,$3)");
}

TEST_F(StatementTest, CountsMoreThanNineParameters) {
  const Raw n("1");
  expectTexts(sql("%s,%s,%s,%s,%s,%s,%s,%s,%s,'%s',%s", n, n, n, n, n, n, n, n, n, Text{"t"}, n),
              "1,1,1,1,1,1,1,1,1,'t',1", "$1,$2,$3,$4,$5,$6,$7,$8,$9,$10,$11");
}

TEST_F(StatementTest, RemembersTheLineOfItsTemplate) {
  const int line = __LINE__ + 1;
  EXPECT_EQ(sql("Select 1").line, line);
  appliance::checked();
}

TEST_F(StatementTest, KeepsCopiesOfItsValues) {
  Text value{"first"};
  const Statement statement = sql("Select '%s'", value);
  value.text = "second";
  EXPECT_EQ(statementText(statement), "Select 'first'");
  appliance::checked();
}

TEST_F(StatementTest, TellsRawValuesThatKeepTheirPlaces) {
  for (const char* const value : {"", "plain", "o''neil", "''", "''''", "x; y", "-- no comment", "back\\slash"}) {
    EXPECT_TRUE(valuesKeepTheirPlaces(sql("'%s'", Raw(value)))) << value;
    EXPECT_TRUE(value[0] == '\0' || valuesKeepTheirPlaces(sql("%s", QuotedOrNull{Raw(value)}))) << value;
  }
  for (const char* const value : {"'", "'''", "o'neil", "x' --", "t' or 't'='t", "o''neil'"}) {
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("'%s'", Raw(value)))) << value;
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("%s", QuotedOrNull{Raw(value)}))) << value;
  }
  for (const char* const value : {"", "1", "-2.5e+3", "1 + 1", " 7 "}) {
    EXPECT_TRUE(valuesKeepTheirPlaces(sql("%s", Raw(value)))) << value;
  }
  for (const char* const value :
       {"1 --", "1 or true", "(1)", "1; 2", "'1'", "1/2", "pg_sleep", "--", "1\n2", "\xC2\xB2"}) {
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("%s", Raw(value)))) << value;
  }
  EXPECT_TRUE(valuesKeepTheirPlaces(sql("'%s'", Text{"' --"})));
  EXPECT_FALSE(valuesKeepTheirPlaces(sql("'%s', %s, '%s'", Text{"x"}, Raw("x"), Raw("x"))));
  EXPECT_FALSE(valuesKeepTheirPlaces(sql("%s, '%s'", 1, Raw("'"))));
  appliance::checked();
}

TEST_F(StatementTest, RefusesListsAndNamesOfAnythingElse) {
  for (const char* const numbers : {"", "1", "1,2", " 1 , 2 ", "99999999999999999999"}) {
    EXPECT_TRUE(valuesKeepTheirPlaces(sql("in (%s)", List::ofNumbers(numbers)))) << numbers;
  }
  for (const char* const numbers : {"a", "1)", "-1", "'1", "1;2", "1\n", "1.5"}) {
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("in (%s)", List::ofNumbers(numbers)))) << numbers;
  }
  EXPECT_TRUE(valuesKeepTheirPlaces(sql("in (%s)", List::of({"'; --"}, ","))));
  EXPECT_TRUE(valuesKeepTheirPlaces(sql("from %s%s", Name("Photo_image2"), Name(""))));
  for (const char* const name : {"a b", "a;", "a--", "\"a\"", "a.b", "a\xC3\xA9", "a'"}) {
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("from %s", Name(name)))) << name;
    EXPECT_THAT(valuesOf(sql("from %s", Name(name))), ElementsAre("(none)")) << name;
  }
  appliance::checked();
}

TEST_F(StatementTest, GivesItsValuesAsTheServerReadsThem) {
  EXPECT_THAT(valuesOf(sql("'%s', '%s', '%s', %s", Text{"it's"}, Raw("o''neil''"), Raw("a"), Raw("-12"))),
              ElementsAre("it's", "o'neil'", "a", "-12"));
  EXPECT_THAT(valuesOf(sql("%s, %s, %s", QuotedOrNull{Raw("''")}, QuotedOrNull{}, QuotedOrNull{Raw("1")})),
              ElementsAre("'", "(null)", "1"));
  EXPECT_THAT(valuesOf(sql("'%s' %s %s", 1, 2, Name("desc"))), ElementsAre("1", "2"));
  EXPECT_THAT(valuesOf(sql("'%s'", Text{""})), ElementsAre(""));
  // Several that must be changed stay where they are.
  EXPECT_THAT(valuesOf(sql("'%s', '%s', '%s'", Raw("''1"), Raw("''2"), Raw("''3"))), ElementsAre("'1", "'2", "'3"));
  EXPECT_THAT(valuesOf(sql("in (%s)", List::ofNumbers("1"))), ElementsAre("(none)"));
  EXPECT_THAT(valuesOf(sql("'%s', '%s'", Text{"a"}, Raw("'"))), ElementsAre("(none)"));
  EXPECT_THAT(valuesOf(sql("%s", QuotedOrNull{Raw("'")})), ElementsAre("(none)"));
}

TEST_F(StatementTest, GivesNumbersTheTypesOfTheirLiterals) {
  EXPECT_THAT(typesOf(sql("%s, %s, %s, %s", Raw("0"), Raw("-1"), Raw("007"), Raw("2147483647"))),
              ElementsAre(kInt4, kInt4, kInt4, kInt4));
  EXPECT_THAT(typesOf(sql("%s, %s, %s", Raw("2147483648"), Raw("-2147483649"), Raw("9223372036854775807"))),
              ElementsAre(kInt8, kInt8, kInt8));
  EXPECT_THAT(typesOf(sql("%s, %s, %s, %s", Raw("9223372036854775808"), Raw("1.5"), Raw("-0.0"), Raw("1."))),
              ElementsAre(kNumeric, kNumeric, kNumeric, kNumeric));
  EXPECT_THAT(typesOf(sql("'%s', '%s', '%s', %s", Raw("1"), Text{"1"}, 1, QuotedOrNull{Raw("1")})),
              ElementsAre(kNoType, kNoType, kNoType, kNoType));
  for (const char* const sum :
       {"1 + 1", "1e5", "1E5", "", " ", " 1", "1 ", "+1", "- 1", "-", ".", ".5", "-.5", "1.2.3", "1-1", "1e"}) {
    EXPECT_THAT(valuesOf(sql("%s", Raw(sum))), ElementsAre("(none)")) << sum;
  }
}

TEST_F(StatementTest, HasAKeyOfItsTemplateNamesAndTypes) {
  const auto select = [](const Name& table, const Raw& number, const char* text) {
    return sql("Select * from %s where a = %s and b = '%s'", table, number, Text{text});
  };
  const std::string key = keyOf(select("photo_image", Raw("1"), "x"));
  EXPECT_EQ(keyOf(select("photo_image", Raw("22"), "y")), key);
  EXPECT_NE(keyOf(select("photo_image", Raw("3000000000"), "x")), key);
  EXPECT_NE(keyOf(select("photo_image", Raw("1.5"), "x")), key);
  EXPECT_NE(keyOf(select("photo_label", Raw("1"), "x")), key);
  const auto joined = [](const char* first, const char* second) {
    return sql("Select * from %s%s", Name(first), Name(second));
  };
  EXPECT_NE(keyOf(joined("a", "bc")), keyOf(joined("ab", "c")));
  appliance::checked();
}

// Values that a column may hold, each of them in its text form.
struct ColumnValues {
  const char* type;
  std::vector<std::string> values;
};

TEST_F(StatementTest, MeansTheSameToTheServerInBothForms) {
  const std::vector<ColumnValues> columns = {
      {"integer", {"0", "-1", "2147483647", "007"}},
      {"bigint", {"5", "2147483648", "-9223372036854775807"}},
      {"text", {"", "it''s", "''", "back\\slash", "100%", "\xE6\xBC\xA2\xF0\x9F\x98\x80", "2011-01-01", "$1"}},
      {"boolean", {"t", "f", "1", "true", " off "}},
      {"timestamp", {"2011-01-01 00:00:00", "2011-01-01", "infinity", "20110203T040506"}},
  };
  for (const ColumnValues& column : columns) {
    live().exec(std::string("DROP TABLE IF EXISTS texts, parameters; CREATE TABLE texts (id serial, v ") + column.type +
                "); CREATE TABLE parameters (LIKE texts INCLUDING ALL); ALTER TABLE parameters ALTER id SET DEFAULT "
                "nextval('texts_id_seq'::regclass)");
    const auto both = [&](const auto& make) {
      SCOPED_TRACE(column.type + std::string(" ") + statementText(make("texts")));
      ASSERT_TRUE(execute(connection_.get(), make("texts")));
      const Reply reply = runWithParameters(make("parameters"));
      ASSERT_EQ(PQresultStatus(reply.get()), PGRES_COMMAND_OK) << PQresultErrorMessage(reply.get());
      EXPECT_EQ(live().rows("SELECT v FROM texts ORDER BY id"), live().rows("SELECT v FROM parameters ORDER BY id"));
    };
    for (const std::string& value : column.values) {
      both([&](const char* table) { return sql("Insert into %s (v) Values ('%s')", Name(table), Raw(value)); });
      both([&](const char* table) {
        return sql("Insert into %s (v) Values (%s)", Name(table), QuotedOrNull{Raw(value)});
      });
      both([&](const char* table) {
        return sql("Update %s set v = '%s' where v = '%s'", Name(table), Raw(value), Raw(value));
      });
      if (std::string(column.type) == "integer" || std::string(column.type) == "bigint") {
        both([&](const char* table) { return sql("Insert into %s (v) Values (%s)", Name(table), Raw(value)); });
        both([&](const char* table) {
          return sql("Update %s set v = %s where v = %s", Name(table), Raw(value), Raw(value));
        });
      }
      both([&](const char* table) { return sql("Delete from %s where v = '%s'", Name(table), Raw(value)); });
    }
  }
  for (const char* const number :
       {"0", "-1", "007", "2147483647", "2147483648", "-2147483649", "9223372036854775808", "1.5", "-0.0", "1."}) {
    const Statement statement = sql("Select pg_typeof(%s) as type, %s as number", Raw(number), Raw(number));
    Result text;
    ASSERT_TRUE(execute(connection_.get(), text, statement));
    ASSERT_TRUE(fetchRow(text));
    const Reply reply = runWithParameters(statement);
    ASSERT_EQ(PQntuples(reply.get()), 1) << PQresultErrorMessage(reply.get());
    EXPECT_EQ(PQgetvalue(reply.get(), 0, 0), fieldText(text, "type")) << number;
    EXPECT_EQ(PQgetvalue(reply.get(), 0, 1), fieldText(text, "number")) << number;
  }
}

TEST_F(StatementTest, LooksAtTheValuesThatItHoldsNotAtThoseThatWere) {
  Raw changed("1");
  changed.text = "1; Drop table photo_label";
  EXPECT_FALSE(valuesKeepTheirPlaces(sql("Select %s", changed)));
  EXPECT_FALSE(valuesKeepTheirPlaces(sql("Select %s", QuotedOrNull{Raw("it's")})));
  for (const char* const list : {"1) or (true", "'a') or ('b' = 'b'", "'a", "a'b'", "'a''", "'a' or 'b'"}) {
    EXPECT_FALSE(valuesKeepTheirPlaces(sql("Select 1 in (%s)", List{list}))) << list;
  }
  for (const char* const list : {"", "1", "1, 2,3", "'a'", "'it''s', ''", "''''"}) {
    EXPECT_TRUE(valuesKeepTheirPlaces(sql("Select 1 in (%s)", List{list}))) << list;
  }
  appliance::checked();
}

}  // namespace
