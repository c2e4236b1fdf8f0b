#include "restore/restore.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <thread>

#include "main/path_check.h"
#include "main/registry.h"
#include "platform/overwrite_mode.h"
#include "platform/query.h"
#include "platform/run_lock.h"
#include "restore/staging.h"
#include "support/tool_test.h"

namespace {

using appliance::ArchiveOptions;
using appliance::exists;
using appliance::hideProgram;
using appliance::makeArchive;
using appliance::readFile;
using appliance::replaceProgram;
using appliance::Rows;
using appliance::workDirectory;
using appliance::writeFile;

constexpr const char* kScript = "/var/packages/Lumora/target/photo_scripts/cover_convert.sh";
constexpr const char* kCannot = "Cant restore Photo DB.\n";
constexpr const char* kRecord = R"(printf '%s\n' "$@" >> /tmp/recorded; echo >> /tmp/recorded; )";
constexpr const char* kGoOn = R"(exec "$REAL" "$@")";

class RestoreTest : public appliance::ToolTest {
 protected:
  void restore(int status, const std::vector<std::string>& messages, const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = {"-r", workDirectory()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(run(arguments).status, status);
    expectMessages(messages);
  }

  // The result that the caller of the restore gets; the status of the process says less.
  static int result() { return KavophotoRestoreDB("/tmp/backup/", {kTableList, kMergeRoutines, KavophotoCheckPath}); }

  void archiveOfOther(const ArchiveOptions& options = {}) {
    other();
    makeArchive(workDirectory(), "other", options);
  }

  std::string stagedCount() {
    return live().value("SELECT count(*) FROM pg_tables WHERE schemaname = 'public' AND tablename LIKE '%\\_bak'");
  }

  static std::vector<std::string> filesLeft() {
    appliance::checked();
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(workDirectory())) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Packs whatever files the test put into /tmp/members, in the order given.
  static void packMembers(const std::vector<std::string>& members) {
    appliance::RunOptions options;
    options.program = "/bin/tar";
    options.cwd = "/tmp/members";
    std::vector<std::string> arguments = {"-zcf", workDirectory() + "kavophoto.backup"};
    arguments.insert(arguments.end(), members.begin(), members.end());
    EXPECT_EQ(appliance::runTool(arguments, options).status, 0);
  }

  // The archive of a database, unpacked for packMembers.
  void unpackedArchive() {
    archiveOfOther();
    appliance::RunOptions options;
    options.program = "/bin/tar";
    appliance::makeDirectories("/tmp/members");
    EXPECT_EQ(appliance::runTool({"-zxf", workDirectory() + "kavophoto.backup", "-C", "/tmp/members"}, options).status,
              0);
    appliance::removeAll(workDirectory() + "kavophoto.backup");
  }
};

TEST_F(RestoreTest, MergesRowsSettingsAndThemesAndCleansUp) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'both', 'saved'), ('m', 'new', 'saved')");
  live().exec("INSERT INTO photo_config VALUES ('m', 'both', 'live'), ('m', 'only', 'live')");
  ArchiveOptions options;
  options.settings = "saved_key=\"saved\"\nsite_name=\"Saved\"\n";
  options.theme = {{"style.css", "saved"}};
  makeArchive(workDirectory(), "other", options);
  writeFile("/var/packages/Lumora/etc/blog/style.css", "live");

  restore(0, {});
  expectRows(live(), "SELECT config_key, config_value FROM photo_config ORDER BY 1",
             {{"both", "live"}, {"new", "saved"}, {"only", "live"}});
  EXPECT_EQ(readFile("/var/packages/Lumora/etc/settings.conf"), "saved_key=\"saved\"\nsite_name=\"Saved\"\n");
  EXPECT_EQ(readFile("/var/packages/Lumora/etc/blog/style.css"), "live");

  restore(0, {}, {"-o"});
  expectRows(live(), "SELECT config_key, config_value FROM photo_config ORDER BY 1",
             {{"both", "saved"}, {"new", "saved"}, {"only", "live"}});
  EXPECT_EQ(readFile("/var/packages/Lumora/etc/blog/style.css"), "saved");

  EXPECT_EQ(stagedCount(), "0");
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto.backup", "kavophoto_backup_hox_account.txt",
                                                   "kavophoto_backup_hox_group_account.txt", "settings.conf.bak"}));
}

TEST_F(RestoreTest, LeavesTheStructureOfTheLiveDatabaseAsItWas) {
  const auto structure = appliance::structure("photo");
  archiveOfOther();
  restore(0, {});
  EXPECT_EQ(appliance::structure("photo"), structure);
}

TEST_F(RestoreTest, StartsItsCommandsInOrder) {
  archiveOfOther();
  for (const char* program : {"/bin/tar", "/usr/bin/pg_restore", "/usr/bin/psql", "/bin/rm"}) {
    replaceProgram(program, std::string(kRecord) + kGoOn);
  }
  restore(0, {});
  const auto key = [](const std::string& table) {
    return "photo\n-U\npostgres\n-c\nALTER TABLE " + table + " ADD CONSTRAINT " + table + "_pkey PRIMARY KEY (id)\n\n";
  };
  EXPECT_EQ(readFile("/tmp/recorded"),
            "-zxvf\n/tmp/backup/kavophoto.backup\n-C\n/tmp/backup/\n\n"
            "-U\npostgres\n-l\n/tmp/backup/kavophoto_backup.dump\n\n"
            "-U\npostgres\n-d\nphoto\n-L\n/tmp/backup/toc_file\n/tmp/backup/kavophoto_backup.dump\n\n" +
                key("photo_image_bak") + key("video_comment_bak") + key("video_desc_bak") +
                key("photo_video_label_bak") +
                "-f\n/var/packages/Lumora/etc/settings.conf.tmp\n\n"
                "-rf\n/tmp/backup/theme_bak\n\n");
}

TEST_F(RestoreTest, MissingArchiveIsAFailure) {
  restore(255, {"KavophotoRestoreDB failed: no backup file /tmp/backup/kavophoto.backup.\n", kCannot});
  EXPECT_EQ(result(), -1);
  expectMessages({"KavophotoRestoreDB failed: no backup file /tmp/backup/kavophoto.backup.\n"});
}

TEST_F(RestoreTest, FilesOfAnEarlierRunAreRemovedAlsoWithoutAnArchive) {
  for (const char* name : {"toc_file", "kavophoto_backup.dump", "kavophoto_backup_time.txt", "theme_bak/style.css",
                           "settings.conf.bak", "kavophoto_backup_hox_account.txt"}) {
    writeFile(workDirectory() + name, "x");
  }
  restore(255, {"KavophotoRestoreDB failed: no backup file /tmp/backup/kavophoto.backup.\n", kCannot});
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto_backup_hox_account.txt", "settings.conf.bak"}));
}

TEST_F(RestoreTest, DamagedArchiveFailsTheUnpacking) {
  live().exec("INSERT INTO photo_share VALUES (1, 'kept')");
  archiveOfOther();
  const std::string whole = readFile(workDirectory() + "kavophoto.backup");
  for (std::size_t part = 0; part < 20; part += 3) {
    writeFile(workDirectory() + "kavophoto.backup", whole.substr(0, whole.size() * part / 20));
    restore(255, {"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
  }
  EXPECT_EQ(result(), -1);
  expectMessages({"KavophotoRestoreDB failed when un-tar file.\n"});
  EXPECT_EQ(stagedCount(), "0");
  expectRows(live(), "SELECT sharename FROM photo_share", {{"kept"}});
}

TEST_F(RestoreTest, MissingTarFailsTheUnpacking) {
  archiveOfOther();
  hideProgram("/bin/tar");
  restore(255, {"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
}

TEST_F(RestoreTest, ReadOnlyDirectoryFailsTheUnpacking) {
  archiveOfOther();
  appliance::mountReadOnly("/tmp/backup");
  restore(255, {"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
}

TEST_F(RestoreTest, ArchiveWithoutADumpIsAFailureThatStillCleansUp) {
  ArchiveOptions options;
  options.leaveOut = {"kavophoto_backup.dump"};
  options.theme = {{"style.css", "x"}};
  archiveOfOther(options);
  writeFile(workDirectory() + "toc_file", "of an earlier run");
  restore(255, {"KavophotoRestoreDB failed: no dump file.\n", kCannot});
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto.backup", "kavophoto_backup_hox_account.txt",
                                                   "kavophoto_backup_hox_group_account.txt", "settings.conf.bak"}));
  EXPECT_EQ(result(), -1);
  expectMessages({"KavophotoRestoreDB failed: no dump file.\n"});
}

TEST_F(RestoreTest, DumpThatCannotBeListedIsAFailure) {
  unpackedArchive();
  for (const std::string& dump : {std::string(), std::string("no dump"),
                                  // A dump of a later version of the format.
                                  std::string("PGDMP\xff\x10\x00\x04\x08\x01", 11)}) {
    writeFile("/tmp/members/kavophoto_backup.dump", dump);
    packMembers(appliance::archiveMembers());
    restore(255, {"Failed when executing commend: /usr/bin/pg_restore -U postgres -l "
                  "/tmp/backup/kavophoto_backup.dump\n",
                  "KavophotoRestoreDB failed when get TOC entries list.\n", kCannot});
  }
  EXPECT_EQ(result(), -1);
  EXPECT_EQ(appliance::takeMessages().size(), 2U);
  EXPECT_EQ(stagedCount(), "0");
}

TEST_F(RestoreTest, UnreachableServerIsAFailure) {
  archiveOfOther();
  appliance::server::stop();
  restore(255, {"Failed to connect to database", kCannot});
  EXPECT_EQ(result(), -1);
  expectMessages({"Failed to connect to database"});
}

TEST_F(RestoreTest, FailingLoadHasItsOwnResult) {
  archiveOfOther();
  replaceProgram("/usr/bin/pg_restore", R"([ "$3" = -l ] || exit 1; exec "$REAL" "$@")");
  restore(255, {"KavophotoRestoreDB failed when restore dump file.\n", kCannot});
  EXPECT_EQ(result(), -2);
  expectMessages({"KavophotoRestoreDB failed when restore dump file.\n"});
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto.backup", "kavophoto_backup_hox_account.txt",
                                                   "kavophoto_backup_hox_group_account.txt", "settings.conf.bak"}));
}

TEST_F(RestoreTest, CutDumpFailsTheLoadAndTouchesNoLiveRow) {
  live().exec("INSERT INTO photo_share VALUES (1, 'kept')");
  other().exec("INSERT INTO photo_config SELECT 'm', n::text, md5(n::text) FROM generate_series(1, 20000) n");
  unpackedArchive();
  const std::string dump = readFile("/tmp/members/kavophoto_backup.dump");
  writeFile("/tmp/members/kavophoto_backup.dump", dump.substr(0, dump.size() / 2));
  packMembers(appliance::archiveMembers());
  const auto before = appliance::contents("photo").at("photo_share");
  restore(255, {"KavophotoRestoreDB failed when restore dump file.\n", kCannot});
  EXPECT_EQ(appliance::contents("photo").at("photo_share"), before);
  EXPECT_EQ(live().count("photo_config"), 0);
}

TEST_F(RestoreTest, LeftoverStagedTablesAreDroppedBeforeTheLoad) {
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec("CREATE TABLE photo_config_bak AS SELECT 'stale' AS module_name");
  archiveOfOther();
  restore(0, {});
  EXPECT_EQ(stagedCount(), "0");
  EXPECT_EQ(live().count("photo_config"), 0);
}

TEST_F(RestoreTest, LoadsNothingBesideATableOfSomebodyElse) {
  live().exec(
      "INSERT INTO photo_config VALUES ('m', 'k', 'live'); CREATE TABLE photo_config_bak AS SELECT * FROM "
      "photo_config");
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'saved'), ('m', 'other', 'saved')");
  archiveOfOther();
  const auto before = appliance::contents("photo");
  replaceProgram("/usr/bin/pg_restore", std::string("[ \"$3\" = -d ] && touch /tmp/loading; ") + kGoOn);
  restore(255,
          {"Table photo_config_bak is left alone, it may be the only copy of its rows: table photo_config exists too, "
           "and no restore made photo_config_bak. Compare the two, drop or rename the one that is not needed, and run "
           "again.",
           "KavophotoRestoreDB failed when restore dump file.\n", kCannot},
          {"-o"});
  EXPECT_EQ(appliance::contents("photo"), before);
  EXPECT_FALSE(exists("/tmp/loading"));
}

TEST_F(RestoreTest, LoadsNothingBesideALeftoverThatCannotBeDropped) {
  EXPECT_TRUE(noteStagingBegins(connectTo("photo").get()));
  live().exec("CREATE TABLE photo_config_bak (LIKE photo_config); CREATE VIEW v AS SELECT * FROM photo_config_bak");
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'saved')");
  archiveOfOther();
  EXPECT_EQ(run({"-r", workDirectory()}).status, 255);
  EXPECT_THAT(
      appliance::takeMessages(),
      ::testing::ElementsAre("Failed to execute commend: DROP TABLE photo_config_bak",
                             ::testing::StartsWith("Table photo_config_bak, a copy of table photo_config that a "
                                                   "restore made, cannot be dropped (ERROR:  cannot drop"),
                             "KavophotoRestoreDB failed when restore dump file.\n", kCannot));
  EXPECT_EQ(live().count("photo_config_bak"), 0);
}

TEST_F(RestoreTest, LeavesNoNoteBehind) {
  archiveOfOther();
  restore(0, {});
  expectRows(live(), "SELECT unnest(setconfig) FROM pg_db_role_setting WHERE setrole = 0", {});
}

TEST_F(RestoreTest, CopyOfATableThatTheLiveDatabaseLacksIsLeftAndSaid) {
  other().exec("INSERT INTO category (name) VALUES ('saved')");
  archiveOfOther();
  live().exec("DROP TABLE category");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 0);
  EXPECT_THAT(appliance::takeMessages(),
              ::testing::Contains("Table category_bak is left alone, it may be the only copy of its rows: there is no "
                                  "table category. The next run renames it to category."));
  EXPECT_EQ(run({"-e", workDirectory()}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT name FROM category", {{"saved"}});
}

TEST_F(RestoreTest, OnlyCopyOfATableIsNeverDropped) {
  other().exec("INSERT INTO category (name, hidden, order_number) VALUES ('saved', false, 1)");
  archiveOfOther();
  live().exec("INSERT INTO category (name) VALUES ('only here'); ALTER TABLE category RENAME TO category_bak");
  // The renaming back fails.
  replaceProgram("/usr/bin/psql", R"(case "$5" in *"RENAME TO category;") exit 1;; esac; exec "$REAL" "$@")");
  restore(255,
          {"KavophotoTableRenameBack: Fail to rename back table category\n",
           "Table category_bak is left alone, it may be the only copy of its rows: there is no table category. The "
           "next run renames it to category.",
           "KavophotoRestoreDB failed when restore dump file.\n", kCannot});
  expectRows(live(), "SELECT name FROM category_bak", {{"only here"}});

  appliance::restorePrograms();
  restore(0, {});
  expectRows(live(), "SELECT name FROM category ORDER BY name", {{"only here"}, {"saved"}});
  EXPECT_EQ(stagedCount(), "0");
}

struct PathFailure {
  const char* table;
  bool stops;
};

class PathFailureTest : public RestoreTest, public ::testing::WithParamInterface<PathFailure> {};

TEST_P(PathFailureTest, StopsOnlyForTheTablesThatCannotDoWithout) {
  const std::string table = GetParam().table;
  const std::string column = table == "photo_video_label" ? "video_path" : "path";
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v'); ALTER TABLE " + table + " RENAME " + column +
               " TO other_path");
  makeArchive(workDirectory(), "other");
  EXPECT_EQ(run({"-r", workDirectory()}).status, GetParam().stops ? 255 : 0);
  auto messages = appliance::takeMessages();
  ASSERT_GE(messages.size(), 2U);
  EXPECT_THAT(messages[0], ::testing::StartsWith("Failed to exec [Select " + column + " from " + table + "_bak] ("));
  EXPECT_EQ(messages[1], "KavophotoCheckPath failed.");
  if (GetParam().stops) {
    messages.erase(messages.begin(), messages.begin() + 2);
    EXPECT_EQ(messages, std::vector<std::string>{kCannot});
  }
  EXPECT_EQ(live().count("photo_config"), GetParam().stops ? 0 : 1);
  EXPECT_EQ(stagedCount(), "0");
}

INSTANTIATE_TEST_SUITE_P(Tables, PathFailureTest,
                         ::testing::Values(PathFailure{"photo_image", true}, PathFailure{"video_comment", true},
                                           PathFailure{"video_desc", true}, PathFailure{"photo_video_label", false}),
                         [](const auto& table) { return std::string(table.param.table); });

TEST_F(RestoreTest, RepairsThePathsOfTheStagedTables) {
  const std::string share = "/var/services/photo";
  other().exec(
      "INSERT INTO photo_image (path, size, resolutionx, resolutiony, iso, timetaken, version) "
      "VALUES ('/old/photo/a/one.jpg', 1, 2, 3, 4, '2020-01-01', 5);"
      "INSERT INTO video_desc (path, title) VALUES ('/old/photo/a/two.mp4', 'two');"
      "INSERT INTO video_comment (path, name) VALUES ('/old/photo/a/two.mp4', 'two')");
  makeArchive(workDirectory(), "other");
  // The part behind the third slash is glued to the path of the share.
  writeFile(share + "a/one.jpg", "x");
  writeFile(share + "a/two.mp4", "x");
  restore(0, {});
  expectRows(live(), "SELECT path FROM photo_image", {{share + "a/one.jpg"}});
  expectRows(live(), "SELECT path FROM video_desc", {{share + "a/two.mp4"}});
  expectRows(live(), "SELECT path FROM video_comment", {{share + "a/two.mp4"}});
}

TEST_F(RestoreTest, MissingPrimaryKeyIsLoggedOnly) {
  other().exec("ALTER TABLE video_desc DROP COLUMN id");
  makeArchive(workDirectory(), "other");
  restore(0, {"addDBPrimaryKey failed (/usr/bin/psql photo -U postgres -c ALTER TABLE video_desc_bak ADD CONSTRAINT "
              "video_desc_bak_pkey PRIMARY KEY (id))."});
}

TEST_F(RestoreTest, FailingTablesAreLoggedAndTheOthersMerged) {
  const std::vector<std::string> missing = {"photo_label",
                                            "photo_config",
                                            "photo_image",
                                            "photo_share",
                                            "photo_user",
                                            "photo_video_label",
                                            "category",
                                            "category_items",
                                            "photo_group",
                                            "photo_access_right_for_hox_account",
                                            "photo_upload_right_for_hox_account",
                                            "photo_manage_right_for_hox_account",
                                            "photo_group_permission_for_hox_account"};
  // video_desc, which comes last of the three path tables, is merged among failing ones.
  writeFile("/var/services/photo/a.mp4", "x");
  other().exec("INSERT INTO video_desc (path, title) VALUES ('/var/services/photo/a.mp4', 't')");
  for (const std::string& table : missing) {
    if (table != "photo_image" && table != "photo_video_label") {
      other().exec("DROP TABLE " + table);
    }
  }
  makeArchive(workDirectory(), "other");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 0);
  std::vector<std::string> failures;
  for (const std::string& message : appliance::takeMessages()) {
    if (message.rfind("Table ", 0) == 0) {
      failures.push_back(message);
    } else {
      EXPECT_THAT(message, ::testing::StartsWith("Failed to exec ["));
    }
  }
  EXPECT_EQ(
      failures,
      (std::vector<std::string>{
          "Table photo_label sync failed.\n", "Table photo_config sync failed.\n", "Table photo_share sync failed.\n",
          "Table photo_user sync failed.\n", "Table photo_access_right_for_hox_account sync failed.\n",
          "Table photo_access_right_for_hox_account sync failed.\n",
          "Table photo_access_right_for_hox_account sync failed.\n", "Table photo_video_label sync failed.\n",
          "Table category sync failed.\n", "Table category_items sync failed.\n", "Table photo_group sync failed.\n",
          "Table photo_group_permission_for_hox_account sync failed.\n"}));
  EXPECT_EQ(live().count("video_desc"), 1);
}

TEST_F(RestoreTest, FailingCollectionsAreLogged) {
  other().exec(
      "DROP TABLE photo_personal_collection; DROP TABLE photo_personal_collection_for_hox_account;"
      "DROP TABLE photo_personal_collection_for_admin");
  makeArchive(workDirectory(), "other");
  std::vector<std::string> messages;
  for (const std::string table : {"photo_personal_collection", "photo_personal_collection_for_hox_account",
                                  "photo_personal_collection_for_admin"}) {
    messages.push_back("Failed to exec [SELECT * FROM " + table + "_bak] (ERROR:  relation \"" + table +
                       "_bak\" does not exist)");
    messages.push_back("Table " + table + " sync failed");
  }
  restore(0, messages);
}

int seenRoutine(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  EXPECT_EQ(destination, source);
  EXPECT_STREQ(suffix, "_bak");
  return -1;
}

TEST_F(RestoreTest, RoutinesAreFoundByTheExactNameAndAllOfThemRun) {
  archiveOfOther();
  const std::array<const char*, 3> tables = {"photo_config", "photo_label", "photo_image"};
  const std::array<MergeEntry, 6> routines = {{{"photo_config", seenRoutine},
                                               {"PHOTO_LABEL", seenRoutine},
                                               {"photo_config", seenRoutine},
                                               {"photo_user", seenRoutine},
                                               {"", nullptr},
                                               {"photo_image", seenRoutine}}};
  EXPECT_EQ(KavophotoRestoreDB("/tmp/backup/", {tables, routines, KavophotoCheckPath}), 0);
  expectMessages({"Table photo_config sync failed.\n", "Table photo_config sync failed.\n"});
  live().exec("SELECT 1");
}

TEST_F(RestoreTest, SpecialTablesAreFoundInAnySpelling) {
  other().exec("INSERT INTO photo_access_right_for_hox_account VALUES (4711, 1)");
  makeArchive(workDirectory(), "other");
  const std::array<const char*, 1> tables = {"Photo_Access_Right_For_Hox_Account"};
  const std::array<MergeEntry, 1> routines = {{{"", nullptr}}};
  EXPECT_EQ(KavophotoRestoreDB("/tmp/backup/", {tables, routines, KavophotoCheckPath}), 0);
  expectMessages({"Failed to fetch hox user (4711)", "Table photo_access_right_for_hox_account sync failed.\n"});
}

TEST_F(RestoreTest, ArchiveWithoutSettingsLeavesTheLiveOnes) {
  ArchiveOptions options;
  options.settings = std::nullopt;
  archiveOfOther(options);
  const std::string settings = readFile("/var/packages/Lumora/etc/settings.conf");
  restore(0, {});
  EXPECT_EQ(readFile("/var/packages/Lumora/etc/settings.conf"), settings);
}

TEST_F(RestoreTest, FailingSettingsAreLoggedOnly) {
  archiveOfOther();
  appliance::makeDirectories("/var/packages/Lumora/etc/settings.conf.tmp");
  restore(0, {"KavophotoRestoreSetting: write setting config failed", "Restore Setting Config Failed"});
}

TEST_F(RestoreTest, MissingThemesAreLoggedOnly) {
  ArchiveOptions options;
  options.leaveOut = {"theme_bak"};
  archiveOfOther(options);
  restore(0, {"KavophotoRestoreTheme : Fail to open theme_bak.\n", "KavophotoRestoreTheme failed."});
}

TEST_F(RestoreTest, BackupTimeWithoutAVersionIsAFailure) {
  ArchiveOptions options;
  options.leaveOut = {"kavophoto_backup_time.txt"};
  archiveOfOther(options);
  restore(255, {"Fail to get version.\n", kCannot});
  EXPECT_EQ(stagedCount(), "33");
  EXPECT_EQ(result(), -1);
  expectMessages({"Fail to get version.\n"});
}

TEST_F(RestoreTest, SystemWithoutABuildNumberIsAFailure) {
  archiveOfOther();
  writeFile("/etc.defaults/VERSION", "majorversion=\"4\"\n");
  restore(255, {"KavophotoDumpDB failed when KLIBCFileGetKeyValue.\n", kCannot});
  EXPECT_EQ(stagedCount(), "33");
}

struct Conversion {
  const char* name;
  const char* backup;
  const char* system;
  bool overwrites;
  // What the script is called with; empty when it is not called.
  const char* arguments;
};

class ConversionTest : public RestoreTest, public ::testing::WithParamInterface<Conversion> {};

TEST_P(ConversionTest, RunsForOldBackupsOnNewSystemsOnly) {
  ArchiveOptions options;
  options.build = GetParam().backup;
  archiveOfOther(options);
  writeFile("/etc.defaults/VERSION", std::string("buildnumber=\"") + GetParam().system + "\"\n");
  writeFile(kScript, "#!/bin/sh\necho \"$#: $*\" > /tmp/converted\n", 0755);
  restore(0, {}, GetParam().overwrites ? std::vector<std::string>{"-o"} : std::vector<std::string>{});
  EXPECT_EQ(exists("/tmp/converted") ? readFile("/tmp/converted") : "", GetParam().arguments);
}

INSTANTIATE_TEST_SUITE_P(Builds, ConversionTest,
                         ::testing::Values(Conversion{"OldOnNew", "1802", "1803", false, "2: restore skip\n"},
                                           Conversion{"OldOnNewOverwriting", "1802", "1803", true, "1: restore\n"},
                                           Conversion{"OldOnOld", "1802", "1802", false, ""},
                                           Conversion{"NewOnNew", "1803", "1803", false, ""},
                                           Conversion{"NewOnNewer", "1803", "5000", true, ""},
                                           // Letters read as no number at all, which is an old build.
                                           Conversion{"LettersOnNew", "abc", "1803", false, "2: restore skip\n"},
                                           Conversion{"OldOnLetters", "1", "abc", false, ""}),
                         [](const auto& build) { return std::string(build.param.name); });

TEST_F(RestoreTest, MissingConversionScriptIsNoFailure) {
  ArchiveOptions options;
  options.build = "1802";
  archiveOfOther(options);
  restore(0, {});
}

TEST_F(RestoreTest, FailingConversionKeepsTheStagedTablesUntilTheNextRestore) {
  ArchiveOptions options;
  options.build = "1802";
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  makeArchive(workDirectory(), "other", options);
  writeFile(kScript, "#!/bin/sh\nexit 1\n", 0755);
  const std::string command = std::string("Failed when executing commend: ") + kScript + " restore";
  restore(255, {command + " skip.\n", kCannot});
  EXPECT_EQ(stagedCount(), "33");
  EXPECT_EQ(live().count("photo_config"), 1);
  EXPECT_EQ(filesLeft(), (std::vector<std::string>{"kavophoto.backup", "kavophoto_backup_hox_account.txt",
                                                   "kavophoto_backup_hox_group_account.txt", "settings.conf.bak"}));
  restore(255, {command + ".\n", kCannot}, {"-o"});
  EXPECT_EQ(stagedCount(), "33");

  writeFile(kScript, "#!/bin/sh\nexit 0\n", 0755);
  restore(0, {});
  EXPECT_EQ(stagedCount(), "0");
}

TEST_F(RestoreTest, FailingRemovalOfTheThemesIsLoggedOnly) {
  archiveOfOther();
  replaceProgram("/bin/rm", R"([ "$1" = -rf ] && exit 1; exec "$REAL" "$@")");
  restore(0, {"KavophotoDumpDB failed when rm theme_bak.\n"});
}

TEST_F(RestoreTest, ListWithoutTablesLoadsNothing) {
  archiveOfOther();
  replaceProgram("/usr/bin/pg_restore", R"([ "$3" = -l ] && echo 'nothing here' && exit 0; exec "$REAL" "$@")");
  EXPECT_EQ(run({"-r", workDirectory()}).status, 255);
  const auto messages = appliance::takeMessages();
  EXPECT_EQ(messages.back(), kCannot);
  EXPECT_EQ(stagedCount(), "0");
}

TEST_F(RestoreTest, MembersInAnotherOrderDoubledOrForeignDoNoHarm) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  unpackedArchive();
  writeFile("/tmp/members/foreign %s", "x");
  packMembers({"settings.conf.bak", "theme_bak", "foreign %s", "kavophoto_backup_hox_group_account.txt",
               "kavophoto_backup_time.txt", "kavophoto_backup.dump", "kavophoto_backup_time.txt",
               "kavophoto_backup_hox_account.txt"});
  restore(0, {});
  EXPECT_EQ(live().count("photo_config"), 1);
  EXPECT_TRUE(exists(workDirectory() + "foreign %s"));
}

TEST_F(RestoreTest, ForeignLinkInPlaceOfTheListIsNotWrittenThrough) {
  unpackedArchive();
  writeFile("/tmp/target", "kept");
  std::filesystem::create_symlink("/tmp/target", "/tmp/members/toc_file");
  auto members = appliance::archiveMembers();
  members.emplace_back("toc_file");
  packMembers(members);
  restore(255, {"Failed to open file: /tmp/backup/toc_file.\n",
                "KavophotoRestoreDB failed when get TOC entries list.\n", kCannot});
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(RestoreTest, WorksWithADirectoryThatIsAPlainPrefix) {
  archiveOfOther();
  appliance::makeDirectories("/tmp/backup/x");
  std::filesystem::rename("/tmp/backup/kavophoto.backup", "/tmp/backup/xkavophoto.backup");
  EXPECT_EQ(run({"-r", "/tmp/backup/x"}).status, 255);
  expectMessages({"KavophotoRestoreDB failed: no dump file.\n", kCannot});
  EXPECT_TRUE(exists("/tmp/backup/x/kavophoto_backup.dump"));
}

TEST_F(RestoreTest, ClosesItsConnection) {
  archiveOfOther();
  EXPECT_EQ(result(), 0);
  expectNoMessages();
  releaseRunLock();
  // Backends end a moment after their clients.
  live().exec(
      "DO $$ BEGIN FOR n IN 1..200 LOOP PERFORM pg_stat_clear_snapshot(); EXIT WHEN NOT EXISTS (SELECT FROM "
      "pg_stat_activity WHERE application_name = 'kavophoto_backup'); PERFORM pg_sleep(0.01); END LOOP; END $$");
  EXPECT_EQ(live().value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kavophoto_backup'"), "0");
}

TEST_F(RestoreTest, PipeInThePlaceOfTheArchiveFailsTheUnpacking) {
  ASSERT_EQ(mkfifo((workDirectory() + "kavophoto.backup").c_str(), 0600), 0);
  restore(255, {"KavophotoRestoreDB failed when un-tar file.\n", kCannot});
}

TEST_F(RestoreTest, PipeAmongTheSavedThemesIsLeftOut) {
  unpackedArchive();
  ASSERT_EQ(mkfifo("/tmp/members/theme_bak/pipe", 0600), 0);
  writeFile("/tmp/members/theme_bak/style.css", "body {}");
  packMembers({"kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
               "kavophoto_backup_hox_group_account.txt", "theme_bak", "settings.conf.bak"});
  restore(0, {"KavophotoRestoreTheme: failed to copy pipe.\n"});
  EXPECT_EQ(readFile("/var/packages/Lumora/etc/blog/style.css"), "body {}");
  EXPECT_FALSE(exists("/var/packages/Lumora/etc/blog/pipe"));
}

// A dump of another program's making.
TEST_F(RestoreTest, ArchiveOfTablesUnderTheirLiveNamesIsNotLoaded) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'live')");
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'saved')");
  unpackedArchive();
  appliance::RunOptions options;
  options.program = "/usr/bin/pg_dump";
  EXPECT_EQ(
      appliance::runTool({"-U", "postgres", "-F", "c", "-f", "/tmp/members/kavophoto_backup.dump", "other"}, options)
          .status,
      0);
  packMembers({"kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
               "kavophoto_backup_hox_group_account.txt", "theme_bak", "settings.conf.bak"});
  const auto before = appliance::contents("photo");
  restore(255, {"The dump holds rows of a table that no backup saves (public category postgres), nothing is loaded.",
                "KavophotoRestoreDB failed when restore dump file.\n", kCannot});
  EXPECT_EQ(appliance::contents("photo"), before);
}

template <typename Condition>
void waitUntil(const Condition& isMet) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!isMet() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

TEST_F(RestoreTest, LeavesTheSessionsOfTheConversionScriptToTheScript) {
  ArchiveOptions old;
  old.build = "1000";
  archiveOfOther(old);
  writeFile(kScript,
            "#!/bin/sh\n"
            "(/usr/bin/psql photo -U postgres -c 'SELECT pg_advisory_lock(42)'; echo $? > /tmp/ended;"
            " mv /tmp/ended /tmp/status) < /dev/null > /dev/null 2>&1 &\n",
            0755);
  const std::string waits = "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'advisory'";
  live().exec("SELECT pg_advisory_lock(42)");
  restore(0, {});
  waitUntil([&] { return live().value(waits) == "1"; });
  EXPECT_EQ(run({"-b", workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_EQ(live().value(waits), "1");
  live().exec("SELECT pg_advisory_unlock(42)");
  waitUntil([] { return exists("/tmp/status"); });
  EXPECT_EQ(readFile("/tmp/status"), "0\n");
}

TEST_F(RestoreTest, UnpacksIntoADirectoryWhoseNameHoldsABackslash) {
  const std::string directory = "/tmp/x\\ty/";
  const std::string another = "/tmp/x\ty/settings.conf.bak";
  appliance::makeDirectories(directory);
  writeFile(another, "kept");
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  EXPECT_EQ(run({"-b", directory}).status, 0);
  expectNoMessages();
  live().exec("TRUNCATE photo_config");
  EXPECT_EQ(run({"-r", directory}).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
  EXPECT_EQ(readFile(another), "kept");
}

// pg_restore would wait for a writer.
TEST_F(RestoreTest, PipeAsTheDumpOfAnArchiveIsNoDump) {
  unpackedArchive();
  appliance::removeAll("/tmp/members/kavophoto_backup.dump");
  ASSERT_EQ(mkfifo("/tmp/members/kavophoto_backup.dump", 0600), 0);
  packMembers(appliance::archiveMembers());
  restore(255, {"KavophotoRestoreDB failed: no dump file.\n", kCannot});
  EXPECT_FALSE(exists(workDirectory() + "kavophoto_backup.dump"));
}

class UnpackedName : public RestoreTest, public ::testing::WithParamInterface<bool> {
 protected:
  // Pipes, or links to a device, under every name that an archive or the restore puts there.
  static void placeSpecialFiles() {
    for (const char* name : {"kavophoto_backup.dump", "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
                             "kavophoto_backup_hox_group_account.txt", "settings.conf.bak", "toc_file"}) {
      const std::string path = workDirectory() + name;
      ASSERT_EQ(GetParam() ? mkfifo(path.c_str(), 0600) : symlink("/dev/null", path.c_str()), 0) << name;
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Kinds, UnpackedName, ::testing::Bool(),
                         [](const auto& kind) { return std::string(kind.param ? "Pipe" : "LinkToADevice"); });

TEST_P(UnpackedName, SpecialFilesAreRemoved) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  archiveOfOther();
  placeSpecialFiles();
  restore(0, {});
  EXPECT_EQ(live().count("photo_config"), 1);
  EXPECT_TRUE(exists("/dev/null"));
}

TEST_P(UnpackedName, SpecialFilesAreNotTakenForMembersThatTheArchiveLacks) {
  ArchiveOptions options;
  options.leaveOut = {"settings.conf.bak"};
  archiveOfOther(options);
  placeSpecialFiles();
  restore(0, {});
  appliance::removeAll(workDirectory());
  appliance::makeDirectories(workDirectory());
  options.leaveOut = {"kavophoto_backup.dump"};
  makeArchive(workDirectory(), "other", options);
  placeSpecialFiles();
  restore(255, {"KavophotoRestoreDB failed: no dump file.\n", kCannot});
}

TEST_F(RestoreTest, SpecialFilesThatCannotBeRemovedAreLogged) {
  archiveOfOther();
  ASSERT_EQ(mkfifo((workDirectory() + "settings.conf.bak").c_str(), 0600), 0);
  appliance::mountReadOnly("/tmp/backup");
  restore(255, {"Failed to remove /tmp/backup/settings.conf.bak (Read-only file system)",
                "KavophotoRestoreDB failed when un-tar file.\n", kCannot});
}

}  // namespace
