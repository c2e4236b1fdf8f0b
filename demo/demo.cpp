#include <algorithm>
#include <cstdio>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "support/appliance.h"
#include "support/named_rows.h"
#include "support/sample.h"

// Runs the tool's main job on a sample appliance and shows what a person wants to see of it. Rows are compared by
// names, as people would tell them, because a merge gives them other numbers.

namespace {

using appliance::Database;
using named::Rows;
using named::Tables;

constexpr const char* kSmartAlbums = "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG";
constexpr const char* kSettings = "/var/packages/Lumora/etc/settings.conf";
constexpr const char* kTheme = "/var/packages/Lumora/etc/blog/dark.css";

int failures = 0;

void check(bool holds, const std::string& what) {
  std::printf("  %s %s\n", holds ? "[ok]    " : "[FAILED]", what.c_str());
  failures += holds ? 0 : 1;
}

void title(const std::string& text) {
  std::printf("\n== %s\n", text.c_str());
  std::fflush(stdout);
}

void showText(const char* what, const std::string& path) {
  std::printf("  %s:\n", what);
  const std::string text = appliance::readFile(path);
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::printf("    | %s\n", text.substr(start, end - start).c_str());
    start = end + 1;
  }
}

void showRows(Database& database, const char* what, const std::string& sql) {
  std::printf("  %s:\n", what);
  for (const std::vector<std::string>& row : database.rows(sql)) {
    std::string line;
    for (const std::string& field : row) {
      line.append(line.empty() ? "" : " | ").append(field);
    }
    std::printf("    %s\n", line.c_str());
  }
}

// What the eye catches of each kind of row that the merges carry.
void showSample(Database& live) {
  showRows(live, "shares", "SELECT sharename, title FROM photo_share ORDER BY sharename LIMIT 3");
  showRows(live, "labels of a photo",
           "SELECT i.path, l.name, l.category FROM photo_image i JOIN photo_image_label r ON r.image_id = i.id "
           "JOIN photo_label l ON l.id = r.label_id ORDER BY i.path, l.category, l.name LIMIT 3");
  showRows(live, "comments",
           "SELECT i.path, c.name, c.comment FROM photo_comment c JOIN photo_image i ON i.id = c.photo_id "
           "ORDER BY i.path LIMIT 2");
  showRows(live, "rights of a user",
           "SELECT u.username, string_agg(s.sharename, ', ' ORDER BY s.sharename) FROM photo_access_right r "
           "JOIN photo_user u ON u.userid = r.userid JOIN photo_share s ON s.shareid = r.shareid "
           "GROUP BY 1 ORDER BY 1 LIMIT 2");
  showRows(live, "members of a group",
           "SELECT g.groupname, string_agg(u.username, ', ' ORDER BY u.username) FROM photo_user_group m "
           "JOIN photo_group g ON g.groupid = m.groupid JOIN photo_user u ON u.userid = m.userid "
           "GROUP BY 1 ORDER BY 1 LIMIT 2");
  showRows(live, "watermarks", "SELECT shareid, path, opacity FROM watermark ORDER BY shareid LIMIT 2");
  showRows(live, "a collection",
           "SELECT c.name, i.path FROM photo_personal_collection_photo m "
           "JOIN photo_personal_collection c ON c.id = m.collectionid JOIN photo_image i ON i.id = m.photoid "
           "ORDER BY 1, 2 LIMIT 3");
  showText("smart albums", kSmartAlbums);
}

void showCounts(const Tables& before, const Tables& after) {
  std::printf("  %-50s %10s %10s\n", "rows per table", "before", "after");
  for (const std::string& table : appliance::tableNames()) {
    const std::size_t had = before.at(table).size();
    const std::size_t has = after.at(table).size();
    std::printf("  %-50s %10zu %10zu%s\n", table.c_str(), had, has, had == has ? "" : "  *");
  }
}

void showMessages(const std::vector<std::string>& messages) {
  std::printf("  messages logged: %zu\n", messages.size());
  constexpr std::size_t kShown = 4;
  for (std::size_t at = 0; at < std::min(messages.size(), kShown); ++at) {
    std::printf("    %s\n", messages[at].c_str());
  }
  if (messages.size() > kShown) {
    std::printf("    ... and %zu more of the kind\n", messages.size() - kShown);
  }
}

// Runs the tool, shows how it ended and what it logged, and returns the messages.
std::vector<std::string> run(const std::vector<std::string>& arguments, int expectedStatus) {
  std::string command = "kavophoto_backup";
  for (const std::string& argument : arguments) {
    command.append(" ").append(argument);
  }
  std::printf("  $ %s\n", command.c_str());
  std::fflush(stdout);
  const appliance::Outcome outcome = appliance::runTool(arguments);
  std::vector<std::string> messages = appliance::takeMessages();
  showMessages(messages);
  check(outcome.status == expectedStatus, "it ended with status " + std::to_string(outcome.status));
  return messages;
}

// A restore finds the files of photos through their rows, but the table of videos is not in the archive, so the videos
// in collections have no path to be found by.
bool isCarriedByRestore(const std::string& table) { return !named::isVideoMember(table); }

bool holdsAll(const Rows& all, const Rows& some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

// Only about the videos that a restore cannot place.
bool areAboutVideos(const std::vector<std::string>& messages) {
  return std::all_of(messages.begin(), messages.end(), [](const std::string& message) {
    return message.find("FROM video_bak WHERE id = ") != std::string::npos;
  });
}

void layOut() {
  appliance::fillSample("photo");
  appliance::writeFile(kSettings, "site_name=\"Holiday photos\"\nshow_map=\"yes\"\n");
  appliance::writeFile(kTheme, "body { color: white; }\n");
}

void backUp() {
  title("A backup");
  Database live("photo");
  showSample(live);
  const auto contents = appliance::contents("photo");
  const auto structure = appliance::structure("photo");
  const Tables rows = named::rows(live);
  const auto messages = run({"-b", appliance::workDirectory()}, 0);
  showCounts(rows, named::rows(live));
  std::printf("  members of kavophoto.backup:\n");
  const std::vector<std::string> entries = appliance::listArchive(appliance::workDirectory() + "kavophoto.backup");
  for (const std::string& entry : entries) {
    std::printf("    %s\n", entry.c_str());
  }
  check(messages.empty(), "nothing was logged");
  check(appliance::contents("photo") == contents, "no row of the live database changed");
  check(appliance::structure("photo") == structure, "its tables, indexes, sequences and defaults are as they were");
  check(
      entries == std::vector<std::string>{"kavophoto_backup.dump", "kavophoto_backup_time.txt",
                                          "kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt",
                                          "theme_bak/", "theme_bak/dark.css", "settings.conf.bak"},
      "the archive holds its members in order");
}

// What happens to a library between a backup and a restore: titles are changed, rows are deleted, settings and themes
// edited.
void editLive() {
  Database live("photo");
  live.exec(R"sql(
    UPDATE photo_share SET title = 'Renamed' WHERE sharename = 'album1';
    UPDATE photo_image SET title = 'Edited' WHERE path LIKE '%/album2/%';
    UPDATE photo_user SET description = 'Promoted' WHERE username = 'user3';
    DELETE FROM photo_image_label WHERE image_id IN (SELECT id FROM photo_image WHERE path LIKE '%/album3/%');
    DELETE FROM photo_comment WHERE photo_id IN (SELECT id FROM photo_image WHERE path LIKE '%/album3/%');
    DELETE FROM photo_personal_collection_photo
      WHERE photoid IN (SELECT id FROM photo_image WHERE path LIKE '%/album3/%');
    DELETE FROM photo_personal_collection_photo_for_admin
      WHERE photoid IN (SELECT id FROM photo_image WHERE path LIKE '%/album3/%');
    DELETE FROM photo_personal_collection_photo_for_hox_account
      WHERE photoid IN (SELECT id FROM photo_image WHERE path LIKE '%/album3/%');
    DELETE FROM photo_image WHERE path LIKE '%/album3/%';
    DELETE FROM photo_access_right WHERE userid = (SELECT userid FROM photo_user WHERE username = 'user5');
    DELETE FROM photo_user_group WHERE groupid = (SELECT groupid FROM photo_group WHERE groupname = 'group2');
    DELETE FROM photo_group_permission WHERE groupid = (SELECT groupid FROM photo_group WHERE groupname = 'group2');
    DELETE FROM photo_group WHERE groupname = 'group2';
    DELETE FROM watermark WHERE shareid = (SELECT min(shareid) FROM watermark);
    DELETE FROM photo_log WHERE logid % 2 = 0;
    DELETE FROM video_comment;
    DELETE FROM photo_config WHERE config_key = 'key7';
  )sql");
  appliance::writeFile(kSettings, "site_name=\"Edited\"\nnew_since=\"the backup\"\n");
  appliance::writeFile(kTheme, "body { color: black; }\n");
}

void restoreSkipping(const Tables& original) {
  title("Edits and deletions in the live tables, then a restore in skip mode: what is live stays");
  editLive();
  Database live("photo");
  const Tables edited = named::rows(live);
  const auto messages = run({"-r", appliance::workDirectory()}, 0);
  const Tables restored = named::rows(live);
  showCounts(edited, restored);
  check(areAboutVideos(messages), "only the videos in collections could not be placed");
  check(std::all_of(edited.begin(), edited.end(),
                    [&](const auto& entry) { return holdsAll(restored.at(entry.first), entry.second); }),
        "every live row is there as it was, edits included");
  check(holdsAll(restored.at("photo_comment"), original.at("photo_comment")) &&
            holdsAll(restored.at("photo_log"), original.at("photo_log")) &&
            holdsAll(restored.at("photo_user_group"), original.at("photo_user_group")) &&
            holdsAll(restored.at("photo_image_label"), original.at("photo_image_label")),
        "deleted photos, comments, labels, groups and log entries are back");
  check(restored.at("photo_access_right") == edited.at("photo_access_right"),
        "the rights of a user who is live were left alone");
  check(appliance::readFile(kTheme) == "body { color: black; }\n", "the live theme file was kept");
  showText("settings: saved values win, keys that only the live file has stay", kSettings);
}

void restoreOverwriting(const Tables& original) {
  title("A restore in overwrite mode: the backup wins");
  Database live("photo");
  const Tables before = named::rows(live);
  const auto messages = run({"-r", appliance::workDirectory(), "-o"}, 0);
  const Tables restored = named::rows(live);
  showCounts(before, restored);
  check(areAboutVideos(messages), "only the videos in collections could not be placed");
  for (const auto& [table, rows] : original) {
    // Categories name their labels by number, and a label that is overwritten gets a new one.
    if (table != "category_items" && isCarriedByRestore(table)) {
      check(holdsAll(restored.at(table), rows), "every row of the backup is in " + table + ", with its own texts");
    }
  }
  check(appliance::readFile(kTheme) == "body { color: white; }\n", "the saved theme file is back");
  showSample(live);
}

void exportAccounts() {
  title("An export of the host accounts' names");
  const std::string directory = "/tmp/export/";
  appliance::makeDirectories(directory);
  const auto messages = run({"-e", directory}, 0);
  check(messages.empty(), "nothing was logged");
  const std::string users = appliance::readFile(directory + "kavophoto_backup_hox_account.txt");
  const std::string groups = appliance::readFile(directory + "kavophoto_backup_hox_group_account.txt");
  std::printf("  %s  %s", users.substr(0, users.find('\n') + 1).c_str(),
              groups.substr(0, groups.find('\n') + 1).c_str());
  check(users.find("1026 =\"editor\"\n") != std::string::npos, "a line names each user that holds a right");
  check(groups.find("65600 =\"family\"\n") != std::string::npos, "a line names each group that holds a permission");
}

// The numbers in the smart albums' one rule on albums.
std::string albumsOfRules() {
  const std::string text = appliance::readFile(kSmartAlbums);
  const std::string mark = R"("value" : ")";
  const std::size_t start = text.find(mark, text.find("\"albums\"")) + mark.size();
  return text.substr(start, text.find('"', start) - start);
}

void importSecondLibrary() {
  title("An import of a second library, with other numbers for the same names and some albums of its own");
  appliance::createDatabase("second");
  appliance::fillSample("second", {.firstNumber = 7000, .firstShare = 9, .flavour = "second"});
  Database live("photo");
  Database second("second");
  const Tables before = named::rows(live);
  const Tables wanted = named::rows(second);
  appliance::writeAccountFiles(appliance::workDirectory(), "second");
  showText("smart albums, with the second library's numbers", kSmartAlbums);
  const auto messages = run({"-i", appliance::workDirectory(), "-d", "second"}, 0);
  const Tables merged = named::rows(live);
  showCounts(before, merged);
  check(messages.empty(), "nothing was logged");
  const std::set<std::string> byNumber = {"category_items", "watermark", "photo_personal_collection",
                                          "photo_personal_collection_for_hox_account"};
  for (const auto& [table, rows] : wanted) {
    // The videos of albums that only the second library has are in no live table of videos.
    if (byNumber.count(table) == 0 && isCarriedByRestore(table)) {
      check(holdsAll(merged.at(table), rows), "every row of the second library is in " + table);
    }
  }
  check(live.rows("SELECT sharename FROM photo_share WHERE shareid IN (" + albumsOfRules() + ") ORDER BY 1") ==
            Rows{{"album10"}, {"album9"}},
        "the smart albums name the same albums by their live numbers");
  showSample(live);
}

int demonstrate() {
  title("A sample appliance");
  layOut();
  Database live("photo");
  const Tables original = named::rows(live);
  backUp();
  restoreSkipping(original);
  restoreOverwriting(original);
  exportAccounts();
  importSecondLibrary();
  std::printf("\n%s\n",
              failures == 0 ? "Everything that was checked holds." : "Some of what was checked does not hold.");
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main() {
  appliance::enter();
  try {
    appliance::reset();
    return demonstrate();
  } catch (const std::exception& error) {
    std::printf("The demo could not go on: %s\n", error.what());
    return 1;
  }
}
