#include "backup/archive_check.h"
#include "scratch_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = scratchFile(data, size);
  const bool isWhole = archiveIsWhole(path, "");
  require(archiveIsWhole(path, "") == isWhole, "the same archive gets the same answer");
  // The tail of a gzip stream is no ballast.
  if (isWhole) {
    require(!archiveIsWhole(scratchFile(data, size - 1), ""), "an archive without its last byte is not whole");
  }
  return 0;
}
