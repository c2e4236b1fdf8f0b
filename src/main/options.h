#pragma once

#include <optional>
#include <string>

enum class Mode { kNone, kImport, kExport, kBackup, kRestore };

// What the command line asks for. Of several modes the last one counts, with its path.
struct Options {
  Mode mode = Mode::kNone;
  // A directory prefix: file names are put right behind it.
  std::string path;
  std::optional<std::string> temporaryDatabase;
};

// Reads the command line into `options` and sets gIsOverwiroteMode for -o and -i. False, at once, for -h, an unknown
// option or a missing argument.
bool parseOptions(int count, char** arguments, Options& options);
