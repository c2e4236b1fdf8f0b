#include "restore/toc.h"
#include "scratch_file.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string listing(data, data + size);
  const std::string entries = tableEntries(listing);
  require(entries.empty() || entries.back() == '\n', "every entry is a line");
  require(entries.size() <= listing.size() + 1, "nothing is added but the last newline");
  require(tableEntries(entries) == entries, "the filtered list passes the filter");
  std::size_t start = 0;
  while (start < entries.size()) {
    const std::size_t end = entries.find('\n', start);
    const std::string line = entries.substr(start, end - start);
    require(line.find("TABLE") != std::string::npos, "only table entries are kept");
    require(listing.find(line) != std::string::npos, "an entry is a line of the listing");
    start = end + 1;
  }
  return 0;
}
