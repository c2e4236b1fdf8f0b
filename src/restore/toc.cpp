#include "restore/toc.h"

#include <algorithm>

#include "platform/files.h"
#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/text.h"

namespace {

bool writeTableEntries(const std::string& path, std::string_view listing) {
  File file = openToWrite(path);
  if (!file) {
    KAVO_LOG("Failed to open file: %s.\n", path.c_str());
    return false;
  }
  const std::string entries = tableEntries(listing);
  std::fwrite(entries.data(), 1, entries.size(), file.get());
  if (!closeWritten(std::move(file))) {
    KAVO_LOG("Failed to write file: %s.\n", path.c_str());
    return false;
  }
  return true;
}

}  // namespace

std::string tableEntries(std::string_view listing) {
  std::string entries;
  while (!listing.empty()) {
    const std::string_view line = listing.substr(0, listing.find('\n'));
    if (line.find("TABLE") != std::string_view::npos) {
      entries.append(line).append("\n");
    }
    listing.remove_prefix(std::min(line.size() + 1, listing.size()));
  }
  return entries;
}

std::optional<std::string> foreignRows(std::string_view listing) {
  constexpr std::string_view kRows = " TABLE DATA ";
  constexpr std::string_view kSchema = "public ";
  while (!listing.empty()) {
    const std::string_view line = listing.substr(0, listing.find('\n'));
    listing.remove_prefix(std::min(line.size() + 1, listing.size()));
    const std::size_t at = line.find(kRows);
    if (line.empty() || line.front() == ';' || at == std::string_view::npos) {
      continue;
    }
    const std::string_view named = line.substr(at + kRows.size());
    const std::string_view table = named.substr(std::min(kSchema.size(), named.size()));
    if (!named.starts_with(kSchema) || !table.substr(0, table.find(' ')).ends_with("_bak")) {
      return std::string(named);
    }
  }
  return std::nullopt;
}

std::optional<std::string> listDump(const std::string& dir) {
  KAVOUtils::ProcessRunner list("/usr/bin/pg_restore", "/usr/bin/pg_restore", "-U", "postgres", "-l",
                                joinPath(dir, "kavophoto_backup.dump").c_str());
  if (list.run(true, true) < 0) {
    KAVO_LOG("Failed when executing commend: %s\n", list.toString().c_str());
    return std::nullopt;
  }
  return list.getCapturedOutput();
}

int makeTocFile(const std::string& dir) {
  const std::optional<std::string> listing = listDump(dir);
  const bool made = listing && writeTableEntries(joinPath(dir, "toc_file"), *listing);
  removeIfThere(joinPath(dir, "toc_file.tmp"));
  return made ? 0 : -1;
}
