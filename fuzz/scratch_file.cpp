#include "scratch_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

std::string scratchFile(const std::uint8_t* data, std::size_t size) {
  static const int descriptor = memfd_create("scratch", MFD_CLOEXEC);
  require(ftruncate(descriptor, 0) == 0 && pwrite(descriptor, data, size, 0) == static_cast<ssize_t>(size),
          "the scratch file can be written");
  return "/proc/self/fd/" + std::to_string(descriptor);
}

void require(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
  }
}
