#include "main/single_instance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/log.h"
#include "platform/pid_file.h"
#include "platform/text.h"

namespace {

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";

void writePidFile() {
  // In a directory that everybody may write to, only a file of our own making is written: no link is followed and
  // nothing that stands there already is opened.
  const Descriptor file(open(kPidFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) {
    const int error = errno;
    KAVO_LOG("Failed to open %s, errno=[%d/%s]\n", kPidFile, error, std::strerror(error));
    return;
  }
  const std::string pid = formatText("%d", static_cast<int>(getpid()));
  if (write(file.get(), pid.data(), pid.size()) != static_cast<ssize_t>(pid.size())) {
    KAVO_LOG("Failed to write %s (%s)", kPidFile, std::strerror(errno));
  }
}

}  // namespace

bool takeSingleInstanceGuard() {
  if (access(kPidFile, F_OK) == 0) {
    if (KLIBCProcAliveByPidFile(kPidFile)) {
      return false;
    }
    removePidFile();
  }
  writePidFile();
  return true;
}

std::optional<Descriptor> lockDirectory(const std::string& path) {
  constexpr int kAttempts = 20;
  constexpr auto kPause = std::chrono::milliseconds(50);
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  Descriptor lock(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock) {
    return lock;
  }
  // A program that a killed run was about to start holds the run's lock until it dies a moment later.
  for (int attempt = 1; flock(lock.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if (errno != EWOULDBLOCK) {
      return Descriptor();
    }
    if (attempt == kAttempts) {
      return std::nullopt;
    }
    std::this_thread::sleep_for(kPause);
  }
  return lock;
}

void removePidFile() {
  if (access(kPidFile, F_OK) == 0) {
    unlink(kPidFile);
  }
}
