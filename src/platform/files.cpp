#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log.h"

namespace {

// Opening a pipe would wait for somebody at its other end, and a device could do anything; -1 with errno set for those
// as for any failure.
int openOrdinary(const std::string& path, int flags) {
  constexpr mode_t kMode = 0666;
  const int descriptor = open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kMode);
  if (descriptor < 0) {
    return -1;
  }
  struct stat status = {};
  int error = fstat(descriptor, &status) == 0 ? 0 : errno;
  if (error == 0 && !S_ISREG(status.st_mode)) {
    error = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  }
  if (error != 0) {
    close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}

File openFile(const std::string& path, int flags, const char* mode) {
  const int descriptor = openOrdinary(path, flags);
  if (descriptor < 0) {
    return nullptr;
  }
  File file(fdopen(descriptor, mode));
  if (!file) {
    close(descriptor);
  }
  return file;
}

}  // namespace

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool isSpecialFile(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

File openToRead(const std::string& path, Links links) {
  return openFile(path, links == Links::kRefused ? O_RDONLY | O_NOFOLLOW : O_RDONLY, "r");
}

File openToWrite(const std::string& path) { return openFile(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_TRUNC, "w"); }

File openToAppend(const std::string& path) { return openFile(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_APPEND, "a"); }

Descriptor openInPlace(const std::string& path) { return Descriptor(openOrdinary(path, O_WRONLY)); }

bool closeWritten(File file) {
  const bool written = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0;
  const bool closed = std::fclose(file.release()) == 0;
  return written && closed;
}

void removeIfThere(const std::string& path) {
  if (exists(path) && std::remove(path.c_str()) != 0) {
    KAVO_LOG("Failed to remove %s (%s)", path.c_str(), std::strerror(errno));
  }
}

bool removeSpecialFile(const std::string& path) {
  if (!isSpecialFile(path) || unlink(path.c_str()) == 0) {
    return true;
  }
  KAVO_LOG("Failed to remove %s (%s)", path.c_str(), std::strerror(errno));
  return false;
}
