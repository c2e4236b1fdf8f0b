#include "merge/personal_collections.h"

#include "merge/merge.h"
#include "merge/routine_test.h"
#include "support/merge_test.h"

namespace {

using appliance::kRefused;
using appliance::noTable;

struct Family {
  std::string table;
  std::string photos;
  std::string videos;
  bool hasUsers;
};

const std::vector<Family>& families() {
  static const std::vector<Family> all = {
      {"photo_personal_collection", "photo_personal_collection_photo", "photo_personal_collection_video", true},
      {"photo_personal_collection_for_admin", "photo_personal_collection_photo_for_admin",
       "photo_personal_collection_video_for_admin", false},
      {"photo_personal_collection_for_hox_account", "photo_personal_collection_photo_for_hox_account",
       "photo_personal_collection_video_for_hox_account", true}};
  return all;
}

// A collection with every column set.
std::string collection(const Family& family, int id, const std::string& name, const std::string& year) {
  return "INSERT INTO " + family.table + " (id, " + (family.hasUsers ? "userid, " : "") +
         "name, is_shared, start_time, end_time, sharelink, create_date, hidden) VALUES (" + std::to_string(id) + ", " +
         (family.hasUsers ? std::to_string(id + 500) + ", " : "") + "'" + name + "', true, '" + year + "-01-01', '" +
         year + "-02-01', 'link" + year + "', '" + year + "-03-01', false);";
}

std::string path(const std::string& name) { return "/var/services/photo/" + name; }

// A photo that is merged, because its file exists.
std::string photo(int id, const std::string& name) {
  appliance::writeFile(path(name), "x");
  return "INSERT INTO photo_image (id, path, size, resolutionx, resolutiony, iso, version, timetaken) VALUES (" +
         std::to_string(id) + ", '" + path(name) + "', 1, 1, 1, 1, 1, '2001-01-01');";
}

std::string video(int id, const std::string& name) {
  return "INSERT INTO video (id, path) VALUES (" + std::to_string(id) + ", '" + path(name) + "');";
}

std::string member(const std::string& table, int collection, int media) {
  return "INSERT INTO " + table + " VALUES (" + std::to_string(collection) + ", " + std::to_string(media) + ");";
}

class PersonalCollections : public appliance::MergeTest {
 protected:
  void expectCollections(const Family& family, const appliance::Rows& expected) {
    expectRows(live(),
               std::string("SELECT id, ") + (family.hasUsers ? "userid" : "NULL") +
                   ", name, is_shared, start_time, end_time, sharelink, create_date, hidden FROM " + family.table +
                   " ORDER BY id",
               expected);
  }
  // The members by the names of their collections and files.
  void expectMembers(const Family& family, const appliance::Rows& photos, const appliance::Rows& videos) {
    const std::string collections = " m LEFT JOIN " + family.table + " c ON c.id = collectionid LEFT JOIN ";
    expectRows(
        live(),
        "SELECT c.name, f.path FROM " + family.photos + collections + "photo_image f ON f.id = photoid ORDER BY 1, 2",
        photos);
    expectRows(live(),
               "SELECT c.name, f.path FROM " + family.videos + collections + "video f ON f.id = videoid ORDER BY 1, 2",
               videos);
  }
  std::string syncFailed(const Family& family) const { return "Table " + family.table + " sync failed"; }
};
APPLIANCE_ALL_MODES(PersonalCollections);

TEST_P(PersonalCollections, AreMatchedByNameAloneAndKeepTheirLiveNumbers) {
  for (const Family& family : families()) {
    live().exec(collection(family, 1, "only live", "2001") + collection(family, 2, "both", "2002") + "SELECT setval('" +
                family.table + "_id_seq', 40)");
    // Two users have a collection "twice".
    source().exec(collection(family, 1, "both", "2011") + collection(family, 2, "new \\ %s é", "2012") +
                  collection(family, 3, "twice", "2013") + collection(family, 4, "twice", "2014"));
  }
  EXPECT_EQ(merge().status, 0);
  for (const Family& family : families()) {
    SCOPED_TRACE(family.table);
    const auto row = [&family](const std::string& id, const std::string& user, const std::string& name,
                               const std::string& year) {
      return std::vector<std::string>{id,
                                      family.hasUsers ? user : "(null)",
                                      name,
                                      "t",
                                      year + "-01-01 00:00:00",
                                      year + "-02-01 00:00:00",
                                      "link" + year,
                                      year + "-03-01 00:00:00",
                                      "f"};
    };
    expectCollections(family, {row("1", "501", "only live", "2001"),
                               overwrites() ? row("2", "501", "both", "2011") : row("2", "502", "both", "2002"),
                               row("41", "502", "new \\ %s é", "2012"),
                               overwrites() ? row("42", "504", "twice", "2014") : row("42", "503", "twice", "2013")});
  }
  expectNoMessages();
}

TEST_P(PersonalCollections, HaveNoTimesWhereTheSourceHasNone) {
  for (const Family& family : families()) {
    live().exec(collection(family, 100, "both", "2001"));
    source().exec(collection(family, 1, "both", "2011") + collection(family, 2, "new", "2012") + "UPDATE " +
                  family.table + " SET start_time = NULL, end_time = NULL, sharelink = NULL");
  }
  EXPECT_EQ(merge().status, 0);
  for (const Family& family : families()) {
    SCOPED_TRACE(family.table);
    appliance::Rows expected = {{"both", "2001-01-01 00:00:00", "2001-02-01 00:00:00", "link2001"},
                                {"new", "(null)", "(null)", ""}};
    if (overwrites()) {
      expected[0] = {"both", "(null)", "(null)", ""};
    }
    expectRows(live(), "SELECT name, start_time, end_time, sharelink FROM " + family.table + " ORDER BY 1", expected);
  }
  expectNoMessages();
}

TEST_P(PersonalCollections, AreNeverCut) {
  for (const Family& family : families()) {
    live().exec("DROP INDEX " + family.table + "_name_index");
    source().exec("DROP INDEX " + family.table + "_name_index;" + collection(family, 1, "name", "2011") + "UPDATE " +
                  family.table + " SET name = repeat('n', 20000), sharelink = repeat('l', 20000)");
  }
  EXPECT_EQ(merge().status, 0);
  for (const Family& family : families()) {
    expectRows(live(), "SELECT length(name), length(sharelink) FROM " + family.table, {{"20000", "20000"}});
  }
  expectNoMessages();
}

TEST_P(PersonalCollections, EndAtAQuoteInTheName) {
  for (const Family& family : families()) {
    source().exec(collection(family, 1, "before", "2001") + collection(family, 2, "it''s", "2002") +
                  collection(family, 3, "then", "2003"));
  }
  EXPECT_EQ(merge().status, 0);
  // The host accounts' collections are merged before the administrator's.
  std::vector<std::string> messages;
  for (const std::size_t at : {0U, 2U, 1U}) {
    messages.push_back(failedToExec("SELECT * FROM " + families()[at].table + " WHERE name = 'it's'",
                                    "ERROR:  syntax error at or near \"s\""));
    messages.push_back(syncFailed(families()[at]));
  }
  expectMessages(messages);
  for (const Family& family : families()) {
    expectRows(live(), "SELECT name FROM " + family.table, {{"before"}});
  }
}

TEST_P(PersonalCollections, EndAtAStatementThatFailsAndLeaveTheOtherTablesToBeMerged) {
  const Family& users = families()[0];
  const Family& admin = families()[1];
  const Family& hosts = families()[2];
  source().exec("DROP TABLE " + users.table + ";" + collection(hosts, 1, "before", "2001") +
                collection(hosts, 2, "quote", "2002") + "UPDATE " + hosts.table +
                " SET sharelink = 'x''; DROP TABLE photo_user; --' WHERE id = 2;" +
                collection(hosts, 3, "then", "2003") + collection(admin, 1, "all", "2001"));
  EXPECT_EQ(merge().status, 0);
  expectMessages(
      {failedToExec("SELECT * FROM " + users.table + suffix(), noTable(users.table + suffix())), syncFailed(users),
       failedToExec("INSERT INTO " + hosts.table +
                        " (userid, name, is_shared, start_time, end_time, sharelink, create_date, hidden) VALUES (502, "
                        "'quote', 't', '2002-01-01 00:00:00', '2002-02-01 00:00:00', 'x'; DROP TABLE photo_user; --', "
                        "'2002-03-01 00:00:00', 'f')",
                    "ERROR:  syntax error at or near \";\""),
       syncFailed(hosts)});
  expectRows(live(), "SELECT name FROM " + hosts.table, {{"before"}});
  expectRows(live(), "SELECT name FROM " + admin.table, {{"all"}});
  EXPECT_EQ(live().count("photo_user"), 0);
}

TEST_P(PersonalCollections, GainTheMembersTheyLack) {
  // Every number stands for something else on the other side.
  live().exec(photo(1, "b.jpg") + photo(2, "a.jpg") + photo(3, "only live.jpg") + video(1, "b.avi") +
              video(2, "a.avi") + "SELECT setval('photo_image_id_seq', 40)");
  source().exec(photo(1, "a.jpg") + photo(2, "b.jpg") + photo(3, "new.jpg") + photo(4, "without file.jpg") +
                video(1, "a.avi") + video(2, "b.avi") + video(3, "only saved.avi"));
  appliance::removeAll(path("without file.jpg"));
  for (const Family& family : families()) {
    live().exec(collection(family, 1, "two", "2001") + collection(family, 2, "one", "2002") + "SELECT setval('" +
                family.table + "_id_seq', 40);" + member(family.photos, 2, 2) + member(family.photos, 2, 3) +
                member(family.videos, 1, 1));
    std::string rows = collection(family, 1, "one", "2011") + collection(family, 2, "two", "2012") +
                       collection(family, 3, "new", "2013");
    // Photo 4 has no file, photo 99 and collection 99 do not exist.
    for (const auto& [collectionId, mediaId] :
         std::vector<std::pair<int, int>>{{1, 1}, {1, 2}, {1, 2}, {3, 3}, {3, 4}, {3, 99}, {99, 1}, {2, 1}}) {
      rows += member(family.photos, collectionId, mediaId);
    }
    for (const auto& [collectionId, mediaId] :
         std::vector<std::pair<int, int>>{{2, 2}, {3, 1}, {3, 3}, {3, 1}, {98, 1}, {99, 2}}) {
      rows += member(family.videos, collectionId, mediaId);
    }
    source().exec(rows);
  }
  EXPECT_EQ(merge().status, 0);
  for (const Family& family : families()) {
    SCOPED_TRACE(family.table);
    appliance::Rows videos = {{"two", path("b.avi")}};
    if (imports()) {
      videos.insert(videos.begin(), {"new", path("a.avi")});
    }
    expectMembers(family,
                  {{"new", path("new.jpg")},
                   {"one", path("a.jpg")},
                   {"one", path("b.jpg")},
                   {"one", path("only live.jpg")},
                   {"two", path("a.jpg")}},
                  videos);
  }
  if (imports()) {
    expectNoMessages();
    return;
  }
  // A backup does not hold the videos: each is asked for once in a family and its members are skipped.
  std::vector<std::string> messages;
  for (std::size_t family = 0; family < families().size(); ++family) {
    for (const char* id : {"2", "1", "3"}) {
      messages.push_back(
          failedToExec(std::string("SELECT path FROM video_bak WHERE id = ") + id, noTable("video_bak")));
    }
  }
  expectMessages(messages);
}

TEST_P(PersonalCollections, GoOnAfterAMemberThatFails) {
  const Family& users = families()[0];
  const Family& admin = families()[1];
  live().exec(photo(5, "bad.jpg") + photo(6, "b.jpg") + "SELECT setval('photo_image_id_seq', 40)");
  appliance::refuseWriting(live(), users.photos, "INSERT", "NEW.photoid = 5");
  source().exec(photo(1, "it''s.jpg") + photo(2, "bad.jpg") + photo(3, "b.jpg"));
  for (const Family* family : {&users, &admin}) {
    source().exec(collection(*family, 1, "one", "2011"));
    for (const int media : {1, 2, 1, 3}) {
      source().exec(member(family->photos, 1, media));
    }
  }
  EXPECT_EQ(merge().status, 0);
  const std::string quoted = failedToExec("SELECT id FROM photo_image WHERE path = '" + path("it's.jpg") + "'",
                                          "ERROR:  syntax error at or near \"s\"");
  expectMessages({quoted,
                  failedToExec("INSERT INTO " + users.photos + " (collectionid, photoid) VALUES (1, 5)", kRefused),
                  quoted});
  expectMembers(users, {{"one", path("b.jpg")}}, {});
  expectMembers(admin, {{"one", path("b.jpg")}, {"one", path("bad.jpg")}}, {});
}

TEST_P(PersonalCollections, StopAtTheFamilyWhoseMembersCannotBeRead) {
  source().exec(photo(1, "a.jpg"));
  for (const Family& family : families()) {
    source().exec(collection(family, 1, "one", "2011") + member(family.photos, 1, 1));
  }
  source().exec("DROP TABLE " + families()[1].photos);
  EXPECT_EQ(merge().status, 0);
  const std::string table = families()[1].photos + suffix();
  expectMessages({failedToExec("SELECT * FROM " + table, noTable(table))});
  expectMembers(families()[0], {{"one", path("a.jpg")}}, {});
  EXPECT_EQ(live().count(families()[2].photos), 0);
  EXPECT_EQ(live().count(families()[2].table), 1);
}

TEST_P(PersonalCollections, NeverRunWhatAValueOfTheirsSays) {
  const std::string columns = "name, is_shared, start_time, end_time, sharelink, create_date, hidden";
  const std::vector<std::string> links = {"'||pg_read_file('/etc/hostname')||'",
                                          "', '2001-01-01', 'f'), (7, 'forged', 'f', NULL, NULL, '",
                                          "'||(SELECT current_user)||'"};
  for (const Family& family : families()) {
    for (const std::string& link : links) {
      SCOPED_TRACE(family.table + " " + link);
      const std::string literal = List::of({link}, "").text;
      source().exec("TRUNCATE " + family.table + ";" + collection(family, 1, "new", "2011") + "UPDATE " + family.table +
                    " SET sharelink = " + literal);
      live().exec("TRUNCATE " + family.table);
      EXPECT_EQ(merge().status, 0);
      const std::string kept =
          "Failed to exec [INSERT INTO " + family.table + " (" + (family.hasUsers ? "userid, " : "") + columns +
          ") VALUES (" + (family.hasUsers ? "501, " : "") +
          "'new', 't', '2011-01-01 00:00:00', '2011-02-01 00:00:00', '" + link + "', '2011-03-01 00:00:00', 'f')] (";
      expectMessagesMatch({testing::AllOf(testing::StartsWith(kept), testing::HasSubstr("] (ERROR:  ")),
                           "Table " + family.table + " sync failed"});
      EXPECT_EQ(live().count(family.table), 0);

      source().exec("UPDATE " + family.table + " SET sharelink = 'link', name = " + literal);
      EXPECT_EQ(merge().status, 0);
      expectMessagesMatch({testing::StartsWith("Failed to exec [SELECT * FROM " + family.table + " WHERE name = '" +
                                               link + "'] (ERROR:  "),
                           "Table " + family.table + " sync failed"});
      EXPECT_EQ(live().count(family.table), 0);
    }
    source().exec("TRUNCATE " + family.table);
  }
}

class CollectionRoutine : public appliance::RoutineTest {
 protected:
  static Routine merging(const std::string& table) {
    return [table](DBConnect_tag* destination, DBConnect_tag* from, const char* suffix) {
      return KavophotoSyncPersonalCollection(destination, from, table, suffix);
    };
  }
  std::string failedToExec(const std::string& statement, const std::string& error) {
    return "Failed to exec [" + statement + "] (" + error + ")";
  }
};
APPLIANCE_ALL_ARRANGEMENTS(CollectionRoutine);

TEST_P(CollectionRoutine, RunsTheStatementsOfACollectionInOrder) {
  for (const Family& family : families()) {
    SCOPED_TRACE(family.table);
    live().exec(collection(family, 9, "both", "2001"));
    source().exec(collection(family, 1, "new", "2011") + collection(family, 2, "both", "2012") + "UPDATE " +
                  family.table + " SET end_time = NULL");
    EXPECT_EQ(call(merging(family.table)), 0);
    const std::string& table = family.table;
    // The update of the source has not changed the order of its rows.
    std::vector<std::string> expected = {
        "source: SELECT * FROM " + table + "{}", "live: SELECT * FROM " + table + " WHERE name = 'new'",
        "live: INSERT INTO " + table + " (" + (family.hasUsers ? "userid, " : "") +
            "name, is_shared, start_time, end_time, sharelink, create_date, hidden) VALUES (" +
            (family.hasUsers ? "501, " : "") +
            "'new', 't', '2011-01-01 00:00:00', NULL, 'link2011', '2011-03-01 00:00:00', 'f')",
        "live: SELECT * FROM " + table + " WHERE name = 'both'"};
    if (overwrites()) {
      expected.push_back(
          "live: UPDATE " + table + " SET " + (family.hasUsers ? "userid = 502, " : "") +
          "is_shared = 't', start_time = '2012-01-01 00:00:00', end_time = NULL, sharelink = 'link2012', "
          "create_date = '2012-03-01 00:00:00', hidden = 'f' WHERE name = 'both'");
    }
    expectStatements(expected);
  }
}

TEST_P(CollectionRoutine, TellsFailuresApart) {
  for (const Family& family : families()) {
    SCOPED_TRACE(family.table);
    source().exec(collection(family, 1, "before", "2001") + collection(family, 2, "bad", "2002") +
                  collection(family, 3, "then", "2003"));
    appliance::refuseWriting(live(), family.table, "INSERT", "NEW.name = 'bad'");
    EXPECT_EQ(call(merging(family.table)), -3);
    expectMessagesMatch(
        {testing::AllOf(testing::StartsWith("Failed to exec [INSERT INTO " + family.table + " ("),
                        testing::HasSubstr("'bad'"), testing::EndsWith(std::string("] (") + kRefused + ")"))});
    expectRows(live(), "SELECT name FROM " + family.table, {{"before"}});

    live().exec("ALTER TABLE " + family.table + " DISABLE TRIGGER ALL;" + collection(family, 60, "bad", "2022") +
                "ALTER TABLE " + family.table + " ENABLE TRIGGER ALL");
    appliance::refuseWriting(live(), family.table, "UPDATE", "NEW.name = 'bad'");
    EXPECT_EQ(call(merging(family.table)), overwrites() ? -3 : 0);
    if (overwrites()) {
      expectMessagesMatch({testing::AllOf(testing::StartsWith("Failed to exec [UPDATE " + family.table + " SET "),
                                          testing::EndsWith(std::string("] (") + kRefused + ")"))});
      expectRows(live(), "SELECT name FROM " + family.table + " ORDER BY 1", {{"bad"}, {"before"}});
    } else {
      expectRows(live(), "SELECT name FROM " + family.table + " ORDER BY 1", {{"bad"}, {"before"}, {"then"}});
    }

    live().exec("DROP TABLE " + family.table);
    EXPECT_EQ(call(merging(family.table)), -2);
    expectMessages({failedToExec("SELECT * FROM " + family.table + " WHERE name = 'before'", noTable(family.table))});

    source().exec("DROP TABLE " + family.table);
    EXPECT_EQ(call(merging(family.table)), -1);
    const std::string table = family.table + GetParam().suffix;
    expectMessages({failedToExec("SELECT * FROM " + table, noTable(table))});
  }
}

TEST_P(CollectionRoutine, EndsAtAQuoteInAnyColumn) {
  const Family& users = families()[0];
  source().exec(
      "ALTER TABLE " + users.table +
      " ALTER is_shared TYPE text, ALTER start_time TYPE text, ALTER end_time TYPE text, ALTER create_date TYPE "
      "text, ALTER hidden TYPE text");
  for (const std::string column : {"is_shared", "start_time", "end_time", "sharelink", "create_date", "hidden"}) {
    SCOPED_TRACE(column);
    live().exec("DELETE FROM " + users.table);
    if (overwrites()) {
      live().exec(collection(users, 100, "bad", "2001"));
    }
    source().exec("DELETE FROM " + users.table + ";" + collection(users, 2, "bad", "2002") + "UPDATE " + users.table +
                  " SET " + column + " = 'it''s';" + collection(users, 3, "then", "2003"));
    EXPECT_EQ(call(merging(users.table)), -3);
    expectMessagesMatch({testing::EndsWith("] (ERROR:  syntax error at or near \"s\")")});
    expectRows(live(), "SELECT name, sharelink FROM " + users.table,
               overwrites() ? appliance::Rows{{"bad", "link2001"}} : appliance::Rows{});
  }
}

TEST_P(CollectionRoutine, RunsTheStatementsOfMembersInOrder) {
  live().exec(photo(11, "a.jpg") + photo(12, "b.jpg") + video(21, "a.avi"));
  source().exec(photo(1, "a.jpg") + photo(2, "b.jpg") + photo(3, "only saved.jpg") + video(1, "a.avi"));
  std::vector<std::string> expected;
  for (const Family& family : families()) {
    live().exec(collection(family, 31, "one", "2001") + member(family.photos, 31, 12));
    source().exec(collection(family, 5, "one", "2011") + collection(family, 6, "only saved", "2012") +
                  member(family.photos, 5, 1) + member(family.photos, 5, 2) + member(family.photos, 5, 3) +
                  member(family.photos, 6, 1) + member(family.photos, 7, 3) + member(family.photos, 5, 1) +
                  member(family.videos, 6, 1) + member(family.videos, 5, 1));
    const std::string& table = family.table;
    const std::vector<std::string> statements = {
        "source: SELECT * FROM " + family.photos + "{}", "source: SELECT name FROM " + table + "{} WHERE id = 5",
        "live: SELECT id FROM " + table + " WHERE name = 'one'", "source: SELECT path FROM photo_image{} WHERE id = 1",
        "live: SELECT id FROM photo_image WHERE path = '" + path("a.jpg") + "'",
        "live: SELECT * FROM " + family.photos + " WHERE collectionid = 31 AND photoid = 11",
        "live: INSERT INTO " + family.photos + " (collectionid, photoid) VALUES (31, 11)",
        "source: SELECT path FROM photo_image{} WHERE id = 2",
        "live: SELECT id FROM photo_image WHERE path = '" + path("b.jpg") + "'",
        "live: SELECT * FROM " + family.photos + " WHERE collectionid = 31 AND photoid = 12",
        "source: SELECT path FROM photo_image{} WHERE id = 3",
        "live: SELECT id FROM photo_image WHERE path = '" + path("only saved.jpg") + "'",
        "source: SELECT name FROM " + table + "{} WHERE id = 6",
        "live: SELECT id FROM " + table + " WHERE name = 'only saved'",
        "source: SELECT name FROM " + table + "{} WHERE id = 7",
        "live: SELECT * FROM " + family.photos + " WHERE collectionid = 31 AND photoid = 11",
        // The collections are known from the photos, the media are asked for again.
        "source: SELECT * FROM " + family.videos + "{}", "source: SELECT path FROM video{} WHERE id = 1",
        "live: SELECT id FROM video WHERE path = '" + path("a.avi") + "'",
        "live: SELECT * FROM " + family.videos + " WHERE collectionid = 31 AND videoid = 21",
        "live: INSERT INTO " + family.videos + " (collectionid, videoid) VALUES (31, 21)"};
    expected.insert(expected.end(), statements.begin(), statements.end());
  }
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  expectStatements(expected);
  expectNoMessages();
}

TEST_P(CollectionRoutine, LogsALookUpThatFailsOnceAndGoesOn) {
  const Family& users = families()[0];
  live().exec(photo(11, "a.jpg") + photo(12, "b.jpg") + video(21, "a.avi") + collection(users, 31, "one", "2001") +
              collection(users, 32, "bad", "2001"));
  appliance::refuseReading(live(), users.table, "name = 'bad'");
  source().exec(photo(1, "a.jpg") + photo(2, "b.jpg") + video(1, "a.avi") + collection(users, 5, "bad", "2011") +
                collection(users, 6, "one", "2012") + member(users.photos, 5, 1) + member(users.photos, 5, 2) +
                member(users.photos, 6, 2) + member(users.videos, 5, 1) + member(users.videos, 6, 1));
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  expectMessages({failedToExec("SELECT id FROM " + users.table + " WHERE name = 'bad'", kRefused)});
  expectRows(live(), "SELECT * FROM " + users.photos, {{"31", "12"}});
  expectRows(live(), "SELECT * FROM " + users.videos, {{"31", "21"}});
}

TEST_P(CollectionRoutine, GoesOnWhereAnExistingMemberCannotBeLookedFor) {
  const Family& users = families()[0];
  live().exec(photo(11, "a.jpg") + video(21, "a.avi") + collection(users, 31, "one", "2001") + "DROP TABLE " +
              users.photos);
  source().exec(photo(1, "a.jpg") + video(1, "a.avi") + collection(users, 5, "one", "2011") +
                member(users.photos, 5, 1) + member(users.videos, 5, 1));
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  expectMessages({failedToExec("SELECT * FROM " + users.photos + " WHERE collectionid = 31 AND photoid = 11",
                               noTable(users.photos))});
  expectRows(live(), "SELECT * FROM " + users.videos, {{"31", "21"}});
}

TEST_P(CollectionRoutine, LinksToTheFirstOfSeveralCounterpartsAndToTheLastNameOfANumber) {
  const Family& users = families()[0];
  live().exec(photo(11, "a.jpg") + collection(users, 33, "one", "2001") + collection(users, 32, "one", "2001"));
  source().exec("ALTER TABLE " + users.table + " DROP CONSTRAINT " + users.table + "_pkey;" + photo(1, "a.jpg") +
                collection(users, 5, "other", "2011") + collection(users, 5, "one", "2011") +
                member(users.photos, 5, 1));
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  expectRows(live(), "SELECT * FROM " + users.photos, {{"33", "11"}});
}

TEST_P(CollectionRoutine, NeverTakesAMissingRowForOneWithoutAName) {
  const Family& users = families()[0];
  live().exec(photo(11, "a.jpg") + photo(12, "b.jpg") + "UPDATE photo_image SET path = '' WHERE id = 12;" +
              collection(users, 31, "one", "2001") + collection(users, 32, "", "2001"));
  source().exec(photo(1, "a.jpg") + collection(users, 5, "one", "2011") + member(users.photos, 99, 1) +
                member(users.photos, 5, 99));
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  EXPECT_EQ(live().count(users.photos), 0);
}

TEST_P(CollectionRoutine, StopsAtTheFirstMemberTableThatCannotBeRead) {
  live().exec(photo(11, "a.jpg") + video(21, "a.avi"));
  source().exec(photo(1, "a.jpg") + video(1, "a.avi"));
  for (const Family& family : families()) {
    live().exec(collection(family, 31, "one", "2001"));
    source().exec(collection(family, 5, "one", "2011") + member(family.photos, 5, 1) + member(family.videos, 5, 1));
  }
  source().exec("DROP TABLE " + families()[1].videos);
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), -1);
  const std::string videos = families()[1].videos + GetParam().suffix;
  expectMessages({failedToExec("SELECT * FROM " + videos, noTable(videos))});
  EXPECT_EQ(live().count(families()[0].videos), 1);
  EXPECT_EQ(live().count(families()[1].photos), 1);
  EXPECT_EQ(live().count(families()[2].photos), 0);

  source().exec("DROP TABLE " + families()[0].photos);
  live().exec("DELETE FROM " + families()[0].videos);
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), -1);
  const std::string photos = families()[0].photos + GetParam().suffix;
  expectMessages({failedToExec("SELECT * FROM " + photos, noTable(photos))});
  EXPECT_EQ(live().count(families()[0].videos), 0);
}

TEST_P(CollectionRoutine, AddsNothingWhenRunAgain) {
  live().exec(photo(11, "a.jpg") + video(21, "a.avi"));
  source().exec(photo(1, "a.jpg") + video(1, "a.avi"));
  for (const Family& family : families()) {
    live().exec(collection(family, 31, "one", "2001"));
    source().exec(collection(family, 5, "one", "2011") + member(family.photos, 5, 1) + member(family.videos, 5, 1));
  }
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  const auto once = appliance::contents("photo");
  EXPECT_EQ(call(KavophotoSyncPersonalCollectionItems), 0);
  EXPECT_EQ(appliance::contents("photo"), once);
  EXPECT_EQ(live().count(families()[2].videos), 1);
}

}  // namespace
