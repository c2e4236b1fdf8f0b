#include "platform/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/log.h"

namespace {

File openFile(const std::string& path, int flag, const char* mode) {
  constexpr mode_t kMode = 0666;
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flag, kMode);
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

File openToWrite(const std::string& path) { return openFile(path, O_TRUNC, "w"); }

File openToAppend(const std::string& path) { return openFile(path, O_APPEND, "a"); }

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
