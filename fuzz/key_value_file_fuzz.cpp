#include "platform/key_value_file.h"
#include "scratch_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = scratchFile(data, size);
  const SzHashHandle first = KLIBCSzHashAlloc(1);
  require(KLIBCFileGetPair(path.c_str(), *first) >= 0, "any file can be read");
  require(KLIBCFileSetPair(path.c_str(), *first) == 0, "what was read can be written");
  const SzHashHandle again = KLIBCSzHashAlloc(1);
  require(KLIBCFileGetPair(path.c_str(), *again) == static_cast<int>(first->pairs.size()), "every pair was written");
  require(first->pairs == again->pairs, "read, write and read again gives the same pairs in the same order");
  for (const auto& [key, value] : first->pairs) {
    std::string found;
    // A key is asked for as a C string.
    if (key.find('\0') == std::string::npos) {
      require(KLIBCFileGetKeyValue(path.c_str(), key.c_str(), found, value.size() + 1) == 0 && found == value,
              "a single key gives its value");
    }
  }
  return 0;
}
