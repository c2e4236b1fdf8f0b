#include "faults/crash_matrix.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "backup/archive_check.h"
#include "faults/live_rows.h"
#include "faults/statement_relay.h"
#include "merge/sample_rows.h"

namespace crash {
namespace {

using appliance::Database;
using appliance::workDirectory;
using faults::StatementRelay;

constexpr const char* kSmartAlbums = "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG";
constexpr const char* kSettings = "/var/packages/Lumora/etc/settings.conf";
constexpr const char* kThemes = "/var/packages/Lumora/etc/blog";
constexpr const char* kCoverScript = "/var/packages/Lumora/target/photo_scripts/cover_convert.sh";
constexpr const char* kWindow = "KAVOPHOTO_WINDOW";
constexpr const char* kCount = "/tmp/programs";

bool isRestore(Mode mode) { return mode == Mode::kRestoreSkip || mode == Mode::kRestoreOverwrite; }

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Some names are the live database's alone, some the other's, and some stand in both with other numbers and texts.
void fillDatabases() {
  Database live("photo");
  sample::fill(live, "s", 1);
  sample::fill(live, "n", 2);
  live.exec(
      "INSERT INTO video SELECT 300 + n, '/var/services/photo/m ' || p, p, n, timestamp '2014-01-01' FROM (VALUES (1, "
      "'it''s/2.avi'), (2, 'trips/1.avi')) AS v (n, p)");
  appliance::createDatabase("other");
  Database other("other");
  sample::fill(other, "s", 7);
  sample::fill(other, "m", 8);
  other.exec(
      "UPDATE photo_share SET title = 'other'; UPDATE photo_user SET email = 'other'; UPDATE photo_group SET "
      "description = 'other'; UPDATE photo_image SET title = 'other'; UPDATE photo_comment SET comment = 'other'; "
      "UPDATE photo_label SET info = 'other'; UPDATE photo_log SET log = 'other'; UPDATE video_desc SET title = "
      "'other'; UPDATE photo_personal_collection SET sharelink = 'other'; "
      "UPDATE photo_access_right_for_hox_account SET userid = 1028 WHERE shareid > 800; "
      "UPDATE watermark SET shareid = shareid - 600; "
      "INSERT INTO category_items (category_id, type, order_number, album_id) VALUES (701, 'album', 5, 201), "
      "(801, 'album', 6, 202)");
  for (const char* prefix : {"s", "n", "m"}) {
    sample::makeFiles(prefix);
  }
}

void writeArchive() {
  static std::string archive;
  if (!archive.empty()) {
    appliance::writeFile(workDirectory() + "kavophoto.backup", archive);
    return;
  }
  appliance::ArchiveOptions options;
  // Old enough for the covers to be converted.
  options.build = "1802";
  options.theme = {{"kept.css", "saved"}, {"new.css", "saved"}};
  options.settings = "site_name=\"Saved\"\nsaved=\"yes\"\n";
  appliance::makeArchive(workDirectory(), "other", options);
  archive = appliance::readFile(workDirectory() + "kavophoto.backup");
}

std::vector<std::string> namesOf(Database& live, const std::string& field, const std::string& numbers) {
  const bool areShares = field == "albums";
  std::vector<std::string> names;
  for (const auto& row :
       live.rows(areShares ? "SELECT sharename FROM photo_share WHERE shareid IN (" + numbers + ") ORDER BY 1"
                           : "SELECT name FROM photo_label WHERE id IN (" + numbers + ") ORDER BY 1")) {
    names.push_back(row[0]);
  }
  return names;
}

std::vector<std::string> namedSmartAlbums(Database& live) {
  std::vector<std::string> rules;
  const std::string text = appliance::readFile(kSmartAlbums);
  const std::regex rule(R"re("field"\s*:\s*"(\w+)",\s*"value"\s*:\s*"([^"]*)")re");
  for (std::sregex_iterator match(text.begin(), text.end(), rule); match != std::sregex_iterator(); ++match) {
    const std::string field = (*match)[1];
    std::string told = field + ":";
    if (field == "date") {
      told += (*match)[2];
    } else {
      for (const std::string& name : namesOf(live, field, (*match)[2])) {
        told += " " + name;
      }
    }
    rules.push_back(told);
  }
  return rules;
}

const std::vector<std::string>& programs() {
  static const std::vector<std::string> all = {"/usr/bin/psql", "/usr/bin/pg_dump", "/usr/bin/pg_restore",
                                               "/bin/tar",      "/bin/cp",          "/bin/rm"};
  return all;
}

// What the shell in the place of a program does to the tool, its parent. A tool that is stopped before cannot get past
// the program; a signal that ends it is delivered when it goes on.
std::string killCommand(const KillPoint& point) {
  const std::string whom = point.scope == Scope::kGroup ? "-$PPID" : "$PPID";
  return std::string("kill -s ") + (point.signal == SIGTERM ? "TERM" : "KILL") + " -- " + whom;
}

std::string commandsAt(const KillPoint& point) {
  switch (point.when) {
    case KillPoint::When::kBefore:
      return killCommand(point) + "; exit 0";
    case KillPoint::When::kAfter:
      return R"("$REAL" "$@"; )" + killCommand(point) + "; exit 0";
    case KillPoint::When::kWhile: {
      const std::string end = killCommand(point) + "; kill -s CONT $PPID) > /dev/null 2>&1 &";
      // Most programs take less time than the next run to begin. So every second one is late: as an orphan it would do
      // its work in the middle of that run. The others are met at one of a few moments.
      return point.number % 2 == 1
                 ? "kill -s STOP $PPID; (trap '' TERM; " + end + "\nsleep 0.15"
                 : "kill -s STOP $PPID; (trap '' TERM; sleep 0.00" + std::to_string(point.number % 8 + 1) + "; " + end;
    }
  }
  return "";
}

std::vector<std::string> texts(const named::Rows& rows) {
  std::vector<std::string> all;
  all.reserve(rows.size());
  for (const auto& row : rows) {
    all.push_back(joined(row));
  }
  return all;
}

template <typename Value>
void expectSame(Trial& trial, const std::string& what, const Value& expected, const Value& found) {
  if (expected != found) {
    trial.faults.push_back(what + " differs");
  }
}

void checkMergedTable(Trial& trial, Mode mode, const std::string& table, const named::Rows& expectedRows,
                      const named::Rows& foundRows) {
  const std::vector<std::string> expected = texts(expectedRows);
  std::vector<std::string> found = texts(foundRows);
  lose(trial, table, missing(expected, found));
  // A label or category that is replaced twice leaves the links of the first time behind without an end.
  std::erase_if(found, linksToNothing);
  if (mode == Mode::kRestoreSkip && table == "category_items") {
    // These are recognised by the numbers that their categories had in the source, so they are added again.
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
  }
  gain(trial, table, missing(found, expected));
}

void checkMerge(Trial& trial, const Reference& reference, const Outcome& found) {
  for (const auto& [table, rows] : reference.after.rows) {
    checkMergedTable(trial, reference.mode, table, rows, found.rows.at(table));
  }
  if (reference.mode == Mode::kRestoreSkip) {
    for (const auto& [table, rows] : reference.before.contents) {
      lose(trial, table + " as it was", missing(rows, found.contents.at(table)));
    }
  }
  expectSame(trial, "the smart-album file", reference.after.smartAlbums, found.smartAlbums);
  for (const std::string& rule : found.smartAlbums) {
    if (std::find(reference.after.smartAlbums.begin(), reference.after.smartAlbums.end(), rule) ==
        reference.after.smartAlbums.end()) {
      trial.faults.push_back("smart-album rule " + rule);
    }
  }
}

void checkBackup(Trial& trial, const Reference& reference, const Outcome& found) {
  for (const auto& [table, rows] : reference.before.contents) {
    const auto place = found.contents.find(table);
    const std::vector<std::string> there = place != found.contents.end() ? place->second : std::vector<std::string>();
    lose(trial, table, missing(rows, there));
    gain(trial, table, missing(there, rows));
  }
  expectSame(trial, "the structure of the database", reference.before.structure, found.structure);
  expectSame(trial, "the content of the archive", reference.after.archive, found.archive);
  if (!archiveIsWhole(workDirectory() + "kavophoto.backup")) {
    trial.faults.emplace_back("the archive is not whole");
  }
}

void checkFiles(Trial& trial, Mode mode) {
  std::set<std::string> allowed = {"kavophoto.backup"};
  if (isRestore(mode)) {
    allowed.insert({"kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt", "settings.conf.bak"});
  } else if (mode == Mode::kImport) {
    allowed = {"kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt"};
  }
  for (const auto& entry : std::filesystem::directory_iterator(workDirectory())) {
    if (allowed.count(entry.path().filename()) == 0) {
      trial.faults.push_back("file left: " + entry.path().filename().string());
    }
  }
  for (const char* file : {"/tmp/kavophoto_backup.pid", "/var/packages/Lumora/etc/settings.conf.tmp"}) {
    if (appliance::exists(file)) {
      trial.faults.push_back(std::string("file left: ") + file);
    }
  }
}

void layOutRowsAndSettings() {
  appliance::reset();
  fillDatabases();
  putSmartAlbumsBack();
  appliance::writeFile(std::string(kThemes) + "/kept.css", "live");
  appliance::writeFile(std::string(kThemes) + "/live.css", "live");
  appliance::writeFile(kSettings, "site_name=\"Live\"\nlive=\"yes\"\n");
  appliance::writeFile(kCoverScript, "#!/bin/sh\n", 0755);
}

using Look = std::function<void(const std::string& when)>;

bool killAtStatement(const std::vector<std::string>& arguments, const KillPoint& point, const Look& look) {
  StatementRelay relay;
  const auto hold = point.when == KillPoint::When::kBefore ? StatementRelay::Hold::kBeforeStatement
                                                           : StatementRelay::Hold::kAfterStatement;
  if (point.text.empty()) {
    relay.holdAt(point.number, hold);
  } else {
    relay.holdAt(point.text, hold);
  }
  const pid_t tool = startInItsOwnGroup(arguments, {relay.environment()});
  const bool reached = relay.waitUntilHeld(tool);
  if (reached) {
    if (look) {
      look("while the tool was held");
    }
    kill(point.scope == Scope::kGroup ? -tool : tool, point.signal);
  }
  const appliance::Outcome outcome = appliance::waitTool(tool);
  relay.cut();
  if (look) {
    look(waitUntilNoSessionIsLeft() ? "when its sessions had ended" : "with a session left");
  }
  return reached && outcome.status == -point.signal;
}

// What was merged once may be merged again by the run that follows, so the rows are those of before or of after.
void checkLiveRows(Trial& trial, const Reference& reference, const std::string& when) {
  Database live("photo", "options='-c lock_timeout=10s'");
  const named::Tables now = named::rows(live);
  for (const LostRow& one : lostRows(reference.before.rows, {&reference.after.rows}, now, overwrites(reference.mode))) {
    ++trial.rowsLost;
    trial.faults.push_back("missing from " + one.table + " " + when + ": " + joined(one.row));
  }
  for (const std::string& name : halfMerged(reference.before.rows, reference.after.rows, now)) {
    ++trial.halfMerged;
    trial.faults.push_back("half merged " + when + ": " + name);
  }
}

bool killAtProgram(const std::vector<std::string>& arguments, const KillPoint& point) {
  countPrograms(point.number, commandsAt(point));
  const appliance::Outcome outcome = appliance::waitTool(startInItsOwnGroup(arguments, {}));
  bringProgramsBack();
  return outcome.status == -point.signal;
}

}  // namespace

pid_t startInItsOwnGroup(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
  appliance::RunOptions options;
  options.program = "/usr/bin/setsid";
  options.env = environment;
  std::vector<std::string> words = {appliance::toolPath()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return appliance::startTool(words, options);
}

void countPrograms(long number, const std::string& atNumber) {
  const std::string script = std::string("read -r n < ") + kCount + "; n=$((n + 1)); echo $n > " + kCount +
                             "\nif [ $n -eq " + std::to_string(number) + " ]; then\n" +
                             (atNumber.empty() ? ":" : atNumber) + "\nfi\nexec \"$REAL\" \"$@\"";
  appliance::writeFile(kCount, "0\n");
  for (const std::string& program : programs()) {
    appliance::replaceProgram(program, script);
  }
  appliance::writeFile(kCoverScript, "#!/bin/sh\nREAL=/bin/true\n" + script + "\n", 0755);
}

long countedPrograms() { return std::stol(appliance::readFile(kCount)); }

void bringProgramsBack() {
  appliance::restorePrograms();
  appliance::writeFile(kCoverScript, "#!/bin/sh\n", 0755);
}

std::vector<std::string> archivedRows(const std::string& directory) {
  appliance::RunOptions tar;
  tar.program = "/bin/tar";
  appliance::makeDirectories("/tmp/unpacked");
  appliance::RunOptions restore;
  restore.program = "/usr/bin/pg_restore";
  if (appliance::runTool({"-xzf", directory + "kavophoto.backup", "-C", "/tmp/unpacked"}, tar).status != 0) {
    return {"tar failed"};
  }
  const appliance::Outcome outcome =
      appliance::runTool({"--data-only", "-f", "-", "/tmp/unpacked/kavophoto_backup.dump"}, restore);
  std::vector<std::string> lines = linesOf(outcome.out);
  // Each run of pg_restore makes up another key there.
  std::erase_if(lines, [](const std::string& line) { return line.find("restrict ") != std::string::npos; });
  return lines;
}

Outcome look(const std::string& archive) {
  Outcome outcome;
  Database live("photo");
  outcome.contents = appliance::contents("photo");
  outcome.structure = appliance::structure("photo");
  outcome.rows = named::rows(live);
  outcome.smartAlbums = namedSmartAlbums(live);
  outcome.settings = appliance::readFile(kSettings);
  for (const auto& theme : std::filesystem::directory_iterator(kThemes)) {
    outcome.themes[theme.path().filename()] = appliance::readFile(theme.path());
  }
  if (!archive.empty()) {
    outcome.archive = archivedRows(archive);
  }
  return outcome;
}

std::vector<std::string> missing(std::vector<std::string> expected, std::vector<std::string> found) {
  std::sort(expected.begin(), expected.end());
  std::sort(found.begin(), found.end());
  std::vector<std::string> difference;
  std::set_difference(expected.begin(), expected.end(), found.begin(), found.end(), std::back_inserter(difference));
  return difference;
}

void lose(Trial& trial, const std::string& table, const std::vector<std::string>& rows) {
  trial.rowsLost += static_cast<long>(rows.size());
  for (const std::string& row : rows) {
    trial.faults.push_back(std::string("lost from ").append(table).append(": ").append(row));
  }
}

void gain(Trial& trial, const std::string& table, const std::vector<std::string>& rows) {
  trial.rowsDoubled += static_cast<long>(rows.size());
  for (const std::string& row : rows) {
    trial.faults.push_back(std::string("too much in ").append(table).append(": ").append(row));
  }
}

void checkTables(Trial& trial, bool stagedMayStay) {
  Database live("photo");
  const named::Rows tables = live.rows("SELECT tablename FROM pg_tables WHERE schemaname = 'public'");
  const auto isThere = [&tables](const std::string& name) {
    return std::find(tables.begin(), tables.end(), std::vector<std::string>{name}) != tables.end();
  };
  for (const std::string& table : appliance::tableNames()) {
    if (!isThere(table)) {
      ++trial.wrongNames;
      trial.faults.push_back("no table " + table);
    }
    if (!stagedMayStay && isThere(table + "_bak")) {
      ++trial.wrongNames;
      trial.faults.push_back("staged table left: " + table + "_bak");
    }
  }
}

void checkMessages(Trial& trial, const std::vector<std::string>& expected, const std::vector<std::string>& found) {
  for (const std::string& message : found) {
    if (std::find(expected.begin(), expected.end(), message) == expected.end()) {
      trial.faults.push_back("logged: " + message);
    }
  }
}

bool waitUntilNoSessionIsLeft() {
  Database live("photo");
  constexpr int kAttempts = 2000;
  constexpr useconds_t kPause = 1000;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (live.value("SELECT count(*) FROM pg_stat_activity WHERE application_name = 'kavophoto_backup'") == "0") {
      return true;
    }
    usleep(kPause);
  }
  return false;
}

bool merges(Mode mode) { return mode != Mode::kBackup && mode != Mode::kExport; }

bool overwrites(Mode mode) { return mode == Mode::kRestoreOverwrite || mode == Mode::kImport; }

void useWindow(int rows) {
  if (rows > 0) {
    setenv(kWindow, std::to_string(rows).c_str(), 1);
  } else {
    unsetenv(kWindow);
  }
}

int window() {
  const char* rows = getenv(kWindow);
  return rows != nullptr ? std::stoi(rows) : 0;
}

std::string nameOf(Mode mode) {
  switch (mode) {
    case Mode::kBackup:
      return "backup";
    case Mode::kRestoreSkip:
      return "restore, skip mode";
    case Mode::kRestoreOverwrite:
      return "restore -o";
    case Mode::kImport:
      return "import";
    case Mode::kExport:
      return "export";
  }
  return "";
}

std::string testName(Mode mode) {
  switch (mode) {
    case Mode::kBackup:
      return "Backup";
    case Mode::kRestoreSkip:
      return "RestoreSkip";
    case Mode::kRestoreOverwrite:
      return "RestoreOverwrite";
    case Mode::kImport:
      return "Import";
    case Mode::kExport:
      return "Export";
  }
  return "";
}

std::string nameOf(Scope scope) { return scope == Scope::kTool ? "tool" : "group"; }

std::string signalName(int signal) { return signal == SIGTERM ? "SIGTERM" : "SIGKILL"; }

std::string nameOf(const KillPoint& point) {
  static const std::map<KillPoint::When, std::string> when = {
      {KillPoint::When::kBefore, "before"}, {KillPoint::When::kAfter, "after"}, {KillPoint::When::kWhile, "during"}};
  return when.at(point.when) + " " + (point.at == KillPoint::At::kProgram ? "program" : "statement") + " " +
         (point.text.empty() ? std::to_string(point.number) : point.text) + " by " + signalName(point.signal) +
         " to the " + nameOf(point.scope);
}

std::vector<std::string> commandLine(Mode mode) {
  switch (mode) {
    case Mode::kBackup:
      return {"-b", workDirectory()};
    case Mode::kRestoreSkip:
      return {"-r", workDirectory()};
    case Mode::kRestoreOverwrite:
      return {"-r", workDirectory(), "-o"};
    case Mode::kImport:
      return {"-i", workDirectory(), "-d", "other"};
    case Mode::kExport:
      return {"-e", workDirectory()};
  }
  return {};
}

// Two albums in the numbers of the other database.
void putSmartAlbumsBack() {
  appliance::writeFile(kSmartAlbums, R"({"smart_albums": {
    "s1": {"name": "one", "rule_sets": [[{"field": "people", "value": "701,803"}, {"field": "date", "value": "2013"}],
                                        [{"field": "geo", "value": "802"}]]},
    "s2": {"rule_sets": [[{"field": "albums", "value": "703,801"}, {"field": "desc", "value": "704,804"}]]}}})");
}

void layOut(Mode mode) {
  layOutRowsAndSettings();
  if (mode == Mode::kImport) {
    appliance::writeAccountFiles(workDirectory(), "other");
  } else if (isRestore(mode)) {
    writeArchive();
  }
}

void layOutForEveryMode() {
  layOutRowsAndSettings();
  appliance::writeAccountFiles(workDirectory(), "other");
  writeArchive();
}

Reference undisturbedRun(Mode mode) {
  Reference reference;
  reference.mode = mode;
  layOut(mode);
  reference.before = look("");
  countPrograms(0, "");
  StatementRelay relay;
  appliance::RunOptions options;
  options.env = {relay.environment()};
  if (appliance::runTool(commandLine(mode), options).status != 0) {
    throw std::runtime_error("the undisturbed run fails");
  }
  reference.programs = countedPrograms();
  reference.statements = relay.statements();
  bringProgramsBack();
  const std::vector<std::string> messages = appliance::takeMessages();
  reference.after = look(mode == Mode::kBackup ? workDirectory() : "");
  reference.after.messages = messages;
  return reference;
}

const Reference& referenceOf(Mode mode) {
  static std::map<std::pair<Mode, int>, Reference> references;
  const auto key = std::make_pair(mode, window());
  const auto place = references.find(key);
  return place != references.end() ? place->second : references.emplace(key, undisturbedRun(mode)).first->second;
}

std::vector<KillPoint> killPoints(const Reference& reference, long first, long programStep, long step) {
  using At = KillPoint::At;
  using When = KillPoint::When;
  std::vector<KillPoint> points;
  for (long number = 1 + (first - 1) % programStep; number <= reference.programs; number += programStep) {
    for (const When when : {When::kBefore, When::kWhile, When::kAfter}) {
      points.push_back({At::kProgram, number, when, ""});
    }
  }
  for (long number = first; number <= reference.statements; number += step) {
    points.push_back({At::kStatement, number, When::kBefore, ""});
    points.push_back({At::kStatement, number, When::kAfter, ""});
  }
  return points;
}

bool runAndKill(const std::vector<std::string>& arguments, const KillPoint& point) {
  const bool killed =
      point.at == KillPoint::At::kProgram ? killAtProgram(arguments, point) : killAtStatement(arguments, point, {});
  appliance::takeMessages();
  return killed;
}

// A run after a killed one gives labels other numbers once more, which adds to the links of photos that it has not come
// to yet: these are neither as before nor as after then, so it is not looked at.
bool runAndKill(Trial& trial, const Reference& reference, const std::vector<std::string>& arguments,
                const KillPoint& point, bool isFirst) {
  const bool looks =
      isFirst && point.at == KillPoint::At::kStatement && point.signal == SIGKILL && merges(reference.mode);
  if (!looks) {
    return runAndKill(arguments, point);
  }
  const bool killed =
      killAtStatement(arguments, point, [&](const std::string& when) { checkLiveRows(trial, reference, when); });
  appliance::takeMessages();
  return killed;
}

bool runAndKill(Mode mode, const KillPoint& point) { return runAndKill(commandLine(mode), point); }

Trial killAndRunAgain(const Reference& reference, const std::vector<KillPoint>& points) {
  layOut(reference.mode);
  Trial trial;
  for (const KillPoint& point : points) {
    if (!runAndKill(trial, reference, commandLine(reference.mode), point, &point == &points.front())) {
      trial.faults.push_back("the tool was not killed " + nameOf(point));
      return trial;
    }
  }
  const Trial again = runAgain(reference);
  trial.rowsLost += again.rowsLost;
  trial.rowsDoubled += again.rowsDoubled;
  trial.wrongNames += again.wrongNames;
  trial.faults.insert(trial.faults.end(), again.faults.begin(), again.faults.end());
  return trial;
}

Trial runAgain(const Reference& reference) {
  Trial trial;
  const appliance::Outcome again = appliance::runTool(commandLine(reference.mode));
  if (again.status != 0) {
    trial.faults.push_back("the second run ends with status " + std::to_string(again.status));
  }
  const std::vector<std::string> messages = appliance::takeMessages();
  checkTables(trial, false);
  if (!trial.faults.empty()) {
    return trial;
  }
  const Outcome found = look(reference.mode == Mode::kBackup ? workDirectory() : "");
  if (reference.mode == Mode::kBackup) {
    checkBackup(trial, reference, found);
  } else {
    checkMerge(trial, reference, found);
  }
  expectSame(trial, "the settings file", reference.after.settings, found.settings);
  expectSame(trial, "the theme directory", reference.after.themes, found.themes);
  // A second run may be told of less, as there is less to merge, but of nothing that an undisturbed run is not told of.
  checkMessages(trial, reference.after.messages, messages);
  checkFiles(trial, reference.mode);
  for (const std::string& report : appliance::takeSanitizerReports()) {
    trial.faults.push_back(report);
  }
  return trial;
}

}  // namespace crash
