#include "report.h"

#include <algorithm>
#include <cmath>

#include "platform/text.h"

namespace bench {
namespace {

constexpr long kGoalRows = 100000;
constexpr long kMemoryRows = 1000000;
constexpr double kImagesTarget = 1.8;
constexpr double kImagesTargetSlowDisk = 20;
constexpr double kGrowthTarget = 1.1;
constexpr double kRestoreTarget = 1.25;
constexpr double kLogTarget = 60;
constexpr double kRepairTarget = 30;
constexpr double kMemoryTarget = 64;
constexpr double kBackupTarget = 1.1;
constexpr double kKilobytesOfMegabyte = 1024;

constexpr const char* kNotMeasured = "not measured";

std::string state(bool reached) { return reached ? "reached" : "MISSED"; }

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

Goal imagesGoal(const Plan& plan, const std::vector<Figure>& figures) {
  const double target = plan.slowDisk ? kImagesTargetSlowDisk : kImagesTarget;
  Goal goal = {plan.slowDisk ? "photos against the plain loop, 10 ms a commit" : "photos against the plain loop",
               kNotMeasured, formatText("at least %.1f times as fast", target), ""};
  const Figure* tool = largest(figures, step::kImages);
  const Figure* plain = largest(figures, step::kImagesPlain);
  if (tool != nullptr && plain != nullptr) {
    const double ratio = plain->seconds / tool->seconds;
    goal.figure = formatText("%.2f times as fast", ratio);
    goal.state = state(ratio >= target);
  }
  return goal;
}

Goal growthGoal(const std::vector<Figure>& figures, const char* step) {
  Goal goal = {std::string("growth of ") + step, kNotMeasured, formatText("exponent at most %.1f", kGrowthTarget), ""};
  const Figure* figure = findFigure(figures, step, kGoalRows);
  if (figure == nullptr || growthExponent(figures, *figure) == 0) {
    figure = largest(figures, step);
  }
  if (figure == nullptr) {
    return goal;
  }
  const double exponent = growthExponent(figures, *figure);
  if (exponent == 0) {
    return goal;
  }
  goal.figure = formatText("exponent %.2f, %s to %s rows", exponent, withCommas(figure->rows / 10).c_str(),
                           withCommas(figure->rows).c_str());
  goal.state =
      figure->rows < kGoalRows ? "told at " + withCommas(kGoalRows) + " rows" : state(exponent <= kGrowthTarget);
  return goal;
}

Goal restoreGoal(const std::vector<Figure>& figures) {
  Goal goal = {"restore against import, empty live", kNotMeasured, formatText("at most %.2f times", kRestoreTarget),
               ""};
  const Figure* restore = largest(figures, step::kRestoreEmpty);
  const Figure* import = largest(figures, step::kImportEmpty);
  if (restore != nullptr && import != nullptr) {
    const double ratio = restore->seconds / import->seconds;
    goal.figure = formatText("%.2f times, %s rows", ratio, withCommas(restore->rows).c_str());
    goal.state =
        restore->rows < kGoalRows ? "told at " + withCommas(kGoalRows) + " rows" : state(ratio <= kRestoreTarget);
  }
  return goal;
}

Goal secondsGoal(const std::vector<Figure>& figures, const char* step, double target) {
  Goal goal = {std::string(step) + ", " + withCommas(kGoalRows), kNotMeasured, formatText("at most %.0f s", target),
               ""};
  if (const Figure* figure = findFigure(figures, step, kGoalRows)) {
    goal.figure = formatText("%.1f s", figure->seconds);
    goal.state = state(figure->seconds <= target);
  }
  return goal;
}

Goal memoryGoal(const std::vector<Figure>& figures) {
  const Figure* most = nullptr;
  for (const Figure& figure : figures) {
    const bool ofTool = figure.step != step::kImagesPlain && figure.step != step::kBackupPrograms;
    if (ofTool && (most == nullptr || figure.peakKilobytes > most->peakKilobytes)) {
      most = &figure;
    }
  }
  Goal goal = {"peak memory of the tool", kNotMeasured, formatText("at most %.0f MiB", kMemoryTarget), ""};
  if (most == nullptr) {
    return goal;
  }
  const double peak = static_cast<double>(most->peakKilobytes) / kKilobytesOfMegabyte;
  const Figure* import = largest(figures, step::kImportEmpty);
  const bool large = import != nullptr && import->rows >= kMemoryRows;
  goal.figure = formatText("%.1f MiB (%s, %s rows)", peak, most->step.c_str(), withCommas(most->rows).c_str());
  goal.state =
      peak > kMemoryTarget || large ? state(peak <= kMemoryTarget) : "told at " + withCommas(kMemoryRows) + " rows";
  return goal;
}

Goal backupGoal(const std::vector<Figure>& figures) {
  Goal goal = {"backup against pg_dump, tar, 66 psql", kNotMeasured, formatText("at most %.1f times", kBackupTarget),
               ""};
  const Figure* backup = largest(figures, step::kBackup);
  const Figure* programs = largest(figures, step::kBackupPrograms);
  if (backup != nullptr && programs != nullptr) {
    const double ratio = backup->seconds / programs->seconds;
    goal.figure = formatText("%.2f times, %s rows", ratio, withCommas(backup->rows).c_str());
    goal.state = state(ratio <= kBackupTarget);
  }
  return goal;
}

using Cells = std::vector<std::string>;

Cells figureCells(const std::vector<Figure>& figures, const Figure& figure) {
  const double exponent = growthExponent(figures, figure);
  const auto perSecond = [&figure](double count) {
    return withCommas(std::llround(count / std::max(figure.seconds, 1e-9)));
  };
  return {figure.step,
          withCommas(figure.rows),
          formatText("%.2f", figure.seconds),
          perSecond(static_cast<double>(figure.rows)),
          perSecond(static_cast<double>(figure.statements)),
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
  Table table = {{"step", "rows", "seconds", "rows/s", "statements/s", "peak MiB", "growth"}, {}, 1};
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
  return withCommas(plan.rows) + " photos" + (plan.slowDisk ? ", a commit takes 10 ms" : "");
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

double growthExponent(const std::vector<Figure>& figures, const Figure& figure) {
  const Figure* tenth = findFigure(figures, figure.step, figure.rows / 10);
  if (tenth == nullptr || tenth->rows <= 0 || tenth->seconds <= 0) {
    return 0;
  }
  return std::log(figure.seconds / tenth->seconds) /
         std::log(static_cast<double>(figure.rows) / static_cast<double>(tenth->rows));
}

std::vector<Goal> judge(const Plan& plan, const std::vector<Figure>& figures) {
  if (plan.memoryOnly) {
    return {memoryGoal(figures)};
  }
  std::vector<Goal> goals = {imagesGoal(plan, figures)};
  if (plan.slowDisk) {
    // The others are about the tool's own work, not the disk's.
    return goals;
  }
  for (const char* step :
       {step::kImportEmpty, step::kImportFull, step::kRestoreEmpty, step::kRestoreOverEmpty, step::kRestoreFull,
        step::kRestoreOverFull, step::kLogMerge, step::kRepairRestore, step::kRepairImport}) {
    goals.push_back(growthGoal(figures, step));
  }
  goals.push_back(restoreGoal(figures));
  goals.push_back(secondsGoal(figures, step::kLogMerge, kLogTarget));
  goals.push_back(secondsGoal(figures, step::kRepairRestore, kRepairTarget));
  goals.push_back(secondsGoal(figures, step::kRepairImport, kRepairTarget));
  goals.push_back(memoryGoal(figures));
  goals.push_back(backupGoal(figures));
  return goals;
}

std::vector<Comparison> compare(const Plan& plan, const std::vector<Figure>& figures) {
  std::vector<Comparison> comparisons;
  const auto add = [&](const char* step, const char* reference, double target) {
    const Figure* figure = largest(figures, step);
    const Figure* other = largest(figures, reference);
    if (figure != nullptr && other != nullptr) {
      comparisons.push_back({step, reference, figure->seconds / other->seconds, target});
    }
  };
  add(step::kImages, step::kImagesPlain, 1 / (plan.slowDisk ? kImagesTargetSlowDisk : kImagesTarget));
  add(step::kRestoreEmpty, step::kImportEmpty, kRestoreTarget);
  add(step::kBackup, step::kBackupPrograms, kBackupTarget);
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
  std::string text = "step,rows,seconds,rows_per_second,statements_per_second,peak_kib,growth_exponent\n";
  for (const Figure& figure : figures) {
    const double exponent = growthExponent(figures, figure);
    text += formatText("%s,%ld,%.3f,%.1f,%.1f,%ld,%s\n", quoted(figure.step).c_str(), figure.rows, figure.seconds,
                       static_cast<double>(figure.rows) / figure.seconds,
                       static_cast<double>(figure.statements) / figure.seconds, figure.peakKilobytes,
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
