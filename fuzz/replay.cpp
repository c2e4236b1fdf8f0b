#include <cstdio>
#include <filesystem>
#include <string>

#include "platform/file_update.h"
#include "scratch_file.h"

// Runs a fuzzer's checks on every file of a folder; fails when there is none.
int main(int count, char** arguments) {
  int runs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(count > 1 ? arguments[1] : ".")) {
    std::string text;
    require(readWholeFile(entry.path(), text), "an input can be read");
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    ++runs;
  }
  std::printf("%d inputs\n", runs);
  return runs > 0 ? 0 : 1;
}
