#pragma once

#include <string>
#include <vector>

namespace bench {

// What is measured. The names are those in the tables and the chart.
namespace step {
inline constexpr const char* kBackup = "backup";
inline constexpr const char* kBackupPrograms = "pg_dump, tar, 66 psql";
inline constexpr const char* kImportEmpty = "import, empty live";
inline constexpr const char* kImportFull = "import, all present";
inline constexpr const char* kImportFullOther = "import, all present, other commit";
inline constexpr const char* kRestoreEmpty = "restore, empty live";
inline constexpr const char* kRestoreOverEmpty = "restore -o, empty live";
inline constexpr const char* kRestoreFull = "restore, all present";
inline constexpr const char* kRestoreOverFull = "restore -o, all present";
inline constexpr const char* kRestoreOverFullOther = "restore -o, all present, other commit";
inline constexpr const char* kLogMerge = "log merge into as many";
inline constexpr const char* kRepairRestore = "path repair, restore";
inline constexpr const char* kRepairImport = "path repair, import";
inline constexpr const char* kImages = "photos alone, tool";
inline constexpr const char* kImagesPlain = "photos alone, plain loop";
inline constexpr const char* kImagesBusy = "photos alone, tool, busy";
inline constexpr const char* kImagesPlainBusy = "photos alone, plain loop, busy";
}  // namespace step

// One measured step: the median of its runs.
struct Figure {
  std::string step;
  long rows = 0;
  double seconds = 0;
  // Largest resident size of the tool; 0 for other programs.
  long peakKilobytes = 0;
};

enum class Kind {
  // Every step, at a small size and at all rows.
  kOrdinary,
  // The same on a server whose commits take 10 ms.
  kSlowDisk,
  // The photos alone, with and without other processes at work.
  kBusy,
  // Only the steps that goals for a million photos need, at a small size and at all rows.
  kMillion,
  // The merges into what is already there, against the tool of another commit.
  kAgainst,
};

struct Plan {
  Kind kind = Kind::kOrdinary;
  long rows = 20000;
  // For kAgainst: the other commit's name, and its tool inside the appliance.
  std::string otherCommit;
  std::string otherTool;
};

// The figure of a step at a size; null when it was not measured.
const Figure* findFigure(const std::vector<Figure>& figures, const std::string& step, long rows);
// The figure of the same step at the smallest size below that of `figure`; null when there is none.
const Figure* smallestBelow(const std::vector<Figure>& figures, const Figure& figure);
// The exponent of the growth from the smallest size of the step to that of `figure`: 1 is linear. 0 when no smaller
// size was measured.
double growthExponent(const std::vector<Figure>& figures, const Figure& figure);

// A requirement and what was measured for it.
struct Goal {
  std::string what;
  std::string figure;
  std::string target;
  // "reached", "MISSED", or why it cannot be told from this run.
  std::string state;
};
std::vector<Goal> judge(const Plan& plan, const std::vector<Figure>& figures);

// Two times to compare: `seconds` should be at most `target` times `reference`.
struct Comparison {
  std::string what;
  std::string reference;
  double share = 0;
  double target = 0;
};
// Those of the goals that compare two times and whose times were both measured.
std::vector<Comparison> compare(const Plan& plan, const std::vector<Figure>& figures);

}  // namespace bench
