#include "restore/restore.h"

#include <array>
#include <cstdlib>
#include <optional>
#include <string>

#include "backup/archive.h"
#include "platform/file_update.h"
#include "platform/files.h"
#include "platform/key_value_file.h"
#include "platform/log.h"
#include "platform/overwrite_mode.h"
#include "platform/process_runner.h"
#include "platform/progress.h"
#include "platform/query.h"
#include "platform/run_lock.h"
#include "platform/text.h"
#include "restore/settings.h"
#include "restore/staged_indexes.h"
#include "restore/staging.h"
#include "restore/theme.h"
#include "restore/toc.h"
#include "smart/earlier_albums.h"
#include "transfer/transfer.h"

namespace {

constexpr std::size_t kVersionCapacity = 1024;

constexpr std::array kUnpackedFiles = {
    "kavophoto_backup.dump",
    "kavophoto_backup_time.txt",
    "kavophoto_backup_hox_account.txt",
    "kavophoto_backup_hox_group_account.txt",
    "settings.conf.bak",
    "toc_file",
};

bool unpackArchive(const std::string& dir) {
  const std::string archive = joinPath(dir, "kavophoto.backup");
  if (!exists(archive)) {
    KAVO_LOG("KavophotoRestoreDB failed: no backup file %s.\n", archive.c_str());
    return false;
  }
  progressPhase("unpacking");
  // tar replaces only what is a member, and an archive may lack some. What cannot be removed is opened by nothing that
  // would wait.
  for (const char* name : kUnpackedFiles) {
    removeSpecialFile(joinPath(dir, name));
  }
  KAVOUtils::ProcessRunner tar("/bin/tar", "/bin/tar", "-zxvf", archive.c_str(), "-C", dir.c_str());
  // tar would wait for a writer of a pipe.
  if (!openToRead(archive) || tar.run(true, false) < 0) {
    KAVO_LOG("KavophotoRestoreDB failed when un-tar file.\n");
    return false;
  }
  return true;
}

bool listTables(const std::string& dir) {
  // pg_restore would wait for a writer of a pipe, and an archive may hold one.
  if (!openToRead(joinPath(dir, "kavophoto_backup.dump"))) {
    KAVO_LOG("KavophotoRestoreDB failed: no dump file.\n");
    return false;
  }
  if (makeTocFile(dir) < 0) {
    KAVO_LOG("KavophotoRestoreDB failed when get TOC entries list.\n");
    return false;
  }
  return true;
}

bool runLoad(const std::string& dir) {
  KAVOUtils::ProcessRunner load("/usr/bin/pg_restore", "/usr/bin/pg_restore", "-U", "postgres", "-d", "photo", "-L",
                                joinPath(dir, "toc_file").c_str(), joinPath(dir, "kavophoto_backup.dump").c_str());
  return keepRunLock() && load.run(true, false) >= 0;
}

// An archive that another program made may hold tables under their live names.
bool holdsCopiesOnly(const std::string& dir) {
  std::string entries;
  if (!readWholeFile(joinPath(dir, "toc_file"), entries)) {
    KAVO_LOG("Failed to open file: %s.\n", joinPath(dir, "toc_file").c_str());
    return false;
  }
  const std::optional<std::string> foreign = foreignRows(entries);
  if (foreign) {
    KAVO_LOG("The dump holds rows of a table that no backup saves (%s), nothing is loaded.", foreign->c_str());
  }
  return !foreign;
}

// Loads only where every staged name is free: the load adds rows to a table that has such a name already. The copies
// are noted whether or not the load succeeded, so that they can be dropped.
bool loadStagedTables(DBConnect_tag* connection, const std::string& dir, const TransferTables& tables) {
  progressPhase("loading");
  bool isLoaded = false;
  if (holdsCopiesOnly(dir) && freeStagedNames(connection, tables.tables) && noteStagingBegins(connection)) {
    isLoaded = runLoad(dir);
    noteStagedTables(connection, tables.tables);
  }
  if (!isLoaded) {
    KAVO_LOG("KavophotoRestoreDB failed when restore dump file.\n");
  }
  return isLoaded;
}

void restoreSettings(const std::string& dir) {
  const std::string saved = joinPath(dir, "settings.conf.bak");
  if (exists(saved) && KavophotoRestoreSetting(dir.c_str(), saved.c_str()) < 0) {
    KAVO_LOG("Restore Setting Config Failed");
  }
}

struct BuildNumbers {
  std::string backup;
  std::string system;
};

bool readBuildNumbers(const std::string& dir, BuildNumbers& builds) {
  if (KLIBCFileGetKeyValue(joinPath(dir, "kavophoto_backup_time.txt").c_str(), "version", builds.backup,
                           kVersionCapacity) < 0) {
    KAVO_LOG("Fail to get version.\n");
    return false;
  }
  if (KLIBCFileGetKeyValue("/etc.defaults/VERSION", "buildnumber", builds.system, kVersionCapacity) < 0) {
    KAVO_LOG("KavophotoDumpDB failed when KLIBCFileGetKeyValue.\n");
    return false;
  }
  return true;
}

void restoreThemes(const std::string& dir) {
  if (KavophotoRestoreTheme(dir.c_str()) < 0) {
    KAVO_LOG("KavophotoRestoreTheme failed.");
  }
}

// Album covers are kept in another form since build 1803.
bool convertCovers(const BuildNumbers& builds) {
  constexpr int kDecimal = 10;
  constexpr long kLastOldBuild = 1802;
  const char* const script = "/var/packages/Lumora/target/photo_scripts/cover_convert.sh";
  if (std::strtol(builds.backup.c_str(), nullptr, kDecimal) > kLastOldBuild ||
      std::strtol(builds.system.c_str(), nullptr, kDecimal) <= kLastOldBuild || !exists(script)) {
    return true;
  }
  KAVOUtils::ProcessRunner convert(script, script, "restore", gIsOverwiroteMode ? nullptr : "skip");
  // It is the application's own: the next run must not end the database sessions of what it leaves in the background.
  convert.useCallersEnvironment();
  if (convert.run(true, false) < 0) {
    KAVO_LOG("Failed when executing commend: %s.\n", convert.toString().c_str());
    return false;
  }
  return true;
}

int restoreArchive(const std::string& dir, const TransferTables& tables) {
  // The archive may hold a member of its own name.
  const std::string origin = restoreOrigin(dir);
  if (!unpackArchive(dir) || !listTables(dir)) {
    return -1;
  }
  const Connection connection = connectTo("photo");
  if (!connection) {
    KAVO_LOG("Failed to connect to database");
    return -1;
  }
  if (!loadStagedTables(connection.get(), dir, tables)) {
    return -2;
  }
  indexStagedTables(connection.get(), tables.tables);
  const Transfer transfer = {connection.get(), connection.get(), "_bak", dir};
  const auto prepare = [](const std::string& table) { addDBPrimaryKey(table.c_str(), "id"); };
  const auto failed = [](const std::string& /*table*/) { KAVO_LOG("KavophotoCheckPath failed."); };
  if (!repairPaths(transfer, tables, "photo", prepare, failed)) {
    freeStagedNames(connection.get(), tables.tables);
    return -1;
  }
  mergeTables(transfer, tables,
              [](const char* /*table*/) { KAVO_LOG("Table photo_access_right_for_hox_account sync failed.\n"); });
  restoreSettings(dir);
  BuildNumbers builds;
  if (!readBuildNumbers(dir, builds)) {
    return -1;
  }
  restoreThemes(dir);
  if (!convertCovers(builds)) {
    return -1;
  }
  mergeReferences(transfer, origin);
  freeStagedNames(connection.get(), tables.tables);
  return 0;
}

void removeUnpackedFiles(const std::string& dir) {
  removeIfThere(joinPath(dir, "toc_file"));
  removeIfThere(joinPath(dir, "kavophoto_backup.dump"));
  removeIfThere(joinPath(dir, "kavophoto_backup_time.txt"));
  removeThemeCopy(dir);
}

}  // namespace

int KavophotoRestoreDB(const char* dir, const TransferTables& tables) {
  const int result = restoreArchive(dir, tables);
  removeUnpackedFiles(dir);
  return result;
}
