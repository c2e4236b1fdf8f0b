#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "faults/crash_matrix.h"

namespace {

// Statements between two kill points, unless another number is given.
constexpr long kStep = 25;

struct Row {
  long programPoints = 0;
  long statementPoints = 0;
  long secondKills = 0;
  long rowsLost = 0;
  long otherFaults = 0;
};

// Points from one at which the next run is killed too to the next of them.
constexpr std::size_t kSecondStep = 8;

void tryOne(const crash::Reference& reference, const std::vector<crash::KillPoint>& points, Row& row) {
  const crash::Trial trial = crash::killAndRunAgain(reference, points);
  row.rowsLost += trial.rowsLost;
  row.otherFaults += static_cast<long>(trial.faults.size()) - trial.rowsLost;
  for (const std::string& fault : trial.faults) {
    std::fprintf(stderr, "%s, killed %s%s: %s\n", crash::nameOf(reference.mode).c_str(),
                 crash::nameOf(points.front()).c_str(),
                 points.size() > 1 ? (" and " + crash::nameOf(points.back())).c_str() : "", fault.c_str());
  }
}

Row tryAll(const crash::Reference& reference, long step) {
  Row row;
  const std::vector<crash::KillPoint> points = crash::killPoints(reference, 1, step);
  for (const crash::KillPoint& point : points) {
    tryOne(reference, {point}, row);
    ++(point.at == crash::KillPoint::At::kProgram ? row.programPoints : row.statementPoints);
  }
  for (std::size_t at = 0; at < points.size(); at += kSecondStep) {
    // The next run has at least this much to do, whatever is left of its work.
    crash::KillPoint second = points[at];
    second.number = (second.number + 1) / 2;
    tryOne(reference, {points[at], second}, row);
    ++row.secondKills;
  }
  return row;
}

int runMatrix(long step) {
  std::printf("| Mode | Programs | Statements | Kill points tried | Killed twice | Rows lost | Other faults |\n");
  std::printf("| --- | --- | --- | --- | --- | --- | --- |\n");
  bool isClean = true;
  for (const crash::Mode mode : crash::kModes) {
    const crash::Reference reference = crash::undisturbedRun(mode);
    const Row row = tryAll(reference, step);
    std::printf("| %s | %ld | %ld | %ld at programs, %ld at statements | %ld | %ld | %ld |\n",
                crash::nameOf(mode).c_str(), reference.programs, reference.statements, row.programPoints,
                row.statementPoints, row.secondKills, row.rowsLost, row.otherFaults);
    std::fflush(stdout);
    isClean = isClean && row.rowsLost == 0 && row.otherFaults == 0;
  }
  return isClean ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char** arguments) {
  const long step = count > 1 ? std::atol(arguments[1]) : kStep;
  if (count > 2 || step < 1) {
    std::fprintf(stderr, "Usage: kavophoto_crash_matrix [STEP]\n");
    return EXIT_FAILURE;
  }
  try {
    appliance::enter();
    return runMatrix(step);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
}
