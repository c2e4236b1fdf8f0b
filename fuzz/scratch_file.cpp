#include "scratch_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

// In memory where the system keeps such files: the tool writes through no symbolic link, so a descriptor's path will
// not do.
struct ScratchFile {
  ScratchFile() : path(access("/dev/shm", W_OK) == 0 ? "/dev/shm/scratch.XXXXXX" : "/tmp/scratch.XXXXXX") {
    descriptor = mkostemp(path.data(), O_CLOEXEC);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;
  ~ScratchFile() {
    unlink(path.c_str());
    close(descriptor);
  }

  std::string path;
  int descriptor = -1;
};

}  // namespace

std::string scratchFile(const std::uint8_t* data, std::size_t size) {
  static const ScratchFile file;
  require(ftruncate(file.descriptor, 0) == 0 && pwrite(file.descriptor, data, size, 0) == static_cast<ssize_t>(size),
          "the scratch file can be written");
  return file.path;
}

void require(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", property);
    std::abort();
  }
}
