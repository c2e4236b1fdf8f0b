#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>

#include "support/internals.h"

namespace appliance {
namespace {

using internals::fail;
using internals::failErrno;

struct Descriptor {
  int number = -1;
  Descriptor() = default;
  explicit Descriptor(int value) : number(value) {}
  Descriptor(Descriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number, other.number);
    return *this;
  }
  ~Descriptor() {
    if (number >= 0) {
      close(number);
    }
  }
};

struct Running {
  Descriptor out;
  Descriptor err;
  Descriptor process;
  std::chrono::steady_clock::time_point limit;
  long ownKilobytes = 0;
};

std::map<pid_t, Running>& running() {
  static std::map<pid_t, Running> processes;
  return processes;
}

std::vector<std::string>& sanitizerReports() {
  static std::vector<std::string> reports;
  return reports;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    variables[text.substr(0, text.find('='))] = text;
  }
  for (const std::string& change : changes) {
    const std::size_t equals = change.find('=');
    if (equals == std::string::npos) {
      variables.erase(change);
    } else {
      variables[change.substr(0, equals)] = change;
    }
  }
  std::vector<std::string> entries;
  entries.reserve(variables.size());
  for (const auto& [name, entry] : variables) {
    entries.push_back(entry);
  }
  return entries;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

long statusKilobytes(pid_t pid, const std::string& key) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(key, 0) == 0) {
      return atol(line.c_str() + key.size());
    }
  }
  return 0;
}

// False at the end of the stream.
bool readAvailable(int descriptor, std::string& text) {
  std::array<char, 65536> buffer{};
  for (;;) {
    const ssize_t size = read(descriptor, buffer.data(), buffer.size());
    if (size > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(size));
    } else if (size == 0) {
      return false;
    } else if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
}

void collectSanitizerReport(const std::string& err) {
  for (const char* sign : {"ERROR: AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
    if (err.find(sign) == std::string::npos) {
      continue;
    }
    sanitizerReports().push_back(err);
    return;
  }
}

[[noreturn]] void becomeProgram(const std::string& cwd, bool dropPrivileges, char* const* argv, char* const* envp,
                                int out, int err) {
  const int null = open("/dev/null", O_RDONLY);
  if (null < 0 || dup2(null, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
    _exit(126);
  }
  close_range(3, ~0U, 0);
  if (dropPrivileges && geteuid() == 0) {
    for (const int capability : {CAP_CHOWN, CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
      prctl(PR_CAPBSET_DROP, static_cast<unsigned long>(capability), 0UL, 0UL, 0UL);
    }
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (chdir(cwd.c_str()) != 0) {
    _exit(126);
  }
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

pid_t startTool(const std::vector<std::string>& arguments, const RunOptions& options) {
  std::vector<std::string> words = {options.program.empty() ? internals::kTool : options.program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> variables = environmentWith(options.env);
  const std::vector<char*> argv = pointersTo(words);
  const std::vector<char*> envp = pointersTo(variables);
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    failErrno("pipe");
  }
  Running process;
  process.out = Descriptor(out[0]);
  process.err = Descriptor(err[0]);
  const Descriptor outEnd(out[1]);
  const Descriptor errEnd(err[1]);
  process.limit = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
  process.ownKilobytes = statusKilobytes(getpid(), "VmHWM:");
  const pid_t pid = fork();
  if (pid < 0) {
    failErrno("fork");
  }
  if (pid == 0) {
    becomeProgram(options.cwd, options.dropPrivileges, argv.data(), envp.data(), outEnd.number, errEnd.number);
  }
  for (const int end : {process.out.number, process.err.number}) {
    fcntl(end, F_SETFL, O_NONBLOCK);
  }
  process.process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  if (process.process.number < 0) {
    failErrno("pidfd_open");
  }
  running().emplace(pid, std::move(process));
  return pid;
}

Outcome waitTool(pid_t pid) {
  const auto found = running().find(pid);
  if (found == running().end()) {
    fail("no program was started as process " + std::to_string(pid));
  }
  Running process = std::move(found->second);
  running().erase(found);

  Outcome outcome;
  long sampled = 0;
  bool timedOut = false;
  // The end of the process counts, not that of the streams: a child it left behind may hold those open.
  for (bool ended = false; !ended;) {
    std::array<pollfd, 3> waiting = {
        {{process.process.number, POLLIN, 0}, {process.out.number, POLLIN, 0}, {process.err.number, POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), 20) < 0 && errno != EINTR) {
      failErrno("poll");
    }
    if (const long now = statusKilobytes(pid, "VmHWM:"); now > 0) {
      sampled = now;
    }
    ended = waiting[0].revents != 0;
    if (process.out.number >= 0 && !readAvailable(process.out.number, outcome.out)) {
      process.out = Descriptor();
    }
    if (process.err.number >= 0 && !readAvailable(process.err.number, outcome.err)) {
      process.err = Descriptor();
    }
    if (!ended && !timedOut && std::chrono::steady_clock::now() > process.limit) {
      timedOut = true;
      kill(pid, SIGKILL);
    }
  }
  if (process.out.number >= 0) {
    readAvailable(process.out.number, outcome.out);
  }
  if (process.err.number >= 0) {
    readAvailable(process.err.number, outcome.err);
  }
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      failErrno("wait4");
    }
  }
  if (timedOut) {
    fail("the program did not end in time; its standard error: " + outcome.err);
  }
  outcome.status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  // The kernel's figure starts at the size of this process, from which the program was forked.
  const bool exact = usage.ru_maxrss > process.ownKilobytes || sampled == 0;
  outcome.peakKilobytes = exact ? usage.ru_maxrss : sampled;
  collectSanitizerReport(outcome.err);
  return outcome;
}

Outcome runTool(const std::vector<std::string>& arguments, const RunOptions& options) {
  return waitTool(startTool(arguments, options));
}

std::vector<std::string> takeSanitizerReports() {
  std::vector<std::string> taken;
  taken.swap(sanitizerReports());
  return taken;
}

}  // namespace appliance
