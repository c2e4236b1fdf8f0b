#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "support/named_rows.h"

// The tool killed at a chosen point of its work, and the same command run again to its end. What another command finds
// is looked at in next_run.h, a second run beside the first in company.h.
namespace crash {

enum class Mode { kBackup, kRestoreSkip, kRestoreOverwrite, kImport, kExport };

inline constexpr Mode kEveryMode[] = {Mode::kBackup, Mode::kRestoreSkip, Mode::kRestoreOverwrite, Mode::kImport,
                                      Mode::kExport};
// An export changes nothing that could be lost.
inline constexpr Mode kModes[] = {Mode::kBackup, Mode::kRestoreSkip, Mode::kRestoreOverwrite, Mode::kImport};

// Whether a run of this mode adds rows to the live tables, and whether it replaces rows that are there.
bool merges(Mode mode);
bool overwrites(Mode mode);

// How many rows of a merge the tool takes at a time from now on, as its environment says; 0 is its own choice. The
// references below belong to the window in which they were made.
void useWindow(int rows);
int window();

std::string nameOf(Mode mode);
// The same as a part of a test's name.
std::string testName(Mode mode);

// What gets the signal: the tool alone, or its whole process group, which is its own.
enum class Scope { kTool, kGroup };
std::string nameOf(Scope scope);
// "SIGKILL" or "SIGTERM".
std::string signalName(int signal);

// A signal at the external program or the statement of this number, counted from 1: just before it, just after it, or
// while the program runs. Programs that are not the tool's own children any more then are orphans.
struct KillPoint {
  enum class At { kProgram, kStatement };
  enum class When { kBefore, kAfter, kWhile };
  At at = At::kProgram;
  long number = 0;
  When when = When::kBefore;
  // A statement by what it holds, instead of its number.
  std::string text;
  int signal = SIGKILL;
  Scope scope = Scope::kTool;
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
// The same, run once in the life of the process for each window.
const Reference& referenceOf(Mode mode);

// Every `programStep`th program, before, while it runs and after, and every `step`th statement, before and after, each
// from the `first` on.
std::vector<KillPoint> killPoints(const Reference& reference, long first, long programStep, long step);

struct Trial {
  // Rows that the database must hold now and does not.
  long rowsLost = 0;
  // Photos, users and groups with what belongs to them that are neither as before nor as after.
  long halfMerged = 0;
  // Rows that it holds too often.
  long rowsDoubled = 0;
  // Tables that are missing under their own name, and staged names that are still taken.
  long wrongNames = 0;
  // Whatever is not as it must be, in words: each of the above, and everything else.
  std::vector<std::string> faults;

  long otherFaults() const {
    return static_cast<long>(faults.size()) - rowsLost - halfMerged - rowsDoubled - wrongNames;
  }
};

// Kills a run at each of the points, one run after the other on what the one before left, and then runs to the end.
// Where SIGKILL ends a merge at a statement, the live rows are looked at by another session while the tool is held
// there and when the server has ended its sessions: none may be missing, and none half merged.
Trial killAndRunAgain(const Reference& reference, const std::vector<KillPoint>& points);
// The second half of it, after whatever disturbed the first run.
Trial runAgain(const Reference& reference);

// Lays out the rows and files that every trial of a mode starts from.
void layOut(Mode mode);
// The smart-album file as it was before the run. A run that came to its end has translated the numbers in it.
void putSmartAlbumsBack();
std::vector<std::string> commandLine(Mode mode);
// Kills the tool at the point; false, with the run at its end, when it did not get there. Its programs are the real
// ones again afterwards. Without arguments it is the mode's own command.
bool runAndKill(Mode mode, const KillPoint& point);
bool runAndKill(const std::vector<std::string>& arguments, const KillPoint& point);
// The same, with the live rows looked at as told above when it is the first run.
bool runAndKill(Trial& trial, const Reference& reference, const std::vector<std::string>& arguments,
                const KillPoint& point, bool isFirst);

// The parts of the above that other trials need too.

// Starts the tool as the leader of a process group of its own, to be handed to waitTool.
pid_t startInItsOwnGroup(const std::vector<std::string>& arguments, const std::vector<std::string>& environment);
// Lays out what every mode finds: rows, files, an archive and the account files of the other database.
void layOutForEveryMode();
// Puts `atNumber`, a part of a shell script, in front of the program that the tool starts as this number; 0 never
// comes. The programs are counted until the real ones are brought back.
void countPrograms(long number, const std::string& atNumber);
long countedPrograms();
void bringProgramsBack();
// The rows of the archive in this directory, as text.
std::vector<std::string> archivedRows(const std::string& directory);
// The elements that are missing, as often as they are missing.
std::vector<std::string> missing(std::vector<std::string> expected, std::vector<std::string> found);
void lose(Trial& trial, const std::string& table, const std::vector<std::string>& rows);
void gain(Trial& trial, const std::string& table, const std::vector<std::string>& rows);
// Every live table must be there under its own name, and unless `stagedMayStay` no table under a staged one.
void checkTables(Trial& trial, bool stagedMayStay);
// Every message must be one of the expected ones.
void checkMessages(Trial& trial, const std::vector<std::string>& expected, const std::vector<std::string>& found);
// The server ends a session some time after its client. False when it does not within a few seconds.
bool waitUntilNoSessionIsLeft();
// What the run leaves now; `archive` is the directory of the archive to read, or empty.
Outcome look(const std::string& archive);

}  // namespace crash
