#include <unistd.h>

#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

class Videos : public appliance::MergeTest {
 protected:
  void SetUp() override {
    MergeTest::SetUp();
    appliance::writeFile("/var/services/photo/a/film.mp4", "film");
    appliance::writeFile("/var/services/photo/it's/%s.mp4", "film");
  }
  void expectComments(const appliance::Rows& expected) {
    expectRows(live(), "SELECT path, name, email, comment, date FROM video_comment ORDER BY 1, 5, 2, 4", expected);
  }
  void expectDescriptions(const appliance::Rows& expected) {
    expectRows(live(), "SELECT path, title, description FROM video_desc ORDER BY 1, 2, 3", expected);
  }

  const std::string film_ = "/var/services/photo/a/film.mp4";
  const std::string quoted_ = "/var/services/photo/it's/%s.mp4";
};
APPLIANCE_ALL_MODES(Videos);

TEST_P(Videos, MatchCommentsByPathDateAndName) {
  live().exec(
      "INSERT INTO video_comment (path, name, email, comment, date) VALUES "
      "('/var/services/photo/a/film.mp4', 'Anna', 'live@a', 'live', '2011-01-01'), "
      "('/var/services/photo/a/film.mp4', 'Bob', 'live@b', 'first', '2011-01-01'), "
      "('/var/services/photo/a/film.mp4', 'Bob', 'live@b', 'second', '2011-01-01')");
  source().exec(
      "INSERT INTO video_comment (path, name, email, comment, date) VALUES "
      "('/var/services/photo/a/film.mp4', 'Anna', 'saved@a', 'saved', '2011-01-01'), "
      "('/var/services/photo/a/film.mp4', 'Anna', 'saved@a', 'later', '2011-01-01 00:00:01'), "
      "('/var/services/photo/a/film.mp4', 'Bob', 'saved@b', 'saved', '2011-01-01'), "
      "('/var/services/photo/a/film.mp4', 'Carl', NULL, NULL, '2011-01-01'), "
      "('/var/services/photo/it''s/%s.mp4', 'it''s', '''', 'a\\''b %s', '2011-01-01')");
  EXPECT_EQ(merge().status, 0);
  const std::string date = "2011-01-01 00:00:00";
  appliance::Rows expected;
  if (overwrites()) {
    expected = {{film_, "Anna", "saved@a", "saved", date}, {film_, "Bob", "saved@b", "saved", date}};
  } else {
    expected = {{film_, "Anna", "live@a", "live", date},
                {film_, "Bob", "live@b", "first", date},
                {film_, "Bob", "live@b", "second", date}};
  }
  expected.push_back({film_, "Carl", "", "", date});
  expected.push_back({film_, "Anna", "saved@a", "later", "2011-01-01 00:00:01"});
  expected.push_back({quoted_, "it's", "'", "a\\'b %s", date});
  expectComments(expected);
  expectNoMessages();
}

TEST_P(Videos, MatchDescriptionsByPath) {
  live().exec("INSERT INTO video_desc (path, title, description) VALUES ('" + film_ + "', 'live', 'first'), ('" +
              film_ + "', 'live', 'second'), ('gone', 'only live', 'live')");
  source().exec("INSERT INTO video_desc (path, title, description) VALUES ('" + film_ +
                "', 'saved', 'saved'), ('/var/services/photo/it''s/%s.mp4', 'it''s', '%s\\'''), "
                "('/var/services/photo/a', NULL, NULL)");
  EXPECT_EQ(merge().status, 0);
  appliance::Rows expected = {{"/var/services/photo/a", "", ""}};
  if (overwrites()) {
    expected.push_back({film_, "saved", "saved"});
  } else {
    expected.push_back({film_, "live", "first"});
    expected.push_back({film_, "live", "second"});
  }
  expected.push_back({quoted_, "it's", "%s\\'"});
  expected.push_back({"gone", "only live", "live"});
  expectDescriptions(expected);
  expectNoMessages();
}

TEST_P(Videos, WithoutTheirFileAreSkippedSilently) {
  EXPECT_EQ(symlink("missing.mp4", "/var/services/photo/a/dangling.mp4"), 0);
  const std::string paths[] = {"/var/services/photo/a/gone.mp4", "/var/services/photo/a/dangling.mp4",
                               "/var/services/photo/" + std::string(8200, 'x')};
  for (const std::string& path : paths) {
    live().exec("INSERT INTO video_comment (path, name, comment, date) VALUES ('" + path.substr(0, 2000) +
                "', 'Anna', 'live', '2011-01-01');"
                "INSERT INTO video_desc (path, title) VALUES ('" +
                path.substr(0, 2000) + "', 'live')");
    // The comment could not be merged for want of a date, if it were looked at.
    source().exec("INSERT INTO video_comment (path, name, comment, date) VALUES ('" + path.substr(0, 2000) +
                  "', 'Anna', 'saved', '2011-01-01'), ('" + path + "', 'Bob', 'saved', NULL);" +
                  "INSERT INTO video_desc (path, title) VALUES ('" + path.substr(0, 2000) + "', 'saved')");
  }
  source().exec("INSERT INTO video_comment (path, name, comment, date) VALUES ('" + film_ +
                "', 'Anna', 'saved', '2011-01-01')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT comment, count(*) FROM video_comment GROUP BY 1 ORDER BY 1",
             {{"live", "3"}, {"saved", "1"}});
  expectRows(live(), "SELECT title, count(*) FROM video_desc GROUP BY 1", {{"live", "3"}});
  expectNoMessages();
}

TEST_P(Videos, LetTheLiveDatabaseNumberThem) {
  live().exec("SELECT setval('video_comment_id_seq', 40), setval('video_desc_id_seq', 50)");
  source().exec("INSERT INTO video_comment VALUES (900, '" + film_ + "', 'Anna', '', '', '2011-01-01');" +
                "INSERT INTO video_desc VALUES (900, '" + film_ + "', '', '')");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT id FROM video_comment", {{"41"}});
  expectRows(live(), "SELECT id FROM video_desc", {{"51"}});
}

TEST_P(Videos, CutValuesToTheirCapacities) {
  appliance::writeFile("/var/services/photo/b.mp4", "film");
  // Blanks around a date mean nothing: the longest one that is kept is whole, and one more character would spoil it.
  source().exec(
      "ALTER TABLE video_comment ALTER COLUMN date TYPE text;"
      "INSERT INTO video_comment (path, name, email, comment, date) VALUES ('" +
      film_ +
      "', repeat('n', 1022) || '1x', repeat('e', 1022) || '1x', repeat('c', 8190) || '1x', "
      "repeat(' ', 44) || '2011-01-01 10:11:12x'), ('" +
      film_ + "', repeat('n', 1022) || 'é', repeat('e', 1022) || 'é', repeat('c', 8190) || 'é', '2012-01-01'), ('" +
      film_ + "', repeat('n', 1021) || 'é', repeat('e', 1021) || 'é', repeat('c', 8189) || 'é', '2013-01-01'), ('" +
      film_ +
      "', repeat('''', 2000), repeat('''', 2000), repeat('''', 9000), '2014-01-01');"
      "INSERT INTO video_desc (path, title, description) VALUES ('" +
      film_ + "', repeat('t', 8190) || '1x', repeat('d', 8190) || 'é'), " +
      "('/var/services/photo/b.mp4', repeat('t', 8190) || 'é', repeat('d', 8190) || '1x'), " +
      "('/var/services/photo/it''s/%s.mp4', repeat('''', 9000), repeat('''', 9000))");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT octet_length(name), right(name, 1), octet_length(email), right(email, 1), "
             "octet_length(comment), right(comment, 1), date FROM video_comment ORDER BY date",
             {{"1023", "1", "1023", "1", "8191", "1", "2011-01-01 10:11:12"},
              {"1022", "n", "1022", "e", "8190", "c", "2012-01-01 00:00:00"},
              {"1023", "é", "1023", "é", "8191", "é", "2013-01-01 00:00:00"},
              {"1023", "'", "1023", "'", "8191", "'", "2014-01-01 00:00:00"}});
  expectRows(live(),
             "SELECT octet_length(title), right(title, 1), octet_length(description), right(description, 1) "
             "FROM video_desc ORDER BY path",
             {{"8191", "1", "8190", "d"}, {"8190", "t", "8191", "1"}, {"8191", "'", "8191", "'"}});
}

TEST_P(Videos, EndAtALookUpThatFails) {
  live().exec("DROP TABLE video_desc");
  // Escaped, a quote in the date comes to the server as part of it.
  source().exec(
      "ALTER TABLE video_comment ALTER COLUMN date TYPE text;"
      "INSERT INTO video_comment (path, name, comment, date) VALUES ('" +
      film_ + "', 'before', '', '2011-01-01'), ('/var/services/photo/it''s/%s.mp4', 'it''s', '', '2011-01-01''x'), ('" +
      film_ + "', 'then', '', '2011-01-01');" +
      "INSERT INTO video_desc (path) VALUES ('/var/services/photo/it''s/%s.mp4'), ('" + film_ + "')");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Select * from video_comment where path = '/var/services/photo/it''s/%s.mp4' and date = "
                               "'2011-01-01''x' and name = 'it''s'",
                               "ERROR:  invalid input syntax for type timestamp: \"2011-01-01'x\""),
                  "Table video_comment sync failed.\n",
                  failedToExec("Select * from video_desc where path = '/var/services/photo/it''s/%s.mp4'",
                               appliance::noTable("video_desc")),
                  "Table video_desc sync failed.\n"});
  expectRows(live(), "SELECT name FROM video_comment", {{"before"}});
}

TEST_P(Videos, EndAtADeleteThatFails) {
  for (appliance::Database* database : {&live(), &source()}) {
    database->exec(
        "INSERT INTO video_comment (path, name, comment, date) VALUES "
        "('/var/services/photo/it''s/%s.mp4', 'it''s', current_database(), '2011-01-01');"
        "INSERT INTO video_desc (path, title) VALUES ('/var/services/photo/it''s/%s.mp4', current_database())");
  }
  source().exec("INSERT INTO video_comment (path, name, comment, date) VALUES ('" + film_ +
                "', 'then', '', '2011-01-01'); INSERT INTO video_desc (path, title) VALUES ('" + film_ + "', 'then')");
  appliance::refuseWriting(live(), "video_comment", "DELETE", "true");
  appliance::refuseWriting(live(), "video_desc", "DELETE", "true");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMessages(
        {failedToExec("Delete from video_comment where path = '/var/services/photo/it''s/%s.mp4' and date = "
                      "'2011-01-01 00:00:00' and name = 'it''s'",
                      appliance::kRefused),
         "Table video_comment sync failed.\n",
         failedToExec("Delete from video_desc where path = '/var/services/photo/it''s/%s.mp4'", appliance::kRefused),
         "Table video_desc sync failed.\n"});
    expectRows(live(), "SELECT comment FROM video_comment", {{"photo"}});
    expectRows(live(), "SELECT title FROM video_desc", {{"photo"}});
  } else {
    expectNoMessages();
    expectRows(live(), "SELECT name FROM video_comment ORDER BY 1", {{"it's"}, {"then"}});
    expectRows(live(), "SELECT title FROM video_desc ORDER BY 1", {{"photo"}, {"then"}});
  }
}

TEST_P(Videos, EndAtAnInsertThatFailsAndKeepWhatWasWritten) {
  appliance::writeFile("/var/services/photo/b.mp4", "film");
  source().exec("INSERT INTO video_comment (path, name, email, comment, date) VALUES ('" + film_ +
                "', 'before', '', '', '2011-01-01'), ('/var/services/photo/it''s/%s.mp4', 'bad', 'e''s', 'c''s', "
                "'2011-01-01'), ('" +
                film_ + "', 'then', '', '', '2011-01-01');" +
                "INSERT INTO video_desc (path, title, description) VALUES ('" + film_ +
                "', 'before', ''), ('/var/services/photo/it''s/%s.mp4', 'bad', 'd''s'), " +
                "('/var/services/photo/b.mp4', 'then', '')");
  if (overwrites()) {
    live().exec(
        "INSERT INTO video_comment (path, name, comment, date) VALUES "
        "('/var/services/photo/it''s/%s.mp4', 'bad', 'live', '2011-01-01');"
        "INSERT INTO video_desc (path, title) VALUES ('/var/services/photo/it''s/%s.mp4', 'live')");
  }
  appliance::refuseWriting(live(), "video_comment", "INSERT", "NEW.name = 'bad'");
  appliance::refuseWriting(live(), "video_desc", "INSERT", "NEW.title = 'bad'");
  EXPECT_EQ(merge().status, 0);
  expectMessages({failedToExec("Insert into video_comment (path, name, email, comment, date) Values "
                               "('/var/services/photo/it''s/%s.mp4', 'bad', 'e''s', 'c''s', '2011-01-01 00:00:00')",
                               appliance::kRefused),
                  "Table video_comment sync failed.\n",
                  failedToExec("Insert into video_desc (path, title, description) Values "
                               "('/var/services/photo/it''s/%s.mp4', 'bad', 'd''s')",
                               appliance::kRefused),
                  "Table video_desc sync failed.\n"});
  expectRows(live(), "SELECT name FROM video_comment", {{"before"}});
  expectRows(live(), "SELECT title FROM video_desc", {{"before"}});
}

}  // namespace
