#include "platform/database.h"

#include <libpq-fe.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "platform/handles.h"
#include "platform/query.h"
#include "support/run_statement.h"
#include "support/tool_test.h"

namespace {

using appliance::Rows;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// A variable of this process's environment, put back at the end.
class Variable {
 public:
  Variable(const char* name, const char* value) : name_(name) {
    if (const char* before = getenv(name)) {
      before_ = before;
    }
    setenv(name, value, 1);
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;
  ~Variable() {
    if (before_) {
      setenv(name_, before_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> before_;
};

class DatabaseAccess : public appliance::ToolTest {
 protected:
  void TearDown() override {
    KAVODBSpillDirectorySet("");
    ToolTest::TearDown();
  }

  static std::string valueOf(DBConnect_tag* connection, const std::string& statement) {
    Result result;
    EXPECT_TRUE(appliance::runStatement(connection, result, statement)) << statement;
    appliance::checked();
    EXPECT_EQ(KAVODBFetchRow(result.handle, &result.row), 0);
    return KAVODBFetchField(result.handle, result.row, "v");
  }
  static std::string setting(DBConnect_tag* connection, const std::string& name) {
    return valueOf(connection, "SELECT current_setting('" + name + "') AS v");
  }
  // The reason why the statement failed.
  static std::string errorOf(DBConnect_tag* connection, const char* statement) {
    appliance::checked();
    Result result;
    EXPECT_EQ(KAVODBExecute(connection, statement, &result.handle), -1) << statement;
    EXPECT_EQ(result.handle, nullptr);
    return KAVODBErrorGet(connection);
  }
  // The files without a name that this process holds open in a directory.
  static int namelessFilesIn(const std::string& directory) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      const std::string target = std::filesystem::read_symlink(entry, gone);
      if (!gone && target.rfind(directory, 0) == 0 && target.find("(deleted)") != std::string::npos) {
        ++count;
      }
    }
    return count;
  }
  appliance::Outcome import(const std::string& database, const appliance::RunOptions& options = {}) {
    return run({"-i", appliance::workDirectory(), "-d", database}, options);
  }
};

TEST_F(DatabaseAccess, SettlesWhatValuesMeanInEverySession) {
  for (const char* name : {"", "PGOPTIONS", "PGDATESTYLE", "PGCLIENTENCODING", "PGAPPNAME"}) {
    const std::string variable = name;
    const Variable given(variable.empty() ? "UNUSED" : name,
                         variable == "PGOPTIONS"
                             ? "-c datestyle=German -c standard_conforming_strings=off -c synchronous_commit=on -c "
                               "jit=on -c work_mem=7MB"
                         : variable == "PGDATESTYLE"      ? "SQL, DMY"
                         : variable == "PGCLIENTENCODING" ? "LATIN1"
                                                          : "something");
    const Connection connection = connectTo("photo");
    ASSERT_TRUE(connection) << name;
    EXPECT_EQ(setting(connection.get(), "client_encoding"), "UTF8") << name;
    EXPECT_EQ(setting(connection.get(), "standard_conforming_strings"), "on") << name;
    EXPECT_THAT(setting(connection.get(), "datestyle"), testing::StartsWith("ISO")) << name;
    EXPECT_EQ(setting(connection.get(), "application_name"), "kavophoto_backup") << name;
    EXPECT_EQ(setting(connection.get(), "synchronous_commit"), "off") << name;
    EXPECT_EQ(setting(connection.get(), "jit"), "off") << name;
    EXPECT_EQ(setting(connection.get(), "work_mem"), variable == "PGOPTIONS" ? "7MB" : "4MB") << name;
    EXPECT_EQ(valueOf(connection.get(), "SELECT timestamp '2026-03-07 09:05:01.25' AS v"), "2026-03-07 09:05:01.25");
  }
}

TEST_F(DatabaseAccess, SettlesItAgainstTheDatabasesOwnSettings) {
  live().exec(
      "ALTER DATABASE photo SET datestyle = 'German'; ALTER DATABASE photo SET standard_conforming_strings = off;"
      "ALTER DATABASE photo SET synchronous_commit = on; ALTER DATABASE photo SET jit = on");
  const Connection connection = connectTo("photo");
  EXPECT_EQ(valueOf(connection.get(), "SELECT timestamp '2026-03-07 09:05:01' || '\\n' AS v"),
            "2026-03-07 09:05:01\\n");
  EXPECT_EQ(setting(connection.get(), "synchronous_commit"), "off");
  EXPECT_EQ(setting(connection.get(), "jit"), "off");
}

TEST_F(DatabaseAccess, MergesDatesWhateverStyleTheEnvironmentAsksFor) {
  other().exec("INSERT INTO photo_log VALUES (1, '2026-03-07 09:05:01', 'l', true, 'u')");
  for (const char* style : {"PGDATESTYLE=SQL, DMY", "PGOPTIONS=-c datestyle=German", "PGDATESTYLE=Postgres, MDY"}) {
    live().exec("TRUNCATE photo_log; ALTER DATABASE photo SET datestyle = 'ISO, YMD'");
    appliance::RunOptions options;
    options.env = {style};
    EXPECT_EQ(import("other", options).status, 0);
    expectNoMessages();
    expectRows(live(), "SELECT extract(month FROM create_time), extract(day FROM create_time) FROM photo_log",
               {{"3", "7"}});
  }
}

TEST_F(DatabaseAccess, ShowsTheNameOfASessionToTheServer) {
  const Variable given("PGAPPNAME", "something");
  const Connection connection(KAVODBConnectAs("another name", nullptr, "postgres", nullptr, "photo"));
  ASSERT_TRUE(connection);
  EXPECT_EQ(setting(connection.get(), "application_name"), "another name");
  EXPECT_EQ(setting(connection.get(), "synchronous_commit"), "off");
}

TEST_F(DatabaseAccess, RemembersHowTheServerOfAServiceIsReached) {
  const char* const host = getenv("PGHOST");
  const std::string right = std::string("PGHOST=") + (host != nullptr ? host : "");
  appliance::writeFile("/tmp/service.conf",
                       "[right]\nhost=" + right.substr(sizeof "PGHOST") +
                           "\npassword=secret\nsslmode=disable\nuser=nobody\ndbname=other\noptions=-c jit=on\n"
                           "application_name=theirs\nclient_encoding=LATIN1\n[wrong]\nhost=/tmp/no_server_here\n");
  const Variable file("PGSERVICEFILE", "/tmp/service.conf");
  const Variable nowhere("PGHOST", "/tmp/nowhere_either");
  const auto reached =
      testing::IsSupersetOf({right, std::string("PGPASSWORD=secret"), std::string("PGSSLMODE=disable")});
  const auto others = testing::Each(Not(
      testing::MatchesRegex("(PGUSER|PGDATABASE|PGOPTIONS|PGAPPNAME|PGCLIENTENCODING|PGSERVICE|PGSERVICEFILE)=.*")));
  {
    const Variable service("PGSERVICE", "right");
    ASSERT_TRUE(connectTo("photo"));
    EXPECT_THAT(lastServerVariables(), AllOf(reached, others));
  }
  {
    const Variable service("PGSERVICE", "unknown");
    EXPECT_FALSE(connectTo("photo"));
    EXPECT_THAT(lastServerVariables(), AllOf(reached, others));
  }
  {
    const Variable service("PGSERVICE", "wrong");
    EXPECT_FALSE(connectTo("photo"));
    EXPECT_THAT(lastServerVariables(), testing::Contains("PGHOST=/tmp/no_server_here"));
    EXPECT_THAT(lastServerVariables(), Not(testing::Contains("PGPASSWORD=secret")));
  }
  expectNoMessages();
}

TEST_F(DatabaseAccess, GoesToTheServerOfTheEnvironment) {
  const char* const host = getenv("PGHOST");
  const std::string right = host != nullptr ? host : "";
  {
    const Variable nowhere("PGHOST", "/tmp/no_server_here");
    EXPECT_FALSE(connectTo("photo"));
    EXPECT_TRUE(Connection(KAVODBConnect(right.c_str(), "postgres", "unused", "photo")));
  }
  {
    const Variable port("PGPORT", "5555");
    EXPECT_FALSE(connectTo("photo"));
  }
  EXPECT_TRUE(connectTo("photo"));
  expectNoMessages();
}

TEST_F(DatabaseAccess, ConnectsToNothingUnderAnEmptyName) {
  appliance::createDatabase("postgres2");
  EXPECT_EQ(KAVODBConnect(nullptr, "postgres", nullptr, ""), nullptr);
  EXPECT_EQ(KAVODBConnect(nullptr, "postgres", nullptr, nullptr), nullptr);
  KAVODBClose(nullptr);
  EXPECT_EQ(import("").status, 255);
  expectMessages({"Failed to connect to database ()"});
}

TEST_F(DatabaseAccess, ReadsADatabaseNameNeverAsAConnectionString) {
  for (const char* name : {"dbname=photo", "dbname=photo host=/appliance/run", "postgresql:///photo", "photo?x=1"}) {
    EXPECT_EQ(import(name).status, 255) << name;
    expectMessages({std::string("Failed to connect to database (") + name + ")"});
  }
  appliance::createDatabase("dbname=photo user='x'");
  appliance::Database("dbname=photo user='x'").exec("INSERT INTO photo_config VALUES ('m', 'k', 'from there')");
  EXPECT_EQ(import("dbname=photo user='x'").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"from there"}});
}

TEST_F(DatabaseAccess, RefusesASecondStatement) {
  const Connection connection = connectTo("photo");
  const std::string refusal = "ERROR:  cannot insert multiple commands into a prepared statement";
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1; SELECT 2"), refusal);
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1; DROP TABLE photo_label"), refusal);
  EXPECT_EQ(valueOf(connection.get(), "SELECT 1 AS v;"), "1");
  EXPECT_EQ(live().count("photo_label"), 0);
}

TEST_F(DatabaseAccess, RefusesAStatementThatAValueSmugglesIn) {
  other().exec(
      "ALTER TABLE photo_label ALTER category TYPE text;"
      "INSERT INTO photo_label (name, category, info) VALUES ('a', '1', ''), ('b', '2; DROP TABLE photo_config', ''),"
      " ('c', '3', '');"
      "INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  EXPECT_EQ(import("other").status, 0);
  expectMessages(
      {"Failed to exec [Select * from photo_label where name = 'b' and category = 2; DROP TABLE photo_config] "
       "(ERROR:  cannot insert multiple commands into a prepared statement)",
       "Table photo_label sync failed.\n"});
  expectRows(live(), "SELECT name FROM photo_label", {{"a"}});
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
}

TEST_F(DatabaseAccess, CarriesTextsFromOneEncodingToAnother) {
  appliance::createDatabase("latin", "LATIN1");
  appliance::Database latin("latin");
  const std::string text = "\u00c4pfel & \u00e9clair 'gr\u00fc\u00df'";
  latin.exec("INSERT INTO photo_config VALUES ('\u00fcber', 'k', '\u00c4pfel & \u00e9clair ''gr\u00fc\u00df''')");
  ASSERT_EQ(latin.value("SELECT length(convert_to(module_name, 'LATIN1')) FROM photo_config"), "4");
  EXPECT_EQ(import("latin").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT module_name, config_value FROM photo_config", {{"\u00fcber", text}});
  live().exec("UPDATE photo_config SET config_value = 'edited'");
  EXPECT_EQ(import("latin").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{text}});
}

TEST_F(DatabaseAccess, ReportsATextThatTheLiveEncodingCannotHold) {
  other().exec("INSERT INTO photo_config VALUES ('m', '1', 'na\u00efve'), ('m', '2', '\u20ac 5'), ('m', '3', 'z')");
  appliance::createDatabase("photo", "LATIN1");
  EXPECT_EQ(import("other").status, 0);
  expectMessages(
      {"Failed to exec [Insert into photo_config (module_name, config_key, config_value) Values ('m', '2', "
       "'\u20ac 5')] (ERROR:  character with byte sequence 0xe2 0x82 0xac in encoding \"UTF8\" has no "
       "equivalent in encoding \"LATIN1\")",
       "Table photo_config sync failed.\n"});
  expectRows(live(), "SELECT config_key, config_value FROM photo_config", {{"1", "na\u00efve"}});
}

TEST_F(DatabaseAccess, CarriesTheStoredBytesOfADatabaseWithoutAnEncoding) {
  appliance::createDatabase("bytes", "SQL_ASCII");
  appliance::Database bytes("bytes");
  bytes.exec("INSERT INTO photo_config VALUES ('m', 'utf8', '\u00e9'), ('m', 'latin1', E'M\\xfcller')");
  EXPECT_EQ(import("bytes").status, 0);
  // What is no UTF-8 cannot be stored in the live database, and is not changed into something that can.
  expectMessages(
      {"Failed to exec [Insert into photo_config (module_name, config_key, config_value) Values ('m', 'latin1', "
       "'M\xfcller')] (ERROR:  invalid byte sequence for encoding \"UTF8\": 0xfc)",
       "Table photo_config sync failed.\n"});
  expectRows(live(), "SELECT config_key, config_value FROM photo_config", {{"utf8", "\u00e9"}});

  appliance::createDatabase("photo", "SQL_ASCII");
  EXPECT_EQ(import("bytes").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_key, encode(config_value::bytea, 'hex') FROM photo_config ORDER BY 1",
             {{"latin1", "4dfc6c6c6572"}, {"utf8", "c3a9"}});
  const Connection connection = connectTo("photo");
  EXPECT_EQ(setting(connection.get(), "client_encoding"), "SQL_ASCII");
}

TEST_F(DatabaseAccess, GivesTheEmptyTextForWhatIsNotThere) {
  const Connection connection = connectTo("photo");
  Result result;
  ASSERT_EQ(KAVODBExecute(connection.get(), "SELECT NULL AS nothing, '' AS empty, 'first' AS twice, 'second' AS twice",
                          &result.handle),
            0);
  ASSERT_EQ(KAVODBFetchRow(result.handle, &result.row), 0);
  EXPECT_STREQ(KAVODBFetchField(result.handle, result.row, "nothing"), "");
  EXPECT_STREQ(KAVODBFetchField(result.handle, result.row, "empty"), "");
  EXPECT_STREQ(KAVODBFetchField(result.handle, result.row, "twice"), "first");
  EXPECT_STREQ(KAVODBFetchField(result.handle, result.row, "Twice"), "");
  EXPECT_STREQ(KAVODBFetchField(result.handle, result.row, "unknown"), "");
  EXPECT_STREQ(KAVODBFetchField(result.handle, nullptr, "twice"), "");
  EXPECT_STREQ(KAVODBFetchField(nullptr, nullptr, "twice"), "");
  DBRow_tag* row = result.row;
  EXPECT_NE(KAVODBFetchRow(nullptr, &row), 0);
  EXPECT_EQ(row, nullptr);
  EXPECT_EQ(KAVODBNumRows(nullptr), 0);
  KAVODBFreeResult(nullptr);
  expectNoMessages();
}

TEST_F(DatabaseAccess, GivesAResultForEveryStatementThatSucceeds) {
  const Connection connection = connectTo("photo");
  Result result;
  for (const char* statement : {"INSERT INTO photo_group VALUES (1, 'a', '')", "SELECT 1 WHERE false", "",
                                "UPDATE photo_group SET description = 'x'", "SET work_mem = '3MB'"}) {
    EXPECT_EQ(KAVODBExecute(connection.get(), statement, &result.handle), 0) << statement;
    EXPECT_NE(result.handle, nullptr) << statement;
    EXPECT_EQ(KAVODBNumRows(result.handle), 0) << statement;
    EXPECT_NE(KAVODBFetchRow(result.handle, &result.row), 0) << statement;
  }
  EXPECT_EQ(KAVODBExecute(connection.get(), "INSERT INTO photo_group VALUES (2, 'b', '') RETURNING groupname AS v",
                          &result.handle),
            0);
  EXPECT_EQ(KAVODBNumRows(result.handle), 1);
  expectRows(live(), "SELECT groupname, description FROM photo_group ORDER BY 1", {{"a", "x"}, {"b", ""}});
}

TEST_F(DatabaseAccess, TellsItsLastErrorOnly) {
  const Connection connection = connectTo("photo");
  EXPECT_STREQ(KAVODBErrorGet(connection.get()), "");
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1/0"), "ERROR:  division by zero");
  EXPECT_EQ(errorOf(connection.get(), "DO $$ BEGIN RAISE 'p' USING DETAIL = 'd', HINT = 'h'; END $$"),
            "ERROR:  p  DETAIL:  d  HINT:  h");
  EXPECT_EQ(valueOf(connection.get(), "SELECT 1 AS v"), "1");
  EXPECT_STREQ(KAVODBErrorGet(connection.get()), "");
  EXPECT_EQ(errorOf(nullptr, "SELECT 1"), "no connection");
}

TEST_F(DatabaseAccess, IgnoresNotices) {
  testing::internal::CaptureStderr();
  {
    const Connection connection = connectTo("photo");
    ASSERT_TRUE(execute(connection.get(), "DROP TABLE IF EXISTS nothing"));
    ASSERT_TRUE(execute(connection.get(), "DO $$ BEGIN RAISE WARNING 'careful'; END $$"));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  expectNoMessages();
}

TEST_F(DatabaseAccess, SaysThatTheServerWentAway) {
  const Connection connection = connectTo("photo");
  EXPECT_TRUE(KAVODBIsUsable(connection.get()));
  appliance::server::terminateBackends("photo");
  EXPECT_THAT(
      errorOf(connection.get(), "SELECT 1"),
      AllOf(testing::StartsWith("FATAL:  terminating connection due to administrator command"), Not(HasSubstr("\n"))));
  EXPECT_FALSE(KAVODBIsUsable(connection.get()));
  EXPECT_THAT(errorOf(connection.get(), "SELECT 1"), AllOf(Not(HasSubstr("\n")), Not("")));
}

TEST_F(DatabaseAccess, EscapesTexts) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"", ""},        {"plain", "plain"}, {"'", "''"}, {"it's 'x'", "it''s ''x''"}, {R"(a\'b\\)", R"(a\''b\\)"},
      {"%s%n", "%s%n"}};
  const Connection connection = connectTo("photo");
  for (const auto& [text, expected] : cases) {
    const AllocatedText escaped(KAVODBEscapeStrAlloc(text));
    EXPECT_STREQ(escaped.get(), expected);
    EXPECT_EQ(valueOf(connection.get(), std::string("SELECT '") + escaped.get() + "' AS v"), text);
  }
  EXPECT_EQ(KAVODBEscapeStrAlloc(nullptr), nullptr);
}

TEST_F(DatabaseAccess, FillsATemplateWithAnEscapedValue) {
  const Connection connection = connectTo("photo");
  const int type = KAVODBDatabaseTypeGet(connection.get());
  const auto filled = [type](const char* text, const char* value) {
    const AllocatedText result(KAVODBEscapeStringEX3(type, text, value));
    return std::string(result ? result.get() : "(none)");
  };
  EXPECT_EQ(filled("name = '@KAVO:VAR'", "it's"), "name = 'it''s'");
  EXPECT_EQ(filled("@KAVO:VAR-@KAVO:VAR", "x"), "x-x");
  EXPECT_EQ(filled("'@KAVO:VAR'", "@KAVO:VAR"), "'@KAVO:VAR'");
  EXPECT_EQ(filled("@KAVO:VAR", ""), "");
  EXPECT_EQ(filled("no place", "x"), "no place");
  EXPECT_EQ(filled("'@KAVO:VAR' stays", nullptr), "'@KAVO:VAR' stays");
  EXPECT_EQ(filled("@KAVO:VA", "x"), "@KAVO:VA");
  EXPECT_EQ(filled(nullptr, "x"), "(none)");
  EXPECT_EQ(KAVODBDatabaseTypeGet(nullptr), 0);
  EXPECT_EQ(KAVODBEscapeStringEX3(0, "x", "y"), nullptr);
  EXPECT_EQ(KAVODBEscapeStringEX3(type + 1, "x", "y"), nullptr);
  expectNoMessages();
}

TEST_F(DatabaseAccess, CommitsOrLosesATransactionAsAWhole) {
  {
    const Connection connection = connectTo("photo");
    KAVODBTransBegin(connection.get());
    ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (1, 'committed', '')"));
    EXPECT_EQ(live().count("photo_group"), 0);
    KAVODBTransCommit(connection.get());
    EXPECT_EQ(live().count("photo_group"), 1);
    KAVODBTransBegin(connection.get());
    ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (2, 'lost', '')"));
  }
  expectRows(live(), "SELECT groupname FROM photo_group", {{"committed"}});
  KAVODBTransBegin(nullptr);
  KAVODBTransCommit(nullptr);
  expectNoMessages();
}

TEST_F(DatabaseAccess, IsNotUsableWhileAFailedTransactionIsOpen) {
  const Connection connection = connectTo("photo");
  KAVODBTransBegin(connection.get());
  EXPECT_TRUE(KAVODBIsUsable(connection.get()));
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1/0"), "ERROR:  division by zero");
  EXPECT_FALSE(KAVODBIsUsable(connection.get()));
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1"),
            "ERROR:  current transaction is aborted, commands ignored until end of transaction block");
  EXPECT_FALSE(KAVODBIsUsable(nullptr));
}

TEST_F(DatabaseAccess, KeepsAPersistentConnectionWhileItIsUsable) {
  const auto connect = [] { return KAVODBPConnect(nullptr, "postgres", nullptr, "photo"); };
  EXPECT_EQ(KAVODBPConnect(nullptr, "postgres", nullptr, "missing"), nullptr);
  DBConnect_tag* const first = connect();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(connect(), first);
  const std::string backend = valueOf(first, "SELECT pg_backend_pid() AS v");
  DBConnect_tag* const elsewhere = KAVODBPConnect(nullptr, "postgres", nullptr, "postgres");
  EXPECT_NE(elsewhere, first);
  EXPECT_EQ(valueOf(elsewhere, "SELECT current_database() AS v"), "postgres");
  appliance::server::terminateBackends("photo");
  EXPECT_THAT(errorOf(first, "SELECT 1"), HasSubstr("terminating connection"));
  DBConnect_tag* const second = connect();
  ASSERT_NE(second, nullptr);
  EXPECT_NE(valueOf(second, "SELECT pg_backend_pid() AS v"), backend);
  EXPECT_EQ(connect(), second);
}

TEST_F(DatabaseAccess, GivesManyRowsInTheServersOrder) {
  const Connection connection = connectTo("photo");
  KAVODBSpillDirectorySet("/tmp/backup/");
  Result result;
  ASSERT_EQ(
      KAVODBExecute(connection.get(),
                    "SELECT i AS number, CASE WHEN i % 3 = 0 THEN NULL ELSE repeat('\u00e9', i % 200) END AS text "
                    "FROM generate_series(100000, 1, -1) i",
                    &result.handle),
      0);
  EXPECT_EQ(namelessFilesIn("/tmp/backup/"), 1);
  EXPECT_EQ(KAVODBNumRows(result.handle), 100000);
  int number = 100000;
  for (; KAVODBFetchRow(result.handle, &result.row) == 0; --number) {
    ASSERT_EQ(KAVODBFetchField(result.handle, result.row, "number"), std::to_string(number));
    ASSERT_EQ(std::string(KAVODBFetchField(result.handle, result.row, "text")).size(),
              number % 3 == 0 ? 0U : static_cast<std::size_t>(number % 200) * 2);
  }
  EXPECT_EQ(number, 0);
  EXPECT_EQ(KAVODBNumRows(result.handle), 100000);
  KAVODBFreeResult(result.handle);
  result.handle = nullptr;
  EXPECT_EQ(namelessFilesIn("/tmp/backup/"), 0);
  expectNoMessages();
}

TEST_F(DatabaseAccess, RunsOtherStatementsWhileManyRowsAreRead) {
  const Connection connection = connectTo("photo");
  Result outer;
  ASSERT_TRUE(execute(connection.get(), outer, "SELECT i AS v, repeat('x', 500) FROM generate_series(1, 5000) i"));
  Result inner;
  ASSERT_TRUE(execute(connection.get(), inner, "SELECT i AS v, repeat('y', 500) FROM generate_series(1, 5000) i"));
  ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (1, '0', '')"));
  for (int number = 1; number <= 5000; ++number) {
    ASSERT_TRUE(fetchRow(outer) && fetchRow(inner));
    ASSERT_EQ(fieldText(outer, "v"), std::to_string(number));
    ASSERT_EQ(fieldText(inner, "v"), std::to_string(number));
    if (number % 100 == 0) {
      ASSERT_TRUE(execute(connection.get(), "UPDATE photo_group SET groupname = '%s'", number));
    }
  }
  EXPECT_FALSE(fetchRow(outer) || fetchRow(inner));
  expectRows(live(), "SELECT groupname FROM photo_group", {{"5000"}});
}

TEST_F(DatabaseAccess, ReportsAnErrorBehindManyRowsAtOnce) {
  const Connection connection = connectTo("photo");
  EXPECT_EQ(errorOf(connection.get(), "SELECT 1 / (100000 - i), repeat('x', 100) FROM generate_series(1, 100000) i"),
            "ERROR:  division by zero");
  EXPECT_EQ(valueOf(connection.get(), "SELECT 2 AS v"), "2");
  EXPECT_EQ(namelessFilesIn("/tmp/"), 0);
}

TEST_F(DatabaseAccess, ReportsAServerThatGoesAwayBehindManyRows) {
  const Connection connection = connectTo("photo");
  EXPECT_THAT(errorOf(connection.get(),
                      "SELECT CASE WHEN i = 50000 THEN pg_terminate_backend(pg_backend_pid())::text ELSE "
                      "repeat('x', 100) END FROM generate_series(1, 100000) i"),
              HasSubstr("terminating connection due to administrator command"));
}

TEST_F(DatabaseAccess, MergesATableLargerThanTheDiskOfItsWorkDirectory) {
  appliance::mountSmall("/tmp/backup", std::size_t{1} << 20U);
  appliance::writeFile("/var/services/photo/first.avi", "x");
  appliance::writeFile("/var/services/photo/last.avi", "x");
  other().exec(
      "INSERT INTO video_desc (path, title, description) SELECT '/var/services/photo/' || CASE i WHEN 1 THEN 'first' "
      "WHEN 20000 THEN 'last' ELSE 'gone' || i END || '.avi', 't' || i, repeat('d', 500) FROM generate_series(1, "
      "20000) "
      "i");
  EXPECT_EQ(import("other").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT path, title FROM video_desc ORDER BY id",
             {{"/var/services/photo/first.avi", "t1"}, {"/var/services/photo/last.avi", "t20000"}});
}

TEST_F(DatabaseAccess, MergesFromAReadOnlyWorkDirectory) {
  appliance::mountReadOnly("/tmp/backup");
  appliance::writeFile("/var/services/photo/last.avi", "x");
  other().exec(
      "INSERT INTO video_desc (path, title, description) SELECT '/var/services/photo/' || CASE i WHEN 20000 THEN "
      "'last' "
      "ELSE 'gone' || i END || '.avi', 't' || i, repeat('d', 500) FROM generate_series(1, 20000) i");
  EXPECT_EQ(import("other").status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT title FROM video_desc", {{"t20000"}});
}

TEST_F(DatabaseAccess, NeedsNoMoreMemoryForALargeTable) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own memory hides the tool's";
#endif
  other().exec(
      "INSERT INTO video_desc (path, title, description) SELECT '/var/services/photo/gone' || i || '.avi', "
      "'t', repeat('d', 1000) FROM generate_series(1, 200000) i");
  const appliance::Outcome outcome = import("other");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_LT(outcome.peakKilobytes, 64 * 1024);
  expectNoMessages();
}

TEST_F(DatabaseAccess, TellsThePlannerOfATableThatHasGrown) {
  const std::string knownTables =
      "SELECT string_agg(DISTINCT tablename, ' ') FROM pg_stats WHERE schemaname = 'public'";
  const Connection connection = connectTo("photo");
  const auto insert = [&connection](int count) {
    for (int i = 0; i < count; ++i) {
      ASSERT_TRUE(execute(connection.get(), "Insert into photo_label(name, category, info) Values ('', 1, '')"));
      ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_config VALUES ('m', 'k', 'v')"));
    }
  };
  live().exec("INSERT INTO video_desc (path, title, description) SELECT i, 't', 'd' FROM generate_series(1, 2000) i");
  insert(999);
  EXPECT_EQ(live().value(knownTables), "(null)");
  appliance::Database somebody("photo");
  somebody.exec("BEGIN; LOCK TABLE photo_config IN SHARE UPDATE EXCLUSIVE MODE");
  insert(1);
  EXPECT_EQ(live().value(knownTables), "photo_label");
}

TEST_F(DatabaseAccess, WorksOnASingleProcessor) {
  other().exec("INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 100) i");
  appliance::RunOptions taskset;
  taskset.program = "/usr/bin/taskset";
  EXPECT_EQ(run({"-c", "0", appliance::toolPath(), "-i", appliance::workDirectory(), "-d", "other"}, taskset).status,
            0);
  expectNoMessages();
  EXPECT_EQ(live().count("photo_config"), 100);
}

constexpr const char* kMayBeLost = "The last rows written to database photo may be lost. Run the same command again.";

// What is logged when a connection is lost after it has run these statements, and is closed then.
class LostConnection : public DatabaseAccess {
 protected:
  enum class Loss { kNoticed, kUnnoticed };

  static std::vector<std::string> messagesAfter(const std::vector<std::string>& statements, Loss loss) {
    {
      const Connection connection = connectTo("photo");
      for (const std::string& statement : statements) {
        Result result;
        KAVODBExecute(connection.get(), statement.c_str(), &result.handle);
      }
      appliance::server::terminateBackends("photo");
      if (loss == Loss::kNoticed) {
        EXPECT_THAT(errorOf(connection.get(), "SELECT 1"), HasSubstr("terminating connection"));
      }
    }
    return appliance::takeMessages();
  }
};

TEST_F(LostConnection, IsReportedWhenItHasWritten) {
  live().exec("INSERT INTO photo_group VALUES (1, 'a', '')");
  for (const char* statement :
       {"INSERT INTO photo_group VALUES (2, 'b', '')", "INSERT INTO photo_group VALUES (3, 'c', '') RETURNING groupid",
        "UPDATE photo_group SET description = 'x'", "DELETE FROM photo_group", "CREATE TABLE made (i integer)",
        "ALTER TABLE made RENAME TO made_bak", "DROP TABLE made_bak", "TRUNCATE photo_group",
        "DO $$ BEGIN INSERT INTO photo_group VALUES (4, 'd', ''); END $$"}) {
    EXPECT_EQ(messagesAfter({statement, "SELECT 1", "UPDATE photo_label SET name = ''"}, Loss::kNoticed),
              std::vector<std::string>{kMayBeLost})
        << statement;
  }
}

TEST_F(LostConnection, IsReportedWithTheFlushThatFindsIt) {
  const std::vector<std::string> messages =
      messagesAfter({"INSERT INTO photo_group VALUES (1, 'a', '')"}, Loss::kUnnoticed);
  EXPECT_THAT(messages,
              testing::ElementsAre(
                  testing::MatchesRegex("Failed to exec \\[SET synchronous_commit = local; SELECT "
                                        "pg_logical_emit_message\\(true, 'kavophoto_backup', ''\\)\\] \\([^\n]+\\)"),
                  kMayBeLost));
}

TEST_F(LostConnection, IsNoMatterWhenItHasOnlyRead) {
  live().exec("INSERT INTO photo_group SELECT i, 'g' || i, '' FROM generate_series(1, 5) i");
  const std::vector<std::string> reading = {"SELECT * FROM photo_group",
                                            "SELECT * FROM photo_group WHERE groupid = 1",
                                            "SELECT 1 WHERE false",
                                            "",
                                            "SHOW timezone",
                                            "EXPLAIN SELECT 1",
                                            "SELECT 1/0",
                                            "INSERT INTO photo_group SELECT 1, '', '' WHERE false",
                                            "UPDATE photo_group SET groupname = '' WHERE groupid = 9",
                                            "DELETE FROM photo_group WHERE groupid = 9",
                                            "BEGIN",
                                            "SAVEPOINT s",
                                            "LOCK TABLE photo_group",
                                            "SET LOCAL work_mem = '3MB'",
                                            "RELEASE s",
                                            "COMMIT",
                                            "START TRANSACTION",
                                            "ROLLBACK",
                                            "RESET work_mem"};
  for (const Loss loss : {Loss::kNoticed, Loss::kUnnoticed}) {
    EXPECT_EQ(messagesAfter(reading, loss), std::vector<std::string>());
  }
}

// A synchronous standby that nobody has ever seen.
TEST_F(DatabaseAccess, DoesNotWaitForAStandbyThatIsAway) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'imported')");
  appliance::server::restart(
      {"wal_level=replica", "max_wal_senders=2", "synchronous_standby_names=nobody", "synchronous_commit=on"});
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"-b", appliance::workDirectory()},
                                             {"-e", appliance::workDirectory()},
                                             {"-i", appliance::workDirectory(), "-d", "other"}}) {
    EXPECT_EQ(run(arguments).status, 0) << arguments[0];
    expectNoMessages();
  }
  expectRows(live(), "SELECT config_value FROM photo_config", {{"imported"}});
  EXPECT_EQ(run({"-r", appliance::workDirectory(), "-o"}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
}

// A server that follows another one, so that nothing can be written to it.
class Standby : public DatabaseAccess {
 protected:
  static constexpr const char* kSignal = "/appliance/data/standby.signal";

  static void becomeStandby() {
    const std::vector<std::string> settings = {"wal_level=replica", "hot_standby=on"};
    // What was logged with the least that a standby needs is not enough for one.
    appliance::server::restart(settings);
    appliance::writeFile(kSignal, "");
    appliance::server::restart(settings);
  }
  void TearDown() override {
    appliance::removeAll(kSignal);
    DatabaseAccess::TearDown();
  }
};

TEST_F(Standby, IsExportedFrom) {
  live().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 's');"
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1, '2001-01-01')");
  becomeStandby();
  EXPECT_EQ(live().value("SELECT pg_is_in_recovery()"), "t");
  EXPECT_EQ(run({"-e", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists(appliance::workDirectory() + "kavophoto_backup_hox_account.txt"));
}

// A server on which a commit that is not flushed is lost when it is killed.
class Durability : public DatabaseAccess {
 protected:
  void SetUp() override {
    DatabaseAccess::SetUp();
    // Making a database needs one of the processes that are held.
    other();
    appliance::server::restart({"fsync=on", "synchronous_commit=on"});
    holdBackgroundWriters();
  }

  // Kills the server right after another session has committed without a flush, and starts it again. That session's row
  // must be lost, or the server would have saved the tool's rows as well, flushed or not.
  void killServer() {
    {
      appliance::Database control("postgres");
      control.exec("SET synchronous_commit = off; CREATE TABLE IF NOT EXISTS unflushed (i integer)");
      control.exec("INSERT INTO unflushed VALUES (1)");
    }
    appliance::server::killHard();
    appliance::server::start();
    appliance::Database control("postgres");
    EXPECT_EQ(control.value("SELECT to_regclass('unflushed') IS NULL"), "t");
  }

 private:
  // They would flush what is committed sooner or later on their own.
  static void holdBackgroundWriters() {
    appliance::Database server("postgres");
    for (const auto& row : server.rows("SELECT pid FROM pg_stat_activity WHERE backend_type IN ('walwriter', "
                                       "'background writer', 'checkpointer')")) {
      kill(static_cast<pid_t>(std::stol(row[0])), SIGSTOP);
    }
  }
};

TEST_F(Durability, IsReachedWhenAConnectionIsClosed) {
  {
    const Connection connection = connectTo("photo");
    ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (1, 'flushed', '')"));
  }
  killServer();
  expectRows(live(), "SELECT groupname FROM photo_group", {{"flushed"}});
  expectNoMessages();
}

TEST_F(Durability, IsReachedBehindAnOpenTransaction) {
  {
    const Connection connection = connectTo("photo");
    ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (1, 'flushed', '')"));
    KAVODBTransBegin(connection.get());
    ASSERT_TRUE(execute(connection.get(), "INSERT INTO photo_group VALUES (2, 'open', '')"));
    EXPECT_THAT(errorOf(connection.get(), "SELECT 1/0"), HasSubstr("division"));
  }
  killServer();
  expectRows(live(), "SELECT groupname FROM photo_group", {{"flushed"}});
  expectNoMessages();
}

TEST_F(Durability, IsReachedByAnImport) {
  other().exec(
      "INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 500) i;"
      "INSERT INTO photo_log SELECT i, now(), 'l' || i, true, 'u' || i FROM generate_series(1, 500) i;"
      "INSERT INTO photo_personal_collection_for_admin (name, is_shared, hidden) VALUES ('last', false, false)");
  EXPECT_EQ(import("other").status, 0);
  killServer();
  EXPECT_EQ(live().count("photo_config"), 500);
  EXPECT_EQ(live().count("photo_log"), 500);
  EXPECT_EQ(live().count("photo_personal_collection_for_admin"), 1);
  expectNoMessages();
}

TEST_F(Durability, IsReachedByAnImportWhoseLogMergeFails) {
  other().exec(
      "INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 500) i;"
      "INSERT INTO photo_log VALUES (1, now(), 'refused', true, 'u')");
  live().exec("ALTER TABLE photo_log ADD CHECK (log <> 'refused')");
  EXPECT_EQ(import("other").status, 0);
  EXPECT_THAT(appliance::takeMessages(), testing::Contains("Table photo_log sync failed.\n"));
  killServer();
  EXPECT_EQ(live().count("photo_config"), 500);
  EXPECT_EQ(live().count("photo_log"), 0);
}

TEST_F(Durability, IsReachedByAnImportThatIsAbandoned) {
  other().exec(
      "INSERT INTO photo_image (path) VALUES ('/volume2/photo/2019/a.jpg');"
      "DROP TABLE video_comment");
  EXPECT_EQ(import("other").status, 255);
  expectMessages({"Failed to exec [Select path from video_comment] (ERROR:  relation \"video_comment\" does not exist)",
                  "KavophotoCheckPath import video_comment failed."});
  killServer();
  expectRows(other(), "SELECT path FROM photo_image", {{"/var/services/photo2019/a.jpg"}});
}

TEST_F(Durability, IsReachedByARestore) {
  other().exec(
      "INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 500) i;"
      "INSERT INTO photo_log SELECT i, now(), 'l' || i, true, 'u' || i FROM generate_series(1, 500) i");
  appliance::makeArchive(appliance::workDirectory(), "other");
  const auto before = appliance::structure("photo");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}).status, 0);
  killServer();
  EXPECT_EQ(live().count("photo_config"), 500);
  EXPECT_EQ(live().count("photo_log"), 500);
  EXPECT_EQ(appliance::structure("photo"), before);
  expectNoMessages();
}

TEST_F(Durability, IsReachedByARestoreWhoseLogMergeFails) {
  other().exec(
      "INSERT INTO photo_config SELECT 'm', i, 'v' FROM generate_series(1, 500) i;"
      "INSERT INTO photo_log VALUES (1, now(), 'refused', true, 'u')");
  appliance::makeArchive(appliance::workDirectory(), "other");
  live().exec("ALTER TABLE photo_log ADD CHECK (log <> 'refused')");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}).status, 0);
  EXPECT_THAT(appliance::takeMessages(), testing::Contains("Table photo_log sync failed.\n"));
  killServer();
  EXPECT_EQ(live().count("photo_config"), 500);
  EXPECT_EQ(live().count("photo_log"), 0);
}

}  // namespace
