#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "faults/crash_matrix.h"
#include "faults/statement_relay.h"
#include "support/tool_test.h"

namespace {

using appliance::Database;
using appliance::Outcome;
using appliance::RunOptions;
using crash::Mode;
using crash::testName;
using faults::StatementRelay;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

using Messages = std::vector<std::string>;

enum class Fault { kStopped, kRestarted, kTerminated };

std::string testName(Fault fault) {
  switch (fault) {
    case Fault::kStopped:
      return "Stopped";
    case Fault::kRestarted:
      return "Restarted";
    case Fault::kTerminated:
      return "BackendTerminated";
  }
  return "";
}

// Every table whose merge the log must report as failed, in order, told as that mode does.
Messages failedTables(Mode mode, const std::string& first, bool isSourceLost) {
  const std::vector<std::string> tables = {"photo_label",
                                           "photo_config",
                                           "photo_image",
                                           "photo_log",
                                           "photo_share",
                                           "photo_user",
                                           "video_comment",
                                           "video_desc",
                                           "photo_access_right_for_hox_account",
                                           "photo_upload_right_for_hox_account",
                                           "photo_manage_right_for_hox_account",
                                           "photo_video_label",
                                           "category",
                                           "category_items",
                                           "photo_group",
                                           "photo_group_permission_for_hox_account",
                                           "watermark",
                                           "photo_personal_collection",
                                           "photo_personal_collection_for_hox_account",
                                           "photo_personal_collection_for_admin"};
  Messages messages;
  for (auto table = std::find(tables.begin(), tables.end(), first); table != tables.end(); ++table) {
    if (table->find("_right_for_hox") != std::string::npos) {
      messages.push_back(mode == Mode::kImport ? "Table " + *table + " sync failed."
                                               : "Table photo_access_right_for_hox_account sync failed.\n");
    } else if (table->find("collection") != std::string::npos) {
      messages.push_back("Table " + *table + " sync failed");
    } else if (*table != "watermark" || !isSourceLost) {
      // Watermarks that cannot be read count as none.
      messages.push_back("Table " + *table + " sync failed.\n");
    }
  }
  return messages;
}

Messages only(const Messages& messages, const std::string& beginning) {
  Messages some;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(some),
               [&](const std::string& message) { return message.rfind(beginning, 0) == 0; });
  return some;
}

Messages without(const Messages& messages, const std::string& part) {
  Messages some;
  std::copy_if(messages.begin(), messages.end(), std::back_inserter(some),
               [&](const std::string& message) { return message.find(part) == std::string::npos; });
  return some;
}

// The statement at which a mode is well in its work, and the table that it belongs to.
std::pair<const char*, const char*> middleOf(Mode mode) {
  return mode == Mode::kBackup ? std::pair("Select * from photo_upload_right_for_hox_account_bak", "")
                               : std::pair("Select * from photo_user where username", "photo_user");
}

class Server : public appliance::ToolTest {
 protected:
  // The run is held before a statement, `act` is done to the server, and the run goes on to its end.
  template <typename Act>
  static Outcome runWith(Mode mode, const std::string& statement, Act act) {
    StatementRelay relay;
    relay.holdAt(statement, StatementRelay::Hold::kBeforeStatement);
    RunOptions options;
    options.env = {relay.environment()};
    const pid_t tool = appliance::startTool(crash::commandLine(mode), options);
    EXPECT_TRUE(relay.waitUntilHeld(tool)) << statement;
    act();
    relay.release();
    return appliance::waitTool(tool);
  }

  static void expectWholeAfterRunningAgain(Mode mode) {
    const crash::Trial trial = crash::runAgain(crash::referenceOf(mode));
    EXPECT_EQ(trial.rowsLost, 0);
    EXPECT_THAT(trial.faults, IsEmpty());
  }

  static void waitForALock() {
    Database watcher("postgres");
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (watcher.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0") {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << "nobody waits for a lock";
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
};

class LostServer : public Server, public ::testing::WithParamInterface<std::tuple<Mode, Fault>> {
 protected:
  static Mode mode() { return std::get<0>(GetParam()); }
  static Fault fault() { return std::get<1>(GetParam()); }

  static void inflict() {
    switch (fault()) {
      case Fault::kStopped:
        appliance::server::stop();
        return;
      case Fault::kRestarted:
        appliance::server::restart({});
        return;
      case Fault::kTerminated:
        appliance::server::terminateBackends("photo");
        return;
    }
  }

  static void expectBackupMessages(const Messages& messages) {
    Messages expected = {"KavophotoDumpHoxUserOnDB failed when photo_upload_right_for_hox_account.\n",
                         "The lock of this run was lost with its connection. It only renames tables back from now on."};
    if (fault() == Fault::kStopped) {
      for (const std::string& table : appliance::tableNames()) {
        expected.push_back("KavophotoTableRenameBack: Fail to rename back table " + table + "\n");
      }
    }
    ASSERT_FALSE(messages.empty());
    EXPECT_THAT(messages[0], AnyOf(MatchesRegex("Failed to exec \\[Select \\* from "
                                                "photo_upload_right_for_hox_account_bak\\] \\((.|\n)+\\)")));
    EXPECT_EQ(Messages(messages.begin() + 1, messages.end()), expected);
  }

  static void expectMergeMessages(const Messages& messages) {
    const bool isSourceLost = mode() != Mode::kImport || fault() != Fault::kTerminated;
    EXPECT_EQ(only(messages, "Table "), failedTables(mode(), middleOf(mode()).second, isSourceLost));
    EXPECT_THAT(messages, Contains("No usable database connection, smart album file "
                                   "[/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG] is left as it is"));
    const std::string mayBeLost = "The last rows written to database photo may be lost. Run the same command again.";
    EXPECT_EQ(only(messages, "The last rows "), Messages{mayBeLost});
    EXPECT_EQ(messages.back(), mayBeLost);
    // An import still reads its source where only the live database is lost.
    EXPECT_THAT(without(without(without(messages, "Table "), "No usable database connection"), mayBeLost),
                Each(MatchesRegex("Failed to exec \\[[^\n]+\\] \\((.|\n)+\\)")));
  }
};

INSTANTIATE_TEST_SUITE_P(Modes, LostServer,
                         ::testing::Combine(::testing::ValuesIn(crash::kModes),
                                            ::testing::Values(Fault::kStopped, Fault::kRestarted, Fault::kTerminated)),
                         [](const auto& one) {
                           return testName(std::get<0>(one.param)) + testName(std::get<1>(one.param));
                         });

TEST_P(LostServer, InTheMiddleEndsTheRunAndNothingIsLost) {
  crash::referenceOf(mode());
  crash::layOut(mode());
  const std::string smartAlbums = "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG";
  const std::string albums = appliance::readFile(smartAlbums);
  EXPECT_EQ(runWith(mode(), middleOf(mode()).first, inflict).status, 0);

  const Messages messages = appliance::takeMessages();
  if (mode() == Mode::kBackup) {
    expectBackupMessages(messages);
  } else {
    expectMergeMessages(messages);
  }
  EXPECT_EQ(appliance::readFile(smartAlbums), albums);
  if (fault() == Fault::kStopped) {
    appliance::server::start();
  } else if (mode() == Mode::kBackup) {
    EXPECT_EQ(appliance::contents("photo"), crash::referenceOf(mode()).before.contents);
  }
  expectWholeAfterRunningAgain(mode());
}

TEST_F(Server, LostWhileStagedTablesAreLookedForLeavesThem) {
  const std::string first = appliance::tableNames().front();
  Database live("photo");
  live.exec("CREATE TABLE photo_label_bak AS SELECT 1 AS id");
  StatementRelay relay;
  // The live tables are asked for after the staged ones.
  relay.holdAt("relname in ('" + first + "', ", StatementRelay::Hold::kBeforeStatement);
  RunOptions options;
  options.env = {relay.environment()};
  const pid_t tool = appliance::startTool({"-e", appliance::workDirectory()}, options);
  ASSERT_TRUE(relay.waitUntilHeld(tool));
  relay.cut();
  EXPECT_EQ(appliance::waitTool(tool).status, 0);
  EXPECT_THAT(appliance::takeMessages(),
              testing::ElementsAre(MatchesRegex("Failed to exec \\[SELECT relname FROM pg_class .+\\] \\(.+\\)"),
                                   HasSubstr("Table photo_label_bak is left alone")));
  EXPECT_EQ(live.value("SELECT id FROM photo_label_bak"), "1");
}

class BusyServer : public Server, public ::testing::WithParamInterface<Mode> {
 protected:
  // Somebody else's session that has a table to itself as long as it lives.
  static Database lockedBySomebody(const std::string& table) {
    Database somebody("photo");
    somebody.exec("BEGIN; LOCK TABLE " + table + " IN ACCESS EXCLUSIVE MODE");
    return somebody;
  }

  // A run that has to wait for a lock, longer than the caller or the database allows, is the same as one that nothing
  // disturbed.
  void expectWaitUntilReleased(const RunOptions& options = {}, const std::string& settings = "SELECT 1") {
    const crash::Reference& reference = crash::referenceOf(GetParam());
    crash::layOut(GetParam());
    std::optional<Database> somebody = lockedBySomebody("photo_user");
    Database administrator("postgres");
    administrator.exec(settings);
    const pid_t tool = appliance::startTool(crash::commandLine(GetParam()), options);
    waitForALock();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    somebody.reset();
    EXPECT_EQ(appliance::waitTool(tool).status, 0);
    administrator.exec("ALTER DATABASE photo RESET ALL");
    expectMessages(reference.after.messages);
    if (GetParam() == Mode::kBackup) {
      EXPECT_EQ(appliance::contents("photo"), reference.before.contents);
    } else {
      EXPECT_EQ(named::rows(live()), reference.after.rows);
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Modes, BusyServer, ::testing::ValuesIn(crash::kModes),
                         [](const auto& mode) { return testName(mode.param); });

TEST_P(BusyServer, IsWaitedForUntilALockIsReleased) { expectWaitUntilReleased(); }

TEST_P(BusyServer, IsWaitedForWhateverTimeoutTheCallerHasSet) {
  RunOptions options;
  options.env = {"PGOPTIONS=-c statement_timeout=100 -c lock_timeout=50"};
  expectWaitUntilReleased(options);
}

TEST_P(BusyServer, IsWaitedForWhateverTimeoutTheDatabaseHas) {
  constexpr int kVersionWithIdleSessions = 140000;
  std::string settings =
      "ALTER DATABASE photo SET statement_timeout = 100; ALTER DATABASE photo SET lock_timeout = 50;"
      "ALTER DATABASE photo SET idle_in_transaction_session_timeout = 50;";
  if (PQserverVersion(live().raw()) >= kVersionWithIdleSessions) {
    settings += "ALTER DATABASE photo SET idle_session_timeout = 50";
  }
  expectWaitUntilReleased({}, settings);
}

// The databases stand on a file system that the server can fill.
class FullServer : public Server, public ::testing::WithParamInterface<Mode> {
 protected:
  static constexpr const char* kFolder = "/appliance/small";
  static constexpr std::size_t kBytes = std::size_t{48} << 20U;

  void moveToASmallDisk() {
    appliance::mountSmall(kFolder, kBytes);
    struct stat owner = {};
    ASSERT_EQ(stat("/appliance/data", &owner), 0);
    ASSERT_EQ(chown(kFolder, owner.st_uid, owner.st_gid), 0);
    Database administrator("postgres");
    administrator.exec(std::string("CREATE TABLESPACE small LOCATION '") + kFolder + "'");
    hasTablespace_ = true;
    administrator.exec("ALTER DATABASE photo SET TABLESPACE small");
  }

  static void fillDisk() {
    std::ofstream filler(std::string(kFolder) + "/filler", std::ios::binary);
    const std::string piece(4096, 'x');
    while (filler.write(piece.data(), static_cast<std::streamsize>(piece.size())).flush()) {
    }
  }

  static void freeDisk() { std::filesystem::remove(std::string(kFolder) + "/filler"); }

  // Before the file system goes away under it.
  void TearDown() override {
    Server::TearDown();
    if (hasTablespace_) {
      freeDisk();
      Database administrator("postgres");
      administrator.exec("DROP DATABASE photo WITH (FORCE)");
      administrator.exec("DROP TABLESPACE small");
    }
  }

 private:
  bool hasTablespace_ = false;
};

INSTANTIATE_TEST_SUITE_P(Modes, FullServer, ::testing::ValuesIn(crash::kModes),
                         [](const auto& mode) { return testName(mode.param); });

TEST_P(FullServer, AtTheStartEndsTheRunAndNothingIsLost) {
  const bool isRestore = GetParam() == Mode::kRestoreSkip || GetParam() == Mode::kRestoreOverwrite;
  crash::referenceOf(GetParam());
  crash::layOut(GetParam());
  // Rows that do not fit into what the tables still have room for.
  Database("other").exec(
      "UPDATE photo_config SET config_value = (SELECT string_agg(md5(n || config_key), '') FROM generate_series(1, "
      "250) "
      "n)");
  moveToASmallDisk();
  fillDisk();
  const Outcome outcome = run(crash::commandLine(GetParam()));
  const Messages messages = appliance::takeMessages();
  freeDisk();

  EXPECT_EQ(outcome.status, isRestore ? 255 : 0);
  if (GetParam() == Mode::kImport) {
    EXPECT_THAT(messages, Contains("Table photo_config sync failed.\n"));
    EXPECT_THAT(messages, Contains(MatchesRegex("Failed to exec \\[Insert into photo_config .+: No space left on "
                                                "device.+\\)")));
    EXPECT_EQ(run(crash::commandLine(GetParam())).status, 0);
    EXPECT_THAT(only(appliance::takeMessages(), "Table "), IsEmpty());
    Database other("other");
    const named::Rows carried = named::carriedRows(other).at("photo_config");
    Database photo("photo");
    const named::Rows found = named::rows(photo).at("photo_config");
    EXPECT_TRUE(std::includes(found.begin(), found.end(), carried.begin(), carried.end()));
    return;
  }
  if (isRestore) {
    EXPECT_EQ(messages, (Messages{"KavophotoRestoreDB failed when restore dump file.\n", "Cant restore Photo DB.\n"}));
  } else {
    // Some tables can still be renamed and some cannot, and a staged one may stay until there is room again.
    EXPECT_THAT(messages, Each(AnyOf(HasSubstr("Fail to rename"), HasSubstr("failed when"),
                                     HasSubstr("The archive does not hold table"),
                                     HasSubstr("_for_hox_account_bak\" does not exist"))));
  }
  expectWholeAfterRunningAgain(GetParam());
}

TEST_P(FullServer, InTheMiddleEndsTheRunAndNothingIsLost) {
  crash::referenceOf(GetParam());
  crash::layOut(GetParam());
  moveToASmallDisk();
  const Outcome outcome = runWith(GetParam(), middleOf(GetParam()).first, fillDisk);
  EXPECT_EQ(outcome.status, 0);
  const Messages messages = appliance::takeMessages();
  EXPECT_THAT(messages, Each(Not(HasSubstr("connection"))));
  freeDisk();
  crash::putSmartAlbumsBack();
  expectWholeAfterRunningAgain(GetParam());
}

}  // namespace
