#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "backup/archive.h"
#include "main/export.h"
#include "main/import.h"
#include "main/options.h"
#include "main/path_check.h"
#include "main/registry.h"
#include "main/single_instance.h"
#include "platform/banner.h"
#include "platform/database.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/run_lock.h"
#include "platform/text.h"
#include "restore/restore.h"
#include "restore/staging.h"

namespace {

void printUsage() {
  printProgramBanner();
  std::puts(
      "Usage: kavophoto_backup [-r|-b|-i|-e] p [-d temp_db_name] [-o]\n"
      "\t   -b Backup photo database.\n"
      "\t   -e [export_path] Export photo database.\n"
      "\t   -i [import_path] -d [temp_db_name]:Import photo database.\n"
      "\t   -r Restore photo database.\n"
      "\t\tp Path to store backup file or to get restore file.\n"
      "\t   -o Overwrite mode for restoring photo database. Default is skip mode.\n");
}

bool pathExists(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0) {
    return true;
  }
  const int error = errno;
  std::puts("Input path doesn't exist.\n");
  printUsage();
  KAVO_LOG("Input path (%s) doesn't exist, errno=%s.", path.c_str(), std::strerror(error));
  return false;
}

// The backup works in other directories than the one the path was given in. A path stays the plain prefix that it is.
std::string absolutePath(const std::string& path) {
  if (path.front() == '/') {
    return path;
  }
  const AllocatedText directory(getcwd(nullptr, 0));
  return directory ? formatText("%s/%s", directory.get(), path.c_str()) : path;
}

int restorePhotoDatabase(const std::string& path) {
  if (KavophotoRestoreDB(path.c_str(), {kTableList, kMergeRoutines, KavophotoCheckPath}) < 0) {
    KAVO_LOG("Cant restore Photo DB.\n");
    return -1;
  }
  const std::string archive = joinPath(path, "kavophoto_backup.tar.gz");
  if (access(archive.c_str(), F_OK) == 0 && std::remove(archive.c_str()) != 0) {
    KAVO_LOG("Failed to remove %s (%s)", archive.c_str(), std::strerror(errno));
  }
  return 0;
}

// Nobody but syslog's readers learns of a failed backup or export: both end with status 0.
int runMode(const Options& options) {
  switch (options.mode) {
    case Mode::kBackup:
      KavophotoDumpDB(options.path.c_str(), kTableList);
      return 0;
    case Mode::kExport:
      exportHostAccounts(options.path);
      return 0;
    case Mode::kImport:
      return importDatabase(options.path, *options.temporaryDatabase);
    case Mode::kRestore:
      return restorePhotoDatabase(options.path);
    case Mode::kNone:
      break;
  }
  return -1;
}

// A file name that was cut to its capacity would name another file, or the directory itself.
bool directoryFits(const std::string& path) {
  // The longest of the names that are added to it; the file of the groups is read with a slash before its name.
  const bool fits = !joinPath(path, "/kavophoto_backup_hox_group_account.txt").empty();
  if (!fits) {
    KAVO_LOG("The path of the directory is too long (%zu bytes): with the names of the files it must stay below %zu.",
             path.size(), kPathCapacity);
  }
  return fits;
}

// Nothing was done; the status is that of the mode's own failure.
int refuseMode(Mode mode) {
  if (mode == Mode::kRestore) {
    KAVO_LOG("Cant restore Photo DB.\n");
  }
  return mode == Mode::kBackup || mode == Mode::kExport ? 0 : -1;
}

int refuseSecondRun() {
  KAVO_LOG("kavophoto_backup is already running.\n");
  return -1;
}

int run(int count, char** arguments) {
  Options options;
  if (!parseOptions(count, arguments, options)) {
    printUsage();
    return -1;
  }
  if (!pathExists(options.path)) {
    return -1;
  }
  options.path = absolutePath(options.path);
  if (!takeSingleInstanceGuard()) {
    return refuseSecondRun();
  }
  if (options.mode == Mode::kImport && !options.temporaryDatabase) {
    printUsage();
    return -1;
  }
  if (!directoryFits(options.path)) {
    return refuseMode(options.mode);
  }
  // A run that reaches another server, or none, is not kept out by the lock on the server.
  const std::optional<Descriptor> directoryLock = lockDirectory(options.path);
  if (!directoryLock) {
    return refuseSecondRun();
  }
  // The pid file keeps another run out only as long as nobody removes it.
  if (takeRunLock() == RunLock::kHeldByAnother) {
    return refuseSecondRun();
  }
  KAVODBSpillDirectorySet(options.path.c_str());
  // An earlier run that was killed may have left the only copy of live rows under their staged names.
  recoverStagedTables(kTableList);
  if (options.mode == Mode::kImport || options.mode == Mode::kExport) {
    reportForeignTables(kTableList);
  }
  return runMode(options);
}

}  // namespace

int main(int count, char** arguments) {
  // Whoever starts the tool may have chosen not to hear of its children. Then nobody would tell how the programs ended.
  std::signal(SIGCHLD, SIG_DFL);
  const int status = run(count, arguments);
  removePidFile();
  return status;
}
