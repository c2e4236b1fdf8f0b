#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

class Config : public appliance::MergeTest {
 protected:
  void expectEntries(const appliance::Rows& expected) {
    expectRows(live(), "SELECT module_name, config_key, config_value FROM photo_config ORDER BY 1, 2, 3", expected);
  }
};
APPLIANCE_ALL_MODES(Config);

TEST_P(Config, MatchesEntriesByModuleAndKey) {
  live().exec("INSERT INTO photo_config VALUES ('album', 'only live', 'live'), ('album', 'order', 'live')");
  source().exec(
      "INSERT INTO photo_config VALUES ('album', 'order', 'saved'), ('album', 'size', 'saved'), "
      "('blog', 'order', 'saved')");
  EXPECT_EQ(merge().status, 0);
  expectEntries({{"album", "only live", "live"},
                 {"album", "order", overwrites() ? "saved" : "live"},
                 {"album", "size", "saved"},
                 {"blog", "order", "saved"}});
  expectNoMessages();
}

TEST_P(Config, ReplacesAllLiveEntriesOfOneKeyByOne) {
  live().exec("INSERT INTO photo_config VALUES ('album', 'order', 'first'), ('album', 'order', 'second')");
  source().exec("INSERT INTO photo_config VALUES ('album', 'order', 'saved')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectEntries({{"album", "order", "saved"}});
  } else {
    expectEntries({{"album", "order", "first"}, {"album", "order", "second"}});
  }
}

TEST_P(Config, TakesSourceEntriesInTheirOrder) {
  source().exec("INSERT INTO photo_config VALUES ('album', 'order', 'z first'), ('album', 'order', 'a last')");
  EXPECT_EQ(merge().status, 0);
  expectEntries({{"album", "order", overwrites() ? "a last" : "z first"}});
}

TEST_P(Config, KeepsCharactersThatMeanSomethingElsewhere) {
  const std::string entry = R"(('it''s %s', 'a\''b%%d', ';'' -- @KAVO:VAR "x" \n'))";
  live().exec("INSERT INTO photo_config VALUES ('it''s %s', 'a\\''b%%d', 'live')");
  source().exec("INSERT INTO photo_config VALUES " + entry + ", ('it''s', 'new''', '''')");
  EXPECT_EQ(merge().status, 0);
  expectEntries(
      {{"it's", "new'", "'"}, {"it's %s", R"(a\'b%%d)", overwrites() ? R"(;' -- @KAVO:VAR "x" \n)" : "live"}});
}

TEST_P(Config, TakesNullsAsEmptyTexts) {
  live().exec("INSERT INTO photo_config VALUES ('', 'order', 'live')");
  source().exec("INSERT INTO photo_config VALUES (NULL, NULL, NULL), (NULL, 'order', 'saved')");
  EXPECT_EQ(merge().status, 0);
  expectEntries({{"", "", ""}, {"", "order", overwrites() ? "saved" : "live"}});
}

TEST_P(Config, CutsValuesToTheirCapacities) {
  source().exec(
      "INSERT INTO photo_config VALUES "
      "(repeat('m', 1022) || '1x', repeat('k', 510) || '1x', repeat('v', 8190) || '1x'), "
      "(repeat('n', 1022) || 'é', repeat('k', 510) || 'é', repeat('v', 8190) || 'é'), "
      "(repeat('o', 1021) || 'é', repeat('k', 509) || 'é', repeat('v', 8189) || 'é')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT left(module_name, 1), octet_length(module_name), right(module_name, 1), "
             "octet_length(config_key), right(config_key, 1), octet_length(config_value), right(config_value, 1) "
             "FROM photo_config ORDER BY 1",
             {{"m", "1023", "1", "511", "1", "8191", "1"},
              {"n", "1022", "n", "510", "k", "8190", "v"},
              {"o", "1023", "é", "511", "é", "8191", "é"}});
}

TEST_P(Config, CutsBeforeItEscapesAndNeverCutsAStatement) {
  source().exec("INSERT INTO photo_config VALUES (repeat('''', 2000), repeat('''', 600), repeat('''', 9000))");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT module_name = repeat('''', 1023), config_key = repeat('''', 511), "
             "config_value = repeat('''', 8191) FROM photo_config",
             {{"t", "t", "t"}});
}

TEST_P(Config, EndsAtALookUpThatFails) {
  live().exec("ALTER TABLE photo_config RENAME COLUMN config_key TO renamed");
  source().exec("INSERT INTO photo_config VALUES ('album', 'order', 'saved'), ('album', 'size', 'saved')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from photo_config where module_name = 'album' and config_key = 'order'",
                               "ERROR:  column \"config_key\" does not exist"),
                  "Table photo_config sync failed.\n"});
  EXPECT_EQ(live().count("photo_config"), 0);
}

TEST_P(Config, EndsAtADeleteThatFailsAndKeepsWhatWasWritten) {
  live().exec(
      "CREATE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS "
      "$$BEGIN IF OLD.config_key = 'kept' THEN RAISE EXCEPTION 'not this one'; END IF; RETURN OLD; END$$;"
      "CREATE TRIGGER refuse BEFORE DELETE ON photo_config FOR EACH ROW EXECUTE FUNCTION refuse();"
      "INSERT INTO photo_config VALUES ('a', 'before', 'live'), ('a', 'kept', 'live'), ('a', 'then', 'live')");
  source().exec(
      "INSERT INTO photo_config VALUES ('a', 'before', 'saved'), ('a', 'kept', 'saved'), ('a', 'then', 'saved')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMessages({failedToExec("Delete from photo_config where module_name = 'a' and config_key = 'kept'",
                                 "ERROR:  not this one"),
                    "Table photo_config sync failed.\n"});
  } else {
    expectNoMessages();
  }
  expectEntries({{"a", "before", overwrites() ? "saved" : "live"}, {"a", "kept", "live"}, {"a", "then", "live"}});
}

TEST_P(Config, EndsAtAnInsertThatFailsAndKeepsWhatWasWritten) {
  live().exec(
      "ALTER TABLE photo_config ADD CONSTRAINT good CHECK (config_value <> 'bad');"
      "INSERT INTO photo_config VALUES ('a', 'live', 'live')");
  source().exec("INSERT INTO photo_config VALUES ('a', 'before', 'saved'), ('a', 'it''s', 'bad'), ('a', 'then', '')");
  if (overwrites()) {
    live().exec("INSERT INTO photo_config VALUES ('a', 'it''s', 'deleted before')");
  }
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec(
           "Insert into photo_config (module_name, config_key, config_value) Values ('a', 'it''s', 'bad')",
           "ERROR:  new row for relation \"photo_config\" violates check constraint \"good\"  DETAIL:  Failing row "
           "contains (a, it's, bad)."),
       "Table photo_config sync failed.\n"});
  expectEntries({{"a", "before", "saved"}, {"a", "live", "live"}});
}

}  // namespace
