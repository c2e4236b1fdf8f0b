#include "support/appliance.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "support/internals.h"

namespace fs = std::filesystem;

namespace appliance {
namespace {

std::atomic<long> observationCount{0};

std::vector<std::string>& preservedFolders() {
  static std::vector<std::string> paths;
  return paths;
}

void emptyFolder(const std::string& path) {
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    const std::vector<std::string>& kept = preservedFolders();
    if (entry.is_socket() || std::find(kept.begin(), kept.end(), entry.path()) != kept.end()) {
      continue;
    }
    fs::remove_all(entry.path());
  }
}

void makeModeFolder(const std::string& path, mode_t mode) {
  fs::create_directories(path);
  if (chmod(path.c_str(), mode) != 0) {
    internals::failErrno("chmod " + path);
  }
}

void layOutFiles() {
  emptyFolder("/tmp");
  emptyFolder("/var");
  emptyFolder("/etc.defaults");
  makeModeFolder("/var/tmp", 01777);
  makeModeFolder("/var/run", 0755);
  makeModeFolder("/var/services/photo", 0755);
  makeModeFolder("/var/packages/Lumora/etc/blog", 0755);
  makeModeFolder("/var/packages/Lumora/target/photo_scripts", 0755);
  makeModeFolder(internals::kWorkDirectory, 0755);
  writeFile("/etc.defaults/VERSION", "majorversion=\"7\"\nbuildnumber=\"1803\"\n");
  writeFile("/var/packages/Lumora/INFO", "package=\"Lumora\"\nversion=\"6.0\"\n");
  writeFile("/var/packages/Lumora/etc/settings.conf", "site_name=\"Live\"\n");
}

void leave() {
  internals::closeAdministration();
  internals::stopServerAtExit();
  internals::stopSink();
}

}  // namespace

void enter(const EnterOptions& options) {
  internals::enterRoot(options, preservedFolders());
  std::atexit(leave);
  internals::resetAccounts();
  internals::startSink();
  internals::initialiseServer(options);
  internals::makeTemplate();
  reset();
}

void reset() {
  unmountAll();
  restorePrograms();
  internals::resetAccounts();
  internals::ensureDefaultServer();
  internals::dropTestDatabases();
  createDatabase("photo");
  layOutFiles();
  takeMessages();
  takeSanitizerReports();
  internals::resetObservations();
}

long observations() { return observationCount; }

void checked() { ++observationCount; }

std::string toolPath() { return internals::kTool; }

namespace internals {

void fail(const std::string& what) { throw std::runtime_error("appliance: " + what); }

void failErrno(const std::string& what) { fail(what + ": " + strerror(errno)); }

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      failErrno("waitpid");
    }
  }
  return status;
}

void observed() { ++observationCount; }

void resetObservations() { observationCount = 0; }

}  // namespace internals
}  // namespace appliance
