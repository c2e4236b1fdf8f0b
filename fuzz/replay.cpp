#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "scratch_file.h"

// Runs a fuzzer's checks on every file of a folder; fails when there is none.
int main(int count, char** arguments) {
  int runs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(count > 1 ? arguments[1] : ".")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    ++runs;
  }
  std::printf("%d inputs\n", runs);
  return runs > 0 ? 0 : 1;
}
