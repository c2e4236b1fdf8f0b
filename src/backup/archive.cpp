#include "backup/archive.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string_view>
#include <vector>

#include "backup/archive_check.h"
#include "backup/backup_time.h"
#include "backup/host_accounts.h"
#include "platform/files.h"
#include "platform/handles.h"
#include "platform/key_value_file.h"
#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/progress.h"
#include "platform/query.h"
#include "platform/run_lock.h"
#include "platform/text.h"
#include "restore/staging.h"
#include "restore/toc.h"

namespace {

constexpr std::size_t kVersionCapacity = 1024;

constexpr std::array kWrittenFiles = {
    "kavophoto_backup.dump",
    "kavophoto_backup_time.txt",
    "kavophoto_backup_hox_account.txt",
    "kavophoto_backup_hox_group_account.txt",
    "settings.conf.bak",
    "kavophoto.backup",
};

// pg_dump, cp and tar would wait for a reader of a pipe, with all tables under their staged names.
bool removeSpecialFiles(const std::string& dir) {
  return std::all_of(kWrittenFiles.begin(), kWrittenFiles.end(),
                     [&dir](const char* name) { return removeSpecialFile(joinPath(dir, name)); });
}

// What has a staged name already would be dumped in the place of a live table.
bool canStage(std::span<const char* const> tables) {
  const Connection connection = connectTo("photo");
  if (connection) {
    return freeStagedNames(connection.get(), tables);
  }
  // A run that has no lock because there was no server cannot rename anything either, and fails step by step.
  const bool hasServer = runLockConnection() != nullptr;
  if (hasServer) {
    KAVO_LOG("Failed to connect to database");
  }
  return !hasServer;
}

// The names of the tables that were renamed.
std::vector<std::string_view> stageTables(std::span<const char* const> tables) {
  progressPhase("staging");
  std::vector<std::string_view> staged;
  std::size_t place = 0;
  for (const char* table : tables) {
    progressTable(table, ++place, tables.size());
    if (stageTable(table)) {
      staged.emplace_back(table);
    }
  }
  return staged;
}

bool dumpStagedTables(const std::string& dir, std::span<const char* const> tables) {
  progressPhase("dumping");
  KAVOUtils::ProcessRunner dump("/usr/bin/pg_dump", "/usr/bin/pg_dump", "-U", "postgres", "-F", "c", "-d", "photo");
  for (const char* table : tables) {
    dump.addArguments("-t", formatText("%s_bak", table).c_str());
  }
  dump.addArguments("-f", joinPath(dir, "kavophoto_backup.dump").c_str());
  if (!keepRunLock() || dump.run(true, false) < 0) {
    KAVO_LOG("KavophotoDumpDB failed when dumping database.\n");
    return false;
  }
  return true;
}

// pg_dump succeeds when it finds one of the tables. It leaves out one that could not be renamed, and the rows of one
// that is divided into partitions.
void reportWhatTheDumpLacks(const std::string& dir, std::span<const char* const> tables,
                            const std::vector<std::string_view>& staged) {
  const std::optional<std::string> listing = listDump(dir);
  if (!listing) {
    return;
  }
  for (const char* table : tables) {
    // What has the staged name of a table that was not renamed is not that table.
    if (std::find(staged.begin(), staged.end(), table) == staged.end() ||
        listing->find(formatText(" TABLE public %s_bak ", table)) == std::string::npos) {
      KAVO_LOG("The archive does not hold table %s.", table);
    } else if (listing->find(formatText(" TABLE DATA public %s_bak ", table)) == std::string::npos) {
      KAVO_LOG("The archive does not hold the rows of table %s, only its columns.", table);
    }
  }
  if (const Connection connection = connectTo("photo")) {
    logTablesWithChildren(connection.get(), tables);
  }
}

bool readVersion(const char* path, const char* key, std::string& version) {
  if (KLIBCFileGetKeyValue(path, key, version, kVersionCapacity) < 0) {
    KAVO_LOG("KavophotoDumpDB failed when KLIBCFileGetKeyValue.\n");
    return false;
  }
  return true;
}

bool writeBackupTime(const std::string& dir) {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  std::string version;
  std::string photoVersion;
  if (!readVersion("/etc.defaults/VERSION", "buildnumber", version) ||
      !readVersion("/var/packages/Lumora/INFO", "version", photoVersion)) {
    return false;
  }
  const std::string path = joinPath(dir, "kavophoto_backup_time.txt");
  File file = openToWrite(path);
  if (!file) {
    KAVO_LOG("KavophotoDumpDB failed to open %s.\n", path.c_str());
    return false;
  }
  std::fputs(backupTimeText(local, version, photoVersion).c_str(), file.get());
  if (!closeWritten(std::move(file))) {
    KAVO_LOG("KavophotoDumpDB failed to write %s.\n", path.c_str());
    return false;
  }
  return true;
}

bool writeHostAccounts(const std::string& dir) {
  if (KavophotoDumpHoxUserOnDB(dir.c_str(), "photo_access_right_for_hox_account", "_bak") < 0) {
    KAVO_LOG("KavophotoDumpHoxUserOnDB failed when photo_access_right_for_hox_account.\n");
    return false;
  }
  if (KavophotoDumpHoxUserOnDB(dir.c_str(), "photo_upload_right_for_hox_account", "_bak") < 0) {
    KAVO_LOG("KavophotoDumpHoxUserOnDB failed when photo_upload_right_for_hox_account.\n");
    return false;
  }
  if (KavophotoDumpHoxUserOnDB(dir.c_str(), "photo_manage_right_for_hox_account", "_bak") < 0) {
    KAVO_LOG("KavophotoDumpHoxUserOnDB failed when photo_manage_right_for_hox_account.\n");
    return false;
  }
  if (KavophotoDumpHoxGroupOnDB(dir.c_str(), "photo_group_permission_for_hox_account", "_bak") < 0) {
    KAVO_LOG("KavophotoDumpHoxUserOnDB failed when photo_group_permission_for_hox_account.\n");
    return false;
  }
  return true;
}

bool copyThemes(const std::string& dir) {
  if (KavophotoCopyThemeDir(dir.c_str()) < 0) {
    KAVO_LOG("KavophotoDumpHoxUserOnDB failed when KavophotoCopyThemeDir.\n");
    return false;
  }
  return true;
}

bool copySettings(const std::string& dir) {
  KAVOUtils::ProcessRunner copy("/bin/cp", "/bin/cp", "/var/packages/Lumora/etc/settings.conf",
                                joinPath(dir, "settings.conf.bak").c_str());
  // cp would wait for a writer of a pipe.
  if (!openToRead("/var/packages/Lumora/etc/settings.conf") || copy.run(true, false) < 0) {
    KAVO_LOG("Copy /var/packages/Lumora/etc/settings failed.\n");
    return false;
  }
  return true;
}

bool changeDirectory(const char* directory) {
  if (chdir(directory) != 0) {
    KAVO_LOG("change directory to %s failed.", directory);
    return false;
  }
  return true;
}

bool packMembers(const std::string& dir) {
  progressPhase("packing");
  const std::string archive = joinPath(dir, "kavophoto.backup");
  KAVOUtils::ProcessRunner tar("/bin/tar", "/bin/tar", "-zcvf", archive.c_str(), "kavophoto_backup.dump",
                               "kavophoto_backup_time.txt", "kavophoto_backup_hox_account.txt",
                               "kavophoto_backup_hox_group_account.txt", "theme_bak", "settings.conf.bak");
  tar.addArguments("-C", dir.c_str());
  // GNU tar since 1.29 ends with an error after a whole archive, because the directory stands behind the members. Only
  // the archive itself tells that from a real failure; compared with the members, because it may also be an older one
  // that this tar did not get to replace.
  if (tar.run(true, false) < 0 && !archiveIsWhole(archive, dir)) {
    KAVO_LOG("KavophotoDumpDB failed when tar files.\n");
    return false;
  }
  return true;
}

int makeArchive(const std::string& dir, std::span<const char* const> tables,
                const std::vector<std::string_view>& staged) {
  std::array<char, kPathCapacity> start = {};
  if (getcwd(start.data(), start.size()) == nullptr) {
    KAVO_LOG("KavophotoDumpDB failed to getcwd, backup process is terminated");
    return -1;
  }
  if (!dumpStagedTables(dir, tables)) {
    return -1;
  }
  reportWhatTheDumpLacks(dir, tables, staged);
  const bool made = writeBackupTime(dir) && writeHostAccounts(dir) && copyThemes(dir) && copySettings(dir) &&
                    changeDirectory(dir.c_str()) && packMembers(dir) && changeDirectory(start.data());
  return made ? 0 : -1;
}

void unstageTables(std::span<const char* const> tables) {
  progressPhase("renaming back");
  std::size_t place = 0;
  for (const char* table : tables) {
    progressTable(table, ++place, tables.size());
    KavophotoTableRenameBack(table);
  }
}

void removeSettingsCopy(const std::string& dir) {
  const std::string copy = joinPath(dir, "settings.conf.bak");
  if (!exists(copy)) {
    return;
  }
  KAVOUtils::ProcessRunner remove("/bin/rm", "/bin/rm", "-f", copy.c_str());
  if (remove.run(true, false) < 0) {
    KAVO_LOG("KavophotoDumpDB failed when rm settings.conf.bak\n");
  }
}

void removeMembers(const std::string& dir) {
  removeIfThere(joinPath(dir, "kavophoto_backup_time.txt"));
  removeIfThere(joinPath(dir, "kavophoto_backup.dump"));
  removeIfThere(joinPath(dir, "kavophoto_backup_hox_account.txt"));
  removeIfThere(joinPath(dir, "kavophoto_backup_hox_group_account.txt"));
  removeThemeCopy(dir);
  removeSettingsCopy(dir);
}

bool isPlainFile(const dirent& entry, const std::string& path) {
  const std::string_view name = entry.d_name;
  if (name == "." || name == "..") {
    return false;
  }
  struct stat status = {};
  return lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode);
}

}  // namespace

int KavophotoDumpDB(const char* dir, std::span<const char* const> tables) {
  if (!removeSpecialFiles(dir) || !canStage(tables)) {
    return -1;
  }
  const std::vector<std::string_view> staged = stageTables(tables);
  const int result = makeArchive(dir, tables, staged);
  unstageTables(tables);
  removeMembers(dir);
  return result;
}

int KavophotoCopyThemeDir(const char* dir) {
  const std::string live = "/var/packages/Lumora/etc/blog/";
  const std::string copies = joinPath(dir, "theme_bak");
  const Directory themes(opendir(live.c_str()));
  if (!themes) {
    KAVO_LOG("KavophotoCopyThemeDir : Fail to open theme dir.\n");
    return -1;
  }
  removeThemeCopy(dir);
  constexpr mode_t kMode = 0777;
  if (mkdir(copies.c_str(), kMode) != 0) {
    KAVO_LOG("KavophotoCopyThemeDir : Fail to create theme_bak dir.\n");
    return -1;
  }
  while (const dirent* entry = readdir(themes.get())) {
    const std::string theme = joinPath(live, entry->d_name);
    if (!isPlainFile(*entry, theme)) {
      continue;
    }
    KAVOUtils::ProcessRunner copy("/bin/cp", "/bin/cp", "-pf", theme.c_str(), copies.c_str());
    // A pipe or a device among the themes would keep cp waiting.
    if (!openToRead(theme) || copy.run(true, false) < 0) {
      KAVO_LOG("KavophotoCopyThemeDir: failed to copy %s.\n", entry->d_name);
    }
  }
  return 0;
}

void removeThemeCopy(const std::string& dir) {
  const std::string copies = joinPath(dir, "theme_bak");
  if (!exists(copies)) {
    return;
  }
  KAVOUtils::ProcessRunner remove("/bin/rm", "/bin/rm", "-rf", copies.c_str());
  if (remove.run(true, false) < 0) {
    KAVO_LOG("KavophotoDumpDB failed when rm theme_bak.\n");
  }
}
