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
inline constexpr const char* kRestoreEmpty = "restore, empty live";
inline constexpr const char* kRestoreOverEmpty = "restore -o, empty live";
inline constexpr const char* kRestoreFull = "restore, all present";
inline constexpr const char* kRestoreOverFull = "restore -o, all present";
inline constexpr const char* kLogMerge = "log merge into as many";
inline constexpr const char* kRepairRestore = "path repair, restore";
inline constexpr const char* kRepairImport = "path repair, import";
inline constexpr const char* kImages = "photos alone, tool";
inline constexpr const char* kImagesPlain = "photos alone, plain loop";
}  // namespace step

// One measured step: the median of its runs.
struct Figure {
  std::string step;
  long rows = 0;
  double seconds = 0;
  long long statements = 0;
  long peakKilobytes = 0;
};

struct Plan {
  long rows = 20000;
  bool slowDisk = false;
  // Only what tells the tool's peak memory: every mode once, into empty live tables.
  bool memoryOnly = false;
};

// The figure of a step at a size; null when it was not measured.
const Figure* findFigure(const std::vector<Figure>& figures, const std::string& step, long rows);
// The exponent of the growth from a tenth of the rows to the rows: 1 is linear. 0 when either was not measured.
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
std::vector<Comparison> compare(const Plan& plan, const std::vector<Figure>& figures);

}  // namespace bench
