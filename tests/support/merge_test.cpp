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

std::string runName(const MergeRun& run) { return modeName(run.mode) + "Window" + std::to_string(run.window); }

std::vector<MergeRun> mergeRuns(const std::vector<int>& windows) {
  std::vector<MergeRun> runs;
  for (const Mode mode : {Mode::Import, Mode::RestoreSkip, Mode::RestoreOverwrite}) {
    for (const int window : windows) {
      runs.push_back({mode, window});
    }
  }
  return runs;
}

void PrintTo(const MergeRun& run, std::ostream* stream) { *stream << runName(run); }

Outcome MergeTest::run(const std::vector<std::string>& arguments, RunOptions options) {
  options.env.push_back("KAVOPHOTO_WINDOW=" + std::to_string(window_.value_or(GetParam().window)));
  return ToolTest::run(arguments, options);
}

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
  std::vector<std::string> arguments = {"-r", directory};
  if (overwrites()) {
    arguments.emplace_back("-o");
  }
  Outcome outcome = run(arguments);
  noteCopiesLeft();
  return outcome;
}

void MergeTest::noteCopiesLeft() {
  for (const std::string& table : tableNames()) {
    const std::string left = "Table " + table + "_bak is left alone, it may be the only copy of its rows: ";
    const Rows kind = live().rows("SELECT (SELECT relkind FROM pg_class WHERE oid = to_regclass('public." + table +
                                  "')) WHERE to_regclass('public." + table + "_bak') IS NOT NULL");
    if (kind == Rows{{"(null)"}}) {
      copiesLeft_.push_back(left + "there is no table " + table + ". The next run renames it to " + table + ".");
    } else if (!kind.empty() && kind != Rows{{"r"}}) {
      copiesLeft_.push_back(left + "table " + table + " exists too, and no restore made " + table +
                            "_bak. Compare the two, drop or rename the one that is not needed, and run again.");
    }
  }
}

void MergeTest::expectMessages(std::vector<std::string> expected) {
  expected.insert(expected.end(), copiesLeft_.begin(), copiesLeft_.end());
  copiesLeft_.clear();
  ToolTest::expectMessages(expected);
}

}  // namespace appliance
