#include "platform/pid_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

#include "platform/files.h"

namespace {

// The file is in a directory that everybody may write to. Believing what anybody else put there would let them turn
// every run away, by the number of any process.
bool isTrusted(const File& file) {
  struct stat status = {};
  return fstat(fileno(file.get()), &status) == 0 && (status.st_uid == 0 || status.st_uid == geteuid());
}

}  // namespace

bool KLIBCProcAliveByPidFile(const char* path) {
  const File file = openToRead(path, Links::kRefused);
  char text[32] = {};
  if (!file || !isTrusted(file) || std::fgets(text, sizeof text, file.get()) == nullptr) {
    return false;
  }
  pid_t pid = 0;
  const auto parsed = std::from_chars(text, text + std::strlen(text), pid);
  if (parsed.ec != std::errc() || pid <= 0) {
    return false;
  }
  // The null signal asks only; a process of another user answers EPERM.
  return kill(pid, 0) == 0 || errno == EPERM;
}
