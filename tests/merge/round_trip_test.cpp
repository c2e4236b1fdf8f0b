#include <set>

#include "merge/sample_rows.h"
#include "support/merge_test.h"
#include "support/named_rows.h"

namespace {

using appliance::workDirectory;

const std::string kSmartAlbums = "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG";

// Two albums of several rule sets each.
std::string smartAlbums(const std::string& people, const std::string& places, const std::string& tags,
                        const std::string& shares) {
  const auto rule = [](const std::string& field, const std::string& value) {
    return "               {\n                  \"field\" : \"" + field + "\",\n                  \"value\" : \"" +
           value + "\"\n               }";
  };
  const auto set = [](const std::string& rules) { return "            [\n" + rules + "\n            ]"; };
  return "{\n   \"smart_albums\" : {\n      \"s1\" : {\n         \"name\" : \"one\",\n         \"rule_sets\" : [\n" +
         set(rule("people", people) + ",\n" + rule("date", "2013")) + ",\n" + set(rule("geo", places)) +
         "\n         ]\n      },\n      \"s2\" : {\n         \"rule_sets\" : [\n" +
         set(rule("albums", shares) + ",\n" + rule("desc", tags)) + "\n         ]\n      }\n   }\n}\n";
}

class RoundTrip : public appliance::MergeTest {
 protected:
  // The tables that number their rows, with the numbers' column.
  static const std::vector<std::pair<std::string, std::string>>& numberedTables() {
    static const std::vector<std::pair<std::string, std::string>> tables = {
        {"photo_share", "shareid"},
        {"photo_user", "userid"},
        {"photo_group", "groupid"},
        {"photo_log", "logid"},
        {"photo_label", "id"},
        {"photo_image", "id"},
        {"photo_comment", "id"},
        {"photo_image_label", "id"},
        {"photo_video_label", "id"},
        {"video_comment", "id"},
        {"video_desc", "id"},
        {"category", "id"},
        {"category_items", "id"},
        {"photo_personal_collection", "id"},
        {"photo_personal_collection_for_admin", "id"},
        {"photo_personal_collection_for_hox_account", "id"}};
    return tables;
  }

  static std::set<std::string> numbers(appliance::Database& database) {
    std::set<std::string> all;
    for (const auto& [table, column] : numberedTables()) {
      for (const auto& row : database.rows("SELECT " + column + " FROM " + table)) {
        all.insert(table + " " + row[0]);
      }
    }
    return all;
  }

  std::string labels(const std::string& names) {
    return live().value("SELECT string_agg(id::text, ',') FROM photo_label WHERE name IN (" + names + ")");
  }

  // Carries everything into empty tables: by a backup, the loss of all rows and a restore, or by an import.
  appliance::Outcome carryAll() {
    if (imports()) {
      return merge();
    }
    EXPECT_EQ(run({"-b", workDirectory()}).status, 0);
    std::string all;
    for (const std::string& table : appliance::tableNames()) {
      all += (all.empty() ? "" : ", ") + table;
    }
    live().exec("TRUNCATE " + all);
    std::vector<std::string> arguments = {"-r", workDirectory()};
    if (overwrites()) {
      arguments.emplace_back("-o");
    }
    return run(arguments);
  }
};

APPLIANCE_ALL_MODES(RoundTrip);

TEST_P(RoundTrip, BringsEveryRowBackWithLinksToTheSameNames) {
  sample::makeFiles("s");
  appliance::Database& filled = imports() ? source() : live();
  sample::fill(filled, "s", 1);
  if (imports()) {
    live().exec(
        "INSERT INTO video (id, path) SELECT 900 + n, '/var/services/photo/s ' || p FROM (VALUES (1, "
        "'it''s/2.avi'), (2, 'trips/1.avi')) AS v (n, p)");
  }
  appliance::writeFile(kSmartAlbums, smartAlbums("101,103", "102", "104", "103,101"));
  named::Tables expected = named::rows(filled);
  const std::set<std::string> before = numbers(filled);
  ASSERT_EQ(expected.size(), 33U);
  for (const auto& [table, rows] : expected) {
    ASSERT_FALSE(rows.empty()) << table;
  }

  EXPECT_EQ(carryAll().status, 0);

  // An album or tag is carried over by number, and no row has that number here.
  std::erase_if(expected["category_items"], [](const auto& item) { return item[1] != "smart"; });
  EXPECT_EQ(expected["category_items"].size(), 1U);
  if (!imports()) {
    // A backup holds no table of videos, by which they could be told apart.
    std::vector<std::string> messages;
    for (const char* number : {"101", "101", "101"}) {
      messages.push_back(failedToExec(std::string("SELECT path FROM video_bak WHERE id = ") + number,
                                      "ERROR:  relation \"video_bak\" does not exist"));
    }
    expectMessages(messages);
    for (auto& [table, rows] : expected) {
      if (named::isVideoMember(table)) {
        rows.clear();
      }
    }
  }
  named::Tables found = named::rows(live());
  for (const auto& [table, rows] : expected) {
    EXPECT_EQ(found[table], rows) << table;
  }

  for (const std::string& number : numbers(live())) {
    EXPECT_EQ(before.count(number), 0U) << number;
  }
  EXPECT_EQ(appliance::readFile(kSmartAlbums),
            smartAlbums(labels("'s paris', 's o''hara'"), labels("'s paris'"), labels("'s sun'"),
                        live().value("SELECT string_agg(shareid::text, ',') FROM photo_share WHERE sharename IN ('s "
                                     "trips', 's trips/kids')")));
}

}  // namespace
