#include "platform/session_options.h"

#include <libpq-fe.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

#include "platform/database.h"
#include "platform/process_runner.h"
#include "platform/query.h"
#include "support/tool_test.h"

namespace {

using appliance::Rows;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr int kVersion11 = 110000;
constexpr int kVersion14 = 140000;
constexpr int kVersion17 = 170000;

class SessionOptions : public appliance::ToolTest {
 protected:
  void TearDown() override {
    unsetenv("PGOPTIONS");
    unsetenv("PGTZ");
    ToolTest::TearDown();
  }

  // The name and a value that would do harm, for every timeout that this server knows.
  std::map<std::string, std::string> timeouts() {
    std::map<std::string, std::string> all;
    for (const char* name : {"statement_timeout", "lock_timeout", "idle_in_transaction_session_timeout",
                             "idle_session_timeout", "transaction_timeout"}) {
      if (live().value(std::string("SELECT current_setting('") + name + "', true) IS NOT NULL") == "t") {
        all[name] = "7min";
      }
    }
    return all;
  }

  static std::string setting(const std::string& name) {
    const Connection connection = connectTo("photo");
    Result result;
    EXPECT_TRUE(execute(connection.get(), result, "SELECT current_setting('%s') AS v", Text{name}));
    EXPECT_TRUE(fetchRow(result));
    appliance::checked();
    return fieldText(result, "v");
  }
  std::string childSetting(const std::string& name) {
    live().exec("CREATE TABLE IF NOT EXISTS public.seen (v text); TRUNCATE public.seen");
    KAVOUtils::ProcessRunner runner("/usr/bin/psql", "/usr/bin/psql", "photo", "-U", "postgres", "-c",
                                    ("INSERT INTO public.seen VALUES (current_setting('" + name + "'))").c_str());
    EXPECT_EQ(runner.run(true, false), 0);
    return live().value("SELECT v FROM public.seen");
  }
};

TEST_F(SessionOptions, StandAfterThoseOfTheCaller) {
  unsetenv("PGOPTIONS");
  EXPECT_THAT(ownSessionOptions(), AllOf(StartsWith(" -c "), HasSubstr(" -c search_path=public "),
                                         HasSubstr(" -c jit=off"), HasSubstr(" -c synchronous_commit=off")));
  setenv("PGOPTIONS", "-c work_mem=7MB -c search_path=theirs", 1);
  EXPECT_THAT(ownSessionOptions(), StartsWith("-c work_mem=7MB -c search_path=theirs -c "));
  EXPECT_THAT(childSessionOptions(0),
              AllOf(StartsWith("-c work_mem=7MB -c search_path=theirs -c "), HasSubstr(" -c search_path=public "),
                    Not(HasSubstr("jit=off")), Not(HasSubstr("synchronous_commit=off"))));
  appliance::checked();
}

TEST_F(SessionOptions, HoldForProgramsWhatTheirServerKnows) {
  const std::string all = childSessionOptions(kVersion11);
  EXPECT_EQ(childSessionOptions(0), all);
  EXPECT_EQ(childSessionOptions(kVersion14 - 1), all);
  EXPECT_EQ(childSessionOptions(kVersion14), all + " -c idle_session_timeout=0");
  EXPECT_EQ(childSessionOptions(kVersion17 - 1), all + " -c idle_session_timeout=0");
  EXPECT_EQ(childSessionOptions(kVersion17), all + " -c idle_session_timeout=0 -c transaction_timeout=0");
  EXPECT_THAT(all, Not(HasSubstr("idle_session_timeout")));
  appliance::checked();
}

TEST_F(SessionOptions, LeaveToStatementsWhatTheyCannotSettle) {
  EXPECT_EQ(settlingStatements({kVersion11, "UTF8", "ISO, DMY", "UTC"}), "");
  EXPECT_EQ(settlingStatements({kVersion11, nullptr, nullptr, nullptr}), "");
  EXPECT_EQ(settlingStatements({kVersion11, "SQL_ASCII", "German, DMY", "Asia/Kolkata"}),
            "SET client_encoding = 'SQL_ASCII'; SET datestyle = ISO; SET timezone = 'UTC'; ");
  EXPECT_EQ(settlingStatements({kVersion14, "UTF8", "ISO, MDY", "UTC"}), "SET idle_session_timeout = 0; ");
  EXPECT_EQ(settlingStatements({kVersion17, "LATIN1", "ISO, MDY", "UTC"}),
            "SET idle_session_timeout = 0; SET transaction_timeout = 0; ");
  appliance::checked();
}

TEST_F(SessionOptions, SwitchOffTheTimeoutsOfRolesAndDatabases) {
  for (const auto& [name, value] : timeouts()) {
    for (const char* owner : {"ALTER DATABASE photo", "ALTER ROLE postgres IN DATABASE photo"}) {
      live().exec(std::string(owner) + " SET " + name + " = '" + value + "'");
      EXPECT_EQ(appliance::Database("photo").value("SHOW " + name), value) << owner;
      EXPECT_EQ(setting(name), "0") << owner << name;
      EXPECT_EQ(childSetting(name), "0") << owner << name;
      live().exec(std::string(owner) + " RESET " + name);
    }
    setenv("PGOPTIONS", ("-c " + name + "=" + value).c_str(), 1);
    EXPECT_EQ(setting(name), "0") << name;
    EXPECT_EQ(childSetting(name), "0") << name;
    unsetenv("PGOPTIONS");
  }
}

TEST_F(SessionOptions, FixTheTimeZoneAndTheSearchPath) {
  live().exec(
      "ALTER DATABASE photo SET timezone = 'Asia/Kolkata'; ALTER DATABASE photo SET search_path = 'theirs';"
      "ALTER ROLE postgres IN DATABASE photo SET timezone = 'America/Caracas'");
  for (const char* zone : {"default", "Asia/Tokyo"}) {
    for (const char* options : {"", "-c timezone=Asia/Tokyo -c search_path=theirs"}) {
      setenv("PGTZ", zone, 1);
      setenv("PGOPTIONS", options, 1);
      EXPECT_EQ(setting("timezone"), "UTC") << zone << options;
      EXPECT_EQ(childSetting("timezone"), "UTC") << zone << options;
      EXPECT_EQ(setting("search_path"), "public") << options;
      EXPECT_EQ(childSetting("search_path"), "public") << options;
    }
  }
}

TEST_F(SessionOptions, KeepTheInstantOfADateWithATimeZone) {
  for (const std::string database : {"photo", "other"}) {
    appliance::createDatabase(database);
    appliance::Database(database).exec(
        "ALTER TABLE category ALTER create_date TYPE timestamptz;"
        "ALTER DATABASE " +
        database + " SET timezone = 'Asia/Kolkata'");
  }
  appliance::Database source("other");
  source.exec(
      "INSERT INTO category (name, hidden, order_number, create_date, modify_date) VALUES ('c', false, 1, "
      "'2026-03-07 00:00:00.123456+05:30', now())");
  const Rows instant = {{"2026-03-06 18:30:00.123456"}};
  const char* const read = "SELECT create_date AT TIME ZONE 'UTC' FROM category";
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", "other"}).status, 0);
  expectNoMessages();
  expectRows(live(), read, instant);

  live().exec("TRUNCATE category");
  appliance::makeArchive(appliance::workDirectory(), "other");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  expectRows(live(), read, instant);
}

TEST_F(SessionOptions, RunNothingFromTheSearchPathOfAForeignDatabase) {
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 's')");
  appliance::createDatabase("other");
  appliance::Database source("other");
  source.exec(
      "CREATE SCHEMA theirs; CREATE TABLE public.evidence (what text);"
      "CREATE FUNCTION theirs.same(integer, integer) RETURNS boolean LANGUAGE plpgsql AS $$ BEGIN INSERT INTO "
      "public.evidence VALUES ('operator'); RETURN $1 OPERATOR(pg_catalog.=) $2; END $$;"
      "CREATE OPERATOR theirs.= (LEFTARG = integer, RIGHTARG = integer, FUNCTION = theirs.same);"
      "CREATE FUNCTION theirs.lower(text) RETURNS text LANGUAGE plpgsql AS $$ BEGIN INSERT INTO public.evidence VALUES "
      "('function'); RETURN pg_catalog.lower($1); END $$;"
      "CREATE TABLE theirs.photo_config (module_name text, config_key text, config_value text);"
      "INSERT INTO theirs.photo_config VALUES ('m', 'k', 'theirs');"
      "INSERT INTO public.photo_config VALUES ('m', 'k', 'public');"
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 's');"
      "INSERT INTO photo_user (userid, username, disabled, lock_pass, admin) VALUES (1, 'u', false, false, false);"
      "INSERT INTO photo_access_right VALUES (1, 1);"
      "ALTER DATABASE other SET search_path = theirs, public, pg_catalog");
  ASSERT_EQ(appliance::Database("other").value("SELECT 1 = 1"), "t");
  ASSERT_EQ(source.value("SELECT count(*) FROM evidence"), "1");
  EXPECT_EQ(run({"-i", appliance::workDirectory(), "-d", "other"}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"public"}});
  expectRows(live(), "SELECT username FROM photo_user", {{"u"}});
  EXPECT_EQ(live().count("photo_access_right"), 1);
  expectRows(source, "SELECT what FROM evidence", {{"operator"}});
}

}  // namespace
