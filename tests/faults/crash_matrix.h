#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/named_rows.h"

// The tool killed at a chosen point of its work, and the same command run again to its end.
namespace crash {

enum class Mode { kBackup, kRestoreSkip, kRestoreOverwrite, kImport };

inline constexpr Mode kModes[] = {Mode::kBackup, Mode::kRestoreSkip, Mode::kRestoreOverwrite, Mode::kImport};

std::string nameOf(Mode mode);
// The same as a part of a test's name.
std::string testName(Mode mode);

// SIGKILL just before or just after the external program or the statement of this number, counted from 1.
struct KillPoint {
  enum class At { kProgram, kStatement };
  At at = At::kProgram;
  long number = 0;
  bool after = false;
  // A statement by what it holds, instead of its number.
  std::string text;
};

std::string nameOf(const KillPoint& point);

// What the run leaves that is looked at.
struct Outcome {
  std::map<std::string, std::vector<std::string>> contents;
  std::vector<std::string> structure;
  named::Tables rows;
  // The rules of the smart albums with names in the place of numbers.
  std::vector<std::string> smartAlbums;
  std::string settings;
  std::map<std::string, std::string> themes;
  // The rows in the archive that a backup made, as text.
  std::vector<std::string> archive;
  std::vector<std::string> messages;
};

// A run that nothing happens to, on the same rows and files.
struct Reference {
  Mode mode = Mode::kBackup;
  Outcome before;
  Outcome after;
  long programs = 0;
  long statements = 0;
};

Reference undisturbedRun(Mode mode);
// The same, run once in the life of the process.
const Reference& referenceOf(Mode mode);

// All programs, and every `step`th statement from the `first` on, each before and after.
std::vector<KillPoint> killPoints(const Reference& reference, long first, long step);

struct Trial {
  // Rows that the database must hold now and does not.
  long rowsLost = 0;
  // Whatever else is not as it must be, and each lost row, in words.
  std::vector<std::string> faults;
};

// Kills a run at each of the points, one run after the other on what the one before left, and then runs to the end.
Trial killAndRunAgain(const Reference& reference, const std::vector<KillPoint>& points);
// The second half of it, after whatever disturbed the first run.
Trial runAgain(const Reference& reference);

// Lays out the rows and files that every trial of a mode starts from.
void layOut(Mode mode);
// The smart-album file as it was before the run. A run that came to its end has translated the numbers in it.
void putSmartAlbumsBack();
std::vector<std::string> commandLine(Mode mode);
// Kills the tool at the point; false, with the run at its end, when it did not get there. Its programs are the real
// ones again afterwards.
bool runAndKill(Mode mode, const KillPoint& point);

}  // namespace crash
