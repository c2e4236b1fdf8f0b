#include "support/merge_test.h"

namespace appliance {

std::string modeName(Mode mode) {
  switch (mode) {
    case Mode::Import:
      return "Import";
    case Mode::RestoreSkip:
      return "RestoreSkip";
    case Mode::RestoreOverwrite:
      return "RestoreOverwrite";
  }
  return "Unknown";
}

void PrintTo(Mode mode, std::ostream* stream) { *stream << modeName(mode); }

Outcome MergeTest::merge(const ArchiveOptions& options) {
  source();
  const std::string directory = workDirectory();
  if (imports()) {
    writeAccountFiles(directory, "other");
    if (options.users) {
      writeFile(directory + "kavophoto_backup_hox_account.txt", *options.users);
    }
    if (options.groups) {
      writeFile(directory + "kavophoto_backup_hox_group_account.txt", *options.groups);
    }
    return run({"-i", directory, "-d", "other"});
  }
  makeArchive(directory, "other", options);
  if (overwrites()) {
    return run({"-r", directory, "-o"});
  }
  return run({"-r", directory});
}

}  // namespace appliance
