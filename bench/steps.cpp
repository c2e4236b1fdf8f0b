#include "steps.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <list>
#include <stdexcept>
#include <thread>

#include "fill.h"
#include "measure.h"
#include "platform/text.h"
#include "spinner.h"
#include "support/appliance.h"

namespace bench {
namespace {

// A merge takes no more log entries than these.
constexpr long kLogRows = 100000;
constexpr long kRepairRows = 100000;
constexpr long kImageRows = 10000;
constexpr long kImageRowsSlowDisk = 1000;
constexpr long kSmallRows = 10000;

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
  std::fprintf(stderr, "  %-38s %8ld rows %9.2f s\n", figure.step.c_str(), figure.rows, figure.seconds);
}

Figure makeFigure(const char* step, long rows, const Run& run) {
  Figure figure = {step, rows, run.seconds, run.peakKilobytes};
  report(figure);
  return figure;
}

// Another program's memory says nothing.
Figure makeOtherFigure(const char* step, long rows, Run run) {
  run.peakKilobytes = 0;
  return makeFigure(step, rows, run);
}

// Runs the tool with `arguments` several times, each time after `prepare`.
Figure measureTool(const char* step, long rows, const Preparation& prepare, const std::vector<std::string>& arguments) {
  std::vector<Run> runs;
  double seconds = 0;
  while (static_cast<int>(runs.size()) < kMostRuns && seconds < kEnoughSeconds) {
    prepare();
    runs.push_back(runOnce("", arguments));
    seconds += runs.back().seconds;
  }
  return makeFigure(step, rows, median(runs));
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
  const Run run = runOnce("/bin/sh", {"-e", "-c", there + dumpTables + "\n" + pack + back});
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
  figures.push_back(makeFigure(step::kBackup, rows, median(tool)));
  figures.push_back(makeOtherFigure(step::kBackupPrograms, rows, median(programs)));
}

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

std::vector<std::string> restoreArguments() { return {"-r", work()}; }

std::vector<std::string> restoreOverArguments() { return {"-r", work(), "-o"}; }

// The steps of a whole library; of those that no goal for a million photos needs, none when `forMillion` is set.
void measureLibrary(long rows, bool forMillion, std::vector<Figure>& figures) {
  const Library library(rows);
  fillLive(library);
  if (forMillion) {
    figures.push_back(makeFigure(step::kBackup, rows, runOnce("", {"-b", work()})));
  } else {
    measureBackup(rows, figures);
  }

  makeLiveTheSource();
  figures.push_back(measureTool(step::kImportEmpty, rows, emptyLive, importArguments()));
  expectLibrary("photo", library);
  keepFull();
  if (!forMillion) {
    figures.push_back(measureTool(step::kImportFull, rows, fullLive, importArguments()));
    expectLibrary("photo", library, Links::kTwice);
    figures.push_back(measureTool(step::kRestoreFull, rows, fullLive, restoreArguments()));
    expectLibrary("photo", library);
  }
  figures.push_back(measureTool(step::kRestoreOverFull, rows, fullLive, restoreOverArguments()));
  expectLibrary("photo", library, Links::kTwice);
  figures.push_back(measureTool(step::kRestoreEmpty, rows, emptyLive, restoreArguments()));
  expectLibrary("photo", library);
  if (!forMillion) {
    figures.push_back(measureTool(step::kRestoreOverEmpty, rows, emptyLive, restoreOverArguments()));
    expectLibrary("photo", library);
  }
  appliance::dropDatabase(kFull);
}

// The merges into what is already there, by the tool and by that of another commit in turns.
void measureAgainst(const Plan& plan, std::vector<Figure>& figures) {
  const Library library(plan.rows);
  fillLive(library);
  runOnce("", {"-b", work()});
  makeLiveTheSource();
  emptyLive();
  runOnce("", importArguments());
  keepFull();

  struct Merge {
    const char* step;
    const char* stepOther;
    std::vector<std::string> arguments;
  };
  for (const Merge& merge : {Merge{step::kImportFull, step::kImportFullOther, importArguments()},
                             Merge{step::kRestoreOverFull, step::kRestoreOverFullOther, restoreOverArguments()}}) {
    std::vector<Run> tool;
    std::vector<Run> other;
    for (int run = 0; run < kMostRuns; ++run) {
      fullLive();
      tool.push_back(runOnce("", merge.arguments));
      expectLibrary("photo", library, Links::kTwice);
      fullLive();
      other.push_back(runOnce(plan.otherTool, merge.arguments));
      expectLibrary("photo", library, Links::kTwice);
    }
    figures.push_back(makeFigure(merge.step, plan.rows, median(tool)));
    figures.push_back(makeOtherFigure(merge.stepOther, plan.rows, median(other)));
  }
}

// Every other entry is there already.
void measureLogMerge(long rows, std::vector<Figure>& figures) {
  appliance::createDatabase(kSource);
  fillLog(kSource, 1 + rows / 2, rows);
  const auto prepare = [rows] {
    emptyLive();
    fillLog("photo", 1, rows);
  };
  figures.push_back(measureTool(step::kLogMerge, rows, prepare, importArguments()));
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

long imageRows(const Plan& plan) {
  switch (plan.kind) {
    case Kind::kBusy:
      return plan.rows;
    case Kind::kSlowDisk:
      return std::min(plan.rows, kImageRowsSlowDisk);
    default:
      return std::min(plan.rows, kImageRows);
  }
}

// Photos with their comments and labels into a database that has the labels only, by the tool and by the plain loop in
// turns, and for kBusy in the same turns again while as many other processes as there are processors are at work.
void measureImages(const Plan& plan, std::vector<Figure>& figures) {
  const Library library(imageRows(plan));
  appliance::createDatabase(kSource);
  fillLabels(kSource);
  fillPhotos(kSource, library);

  const auto runBeside = [&library](std::size_t spinners, const char* program,
                                    const std::vector<std::string>& arguments) {
    emptyLive();
    fillLabels("photo");
    Run run;
    {
      const std::list<Spinner> others(spinners);
      run = runOnce(program, arguments);
    }
    expectPhotos("photo", library, Links::kOnce);
    return run;
  };
  struct Surroundings {
    const char* stepTool;
    const char* stepPlain;
    std::size_t spinners;
    std::vector<Run> tool;
    std::vector<Run> plain;
  };
  std::vector<Surroundings> all = {{step::kImages, step::kImagesPlain, 0, {}, {}}};
  if (plan.kind == Kind::kBusy) {
    all.push_back({step::kImagesBusy, step::kImagesPlainBusy, std::thread::hardware_concurrency(), {}, {}});
  }
  for (int run = 0; run < kMostRuns; ++run) {
    for (Surroundings& one : all) {
      one.tool.push_back(runBeside(one.spinners, "", importArguments()));
      one.plain.push_back(runBeside(one.spinners, BENCH_PLAIN_LOOP, {"photo", kSource}));
    }
  }
  for (const Surroundings& one : all) {
    figures.push_back(makeFigure(one.stepTool, library.photos, median(one.tool)));
    figures.push_back(makeOtherFigure(one.stepPlain, library.photos, median(one.plain)));
  }
}

void measureLogsAndPaths(long rows, std::vector<Figure>& figures) {
  measureLogMerge(kLogRows / 10, figures);
  measureLogMerge(kLogRows, figures);
  measurePathRepair(kRepairRows / 10, figures);
  measurePathRepair(kRepairRows, figures);
  if (rows > kRepairRows) {
    measurePathRepair(rows, figures);
  }
}

}  // namespace

std::vector<Figure> measureAll(const Plan& plan) {
  std::vector<Figure> figures;
  makeFiles(Library(plan.rows));
  const bool forMillion = plan.kind == Kind::kMillion;
  switch (plan.kind) {
    case Kind::kBusy:
      measureImages(plan, figures);
      break;
    case Kind::kAgainst:
      measureAgainst(plan, figures);
      break;
    case Kind::kOrdinary:
    case Kind::kSlowDisk:
      measureImages(plan, figures);
      [[fallthrough]];
    case Kind::kMillion:
      measureLogsAndPaths(plan.rows, figures);
      measureLibrary(std::min(plan.rows / 10, kSmallRows), forMillion, figures);
      measureLibrary(plan.rows, forMillion, figures);
      break;
  }
  return figures;
}

}  // namespace bench
