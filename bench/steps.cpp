#include "steps.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>

#include "fill.h"
#include "measure.h"
#include "platform/text.h"
#include "support/appliance.h"

namespace bench {
namespace {

constexpr long kLogRows = 100000;
constexpr long kRepairRows = 100000;
constexpr long kImageRows = 10000;
constexpr long kImageRowsSlowDisk = 1000;

constexpr const char* kSource = "source";
// What is live when everything is present.
constexpr const char* kFull = "full_live";

using Preparation = std::function<void()>;

// Short runs are repeated, because the machine has other things to do as well.
constexpr int kMostRuns = 3;
constexpr double kEnoughSeconds = 15;

const std::string& work() {
  static const std::string directory = appliance::workDirectory();
  return directory;
}

void report(const Figure& figure) {
  std::fprintf(stderr, "  %-24s %8ld rows %9.2f s\n", figure.step.c_str(), figure.rows, figure.seconds);
}

Figure makeFigure(const char* step, long rows, const Run& run, long long inTransaction) {
  Figure figure = {step, rows, run.seconds, run.transactions + inTransaction, run.peakKilobytes};
  report(figure);
  return figure;
}

// Runs the tool with `arguments` several times, each time after `prepare`. `inTransaction` statements of a run stand in
// a transaction of their own and are not seen by the server's count.
Figure measureTool(const char* step, long rows, const Preparation& prepare, const std::vector<std::string>& arguments,
                   long long inTransaction = 0) {
  std::vector<Run> runs;
  double seconds = 0;
  while (static_cast<int>(runs.size()) < kMostRuns && seconds < kEnoughSeconds) {
    prepare();
    runs.push_back(runOnce("", arguments));
    seconds += runs.back().seconds;
  }
  return makeFigure(step, rows, median(runs), inTransaction);
}

void expectCount(const std::string& database, const std::string& table, long count) {
  const long found = appliance::Database(database).count(table);
  if (found != count) {
    throw std::runtime_error(
        formatText("%s has %ld rows in %s, not %ld", database.c_str(), found, table.c_str(), count));
  }
}

// Replaced labels have new numbers, so that the links of before count no longer and stand beside the new ones.
enum class Links { kOnce = 1, kTwice = 2 };

void expectPhotos(const std::string& database, const Library& library, Links links) {
  expectCount(database, "photo_image", library.photos);
  expectCount(database, "photo_comment", library.photos);
  expectCount(database, "photo_image_label", static_cast<long>(links) * 2 * library.photos);
}

void expectLibrary(const std::string& database, const Library& library, Links links = Links::kOnce) {
  expectPhotos(database, library, links);
  expectCount(database, "photo_log", library.logEntries);
  expectCount(database, "photo_share", library.shares);
  expectCount(database, "photo_user", library.users);
  expectCount(database, "video_comment", library.videos);
  expectCount(database, "photo_video_label", static_cast<long>(links) * library.videos);
  expectCount(database, "photo_personal_collection_photo", library.members);
}

void emptyLive() { appliance::createDatabase("photo"); }

void renameDatabase(const std::string& from, const std::string& to) {
  appliance::dropDatabase(to);
  appliance::Database("postgres").exec(formatText("ALTER DATABASE %s RENAME TO %s", from.c_str(), to.c_str()));
}

// Keeps the live database for fullLive(), after what a server that has been up for a while has done by itself.
void keepFull() {
  appliance::Database("photo").exec("VACUUM ANALYZE");
  renameDatabase("photo", kFull);
}

void fullLive() {
  appliance::dropDatabase("photo");
  appliance::Database("postgres").exec(formatText("CREATE DATABASE photo TEMPLATE %s STRATEGY file_copy", kFull));
}

// The programs of a backup without the tool, as one script.
Run runBackupPrograms() {
  const std::string dump = work() + "plain.dump";
  const std::string archive = work() + "plain.tar.gz";
  std::string there;
  std::string dumpTables = "/usr/bin/pg_dump -U postgres -F c -d photo -f " + dump;
  std::string back;
  for (const std::string& table : appliance::tableNames()) {
    there += formatText("/usr/bin/psql photo -U postgres -c 'ALTER TABLE %s RENAME TO %s_bak;'\n", table.c_str(),
                        table.c_str());
    dumpTables += formatText(" -t %s_bak", table.c_str());
    back += formatText("/usr/bin/psql photo -U postgres -c 'ALTER TABLE %s_bak RENAME TO %s;'\n", table.c_str(),
                       table.c_str());
  }
  const std::string pack = "/bin/tar -zcf " + archive + " -C " + work() + " plain.dump\n";
  Run run = runOnce("/bin/sh", {"-e", "-c", there + dumpTables + "\n" + pack + back});
  // That of the shell says nothing.
  run.peakKilobytes = 0;
  appliance::removeAll(dump);
  appliance::removeAll(archive);
  return run;
}

// In turns, so that both sides meet the same hours of the machine.
void measureBackup(long rows, std::vector<Figure>& figures) {
  std::vector<Run> tool;
  std::vector<Run> programs;
  for (int run = 0; run < kMostRuns; ++run) {
    tool.push_back(runOnce("", {"-b", work()}));
    programs.push_back(runBackupPrograms());
  }
  figures.push_back(makeFigure(step::kBackup, rows, median(tool), 0));
  figures.push_back(makeFigure(step::kBackupPrograms, rows, median(programs), 0));
}

// The log's statements stand in one transaction: a look-up of each entry, and what follows from it.
enum class LogMerge { kKeeps = 1, kInserts = 2, kReplaces = 3 };

void fillLive(const Library& library) {
  emptyLive();
  fillLabels("photo");
  fillPhotos("photo", library);
  fillRest("photo", library);
}

// What was live is what is imported from now on.
void makeLiveTheSource() {
  renameDatabase("photo", kSource);
  appliance::writeAccountFiles(work(), kSource);
}

std::vector<std::string> importArguments() { return {"-i", work(), "-d", kSource}; }

void measureLibrary(long rows, std::vector<Figure>& figures) {
  const Library library(rows);
  const auto logStatements = [&library](LogMerge merge) { return library.logEntries * static_cast<long>(merge); };
  fillLive(library);
  measureBackup(rows, figures);

  makeLiveTheSource();
  const std::vector<std::string> import = importArguments();
  figures.push_back(measureTool(step::kImportEmpty, rows, emptyLive, import, logStatements(LogMerge::kInserts)));
  expectLibrary("photo", library);
  keepFull();
  figures.push_back(measureTool(step::kImportFull, rows, fullLive, import, logStatements(LogMerge::kReplaces)));
  expectLibrary("photo", library, Links::kTwice);

  const std::vector<std::string> restore = {"-r", work()};
  const std::vector<std::string> restoreOver = {"-r", work(), "-o"};
  figures.push_back(measureTool(step::kRestoreFull, rows, fullLive, restore, logStatements(LogMerge::kKeeps)));
  expectLibrary("photo", library);
  figures.push_back(
      measureTool(step::kRestoreOverFull, rows, fullLive, restoreOver, logStatements(LogMerge::kReplaces)));
  expectLibrary("photo", library, Links::kTwice);
  figures.push_back(measureTool(step::kRestoreEmpty, rows, emptyLive, restore, logStatements(LogMerge::kInserts)));
  expectLibrary("photo", library);
  figures.push_back(
      measureTool(step::kRestoreOverEmpty, rows, emptyLive, restoreOver, logStatements(LogMerge::kInserts)));
  expectLibrary("photo", library);
  appliance::dropDatabase(kFull);
}

// Every other entry is there already.
void measureLogMerge(long rows, std::vector<Figure>& figures) {
  appliance::createDatabase(kSource);
  fillLog(kSource, 1 + rows / 2, rows);
  const auto prepare = [rows] {
    emptyLive();
    fillLog("photo", 1, rows);
  };
  figures.push_back(measureTool(step::kLogMerge, rows, prepare, importArguments(), 2 * rows + rows / 2));
  expectCount("photo", "photo_log", rows + rows / 2);
}

// No photo is merged: none lies where the repaired path says.
void measurePathRepair(long rows, std::vector<Figure>& figures) {
  emptyLive();
  fillForeignPhotos("photo", rows);
  runOnce("", {"-b", work()});
  figures.push_back(measureTool(step::kRepairRestore, rows, emptyLive, {"-r", work()}));
  expectCount("photo", "photo_image", 0);

  const auto prepare = [rows] {
    appliance::createDatabase(kSource);
    fillForeignPhotos(kSource, rows);
  };
  figures.push_back(measureTool(step::kRepairImport, rows, prepare, importArguments()));
  expectCount(kSource, "photo_image WHERE path LIKE '/var/services/photo%'", rows);
}

// Photos with their comments and labels into a database that has the labels only, by the tool and by the plain loop in
// turns.
void measureImages(const Plan& plan, std::vector<Figure>& figures) {
  const Library library(std::min(plan.rows, plan.slowDisk ? kImageRowsSlowDisk : kImageRows));
  appliance::createDatabase(kSource);
  fillLabels(kSource);
  fillPhotos(kSource, library);
  const auto prepare = [] {
    emptyLive();
    fillLabels("photo");
  };
  std::vector<Run> tool;
  std::vector<Run> plain;
  for (int run = 0; run < kMostRuns; ++run) {
    prepare();
    tool.push_back(runOnce("", importArguments()));
    expectPhotos("photo", library, Links::kOnce);
    prepare();
    plain.push_back(runOnce(BENCH_PLAIN_LOOP, {"photo", kSource}));
    expectPhotos("photo", library, Links::kOnce);
  }
  figures.push_back(makeFigure(step::kImages, library.photos, median(tool), 0));
  figures.push_back(makeFigure(step::kImagesPlain, library.photos, median(plain), 0));
}

void measureMemory(long rows, std::vector<Figure>& figures) {
  const Library library(rows);
  fillLive(library);
  figures.push_back(makeFigure(step::kBackup, rows, runOnce("", {"-b", work()}), 0));
  makeLiveTheSource();
  const long long logStatements = library.logEntries * static_cast<long>(LogMerge::kInserts);
  figures.push_back(measureTool(step::kImportEmpty, rows, emptyLive, importArguments(), logStatements));
  expectLibrary("photo", library);
  figures.push_back(measureTool(step::kRestoreEmpty, rows, emptyLive, {"-r", work()}, logStatements));
  expectLibrary("photo", library);
}

}  // namespace

std::vector<Figure> measureAll(const Plan& plan) {
  std::vector<Figure> figures;
  makeFiles(Library(plan.rows));
  if (plan.memoryOnly) {
    measurePathRepair(plan.rows, figures);
    measureMemory(plan.rows, figures);
    return figures;
  }
  measureImages(plan, figures);
  measureLogMerge(kLogRows / 10, figures);
  measureLogMerge(kLogRows, figures);
  measurePathRepair(kRepairRows / 10, figures);
  measurePathRepair(kRepairRows, figures);
  if (plan.rows > kRepairRows) {
    measurePathRepair(plan.rows, figures);
  }
  measureLibrary(plan.rows / 10, figures);
  measureLibrary(plan.rows, figures);
  return figures;
}

}  // namespace bench
