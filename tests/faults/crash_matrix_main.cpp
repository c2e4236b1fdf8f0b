#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>

#include "faults/company.h"
#include "faults/crash_matrix.h"
#include "faults/next_run.h"

namespace {

using crash::KillPoint;
using crash::Mode;
using crash::Reference;
using crash::Scope;
using crash::Trial;

// A step for what is tried at a spread of the statements, while the same command run again is tried at every one.
constexpr long kSparse = 100;

// The sample holds six rows in most tables, so that a merge of it takes several windows of this size.
constexpr int kSmallWindow = 3;
constexpr int kOwnWindow = 0;

struct Kill {
  int signal;
  Scope scope;
};
constexpr Kill kKills[] = {
    {SIGKILL, Scope::kTool}, {SIGKILL, Scope::kGroup}, {SIGTERM, Scope::kTool}, {SIGTERM, Scope::kGroup}};

// One line of the table.
struct Cell {
  int window;
  Mode killed;
  Mode next;
  Kill kill;
  std::vector<KillPoint> points;
};

struct Meeting {
  Mode held;
  Mode started;
  std::vector<KillPoint> points;
};

long programStep(const Reference& reference, long step) { return std::max(1L, std::min(step, reference.programs)); }

// Every third point of programs, so one of before, during and after, and every second of statements, from another one
// on in each line.
std::vector<KillPoint> thinned(const std::vector<KillPoint>& points, std::size_t line) {
  std::vector<KillPoint> left;
  for (std::size_t at = 0; at < points.size(); ++at) {
    const std::size_t every = points[at].at == KillPoint::At::kProgram ? 3 : 2;
    if ((at + line) % every == 0) {
      left.push_back(points[at]);
    }
  }
  return left;
}

// Before a statement the server is where it was after the last one, so that one of the two is enough.
std::vector<KillPoint> densePoints(const Reference& reference, long step) {
  std::vector<KillPoint> points = crash::killPoints(reference, 1, programStep(reference, step), step);
  std::erase_if(points, [](const KillPoint& point) {
    return point.at == KillPoint::At::kStatement && point.when == KillPoint::When::kBefore && point.number > 1;
  });
  return points;
}

// Each line begins somewhere else, so that they try different points.
std::vector<Cell> planCells(long step) {
  const long sparse = kSparse * step;
  std::vector<Cell> cells;
  for (const Mode killed : crash::kEveryMode) {
    for (const Kill& kill : kKills) {
      for (const Mode next : crash::kEveryMode) {
        const Reference& reference = crash::sharedReferenceOf(killed);
        constexpr long kPrime = 7;
        const long first = 1 + static_cast<long>(cells.size()) * kPrime % std::min(sparse, reference.statements);
        const bool isDense = killed == next && kill.signal == SIGKILL && kill.scope == Scope::kTool;
        Cell cell = {crash::window(), killed, next, kill, {}};
        cell.points = isDense ? densePoints(reference, step)
                              : thinned(crash::killPoints(reference, first, programStep(reference, sparse), sparse),
                                        cells.size());
        for (KillPoint& point : cell.points) {
          point.signal = kill.signal;
          point.scope = kill.scope;
        }
        cells.push_back(cell);
      }
    }
  }
  return cells;
}

// The merges once more with the window that the tool takes by itself, which holds all rows of a table.
std::vector<Cell> planOwnWindow(long step) {
  std::vector<Cell> cells;
  for (const Mode mode : crash::kEveryMode) {
    if (crash::merges(mode)) {
      std::vector<KillPoint> points = densePoints(crash::sharedReferenceOf(mode), step);
      std::erase_if(points, [](const KillPoint& point) { return point.at == KillPoint::At::kProgram; });
      cells.push_back({crash::window(), mode, mode, kKills[0], points});
    }
  }
  return cells;
}

std::vector<Meeting> planMeetings(long step) {
  const long sparse = kSparse * step;
  std::vector<Meeting> meetings;
  for (const Mode held : crash::kEveryMode) {
    for (const Mode started : crash::kEveryMode) {
      const Reference& reference = crash::sharedReferenceOf(held);
      constexpr long kPrime = 7;
      const long first = 1 + static_cast<long>(meetings.size()) * kPrime % std::min(sparse, reference.statements);
      meetings.push_back({held, started, crash::holdPoints(reference, first, programStep(reference, sparse), sparse)});
    }
  }
  return meetings;
}

double secondsOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Trial tryOne(const Cell& cell, const KillPoint& point) {
  if (cell.killed != cell.next || cell.killed == Mode::kExport) {
    return crash::killAndRunNext(cell.killed, cell.next, point);
  }
  return crash::killAndRunAgain(crash::referenceOf(cell.killed), {point});
}

void tell(Mode killed, Mode next, const std::string& where, const std::vector<std::string>& faults) {
  for (const std::string& fault : faults) {
    std::fprintf(stderr, "%s, %s, then %s: %s\n", crash::nameOf(killed).c_str(), where.c_str(),
                 crash::nameOf(next).c_str(), fault.c_str());
  }
}

bool runCell(const Cell& cell) {
  crash::useWindow(cell.window);
  Trial sum;
  long otherFaults = 0;
  for (const KillPoint& point : cell.points) {
    const Trial trial = tryOne(cell, point);
    sum.rowsLost += trial.rowsLost;
    sum.rowsDoubled += trial.rowsDoubled;
    sum.wrongNames += trial.wrongNames;
    sum.halfMerged += trial.halfMerged;
    otherFaults += trial.otherFaults();
    tell(cell.killed, cell.next, crash::nameOf(point), trial.faults);
  }
  std::printf("| %s | %s | %s | %s | %s | %zu | %ld | %ld | %ld | %ld | %ld |\n", crash::nameOf(cell.killed).c_str(),
              cell.window == kOwnWindow ? "own" : std::to_string(cell.window).c_str(),
              crash::signalName(cell.kill.signal).c_str(), crash::nameOf(cell.kill.scope).c_str(),
              cell.killed == cell.next ? "the same" : crash::nameOf(cell.next).c_str(), cell.points.size(),
              sum.rowsLost, sum.halfMerged, sum.rowsDoubled, sum.wrongNames, otherFaults);
  std::fflush(stdout);
  return sum.rowsLost == 0 && sum.halfMerged == 0 && sum.rowsDoubled == 0 && sum.wrongNames == 0 && otherFaults == 0;
}

// The next run of the same command is killed too.
bool killTwice(Mode mode, long step) {
  const Reference& reference = crash::referenceOf(mode);
  constexpr std::size_t kSecondStep = 8;
  const std::vector<KillPoint> points = crash::killPoints(reference, 1, programStep(reference, step), kSparse * step);
  long tried = 0;
  long faults = 0;
  for (std::size_t at = 0; at < points.size(); at += kSecondStep) {
    // The next run has at least this much to do, whatever is left of its work.
    KillPoint second = points[at];
    second.number = (second.number + 1) / 2;
    const crash::Trial trial = crash::killAndRunAgain(reference, {points[at], second});
    faults += static_cast<long>(trial.faults.size());
    tell(mode, mode, crash::nameOf(points[at]) + " and " + crash::nameOf(second), trial.faults);
    ++tried;
  }
  std::printf("| %s | %ld | %ld |\n", crash::nameOf(mode).c_str(), tried, faults);
  std::fflush(stdout);
  return faults == 0;
}

bool runMeeting(const Meeting& meeting) {
  long faults = 0;
  long programs = 0;
  for (const KillPoint& point : meeting.points) {
    const std::vector<std::string> found = crash::startBesideHeldRun(meeting.held, meeting.started, point);
    faults += static_cast<long>(found.size());
    programs += point.at == KillPoint::At::kProgram ? 1 : 0;
    tell(meeting.held, meeting.started, "held " + crash::nameOf(point), found);
  }
  std::printf("| %s | %s | %ld | %ld | %ld |\n", crash::nameOf(meeting.held).c_str(),
              crash::nameOf(meeting.started).c_str(), programs, static_cast<long>(meeting.points.size()) - programs,
              faults);
  std::fflush(stdout);
  return faults == 0;
}

// From how long the undisturbed runs take.
double expectedSeconds(const std::vector<Cell>& cells, const std::vector<Meeting>& meetings,
                       std::map<Mode, double>& seconds) {
  constexpr double kWaitForTheLock = 1.5;
  double sum = 0;
  for (const Cell& cell : cells) {
    sum +=
        static_cast<double>(cell.points.size()) *
        (seconds[cell.killed] + (cell.killed == cell.next ? 0 : seconds[cell.next] / 2 + seconds[Mode::kBackup] / 2));
  }
  for (const Meeting& meeting : meetings) {
    sum += static_cast<double>(meeting.points.size()) * (seconds[meeting.held] + kWaitForTheLock);
  }
  return sum;
}

// What a trial takes besides the time of the runs is in it too: laying out, looking, a server of its own for each.
void tellWork(Mode mode, double seconds) {
  const Reference& reference = crash::sharedReferenceOf(mode);
  std::printf("| %s | %d | %ld | %ld | %.2f |\n", crash::nameOf(mode).c_str(), crash::window(), reference.programs,
              reference.statements, seconds);
  std::fflush(stdout);
}

int runMatrix(long step) {
  std::printf(
      "| Run | Window | Programs | Statements | Seconds, laid out and looked at |\n| --- | --- | --- | --- | --- |\n");
  std::map<Mode, double> seconds;
  crash::useWindow(kOwnWindow);
  for (const Mode mode : crash::kEveryMode) {
    tellWork(mode, secondsOf([mode] { crash::sharedReferenceOf(mode); }));
  }
  const std::vector<Cell> ownWindow = planOwnWindow(step);
  crash::useWindow(kSmallWindow);
  for (const Mode mode : crash::kEveryMode) {
    seconds[mode] = secondsOf([mode] { crash::sharedReferenceOf(mode); });
    tellWork(mode, seconds[mode]);
  }
  std::vector<Cell> cells = planCells(step);
  cells.insert(cells.end(), ownWindow.begin(), ownWindow.end());
  const std::vector<Meeting> meetings = planMeetings(step);
  constexpr double kMinute = 60;
  std::printf("\nThis takes about %.0f minutes.\n\n", 1 + expectedSeconds(cells, meetings, seconds) / kMinute);
  std::printf(
      "| Killed | Window | Signal | To | Next run | Tried | Rows lost | Half merged | Rows doubled | Wrong names | "
      "Other "
      "faults |\n| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |\n");
  std::fflush(stdout);
  bool isClean = true;
  for (const Cell& cell : cells) {
    isClean = runCell(cell) && isClean;
  }
  crash::useWindow(kSmallWindow);
  std::printf("\n| Killed twice | Tried | Faults |\n| --- | --- | --- |\n");
  for (const Mode mode : crash::kModes) {
    isClean = killTwice(mode, step) && isClean;
  }
  std::printf(
      "\n| Held | Started twice beside it | At programs | At statements | Faults |\n| --- | --- | --- | --- | --- |\n");
  for (const Meeting& meeting : meetings) {
    isClean = runMeeting(meeting) && isClean;
  }
  return isClean ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int count, char** arguments) {
  const long step = count > 1 ? std::atol(arguments[1]) : 1;
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
