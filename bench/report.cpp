#include "report.h"

#include <algorithm>
#include <cmath>

#include "platform/text.h"

namespace bench {
namespace {

constexpr long kImageRows = 10000;
constexpr long kImageRowsSlowDisk = 1000;
constexpr long kAgainstRows = 10000;
constexpr long kGoalRows = 100000;
constexpr long kMillionRows = 1000000;
constexpr double kImagesTarget = 9;
constexpr double kImagesTargetSlowDisk = 100;
constexpr double kImagesTargetBusy = 4;
constexpr double kBusyTarget = 1.5;
constexpr double kAgainstTarget = 5;
constexpr double kGrowthTarget = 1.05;
constexpr double kRestoreTarget = 1.25;
constexpr double kBackupTarget = 1.1;
constexpr double kLogTarget = 2.5;
constexpr double kRepairTarget = 2.5;
constexpr double kImportSeconds = 300;
constexpr double kRestoreSeconds = 330;
constexpr double kRestoreOverFullSeconds = 400;
constexpr double kMemoryTarget = 32;
constexpr double kKilobytesOfMegabyte = 1024;

constexpr const char* kNotMeasured = "not measured";

std::string state(bool reached) { return reached ? "reached" : "MISSED"; }

std::string toldAt(long rows) { return "told at " + withCommas(rows) + " rows"; }

// The largest size at which a step was measured.
const Figure* largest(const std::vector<Figure>& figures, const std::string& step) {
  const Figure* found = nullptr;
  for (const Figure& figure : figures) {
    if (figure.step == step && (found == nullptr || figure.rows > found->rows)) {
      found = &figure;
    }
  }
  return found;
}

// A goal about the times of two steps.
struct RatioGoal {
  const char* what;
  const char* step;
  const char* reference;
  // The goal: the step is `times` as fast as the reference or faster (kFaster), or takes at most `times` as long
  // (kSlower).
  enum class Direction { kFaster, kSlower } direction;
  double times;
  // Fewer rows than this do not tell.
  long rows;
};

std::vector<RatioGoal> ratioGoals(Kind kind) {
  using Direction = RatioGoal::Direction;
  const RatioGoal images = {"photos against the plain loop",
                            step::kImages,
                            step::kImagesPlain,
                            Direction::kFaster,
                            kImagesTarget,
                            kImageRows};
  const RatioGoal restore = {"restore against import, empty live",
                             step::kRestoreEmpty,
                             step::kImportEmpty,
                             Direction::kSlower,
                             kRestoreTarget,
                             kGoalRows};
  switch (kind) {
    case Kind::kOrdinary:
      return {images,
              restore,
              {"backup against pg_dump, tar, 66 psql", step::kBackup, step::kBackupPrograms, Direction::kSlower,
               kBackupTarget, 0}};
    case Kind::kSlowDisk:
      return {{"photos against the plain loop, 10 ms a commit", step::kImages, step::kImagesPlain, Direction::kFaster,
               kImagesTargetSlowDisk, kImageRowsSlowDisk}};
    case Kind::kBusy:
      return {images,
              {"photos against the plain loop, busy", step::kImagesBusy, step::kImagesPlainBusy, Direction::kFaster,
               kImagesTargetBusy, kImageRows},
              {"photos, busy against quiet", step::kImagesBusy, step::kImages, Direction::kSlower, kBusyTarget,
               kImageRows}};
    case Kind::kMillion:
      return {restore};
    case Kind::kAgainst:
      return {{"import, all present, against the other commit", step::kImportFull, step::kImportFullOther,
               Direction::kFaster, kAgainstTarget, kAgainstRows},
              {"restore -o, all present, against the other commit", step::kRestoreOverFull, step::kRestoreOverFullOther,
               Direction::kFaster, kAgainstTarget, kAgainstRows}};
  }
  return {};
}

Goal judgeRatio(const std::vector<Figure>& figures, const RatioGoal& ratioGoal) {
  const bool faster = ratioGoal.direction == RatioGoal::Direction::kFaster;
  const char* const unit = faster ? "times as fast" : "times as long";
  Goal goal = {ratioGoal.what, kNotMeasured,
               formatText("at %s %g %s", faster ? "least" : "most", ratioGoal.times, unit), toldAt(ratioGoal.rows)};
  const Figure* figure = largest(figures, ratioGoal.step);
  const Figure* reference = largest(figures, ratioGoal.reference);
  if (figure == nullptr || reference == nullptr || figure->rows != reference->rows) {
    return goal;
  }
  const double ratio = faster ? reference->seconds / figure->seconds : figure->seconds / reference->seconds;
  goal.figure = formatText("%.2f %s, %s rows", ratio, unit, withCommas(figure->rows).c_str());
  if (figure->rows >= ratioGoal.rows) {
    goal.state = state(faster ? ratio >= ratioGoal.times : ratio <= ratioGoal.times);
  }
  return goal;
}

Goal growthGoal(const std::vector<Figure>& figures, const char* step) {
  Goal goal = {std::string("growth of ") + step, kNotMeasured, formatText("exponent at most %.2f", kGrowthTarget),
               toldAt(kGoalRows)};
  const Figure* figure = largest(figures, step);
  const Figure* small = figure != nullptr ? smallestBelow(figures, *figure) : nullptr;
  if (small == nullptr) {
    return goal;
  }
  const double exponent = growthExponent(figures, *figure);
  goal.figure = formatText("exponent %.3f, %s to %s rows", exponent, withCommas(small->rows).c_str(),
                           withCommas(figure->rows).c_str());
  if (figure->rows >= kGoalRows) {
    goal.state = state(exponent <= kGrowthTarget);
  }
  return goal;
}

Goal secondsGoal(const std::vector<Figure>& figures, const char* step, long rows, double target) {
  Goal goal = {std::string(step) + ", " + withCommas(rows), kNotMeasured, formatText("at most %g s", target),
               toldAt(rows)};
  if (const Figure* figure = findFigure(figures, step, rows)) {
    goal.figure = formatText("%.2f s", figure->seconds);
    goal.state = state(figure->seconds <= target);
  }
  return goal;
}

Goal memoryGoal(const std::vector<Figure>& figures) {
  Goal goal = {"peak memory of the tool", kNotMeasured, formatText("at most %g MiB", kMemoryTarget),
               toldAt(kMillionRows)};
  const auto most = std::max_element(figures.begin(), figures.end(), [](const Figure& one, const Figure& other) {
    return one.peakKilobytes < other.peakKilobytes;
  });
  if (most == figures.end()) {
    return goal;
  }
  const double peak = static_cast<double>(most->peakKilobytes) / kKilobytesOfMegabyte;
  const Figure* import = largest(figures, step::kImportEmpty);
  const bool large = import != nullptr && import->rows >= kMillionRows;
  goal.figure = formatText("%.1f MiB (%s, %s rows)", peak, most->step.c_str(), withCommas(most->rows).c_str());
  if (large || peak > kMemoryTarget) {
    goal.state = state(peak <= kMemoryTarget);
  }
  return goal;
}

using Cells = std::vector<std::string>;

Cells figureCells(const std::vector<Figure>& figures, const Figure& figure) {
  const double exponent = growthExponent(figures, figure);
  return {figure.step,
          withCommas(figure.rows),
          formatText("%.2f", figure.seconds),
          withCommas(std::llround(static_cast<double>(figure.rows) / std::max(figure.seconds, 1e-9))),
          figure.peakKilobytes == 0
              ? "-"
              : formatText("%.1f", static_cast<double>(figure.peakKilobytes) / kKilobytesOfMegabyte),
          exponent == 0 ? "-" : formatText("%.2f", exponent)};
}

struct Table {
  Cells heading;
  std::vector<Cells> lines;
  // Columns from here on hold numbers.
  std::size_t firstNumber = 0;
};

Table figureTable(const std::vector<Figure>& figures) {
  Table table = {{"step", "rows", "seconds", "rows/s", "peak MiB", "growth"}, {}, 1};
  for (const Figure& figure : figures) {
    table.lines.push_back(figureCells(figures, figure));
  }
  return table;
}

Table goalTable(const std::vector<Goal>& goals) {
  Table table = {{"to reach", "measured", "goal", ""}, {}, 4};
  for (const Goal& goal : goals) {
    table.lines.push_back({goal.what, goal.figure, goal.target, goal.state});
  }
  return table;
}

std::string plainLine(const Table& table, const Cells& cells, const std::vector<std::size_t>& widths) {
  std::string line;
  for (std::size_t column = 0; column < cells.size(); ++column) {
    const std::string padding(widths[column] - cells[column].size(), ' ');
    const bool number = column >= table.firstNumber;
    line += (number ? padding + cells[column] : cells[column] + padding) + "  ";
  }
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

std::string plainTable(const Table& table) {
  std::vector<std::size_t> widths;
  for (std::size_t column = 0; column < table.heading.size(); ++column) {
    std::size_t width = table.heading[column].size();
    for (const Cells& cells : table.lines) {
      width = std::max(width, cells[column].size());
    }
    widths.push_back(width);
  }
  std::string text = plainLine(table, table.heading, widths);
  for (const Cells& cells : table.lines) {
    text += plainLine(table, cells, widths);
  }
  return text;
}

std::string markdownLine(const Cells& cells) {
  std::string line = "|";
  for (const std::string& cell : cells) {
    line += " " + cell + " |";
  }
  return line + "\n";
}

std::string markdownTable(const Table& table) {
  std::string text = markdownLine(table.heading);
  text += "|";
  for (std::size_t column = 0; column < table.heading.size(); ++column) {
    text += column >= table.firstNumber ? " ---: |" : " --- |";
  }
  text += "\n";
  for (const Cells& cells : table.lines) {
    text += markdownLine(cells);
  }
  return text;
}

std::string headline(const Plan& plan) {
  std::string photos = withCommas(plan.rows) + " photos";
  switch (plan.kind) {
    case Kind::kSlowDisk:
      return photos + ", a commit takes 10 ms";
    case Kind::kBusy:
      return photos + ", quiet and beside as many busy processes as there are processors";
    case Kind::kAgainst:
      return photos + ", the other commit is " + plan.otherCommit;
    case Kind::kOrdinary:
    case Kind::kMillion:
      break;
  }
  return photos;
}

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

std::string withCommas(long long number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3) {
    text.insert(at - 3, ",");
  }
  return text;
}

const Figure* findFigure(const std::vector<Figure>& figures, const std::string& step, long rows) {
  const auto found = std::find_if(figures.begin(), figures.end(),
                                  [&](const Figure& figure) { return figure.step == step && figure.rows == rows; });
  return found != figures.end() ? &*found : nullptr;
}

const Figure* smallestBelow(const std::vector<Figure>& figures, const Figure& figure) {
  const Figure* found = nullptr;
  for (const Figure& other : figures) {
    if (other.step == figure.step && other.rows < figure.rows && (found == nullptr || other.rows < found->rows)) {
      found = &other;
    }
  }
  return found;
}

double growthExponent(const std::vector<Figure>& figures, const Figure& figure) {
  const Figure* small = smallestBelow(figures, figure);
  if (small == nullptr || small->rows <= 0 || small->seconds <= 0) {
    return 0;
  }
  return std::log(figure.seconds / small->seconds) /
         std::log(static_cast<double>(figure.rows) / static_cast<double>(small->rows));
}

std::vector<Goal> judge(const Plan& plan, const std::vector<Figure>& figures) {
  std::vector<Goal> goals;
  for (const RatioGoal& goal : ratioGoals(plan.kind)) {
    goals.push_back(judgeRatio(figures, goal));
  }
  if (plan.kind != Kind::kOrdinary && plan.kind != Kind::kMillion) {
    return goals;
  }
  for (const char* step :
       {step::kImportEmpty, step::kImportFull, step::kRestoreEmpty, step::kRestoreOverEmpty, step::kRestoreFull,
        step::kRestoreOverFull, step::kLogMerge, step::kRepairRestore, step::kRepairImport}) {
    if (largest(figures, step) != nullptr) {
      goals.push_back(growthGoal(figures, step));
    }
  }
  goals.push_back(secondsGoal(figures, step::kLogMerge, kGoalRows, kLogTarget));
  goals.push_back(secondsGoal(figures, step::kRepairRestore, kGoalRows, kRepairTarget));
  goals.push_back(secondsGoal(figures, step::kRepairImport, kGoalRows, kRepairTarget));
  goals.push_back(secondsGoal(figures, step::kImportEmpty, kMillionRows, kImportSeconds));
  goals.push_back(secondsGoal(figures, step::kRestoreEmpty, kMillionRows, kRestoreSeconds));
  goals.push_back(secondsGoal(figures, step::kRestoreOverFull, kMillionRows, kRestoreOverFullSeconds));
  goals.push_back(memoryGoal(figures));
  return goals;
}

std::vector<Comparison> compare(const Plan& plan, const std::vector<Figure>& figures) {
  std::vector<Comparison> comparisons;
  for (const RatioGoal& goal : ratioGoals(plan.kind)) {
    const Figure* figure = largest(figures, goal.step);
    const Figure* reference = largest(figures, goal.reference);
    if (figure != nullptr && reference != nullptr) {
      const bool faster = goal.direction == RatioGoal::Direction::kFaster;
      comparisons.push_back(
          {goal.step, goal.reference, figure->seconds / reference->seconds, faster ? 1 / goal.times : goal.times});
    }
  }
  return comparisons;
}

std::string tableText(const Plan& plan, const std::vector<Figure>& figures) {
  return headline(plan) + "\n\n" + plainTable(figureTable(figures)) + "\n" +
         plainTable(goalTable(judge(plan, figures)));
}

std::string tableMarkdown(const Plan& plan, const std::vector<Figure>& figures) {
  return headline(plan) + ":\n\n" + markdownTable(goalTable(judge(plan, figures))) + "\n" +
         markdownTable(figureTable(figures));
}

std::string figuresCsv(const std::vector<Figure>& figures) {
  std::string text = "step,rows,seconds,rows_per_second,peak_kib,growth_exponent\n";
  for (const Figure& figure : figures) {
    const double exponent = growthExponent(figures, figure);
    text += formatText("%s,%ld,%.3f,%.1f,%ld,%s\n", quoted(figure.step).c_str(), figure.rows, figure.seconds,
                       static_cast<double>(figure.rows) / figure.seconds, figure.peakKilobytes,
                       exponent == 0 ? "" : formatText("%.3f", exponent).c_str());
  }
  return text;
}

std::string goalsCsv(const std::vector<Goal>& goals) {
  std::string text = "to_reach,measured,goal,state\n";
  for (const Goal& goal : goals) {
    text += quoted(goal.what) + "," + quoted(goal.figure) + "," + quoted(goal.target) + "," + quoted(goal.state) + "\n";
  }
  return text;
}

}  // namespace bench
