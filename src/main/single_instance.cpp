#include "main/single_instance.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/handles.h"
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

void removePidFile() {
  if (access(kPidFile, F_OK) == 0) {
    unlink(kPidFile);
  }
}
