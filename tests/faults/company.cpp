#include "faults/company.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "faults/live_rows.h"
#include "faults/next_run.h"
#include "faults/statement_relay.h"

namespace crash {
namespace {

using appliance::Database;
using faults::StatementRelay;
using Faults = std::vector<std::string>;

constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
constexpr const char* kHeld = "/tmp/held";
constexpr const char* kGoOn = "/tmp/go_on";

// What a run could have changed, the pid file aside.
struct State {
  std::map<std::string, std::vector<std::string>> contents;
  std::vector<std::string> structure;
  std::map<std::string, std::string> files;
  long programs = 0;
};

// A table that the held run is just dropping can be looked at by nobody else.
bool isLocked() {
  Database server("postgres");
  return server.value(
             "SELECT count(*) FROM pg_locks WHERE mode = 'AccessExclusiveLock' AND granted AND relation IS NOT "
             "NULL") != "0";
}

State takeState(bool withRows) {
  State state;
  if (withRows) {
    state.contents = appliance::contents("photo");
    state.structure = appliance::structure("photo");
  }
  for (const std::string& directory :
       {std::string(kFirstDirectory), std::string(kNextDirectory), appliance::workDirectory(),
        std::string("/var/services"), std::string("/var/packages")}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
      state.files[entry.path()] = entry.is_regular_file() ? appliance::readFile(entry.path()) : "no file";
    }
  }
  state.programs = countedPrograms();
  return state;
}

void expectTurnedAway(Faults& faults, const std::string& by, Mode mode) {
  const appliance::Outcome outcome = appliance::runTool(commandLine(mode, kNextDirectory));
  if (outcome.status != 255) {
    faults.push_back("the run that " + by + " must turn away ends with status " + std::to_string(outcome.status));
  }
  const std::vector<std::string> messages = appliance::takeMessages();
  if (messages != std::vector<std::string>{"kavophoto_backup is already running.\n"}) {
    faults.push_back("the run that " + by + " must turn away logs: " + joined(messages));
  }
  if (appliance::exists(kPidFile)) {
    faults.push_back("the run that " + by + " turns away leaves the pid file");
  }
}

void startTwice(Faults& faults, Mode started) {
  const bool withRows = !isLocked();
  const State before = takeState(withRows);
  expectTurnedAway(faults, "the pid file", started);
  expectTurnedAway(faults, "the lock", started);
  const State after = takeState(withRows);
  if (before.contents != after.contents) {
    faults.emplace_back("a run that is turned away changes rows");
  }
  if (before.structure != after.structure) {
    faults.emplace_back("a run that is turned away changes tables");
  }
  if (before.files != after.files) {
    faults.emplace_back("a run that is turned away changes files");
  }
  if (before.programs != after.programs) {
    faults.emplace_back("a run that is turned away starts a program");
  }
}

bool waitUntilHeldAtProgram(pid_t tool) {
  constexpr useconds_t kPause = 5000;
  siginfo_t info = {};
  while (!appliance::exists(kHeld)) {
    if (waitid(P_PID, static_cast<id_t>(tool), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == tool) {
      return false;
    }
    usleep(kPause);
  }
  return true;
}

// The pid file is removed before the process closes its last connections.
bool isAtItsEnd(const Reference& reference, const KillPoint& point) {
  constexpr long kLastConnections = 2;
  return point.at == KillPoint::At::kStatement && point.number > reference.statements - kLastConnections;
}

// Runs to the point, calls `meanwhile` there and runs to the end.
template <typename Meanwhile>
int holdAt(Faults& faults, const std::vector<std::string>& arguments, const KillPoint& point,
           const Meanwhile& meanwhile) {
  const bool atProgram = point.at == KillPoint::At::kProgram;
  const std::string wait = std::string("echo > ") + kHeld + "; while [ ! -e " + kGoOn + " ]; do sleep 0.01; done";
  countPrograms(atProgram ? point.number : 0, wait);
  StatementRelay relay;
  if (!atProgram) {
    relay.holdAt(point.number, point.when == KillPoint::When::kBefore ? StatementRelay::Hold::kBeforeStatement
                                                                      : StatementRelay::Hold::kAfterStatement);
  }
  const pid_t tool = startInItsOwnGroup(arguments, {relay.environment()});
  if (atProgram ? waitUntilHeldAtProgram(tool) : relay.waitUntilHeld(tool)) {
    meanwhile();
  } else {
    faults.emplace_back("the run does not get there");
  }
  appliance::writeFile(kGoOn, "");
  relay.release();
  return appliance::waitTool(tool).status;
}

named::Tables inOrder(named::Tables tables) {
  for (auto& [table, rows] : tables) {
    std::sort(rows.begin(), rows.end());
  }
  return tables;
}

// The numbers of comments and links depend on which of two databases answers first.
void expectUndisturbed(Faults& faults, const Outcome& expected, const Outcome& found) {
  const std::pair<bool, const char*> comparisons[] = {
      {inOrder(expected.rows) == inOrder(found.rows), "rows"},
      {expected.structure == found.structure, "tables"},
      {expected.smartAlbums == found.smartAlbums, "smart albums"},
      {expected.settings == found.settings, "settings"},
      {expected.themes == found.themes, "themes"},
      {expected.archive == found.archive, "rows in the archive"},
      {expected.messages == found.messages, "messages"},
  };
  for (const auto& [isSame, what] : comparisons) {
    if (!isSame) {
      faults.push_back(std::string("the held run ends with other ") + what);
    }
  }
}

}  // namespace

std::vector<KillPoint> holdPoints(const Reference& reference, long first, long programStep, long step) {
  std::vector<KillPoint> points;
  for (long number = 1 + (first - 1) % programStep; number <= reference.programs; number += programStep) {
    points.push_back({KillPoint::At::kProgram, number, KillPoint::When::kBefore, ""});
  }
  for (long number = first; number <= reference.statements; number += step) {
    // The first statement settles the session, and the second one takes the lock.
    constexpr long kLockStatement = 2;
    if (number > kLockStatement) {
      points.push_back({KillPoint::At::kStatement, number, KillPoint::When::kBefore, ""});
    }
    if (number >= kLockStatement) {
      points.push_back({KillPoint::At::kStatement, number, KillPoint::When::kAfter, ""});
    }
  }
  return points;
}

std::vector<std::string> startBesideHeldRun(Mode held, Mode started, const KillPoint& point) {
  const Reference& reference = sharedReferenceOf(held);
  Faults faults;
  layOutForEveryMode();
  for (const char* directory : {kFirstDirectory, kNextDirectory}) {
    appliance::makeDirectories(directory);
  }
  std::vector<std::string> messages;
  const int status = holdAt(faults, commandLine(held, kFirstDirectory), point, [&] {
    messages = appliance::takeMessages();
    if (!appliance::exists(kPidFile) && !isAtItsEnd(reference, point)) {
      faults.emplace_back("the held run has no pid file");
    }
    startTwice(faults, started);
  });
  bringProgramsBack();
  if (status != 0) {
    faults.push_back("the held run ends with status " + std::to_string(status));
  }
  const std::vector<std::string> further = appliance::takeMessages();
  messages.insert(messages.end(), further.begin(), further.end());
  Outcome found = look(held == Mode::kBackup ? kFirstDirectory : "");
  found.messages = std::move(messages);
  expectUndisturbed(faults, reference.after, found);
  for (const std::string& report : appliance::takeSanitizerReports()) {
    faults.push_back(report);
  }
  return faults;
}

}  // namespace crash
