#include "measure.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "support/appliance.h"

namespace bench {
namespace {

constexpr int kLongestSeconds = 7 * 24 * 3600;

long peakOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  const std::string key = "VmHWM:";
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, key.size(), key) == 0) {
      return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
  }
  return 0;
}

// Reads a process's peak until it is stopped. The usage that wait4 gives would do without a thread, but it includes
// the children that the process waited for. The value only grows in the life of a program, so the last one counts; the
// first ones may still be those of this process, before the program took its place.
class PeakReader {
 public:
  explicit PeakReader(pid_t pid)
      : thread_([this, pid] {
          while (!stopped_) {
            if (const long now = peakOf(pid); now > 0) {
              peak_ = now;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  PeakReader(const PeakReader&) = delete;
  PeakReader& operator=(const PeakReader&) = delete;
  ~PeakReader() { stop(); }

  long stop() {
    stopped_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    return peak_;
  }

 private:
  std::atomic<bool> stopped_ = false;
  std::atomic<long> peak_ = 0;
  std::thread thread_;
};

// A server process goes on for a moment after its client has gone.
void waitUntilIdle(appliance::Database& server) {
  while (server.value("SELECT count(*) FROM pg_stat_activity WHERE backend_type = 'client backend' AND "
                      "datname <> 'postgres'") != "0") {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void expectNoMessages(const std::string& what) {
  const std::vector<std::string> messages = appliance::takeMessages();
  if (!messages.empty()) {
    throw std::runtime_error(what + " logged " + std::to_string(messages.size()) +
                             " messages, the first: " + messages.front());
  }
}

std::string commandLine(const std::string& program, const std::vector<std::string>& arguments) {
  std::string text = program;
  for (const std::string& argument : arguments) {
    text += " " + argument;
  }
  return text;
}

}  // namespace

Run runOnce(const std::string& program, const std::vector<std::string>& arguments) {
  appliance::RunOptions options;
  options.program = program.empty() ? appliance::toolPath() : program;
  options.timeoutSeconds = kLongestSeconds;
  const std::string what = commandLine(options.program, arguments);

  Run run;
  appliance::Outcome outcome;
  {
    appliance::Database server("postgres");
    // What was prepared must not be written while the program runs.
    server.exec("CHECKPOINT");
    waitUntilIdle(server);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = appliance::startTool(arguments, options);
    PeakReader peak(pid);
    outcome = appliance::waitTool(pid);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.peakKilobytes = peak.stop();
    waitUntilIdle(server);
  }
  if (outcome.status != 0) {
    throw std::runtime_error(what + " ended with status " + std::to_string(outcome.status) + ": " + outcome.err);
  }
  expectNoMessages(what);
  return run;
}

Run median(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.seconds < b.seconds; });
  return runs.at((runs.size() - 1) / 2);
}

}  // namespace bench
