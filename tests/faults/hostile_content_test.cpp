#include <algorithm>
#include <filesystem>
#include <functional>

#include "backup/host_accounts.h"
#include "merge/merge.h"
#include "merge/sample_rows.h"
#include "platform/overwrite_mode.h"
#include "platform/query.h"
#include "support/merge_test.h"
#include "support/named_rows.h"

namespace {

using appliance::contents;
using appliance::Database;
using appliance::workDirectory;
using testing::Each;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int time = 0; time < times; ++time) {
    all += text;
  }
  return all;
}

const std::vector<std::string>& nastyTexts() {
  static const std::vector<std::string> texts = {
      "'",
      "''",
      "'''",
      "it''s 'quoted'",
      "\"",
      "\\",
      "\\'",
      R"(\\' \n \000 \x27)",
      "$$",
      "$tag$ ' $tag$",
      "'; DROP TABLE photo_config; --",
      "'); DELETE FROM photo_config; --",
      "' OR true --",
      "-- comment",
      "/* comment",
      ";",
      "%s %d %n %% %1$s %",
      "@KAVO:VAR '@KAVO:VAR'",
      "NULL",
      R"(E'\'')",
      "U&'\\0027'",
      "two\nlines\r\nand a\ttab",
      "\x01\x02\x1b[31m\x7f\b",
      "\xF0\x9F\x98\x80 \xF0\x9D\x84\x9E",
      "\xE2\x80\xAE right to left \xE2\x80\xAC \xD7\xA9\xD7\x9C",
      "e\xCC\x81 \xEF\xBB\xBF \xEF\xBF\xBF",
      " blanks at both ends ",
      repeated("\xC3\xA9", 50000),
      "x" + repeated("\xF0\x9F\x98\x80", 25000),
      repeated("'", 9000),
  };
  return texts;
}

std::string quoted(const std::string& text) { return List::of({text}, ",").text; }

// The text as the name of a file; where it cannot be one, a plain name.
std::string asFileName(const std::string& text, std::size_t number) {
  constexpr std::size_t kLongest = 200;
  std::string name = text.size() > kLongest ? "long " + std::to_string(number) : text;
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

// A row in every table that has escaped columns, with the text in all of these.
std::string rowsOf(const std::string& text, std::size_t number) {
  const std::string value = quoted(text);
  const std::string id = std::to_string(900 + number);
  const std::string share = asFileName(text, number);
  const std::string path = quoted("/var/services/photo/" + share + "/x.jpg");
  const std::string film = quoted("/var/services/photo/" + share + "/x.avi");
  const std::string time = "timestamp '2020-01-01' + " + id + " * interval '1 minute'";
  appliance::writeFile("/var/services/photo/" + share + "/x.jpg", "");
  appliance::writeFile("/var/services/photo/" + share + "/x.avi", "");
  return "INSERT INTO photo_share VALUES (" + id + "," + quoted(share) + "," + value + "," + value + ",true,1," +
         value +
         ",true,true,true,'');"
         "INSERT INTO photo_user VALUES (" +
         id + "," + value + "," + value + ",'',false,false,false,'');" + "INSERT INTO photo_group VALUES (" + id + "," +
         value + "," + value + ");" + "INSERT INTO photo_user_group VALUES (" + id + "," + id + ");" +
         "INSERT INTO photo_access_right VALUES (" + id + "," + id + "," + time + ");" +
         "INSERT INTO photo_group_permission VALUES (" + id + "," + id + ",1," + time + ");" +
         "INSERT INTO photo_label VALUES (" + id + "," + value + ",1," + value + ");" +
         "INSERT INTO category VALUES (" + id + "," + value + ",false,1,'2020-01-01','2020-01-01');" +
         "INSERT INTO category_items VALUES (" + id + "," + id + ",'smart',1,NULL,NULL,'" + id + "');" +
         "INSERT INTO photo_image VALUES (" + id + "," + path + "," + value + "," + value + "," + value + "," + value +
         ",1,1,1," + value + "," + value + ",'','',1,'2020-01-01',true,1,'2020-01-01'," + value + ");" +
         "INSERT INTO photo_comment VALUES (" + id + "," + id + "," + value + "," + value + "," + value + "," + time +
         ");" + "INSERT INTO photo_image_label VALUES (" + id + "," + id + "," + id + "," + value + "," + value +
         ",true);" + "INSERT INTO video_comment VALUES (" + id + "," + film + "," + value + "," + value + "," + value +
         "," + time + ");" + "INSERT INTO video_desc VALUES (" + id + "," + film + "," + value + "," + value + ");" +
         "INSERT INTO photo_video_label VALUES (" + id + "," + film + "," + id + ",true);" +
         "INSERT INTO photo_config VALUES (" + value + "," + value + "," + value + ");" +
         "INSERT INTO photo_log VALUES (" + id + "," + time + "," + value + ",true," + value + ");";
}

// Names that are too long, or longer than an index holds, are looked up by what they were cut to.
void dropIndexes(Database& database) {
  for (const auto& row : database.rows("SELECT indexname FROM pg_indexes WHERE schemaname = 'public' AND indexname "
                                       "LIKE '%\\_index'")) {
    database.exec("DROP INDEX " + row[0]);
  }
}

class HostileTexts : public appliance::MergeTest {
 protected:
  void expectCarried(const named::Tables& kept) {
    const named::Tables carried = named::carriedRows(source());
    const named::Tables found = named::rows(live());
    for (const auto& [table, rows] : carried) {
      EXPECT_EQ(found.at(table), named::together(kept.at(table), rows)) << table;
    }
  }
};

APPLIANCE_ALL_MODES(HostileTexts);

TEST_P(HostileTexts, ArriveToTheLetterInEveryEscapedColumnAndChangeNothingElse) {
  sample::fill(live(), "kept", 1);
  sample::makeFiles("kept");
  const named::Tables kept = named::rows(live());
  dropIndexes(source());
  std::string rows;
  for (std::size_t number = 0; number < nastyTexts().size(); ++number) {
    rows += rowsOf(nastyTexts()[number], number);
  }
  source().exec(rows);
  appliance::createDatabase("bystander");
  Database("bystander").exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  const auto bystander = contents("bystander");

  EXPECT_EQ(merge().status, 0);
  expectNoMessages();
  expectCarried(kept);
  EXPECT_EQ(contents("bystander"), bystander);
}

// A routine with a column whose values stand in its statements as they are.
struct RawColumn {
  const char* table;
  const char* column;
  bool isQuoted;
};

using Routine = std::function<int(DBConnect_tag*, DBConnect_tag*)>;

Routine routineOf(const std::string& table) {
  const auto whole = [](int (*routine)(DBConnect_tag*, DBConnect_tag*, const char*)) {
    return [routine](DBConnect_tag* destination, DBConnect_tag* source) { return routine(destination, source, ""); };
  };
  if (table == "photo_label") {
    return whole(KavophotoSyncPhotoLabel);
  }
  if (table == "category") {
    return whole(KavophotoSyncCategory);
  }
  if (table == "category_items") {
    return whole(KavophotoSyncCategoryItems);
  }
  if (table == "photo_share") {
    return whole(KavophotoSyncShare);
  }
  if (table == "photo_user" || table == "photo_access_right") {
    return whole(KavophotoSyncUser);
  }
  if (table == "photo_group_permission") {
    return whole(KavophotoSyncGroup);
  }
  if (table == "photo_image" || table == "photo_image_label") {
    return whole(KavophotoSyncImage);
  }
  if (table == "watermark") {
    return whole(KavophotoSyncWatermark);
  }
  if (table == "photo_group_permission_for_hox_account") {
    return [](DBConnect_tag* destination, DBConnect_tag* source) {
      return KavophotoSyncHoxGroupPermission(destination, source, "/tmp/backup/", "");
    };
  }
  if (table.find("_for_hox_account") != std::string::npos && table.find("right") != std::string::npos) {
    return [table](DBConnect_tag* destination, DBConnect_tag* source) {
      return KavophotoSyncHoxUserRights(destination, source, "/tmp/backup/", table.c_str(), "");
    };
  }
  return [table](DBConnect_tag* destination, DBConnect_tag* source) {
    return KavophotoSyncPersonalCollection(destination, source, table, "");
  };
}

const std::vector<RawColumn>& rawColumns() {
  static const std::vector<RawColumn> columns = {
      {"photo_label", "category", false},
      {"category_items", "order_number", true},
      {"category_items", "smart_id", true},
      {"category_items", "album_id", true},
      {"category_items", "tag_id", true},
      {"category", "hidden", true},
      {"category", "order_number", true},
      {"category", "create_date", true},
      {"category", "modify_date", true},
      {"photo_share", "public", true},
      {"photo_share", "hits", false},
      {"photo_share", "comment", true},
      {"photo_share", "is_subdir", true},
      {"photo_share", "conversion", true},
      {"photo_share", "password", true},
      {"photo_user", "password", true},
      {"photo_user", "disabled", true},
      {"photo_user", "lock_pass", true},
      {"photo_user", "admin", true},
      {"photo_user", "email", true},
      {"photo_access_right", "create_time", true},
      {"photo_group_permission", "permission", false},
      {"photo_group_permission", "create_time", true},
      {"photo_image", "size", false},
      {"photo_image", "resolutionx", false},
      {"photo_image", "resolutiony", false},
      {"photo_image", "iso", false},
      {"photo_image", "version", false},
      {"photo_image", "exposure", true},
      {"photo_image", "aperture", true},
      {"photo_image", "timetaken", true},
      {"photo_image", "create_time", true},
      {"photo_image_label", "status", true},
      {"watermark", "path", true},
      {"watermark", "opacity", false},
      {"watermark", "gravity", false},
      {"watermark", "size", false},
      {"watermark", "hash", true},
      {"watermark", "mtime", false},
      {"watermark", "changed", true},
      {"photo_group_permission_for_hox_account", "permission", false},
      {"photo_personal_collection", "userid", false},
      {"photo_personal_collection", "is_shared", true},
      {"photo_personal_collection", "start_time", true},
      {"photo_personal_collection", "end_time", true},
      {"photo_personal_collection", "sharelink", true},
      {"photo_personal_collection", "create_date", true},
      {"photo_personal_collection", "hidden", true},
      {"photo_personal_collection_for_admin", "sharelink", true},
      {"photo_personal_collection_for_hox_account", "sharelink", true},
  };
  return columns;
}

struct OverwriteMode {
  explicit OverwriteMode(bool overwrites) { gIsOverwiroteMode = overwrites; }
  OverwriteMode(const OverwriteMode&) = delete;
  OverwriteMode& operator=(const OverwriteMode&) = delete;
  ~OverwriteMode() { gIsOverwiroteMode = false; }
};

class RawColumns : public appliance::ToolTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    sample::fill(live(), "s", 1);
    sample::fill(live(), "m", 2);
    sample::fill(other(), "m", 7);
    sample::makeFiles("s");
    sample::makeFiles("m");
    appliance::writeAccountFiles(workDirectory(), "other");
    // A foreign database may hold any text where the live one holds a number or a date.
    for (const RawColumn& raw : rawColumns()) {
      other().exec(std::string("ALTER TABLE ") + raw.table + " ALTER COLUMN " + raw.column + " TYPE text");
    }
    before_ = ofOthers();
    structure_ = structureWithoutSequences();
  }

  void TearDown() override {
    EXPECT_EQ(structureWithoutSequences(), structure_);
    ToolTest::TearDown();
  }

  // The rows that have nothing to do with the names that the source holds. Where a label or category of it was
  // replaced, what was linked to the old one is left without a name.
  named::Tables ofOthers() {
    named::Tables tables = named::rows(live());
    for (auto& [table, rows] : tables) {
      // Watermarks have no name but their share's number.
      const bool areNumbered = table == "watermark";
      std::erase_if(rows, [areNumbered](const std::vector<std::string>& row) {
        return (areNumbered && row[0][0] != '1') || std::any_of(row.begin(), row.end(), [](const std::string& field) {
                 return field.rfind("m ", 0) == 0 || field.rfind("/var/services/photo/m ", 0) == 0 || field == "(none)";
               });
      });
    }
    return tables;
  }

  static std::vector<std::string> structureWithoutSequences() {
    std::vector<std::string> lines = appliance::structure("photo");
    std::erase_if(lines, [](const std::string& line) { return line.find("sequence") != std::string::npos; });
    return lines;
  }

  // Merges the rows with this text in the column, and gives what was logged.
  std::vector<std::string> mergeWith(const RawColumn& raw, const std::string& text) {
    other().exec(std::string("DROP TABLE IF EXISTS saved; CREATE TABLE saved AS SELECT * FROM ") + raw.table +
                 "; UPDATE " + raw.table + " SET " + raw.column + " = " + quoted(text));
    {
      const OverwriteMode mode(GetParam());
      const Connection destination = connectTo("photo");
      const Connection source = connectTo("other");
      routineOf(raw.table)(destination.get(), source.get());
    }
    other().exec(std::string("TRUNCATE ") + raw.table + "; INSERT INTO " + raw.table + " SELECT * FROM saved");
    return appliance::takeMessages();
  }

  void expectOthersUntouched(const RawColumn& raw, const std::string& text) {
    const named::Tables found = ofOthers();
    for (const auto& [table, rows] : before_) {
      EXPECT_EQ(found.at(table), rows) << raw.table << "." << raw.column << " = [" << text << "] changed " << table;
    }
    before_ = found;
  }

 private:
  named::Tables before_;
  std::vector<std::string> structure_;
};

INSTANTIATE_TEST_SUITE_P(Modes, RawColumns, ::testing::Bool(),
                         [](const auto& mode) { return mode.param ? "Overwrite" : "Skip"; });

TEST_P(RawColumns, WithQuotesBreakTheirOwnStatementOnly) {
  for (const RawColumn& raw : rawColumns()) {
    for (const char* text : {"a'b", "'); DROP TABLE photo_log; --"}) {
      const auto messages = mergeWith(raw, text);
      EXPECT_THAT(messages, Each(StartsWith("Failed to "))) << raw.table << "." << raw.column << " " << text;
      if (GetParam()) {
        EXPECT_THAT(messages, Not(IsEmpty())) << raw.table << "." << raw.column << " " << text;
      }
      expectOthersUntouched(raw, text);
    }
  }
}

TEST_P(RawColumns, RunNoSecondStatement) {
  for (const RawColumn& raw : rawColumns()) {
    const std::string text = raw.isQuoted ? "'; DROP TABLE photo_log; SELECT '" : "1; DROP TABLE photo_log";
    const auto messages = mergeWith(raw, text);
    EXPECT_THAT(messages, Each(StartsWith("Failed to "))) << raw.table << "." << raw.column;
    expectOthersUntouched(raw, text);
  }
}

TEST_P(RawColumns, NeverReachRowsOfOthersByAConditionOrCommentOfTheirOwn) {
  for (const RawColumn& raw : rawColumns()) {
    const std::vector<std::string> texts =
        raw.isQuoted ? std::vector<std::string>{"1' --", "t' --", "2020-01-01' --", "t' or 't'='t"}
                     : std::vector<std::string>{"1 --", "1 or true", "1 or true --"};
    for (const std::string& text : texts) {
      mergeWith(raw, text);
      expectOthersUntouched(raw, text);
    }
  }
}

class HostileNames : public appliance::ToolTest {};

TEST_F(HostileNames, OfAccountsSharesAndThemesTravelThroughAnArchive) {
  const std::vector<std::string> names = {"-rf",     "--help",         " blanks ",  "it's \"quoted\"",
                                          "100%n%s", "back\\slash$$",  "new\nline", "\xF0\x9F\x98\x80",
                                          "; true",  "$(touch hacked)"};
  appliance::Accounts users;
  appliance::Accounts groups;
  const std::string themes = "/var/packages/Lumora/etc/blog/";
  unsigned number = 2000;
  for (const std::string& name : names) {
    ++number;
    const std::string id = std::to_string(number);
    const std::string onShare = std::string(id).append(", ").append(id);
    // The account database knows no name with a newline in it, or one that begins with a blank or "-".
    const std::string account = name == "new\nline" ? "newline" : name;
    users.emplace_back(number, std::string("u").append(account));
    groups.emplace_back(number, std::string("g").append(account));
    appliance::writeFile(themes + name, name);
    appliance::makeDirectories("/var/services/photo/" + name);
    live().exec("INSERT INTO photo_share (shareid, sharename, public, hits, comment, is_subdir, conversion) VALUES (" +
                id + ", " + quoted(name) + ", true, 1, true, true, true);" +
                "INSERT INTO photo_access_right_for_hox_account VALUES (" + onShare + ", '2020-01-01');" +
                "INSERT INTO photo_group_permission_for_hox_account VALUES (" + onShare + ", 1, '2020-01-01')");
  }
  appliance::setAccounts(users, groups);
  const named::Tables expected = named::rows(live());
  EXPECT_EQ(run({"-b", workDirectory()}).status, 0);
  expectNoMessages();

  live().exec("TRUNCATE photo_share, photo_access_right_for_hox_account, photo_group_permission_for_hox_account");
  appliance::removeAll(themes);
  appliance::makeDirectories(themes);
  EXPECT_EQ(run({"-r", workDirectory(), "-o"}).status, 0);
  expectNoMessages();
  EXPECT_EQ(named::rows(live()), expected);
  for (const std::string& name : names) {
    EXPECT_EQ(appliance::readFile(themes + name), name);
  }
  for (const std::string& folder : {std::string("/"), workDirectory(), themes}) {
    EXPECT_FALSE(appliance::exists(folder + "hacked"));
  }
}

class HostileBytesTest : public appliance::ToolTest {};

TEST_F(HostileBytesTest, FromADatabaseWithoutAnEncodingEndTheirTableOnly) {
  appliance::createDatabase("bytes", "SQL_ASCII");
  Database bytes("bytes");
  sample::fill(live(), "kept", 1);
  sample::makeFiles("kept");
  appliance::writeFile("/var/services/photo/a.jpg", "");
  const std::string bad = R"(E'\xFF\xFE bytes \xC3')";
  bytes.exec("INSERT INTO photo_label VALUES (1, " + bad + ", 1, ''); INSERT INTO photo_config VALUES ('m', 'k', " +
             bad + "); INSERT INTO photo_image VALUES (1, '/var/services/photo/a.jpg', " + bad +
             ", '', '', '', 1, 1, 1, '', '', '', '', 1, '2020-01-01', true, 1, '2020-01-01', ''); "
             "INSERT INTO photo_log VALUES (1, '2020-01-01', 'log', true, 'user'); "
             "INSERT INTO photo_user VALUES (1, " +
             bad + ", '', '', false, false, false, ''); INSERT INTO photo_group VALUES (1, 'group', " + bad +
             "); INSERT INTO category VALUES (1, " + bad +
             ", false, 1, '2020-01-01', '2020-01-01'); INSERT INTO photo_share VALUES (1, 'kept trips', " + bad +
             ", '', true, 1, '', true, true, true, ''); INSERT INTO watermark VALUES (1, " + bad +
             ", 1, 1, 1, '', 1, true); INSERT INTO photo_personal_collection (userid, name) VALUES (1, " + bad + ")");
  const named::Tables before = named::rows(live());

  EXPECT_EQ(run({"-i", workDirectory(), "-d", "bytes"}).status, 0);
  std::vector<std::string> failed;
  for (const std::string& message : appliance::takeMessages()) {
    if (message.rfind("Table ", 0) == 0) {
      failed.push_back(message);
    } else {
      EXPECT_THAT(message, testing::HasSubstr("(ERROR:  invalid byte sequence for encoding \"UTF8\": 0xff)"));
    }
  }
  EXPECT_EQ(failed, (std::vector<std::string>{"Table photo_label sync failed.\n", "Table photo_config sync failed.\n",
                                              "Table photo_image sync failed.\n", "Table photo_share sync failed.\n",
                                              "Table photo_user sync failed.\n", "Table category sync failed.\n",
                                              "Table photo_group sync failed.\n", "Table watermark sync failed.\n",
                                              "Table photo_personal_collection sync failed"}));
  named::Tables found = named::rows(live());
  EXPECT_EQ(found["photo_log"].size(), before.at("photo_log").size() + 1);
  found["photo_log"] = before.at("photo_log");
  EXPECT_EQ(found, before);
}

}  // namespace
