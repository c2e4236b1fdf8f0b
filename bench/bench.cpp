// Measures the tool on libraries of any size and writes what it found as a table, CSV files and a chart:
//
//   kavophoto_bench [--slow-disk | --busy | --million | --against TOOL COMMIT] --results FOLDER --data FOLDER [ROWS]
//
// Both folders must exist. The server's data stay in the second, which holds nothing else and can be removed
// afterwards. TOOL is the program of another commit, COMMIT the name that the tables give it.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "chart.h"
#include "platform/handles.h"
#include "platform/text.h"
#include "report.h"
#include "steps.h"
#include "support/appliance.h"

namespace {

constexpr long kFewestRows = 100;
constexpr long kMostRows = 10000000;
// The other tool has the name of the tool, because programs tell things by it.
constexpr const char* kOtherTool = "/appliance/other/kavophoto_backup";
constexpr const char* kLatencyDevice = "/dev/cpu_dma_latency";

struct Options {
  bench::Plan plan;
  // The other tool's path on the machine.
  std::string other;
  std::string results;
  std::string data;
};

bool readRows(const char* text, long& rows) {
  char* end = nullptr;
  rows = std::strtol(text, &end, 10);
  return *end == '\0' && rows >= kFewestRows && rows <= kMostRows;
}

bool readOptions(int count, char** arguments, Options& options) {
  for (int at = 1; at < count; ++at) {
    const std::string argument = arguments[at];
    if (argument == "--slow-disk") {
      options.plan.kind = bench::Kind::kSlowDisk;
    } else if (argument == "--busy") {
      options.plan.kind = bench::Kind::kBusy;
    } else if (argument == "--million") {
      options.plan.kind = bench::Kind::kMillion;
    } else if (argument == "--against" && at + 2 < count) {
      options.plan.kind = bench::Kind::kAgainst;
      options.other = arguments[++at];
      options.plan.otherCommit = arguments[++at];
    } else if (argument == "--results" && at + 1 < count) {
      options.results = arguments[++at];
    } else if (argument == "--data" && at + 1 < count) {
      options.data = arguments[++at];
    } else if (!readRows(arguments[at], options.plan.rows)) {
      return false;
    }
  }
  return !options.results.empty() && !options.data.empty();
}

appliance::EnterOptions serverOptions(const Options& options) {
  appliance::EnterOptions server;
  server.dataDirectory = std::filesystem::absolute(options.data);
  // A client that does not ask for anything else waits for its commits, as on any server.
  server.settings = {"shared_buffers=128MB", "synchronous_commit=on"};
  if (options.plan.kind == bench::Kind::kSlowDisk) {
    // The delay counts only where commits are flushed at all.
    server.fsync = true;
    server.settings.insert(server.settings.end(), {"commit_delay=10000", "commit_siblings=0"});
  }
  return server;
}

// The appliance's own folders are memory, which the unpacked archive of a large library would fill.
void moveWorkDirectoryToDisk() {
  const std::string folder = "/appliance/data/bench_work";
  appliance::makeDirectories(folder);
  if (mount(folder.c_str(), appliance::workDirectory().c_str(), nullptr, MS_BIND, nullptr) != 0) {
    throw std::runtime_error(formatText("mount the work directory: %s", std::strerror(errno)));
  }
}

std::optional<dev_t> deviceOf(const char* path) {
  struct stat status = {};
  if (stat(path, &status) != 0 || !S_ISCHR(status.st_mode)) {
    return std::nullopt;
  }
  return status.st_rdev;
}

// Another commit's tool may ask the kernel for processors that stay awake, and is to be measured at its best. Only root
// may ask.
void offerLatencyDevice(std::optional<dev_t> device) {
  if (device && geteuid() == 0 && !appliance::exists(kLatencyDevice) &&
      mknod(kLatencyDevice, S_IFCHR | 0600, *device) != 0) {
    throw std::runtime_error(formatText("mknod %s: %s", kLatencyDevice, std::strerror(errno)));
  }
}

Descriptor openExisting(const std::string& path, int flags) {
  Descriptor opened(open(path.c_str(), flags | O_CLOEXEC));
  if (!opened) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  return opened;
}

void copyOtherTool(const Descriptor& program) {
  appliance::makeDirectories(std::filesystem::path(kOtherTool).parent_path());
  std::filesystem::copy_file(formatText("/proc/self/fd/%d", program.get()), kOtherTool);
}

// Written through a descriptor of the folder: inside the appliance its path may lead elsewhere.
void writeResult(const Descriptor& folder, const char* name, const std::string& text) {
  const int file = openat(folder.get(), name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  File stream(file >= 0 ? fdopen(file, "w") : nullptr);
  if (!stream || std::fwrite(text.data(), 1, text.size(), stream.get()) != text.size() ||
      std::fclose(stream.release()) != 0) {
    throw std::runtime_error(formatText("write %s: %s", name, std::strerror(errno)));
  }
}

void run(Options options) {
  const Descriptor results = openExisting(options.results, O_RDONLY | O_DIRECTORY);
  // Inside the appliance the machine's own files are out of sight.
  Descriptor other;
  std::optional<dev_t> latencyDevice;
  if (options.plan.kind == bench::Kind::kAgainst) {
    other = openExisting(options.other, O_RDONLY);
    latencyDevice = deviceOf(kLatencyDevice);
  }
  appliance::enter(serverOptions(options));
  moveWorkDirectoryToDisk();
  if (other) {
    copyOtherTool(other);
    offerLatencyDevice(latencyDevice);
    options.plan.otherTool = kOtherTool;
  }
  const std::vector<bench::Figure> figures = bench::measureAll(options.plan);
  const std::string table = bench::tableText(options.plan, figures);
  writeResult(results, "figures.csv", bench::figuresCsv(figures));
  writeResult(results, "goals.csv", bench::goalsCsv(bench::judge(options.plan, figures)));
  writeResult(results, "chart.svg", bench::chartSvg(options.plan, figures));
  writeResult(results, "table.txt", table);
  writeResult(results, "table.md", bench::tableMarkdown(options.plan, figures));
  std::printf("\n%s\nResults: %s\n", table.c_str(), options.results.c_str());
}

}  // namespace

int main(int count, char** arguments) {
  try {
    Options options;
    if (!readOptions(count, arguments, options)) {
      std::fprintf(stderr,
                   "Usage: kavophoto_bench [--slow-disk | --busy | --million | --against TOOL COMMIT] "
                   "--results FOLDER --data FOLDER [ROWS]\n");
      return 2;
    }
    run(options);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
