#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

const char* const kFailed = "Table photo_image sync failed.\n";
const std::string kFolder = "/var/services/photo/";

// A photo of the source with a file, or of the live database; whatever else it has can be set by an update.
std::string photo(int id, const std::string& name) {
  return "INSERT INTO photo_image (id, path, name, title, description, album, size, resolutionx, resolutiony, "
         "camera_make, camera_model, exposure, aperture, iso, timetaken, updated, version, create_time, gps) VALUES (" +
         std::to_string(id) + ", '" + kFolder + name + "', '" + name +
         "', '', '', '', 1, 2, 3, '', '', '', '', 4, '2001-02-03 04:05:06', true, 5, '2002-02-03 04:05:06', '');";
}

void makeFiles(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    appliance::writeFile(kFolder + name, "x");
  }
}

class Images : public appliance::MergeTest {
 protected:
  void expectPaths(const std::vector<std::string>& names) {
    appliance::Rows expected;
    for (const std::string& name : names) {
      expected.push_back({kFolder + name});
    }
    expectRows(live(), "SELECT path FROM photo_image ORDER BY path", expected);
  }
  void expectComments(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT photo_id, name, email, comment, date FROM photo_comment ORDER BY photo_id, name, date, comment",
               expected);
  }
  // The links that lead to a photo and a label; a label that was replaced leaves its old links without one.
  void expectLinks(const appliance::Rows& expected) {
    expectRows(live(),
               "SELECT i.path, l.name, l.category, k.info, k.info_new, k.status FROM photo_image_label k "
               "JOIN photo_image i ON i.id = k.image_id JOIN photo_label l ON l.id = k.label_id ORDER BY 1, 2, 3, 4",
               expected);
  }
};
APPLIANCE_ALL_MODES(Images);

TEST_P(Images, AreMatchedByPathAndKeepTheirLiveNumbers) {
  makeFiles({"both.jpg", "new's.jpg", "only live.jpg"});
  live().exec(photo(1, "only live.jpg") + photo(2, "both.jpg") + "SELECT setval('photo_image_id_seq', 40);" +
              "UPDATE photo_image SET updated = false, title = 'live'");
  source().exec(
      photo(1, "both.jpg") + photo(2, "new''s.jpg") + photo(3, "without file.jpg") +
      "UPDATE photo_image SET name = 'it''s \\ %s', title = 'ti''tle', description = 'de''scription', "
      "album = 'al''bum', size = 12345678901, resolutionx = 21, resolutiony = 22, camera_make = 'ma''ke', "
      "camera_model = 'mo''del', exposure = '1/60', aperture = 'f/8', iso = 400, "
      "timetaken = '2011-01-01 10:11:12', updated = false, version = 7, create_time = '2012-01-01 10:11:12.5', "
      "gps = 'g''ps'");
  EXPECT_EQ(merge().status, 0);
  const std::vector<std::string> saved = {
      "it's \\ %s", "ti'tle", "de'scription", "al'bum", "12345678901",         "21", "22", "ma'ke",
      "mo'del",     "1/60",   "f/8",          "400",    "2011-01-01 10:11:12", "t",  "7",  "2012-01-01 10:11:12.5",
      "g'ps"};
  const auto row = [](const std::string& id, const std::string& path, std::vector<std::string> rest) {
    rest.insert(rest.begin(), {id, kFolder + path});
    return rest;
  };
  const auto kept = [](const std::string& name) {
    return std::vector<std::string>{name,
                                    "live",
                                    "",
                                    "",
                                    "1",
                                    "2",
                                    "3",
                                    "",
                                    "",
                                    "",
                                    "",
                                    "4",
                                    "2001-02-03 04:05:06",
                                    "f",
                                    "5",
                                    "2002-02-03 04:05:06",
                                    ""};
  };
  expectRows(live(), "SELECT * FROM photo_image ORDER BY id",
             {row("1", "only live.jpg", kept("only live.jpg")),
              row("2", "both.jpg", overwrites() ? saved : kept("both.jpg")), row("41", "new's.jpg", saved)});
  expectNoMessages();
}

TEST_P(Images, HaveTheirDatesConverted) {
  const std::vector<std::pair<std::string, std::string>> dates = {
      {"2013:05:07 08:09:10", "2013-05-07 08:09:10"},
      {"2013:5:7 8:9:10", "2013-05-07 08:09:10"},
      {"  2013: 5: 7 8: 9: 10", "2013-05-07 08:09:10"},
      {"2013:05:07\t08:09:10.75+02", "2013-05-07 08:09:10"},
      {"99:1:1 0:0:0", "0099-01-01 00:00:00"},
      {"12345:67:89 98:76:54", "12345-67-89 98:76:54"},
      {"0:0:0 0:0:0", "0000-00-00 00:00:00"},
      {"-1:-1:-1 -1:-1:-1", "-001--1--1 -1:-1:-1"},
      {"2013-05-07 08:09:10", "2013-05-07 08:09:10"},
      {"2013:05:07 08:09", "2013:05:07 08:09"},
      {"2013:05:07", "2013:05:07"},
      {"2013 05 07 08 09 10", "2013 05 07 08 09 10"},
      {"yesterday \\ %s", "yesterday \\ %s"},
      {"", ""},
      {std::string(62, 'd') + "é", std::string(62, 'd')},
      {std::string(52, ' ') + "1:2:3 4:5:67", "0001-02-03 04:05:06"},
  };
  live().exec("ALTER TABLE photo_image ALTER timetaken TYPE text");
  source().exec("ALTER TABLE photo_image ALTER timetaken TYPE text");
  int id = 0;
  appliance::Rows expected;
  for (const auto& [date, stored] : dates) {
    const std::string name = std::string(1, static_cast<char>('a' + id)) + ".jpg";
    makeFiles({name});
    // Half of them are there already.
    if (++id % 2 == 0) {
      live().exec(photo(id + 100, name));
    }
    source().exec(photo(id, name) + "UPDATE photo_image SET timetaken = '" + date +
                  "' WHERE id = " + std::to_string(id));
    const bool kept = id % 2 == 0 && !overwrites();
    expected.push_back({kFolder + name, kept ? "2001-02-03 04:05:06" : stored});
  }
  EXPECT_EQ(merge().status, 0);
  expectRows(live(), "SELECT path, timetaken FROM photo_image ORDER BY path", expected);
}

TEST_P(Images, HaveValuesCutToTheirCapacities) {
  makeFiles({"cut.jpg", "both.jpg"});
  live().exec(photo(100, "both.jpg") +
              "ALTER TABLE photo_image ALTER size TYPE numeric, ALTER resolutionx TYPE numeric, ALTER resolutiony TYPE "
              "numeric, "
              "ALTER iso TYPE numeric, ALTER version TYPE numeric, ALTER create_time TYPE text");
  source().exec(
      "ALTER TABLE photo_image ALTER size TYPE numeric, ALTER resolutionx TYPE numeric, ALTER resolutiony TYPE "
      "numeric, "
      "ALTER iso TYPE numeric, ALTER version TYPE numeric, ALTER create_time TYPE text;" +
      photo(1, "cut.jpg") + photo(2, "both.jpg") +
      "UPDATE photo_image SET name = repeat('a', 8190) || 'é', title = repeat('''', 9000), "
      "description = repeat('c', 8189) || 'éx', album = repeat('d', 8190) || 'é', size = repeat('1', 70)::numeric, "
      "resolutionx = repeat('2', 40)::numeric, resolutiony = repeat('3', 32)::numeric, iso = repeat('4', 40)::numeric, "
      "version = repeat('5', 32)::numeric, camera_make = repeat('e', 1022) || 'é', "
      "camera_model = repeat('f', 1021) || 'éx', exposure = repeat('g', 30) || 'é', aperture = repeat('h', 29) || "
      "'éx', "
      "create_time = repeat('i', 62) || 'é', gps = repeat('''', 100)");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> cut = {
      std::string(8190, 'a'),     std::string(8191, '\''), std::string(8189, 'c') + "é", std::string(8190, 'd'),
      std::string(63, '1'),       std::string(31, '2'),    std::string(31, '3'),         std::string(31, '4'),
      std::string(31, '5'),       std::string(1022, 'e'),  std::string(1021, 'f') + "é", std::string(30, 'g'),
      std::string(29, 'h') + "é", std::string(62, 'i'),    std::string(63, '\'')};
  const std::string columns =
      "SELECT name, title, description, album, size, resolutionx, resolutiony, iso, version, camera_make, "
      "camera_model, "
      "exposure, aperture, create_time, gps FROM photo_image WHERE path LIKE ";
  expectRows(live(), columns + "'%cut.jpg'", {cut});
  if (overwrites()) {
    expectRows(live(), columns + "'%both.jpg'", {cut});
  }
  expectNoMessages();
}

TEST_P(Images, WithNullFieldsGetEmptyTexts) {
  makeFiles({"a.jpg"});
  live().exec("ALTER TABLE photo_image ALTER timetaken TYPE text, ALTER create_time TYPE text");
  source().exec(
      photo(1, "a.jpg") +
      "UPDATE photo_image SET name = NULL, title = NULL, description = NULL, album = NULL, camera_make = NULL, "
      "camera_model = NULL, exposure = NULL, aperture = NULL, timetaken = NULL, create_time = NULL, gps = NULL");
  EXPECT_EQ(merge().status, 0);
  expectRows(live(),
             "SELECT name, title, description, album, camera_make, camera_model, exposure, aperture, timetaken, "
             "create_time, gps FROM photo_image",
             {{"", "", "", "", "", "", "", "", "", "", ""}});
}

TEST_P(Images, EndAtAnEmptyNumber) {
  makeFiles({"before.jpg", "bad.jpg", "then.jpg"});
  source().exec(photo(1, "before.jpg") + "INSERT INTO photo_image (id, path, size) VALUES (2, '" + kFolder +
                "bad.jpg', NULL);" + photo(3, "then.jpg") +
                "INSERT INTO category (name, hidden, order_number) VALUES ('next table', true, 1)");
  EXPECT_EQ(merge().status, 0);
  const std::string created = source().value("SELECT create_time FROM photo_image WHERE id = 2");
  expectMessages(
      {failedToExec("Insert into photo_image (path, name, title, description, album, size, camera_make, camera_model, "
                    "exposure, aperture, resolutionx, resolutiony, iso, timetaken, updated, version, create_time, gps) "
                    "VALUES('/var/services/photo/bad.jpg', '', '', '', '', , '', '', '', '', , , , '', '1', , '" +
                        created + "', '')",
                    "ERROR:  syntax error at or near \",\""),
       kFailed});
  expectPaths({"before.jpg"});
  EXPECT_EQ(live().count("category"), 1);
}

TEST_P(Images, EndWhereWritingOrReadingThePhotoFails) {
  makeFiles({"before.jpg", "both.jpg", "it's.jpg", "then.jpg"});
  // Rows that were taken back and run again leave gaps in the numbers, which must not lead to this one.
  live().exec(photo(400, "both.jpg"));
  appliance::refuseWriting(live(), "photo_image", "UPDATE", "NEW.name = 'both.jpg'");
  appliance::refuseReading(live(), "photo_image", "name = 'it''s.jpg'");
  source().exec(photo(1, "before.jpg") + photo(2, "both.jpg") + photo(3, "it''s.jpg") + photo(5, "then.jpg") +
                "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES (3, 'lost', '', '', "
                "'2001-01-01')");
  EXPECT_EQ(merge().status, 0);
  if (overwrites()) {
    expectMessages(
        {failedToExec("UPDATE photo_image SET name = 'both.jpg', title = '', description = '', album = '', size = 1, "
                      "camera_make = '', camera_model = '', exposure = '', aperture = '', resolutionx = 2, resolutiony "
                      "= 3, iso = 4, timetaken = '2001-02-03 04:05:06', updated = '1', version = 5, create_time = "
                      "'2002-02-03 04:05:06', gps = '' where path = '/var/services/photo/both.jpg'",
                      kRefused),
         kFailed});
  } else {
    // The photo is written, but cannot be read again.
    expectMessages(
        {failedToExec("Select * from photo_image where path = '/var/services/photo/it''s.jpg'", kRefused), kFailed});
  }
  appliance::Rows expected = {{"before.jpg"}, {"both.jpg"}};
  if (!overwrites()) {
    expected.push_back({"it's.jpg"});
  }
  expectRows(live(), "SELECT name FROM photo_image_stored ORDER BY 1", expected);
  EXPECT_EQ(live().count("photo_comment"), 0);
}

TEST_P(Images, WithoutARowAfterTheInsertGetNothingElse) {
  makeFiles({"lost.jpg", "then.jpg"});
  appliance::swallowInsert(live(), "photo_image", "NEW.name = 'lost.jpg'");
  source().exec(
      photo(1, "lost.jpg") + photo(2, "then.jpg") +
      "INSERT INTO photo_label VALUES (1, 'label', 0, '');"
      "INSERT INTO photo_comment (photo_id, name, email, comment, date) SELECT id, name, '', '', '2001-01-01' "
      "FROM photo_image; INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) "
      "SELECT id, 1, name, '', true FROM photo_image");
  EXPECT_EQ(merge().status, 0);
  expectPaths({"then.jpg"});
  expectRows(live(), "SELECT name FROM photo_comment", {{"then.jpg"}});
  expectRows(live(), "SELECT info FROM photo_image_label", {{"then.jpg"}});
  expectNoMessages();
}

TEST_P(Images, GainTheCommentsTheyLackAndReplaceOnlyWhenOverwritten) {
  makeFiles({"both.jpg", "new.jpg"});
  live().exec(photo(7, "both.jpg") + photo(8, "only live.jpg") +
              "SELECT setval('photo_image_id_seq', 40);"
              "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES "
              "(7, 'an''na', 'live', 'live', '2001-01-01'), (7, 'ben', 'live', 'one', '2002-01-01'), "
              "(7, 'ben', 'live', 'two', '2002-01-01'), (7, 'only live', '', '', '2003-01-01'), "
              "(8, 'an''na', 'live', 'live', '2001-01-01')");
  source().exec(photo(8, "both.jpg") + photo(7, "new.jpg") +
                "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES "
                "(8, 'an''na', 'sa''ved', 'sa''ved \\ %s', '2001-01-01'), (8, 'ben', 'saved', 'saved', '2002-01-01'), "
                "(8, 'an''na', 'later', NULL, '2009-01-01'), (7, 'dora', '', 'first', '2004-01-01'), "
                "(7, 'dora', '', 'last', '2004-01-01'), (99, 'nobody''s', '', '', '2005-01-01')");
  EXPECT_EQ(merge().status, 0);
  const std::string time = "-01-01 00:00:00";
  appliance::Rows expected;
  if (overwrites()) {
    expected = {{"7", "an'na", "sa'ved", "sa'ved \\ %s", "2001" + time},
                {"7", "an'na", "later", "", "2009" + time},
                {"7", "ben", "saved", "saved", "2002" + time}};
  } else {
    expected = {{"7", "an'na", "live", "live", "2001" + time},
                {"7", "an'na", "later", "", "2009" + time},
                {"7", "ben", "live", "one", "2002" + time},
                {"7", "ben", "live", "two", "2002" + time}};
  }
  expected.insert(expected.end(), {{"7", "only live", "", "", "2003" + time},
                                   {"8", "an'na", "live", "live", "2001" + time},
                                   {"41", "dora", "", overwrites() ? "last" : "first", "2004" + time}});
  expectComments(expected);
  expectNoMessages();
}

TEST_P(Images, GainTheLabelsTheyLackAndReplaceOnlyWhenOverwritten) {
  makeFiles({"both.jpg", "new.jpg"});
  // Numbers stand for something else on the other side, and names come in several categories.
  live().exec(photo(7, "both.jpg") + photo(8, "only live.jpg") +
              "SELECT setval('photo_image_id_seq', 40);"
              "INSERT INTO photo_label VALUES (1, 'Rome', 1, ''), (2, 'it''s', 0, ''), (3, 'only live', 2, '');"
              "SELECT setval('photo_label_id_seq', 50);"
              "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
              "(7, 2, 'live', 'live', false), (7, 3, 'live', 'live', false), (8, 2, 'live', 'live', false)");
  source().exec(photo(8, "both.jpg") + photo(7, "new.jpg") +
                "INSERT INTO photo_label VALUES (1, 'it''s', 0, ''), (2, 'Rome', 1, ''), (3, 'it''s', 1, '');"
                "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
                "(8, 1, 'sa''ved', 'n''ew', true), (8, 2, NULL, NULL, true), (8, 3, 'x', '', false), "
                "(7, 2, 'twice', '', true), (7, 2, 'twice', '', true), (99, 1, 'nobody''s', '', true)");
  EXPECT_EQ(merge().status, 0);
  const std::string both = kFolder + "both.jpg";
  if (overwrites()) {
    // The labels have been replaced by new ones of their names before.
    expectLinks({{both, "Rome", "1", "", "", "t"},
                 {both, "it's", "0", "sa'ved", "n'ew", "t"},
                 {both, "it's", "1", "x", "", "f"},
                 {both, "only live", "2", "live", "live", "f"},
                 {kFolder + "new.jpg", "Rome", "1", "twice", "", "t"}});
  } else {
    expectLinks({{both, "Rome", "1", "", "", "t"},
                 {both, "it's", "0", "live", "live", "f"},
                 {both, "it's", "1", "x", "", "f"},
                 {both, "only live", "2", "live", "live", "f"},
                 {kFolder + "new.jpg", "Rome", "1", "twice", "", "t"},
                 {kFolder + "only live.jpg", "it's", "0", "live", "live", "f"}});
  }
  expectNoMessages();
}

TEST_P(Images, LoseLinksToLabelsThatAreNotLive) {
  makeFiles({"a.jpg"});
  appliance::swallowInsert(live(), "photo_label", "NEW.name = 'lo''st'");
  source().exec(photo(1, "a.jpg") +
                "INSERT INTO photo_label VALUES (1, 'before', 0, ''), (2, 'lo''st', 1, ''), (3, 'then', 2, '');"
                "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
                "(1, 1, '', '', true), (1, 2, '', '', true), (1, 3, '', '', true)");
  EXPECT_EQ(merge().status, 0);
  expectMessages({"KAVODBFetchRow failed. [Select id from photo_label where name = 'lo''st' and category = 1] ()"});
  expectLinks({{kFolder + "a.jpg", "before", "0", "", "", "t"}, {kFolder + "a.jpg", "then", "2", "", "", "t"}});
}

TEST_P(Images, CutCommentsAndLabelLinksToTheirCapacities) {
  makeFiles({"a.jpg"});
  for (appliance::Database* database : {&live(), &source()}) {
    database->exec(
        "DROP INDEX photo_label_name_index; ALTER TABLE photo_label ALTER category TYPE numeric;"
        "ALTER TABLE photo_comment ALTER date TYPE text; ALTER TABLE photo_image_label ALTER status TYPE text");
  }
  source().exec(
      photo(1, "a.jpg") +
      "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES "
      "(1, repeat('a', 1022) || 'é', repeat('''', 2000), repeat('c', 8190) || 'é', repeat('d', 62) || 'é'), "
      "(1, repeat('b', 1021) || 'éx', repeat('e', 1022) || 'é', repeat('''', 9000), repeat('''', 90));"
      "INSERT INTO photo_label VALUES (1, repeat('l', 1022) || 'é', repeat('7', 8200)::numeric, ''), (2, 'm', 1, '');"
      "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
      "(1, 1, repeat('i', 1022) || 'é', repeat('''', 2000), repeat('s', 8190) || 'é'), "
      "(1, 2, repeat('''', 2000), repeat('n', 1021) || 'éx', 't')");
  EXPECT_EQ(merge().status, 0);
  expectComments(
      {{"1", std::string(1022, 'a'), std::string(1023, '\''), std::string(8190, 'c'), std::string(62, 'd')},
       {"1", std::string(1021, 'b') + "é", std::string(1022, 'e'), std::string(8191, '\''), std::string(63, '\'')}});
  expectLinks({{kFolder + "a.jpg", std::string(1022, 'l'), std::string(8191, '7'), std::string(1022, 'i'),
                std::string(1023, '\''), std::string(8190, 's')},
               {kFolder + "a.jpg", "m", "1", std::string(1023, '\''), std::string(1021, 'n') + "é", "t"}});
  expectNoMessages();
}

TEST_P(Images, GoOnAfterACommentOrLinkThatFails) {
  makeFiles({"a.jpg", "b.jpg"});
  appliance::refuseWriting(live(), "photo_comment", "INSERT", "NEW.name = 'bad'");
  source().exec(
      "ALTER TABLE photo_image_label ALTER status TYPE text;" + photo(1, "a.jpg") + photo(2, "b.jpg") +
      "INSERT INTO photo_label VALUES (1, 'one', 0, ''), (2, 'two', 0, ''), (3, 'three', 0, '');"
      "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES (1, 'before', '', '', '2001-01-01'), "
      "(1, 'bad', '', 'it''s', '2001-01-01'), (1, 'then', '', '', '2001-01-01'), (2, 'other', '', '', '2001-01-01');"
      "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES (1, 1, '', '', 't'), "
      "(1, 2, '', '', 'it''s'), (1, 3, '', '', 't'), (2, 3, 'a', '', 't'), (2, 99, '', '', 't'), (2, 1, '', '', 't')");
  EXPECT_EQ(merge().status, 0);
  const std::string label = live().value("SELECT id FROM photo_label WHERE name = 'two'");
  const std::string first = live().value("SELECT id FROM photo_image WHERE name = 'a.jpg'");
  const std::string second = live().value("SELECT id FROM photo_image WHERE name = 'b.jpg'");
  expectMessages({failedToExec("Insert into photo_comment (photo_id, name, email, comment, date) Values ('" + first +
                                   "', 'bad', '', 'it''s', '2001-01-01 00:00:00')",
                               kRefused),
                  failedToExec("Insert into photo_image_label (image_id, label_id, info, info_new, status) Values (" +
                                   first + ", " + label + ", '', '', 'it's')",
                               "ERROR:  syntax error at or near \"s\""),
                  // The link to a label that the source itself does not have.
                  failedToExec("Select photo_image_label.id as id from photo_image_label left join photo_label on "
                               "photo_image_label.label_id = photo_label.id where image_id = " +
                                   second + " and name = '' and category = ",
                               "ERROR:  syntax error at end of input")});
  expectPaths({"a.jpg", "b.jpg"});
  expectRows(live(), "SELECT name FROM photo_comment ORDER BY 1", {{"before"}, {"other"}});
  expectLinks({{kFolder + "a.jpg", "one", "0", "", "", "t"}, {kFolder + "b.jpg", "three", "0", "a", "", "t"}});
}

TEST_P(Images, AreMergedWhereTheSourcesCommentsAndLinksCannotBeRead) {
  makeFiles({"a.jpg"});
  source().exec(photo(3, "a.jpg") + "DROP TABLE photo_comment, photo_image_label");
  EXPECT_EQ(merge().status, 0);
  const std::string s = suffix();
  const std::string links = "photo_image_label" + s;
  expectMessages({failedToExec("Select * from photo_comment" + s + " where photo_id = 3", noTable("photo_comment" + s)),
                  failedToExec("Select " + links + ".info as info, status, name, category, " + links +
                                   ".info_new as info_new from " + links + " left join photo_label" + s + " on " +
                                   links + ".label_id = photo_label" + s + ".id where image_id = 3",
                               noTable(links))});
  expectPaths({"a.jpg"});
}

TEST_P(Images, AreMergedWhereLiveCommentsAndLinksFail) {
  makeFiles({"a.jpg", "b.jpg"});
  live().exec(photo(1, "a.jpg") + photo(2, "b.jpg") +
              "INSERT INTO photo_comment (photo_id, name, date) VALUES (1, 'same', '2001-01-01');"
              "DROP TABLE photo_image_label");
  appliance::refuseWriting(live(), "photo_comment", "DELETE", "true");
  source().exec(
      photo(3, "a.jpg") + photo(4, "b.jpg") +
      "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES (3, 'same', '', '', "
      "'2001-01-01'), (3, 'then', '', '', '2001-01-01'), (4, 'other', '', '', '2001-01-01');"
      "INSERT INTO photo_label VALUES (1, 'label', 0, '');"
      "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES (3, 1, '', '', true)");
  EXPECT_EQ(merge().status, 0);
  std::vector<std::string> messages;
  if (overwrites()) {
    messages = {failedToExec(
        "Delete from photo_comment where photo_id = 1 and date = '2001-01-01 00:00:00' and name = 'same'", kRefused)};
  }
  messages.push_back(
      failedToExec("Select photo_image_label.id as id from photo_image_label left join photo_label on "
                   "photo_image_label.label_id = photo_label.id where image_id = 1 and name = 'label' and category = 0",
                   noTable("photo_image_label")));
  expectMessages(messages);
  appliance::Rows expected = {{"other"}, {"same"}};
  if (!overwrites()) {
    expected.push_back({"then"});
  }
  expectRows(live(), "SELECT name FROM photo_comment ORDER BY 1", expected);
}

class ImageRoutine : public appliance::RoutineTest {};
APPLIANCE_ALL_ARRANGEMENTS(ImageRoutine);

TEST_P(ImageRoutine, RunsItsStatementsInOrder) {
  makeFiles({"new.jpg", "it's.jpg"});
  live().exec(photo(7, "it''s.jpg") +
              "SELECT setval('photo_image_id_seq', 40); INSERT INTO photo_label VALUES (3, 'Ro''me', 1, '');"
              "INSERT INTO photo_image_label VALUES (30, 7, 3, '', '', true);"
              "INSERT INTO photo_comment (photo_id, name, date) VALUES (7, 'an''na', '2001-01-01')");
  source().exec(photo(1, "new.jpg") + photo(2, "without file.jpg") + photo(3, "it''s.jpg") +
                "UPDATE photo_image SET title = 'ti''tle', timetaken = '2011-01-01'; INSERT INTO photo_label VALUES "
                "(8, 'Ro''me', 1, ''), (9, 'only saved', 2, '');"
                "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
                "(1, 8, 'i''', 'n''', false), (1, 9, '', '', true), (3, 8, '', '', true);"
                "INSERT INTO photo_comment (photo_id, name, email, comment, date) VALUES "
                "(1, 'an''na', 'e''', 'c''', '2001-01-01'), (3, 'an''na', '', '', '2001-01-01')");
  EXPECT_EQ(call(KavophotoSyncImage), 0);
  expectMessages({"KAVODBFetchRow failed. [Select id from photo_label where name = 'only saved' and category = 2] ()"});
  const std::string findLink =
      "live: Select photo_image_label.id as id from photo_image_label left join photo_label on "
      "photo_image_label.label_id = photo_label.id where image_id = ";
  const std::string listLinks =
      "source: Select photo_image_label{}.info as info, status, name, category, photo_image_label{}.info_new as "
      "info_new from photo_image_label{} left join photo_label{} on photo_image_label{}.label_id = photo_label{}.id "
      "where image_id = ";
  std::vector<std::string> expected = {
      "source: Select * from photo_image{}",
      "live: Select * from photo_image where path = '/var/services/photo/new.jpg'",
      "live: Insert into photo_image (path, name, title, description, album, size, camera_make, camera_model, "
      "exposure, "
      "aperture, resolutionx, resolutiony, iso, timetaken, updated, version, create_time, gps) "
      "VALUES('/var/services/photo/new.jpg', 'new.jpg', 'ti''tle', '', '', 1, '', '', '', '', 2, 3, 4, "
      "'2011-01-01 00:00:00', '1', 5, '2002-02-03 04:05:06', '')",
      "live: Select * from photo_image where path = '/var/services/photo/new.jpg'",
      "source: Select * from photo_comment{} where photo_id = 1",
      "live: Select * from photo_comment where photo_id = '41' and date = '2001-01-01 00:00:00' and name = 'an''na'",
      "live: Insert into photo_comment (photo_id, name, email, comment, date) Values ('41', 'an''na', 'e''', 'c''', "
      "'2001-01-01 00:00:00')",
      listLinks + "1",
      findLink + "41 and name = 'Ro''me' and category = 1",
      "live: Select id from photo_label where name = 'Ro''me' and category = 1",
      "live: Insert into photo_image_label (image_id, label_id, info, info_new, status) Values (41, 3, 'i''', 'n''', "
      "'f')",
      findLink + "41 and name = 'only saved' and category = 2",
      "live: Select id from photo_label where name = 'only saved' and category = 2",
      "live: Select * from photo_image where path = '/var/services/photo/it''s.jpg'",
  };
  if (overwrites()) {
    expected.emplace_back(
        "live: UPDATE photo_image SET name = 'it''s.jpg', title = 'ti''tle', description = '', album = '', size = 1, "
        "camera_make = '', camera_model = '', exposure = '', aperture = '', resolutionx = 2, resolutiony = 3, iso = 4, "
        "timetaken = '2011-01-01 00:00:00', updated = '1', version = 5, create_time = '2002-02-03 04:05:06', gps = '' "
        "where path = '/var/services/photo/it''s.jpg'");
  }
  expected.insert(
      expected.end(),
      {"live: Select * from photo_image where path = '/var/services/photo/it''s.jpg'",
       "source: Select * from photo_comment{} where photo_id = 3",
       "live: Select * from photo_comment where photo_id = '7' and date = '2001-01-01 00:00:00' and name = 'an''na'"});
  if (overwrites()) {
    expected.insert(
        expected.end(),
        {"live: Delete from photo_comment where photo_id = 7 and date = '2001-01-01 00:00:00' and name = 'an''na'",
         "live: Insert into photo_comment (photo_id, name, email, comment, date) Values ('7', 'an''na', '', '', "
         "'2001-01-01 00:00:00')"});
  }
  expected.insert(expected.end(), {listLinks + "3", findLink + "7 and name = 'Ro''me' and category = 1"});
  if (overwrites()) {
    expected.insert(expected.end(), {"live: delete from photo_image_label where id = 30 ",
                                     "live: Select id from photo_label where name = 'Ro''me' and category = 1",
                                     "live: Insert into photo_image_label (image_id, label_id, info, info_new, status) "
                                     "Values (7, 3, '', '', 't')"});
  }
  expectStatements(expected);
}

struct RawColumn {
  const char* column;
  std::string value;  // quoted once more in SQL
  std::string error;
};

TEST_P(ImageRoutine, EndsAtAnyColumnThatIsNotEscapedOrQuoted) {
  makeFiles({"before.jpg", "bad.jpg", "then.jpg"});
  source().exec(
      "ALTER TABLE photo_image ALTER size TYPE text, ALTER resolutionx TYPE text, ALTER resolutiony TYPE text, "
      "ALTER iso TYPE text, ALTER version TYPE text, ALTER timetaken TYPE text, ALTER create_time TYPE text");
  const std::string noColumn = "ERROR:  column \"no_number\" does not exist";
  const std::string quote = "ERROR:  syntax error at or near \"s\"";
  std::vector<RawColumn> columns;
  for (const char* column : {"size", "resolutionx", "resolutiony", "iso", "version"}) {
    columns.push_back({column, "no_number", noColumn});
  }
  for (const char* column : {"exposure", "aperture", "timetaken", "create_time"}) {
    columns.push_back({column, "it''s", quote});
  }
  for (const RawColumn& raw : columns) {
    SCOPED_TRACE(raw.column);
    live().exec("DELETE FROM photo_image");
    source().exec("DELETE FROM photo_image;" + photo(1, "before.jpg") + photo(2, "bad.jpg") +
                  "UPDATE photo_image SET " + raw.column + " = '" + raw.value + "' WHERE id = 2;" +
                  photo(3, "then.jpg"));
    if (overwrites()) {
      live().exec(photo(1000, "bad.jpg") + "UPDATE photo_image SET title = 'live'");
    }
    EXPECT_EQ(call(KavophotoSyncImage), -1);
    expectMessagesMatch({testing::AllOf(testing::StartsWith(overwrites() ? "Failed to exec [UPDATE photo_image SET "
                                                                         : "Failed to exec [Insert into photo_image "),
                                        testing::HasSubstr("(" + raw.error))});
    appliance::Rows expected = {{"before.jpg", ""}};
    if (overwrites()) {
      expected.insert(expected.begin(), {"bad.jpg", "live"});
    }
    expectRows(live(), "SELECT name, title FROM photo_image ORDER BY 1", expected);
  }
}

TEST_P(ImageRoutine, EndsWhereALookUpFails) {
  makeFiles({"a.jpg"});
  source().exec(photo(1, "a.jpg"));
  live().exec("DROP TABLE photo_image");
  EXPECT_EQ(call(KavophotoSyncImage), -1);
  source().exec("DROP TABLE photo_image");
  EXPECT_EQ(call(KavophotoSyncImage), -1);
  const std::string table = std::string("photo_image") + GetParam().suffix;
  expectMessages({"Failed to exec [Select * from photo_image where path = '/var/services/photo/a.jpg'] (" +
                      noTable("photo_image") + ")",
                  "Failed to exec [Select * from " + table + "] (" + noTable(table) + ")"});
}

TEST_P(ImageRoutine, GoesOnAfterALinkThatCannotBeReplaced) {
  makeFiles({"a.jpg", "b.jpg"});
  live().exec(photo(7, "a.jpg") + photo(8, "b.jpg") +
              "INSERT INTO photo_label VALUES (3, 'one', 1, ''), (4, 'two', 1, '');"
              "INSERT INTO photo_image_label VALUES (30, 7, 3, 'live', '', true)");
  appliance::refuseWriting(live(), "photo_image_label", "DELETE", "true");
  source().exec(photo(1, "a.jpg") + photo(2, "b.jpg") +
                "INSERT INTO photo_label VALUES (8, 'one', 1, ''), (9, 'two', 1, '');"
                "INSERT INTO photo_image_label (image_id, label_id, info, info_new, status) VALUES "
                "(1, 8, '', '', true), (1, 9, '', '', true), (2, 9, '', '', true)");
  EXPECT_EQ(call(KavophotoSyncImage), 0);
  appliance::Rows expected = {{"7", "3", "live"}};
  if (overwrites()) {
    expectMessages({std::string("Failed to exec [delete from photo_image_label where id = 30 ] (") + kRefused + ")"});
  } else {
    expected.push_back({"7", "4", ""});
  }
  expected.push_back({"8", "4", ""});
  expectRows(live(), "SELECT image_id, label_id, info FROM photo_image_label ORDER BY 1, 2", expected);
}

}  // namespace
