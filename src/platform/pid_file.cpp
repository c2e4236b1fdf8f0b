#include "platform/pid_file.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>

#include "platform/handles.h"

bool KLIBCProcAliveByPidFile(const char* path) {
  const File file(std::fopen(path, "re"));
  char text[32] = {};
  if (!file || std::fgets(text, sizeof text, file.get()) == nullptr) {
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
