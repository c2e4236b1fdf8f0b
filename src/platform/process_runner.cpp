#include "platform/process_runner.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "platform/database.h"
#include "platform/handles.h"
#include "platform/session_options.h"

namespace {

// What the tool's children get in place of what the tool was given. A null value removes the variable.
struct Variable {
  std::string_view name;
  const char* value;
};
constexpr std::array kChildVariables = {
    // Set anew with the session options added.
    Variable{"PGOPTIONS", nullptr},
    // The server's administrators see whose sessions these are, and the next run finds those that were left over.
    Variable{"PGAPPNAME", "kavophoto_backup"},
    // With "\set AUTOCOMMIT off" in the user's own ~/.psqlrc every rename would be rolled back when psql ends.
    Variable{"PSQLRC", "/dev/null"},
    // The archive's format, compression and members are the tool's to choose. With POSIXLY_CORRECT tar takes the "-C"
    // that follows the members for a member too. By default tar reads "\t" in the directory's name as a tab.
    Variable{"TAR_OPTIONS", "--no-unquote"},
    Variable{"TAPE", nullptr},
    Variable{"GZIP", nullptr},
    Variable{"POSIXLY_CORRECT", nullptr},
    // pg_dump would write the texts in this encoding instead of the database's own.
    Variable{"PGCLIENTENCODING", nullptr},
    // libpq sends these two apart from the session options, and the server lets them win over those.
    Variable{"PGTZ", nullptr},
    Variable{"PGDATESTYLE", nullptr},
    // Of a service libpq lets "options" and "application_name" win over the tool's variables. In place of the service
    // the program gets what the tool's own connection was made with.
    Variable{"PGSERVICE", nullptr},
    Variable{"PGSERVICEFILE", nullptr},
};

std::string_view nameOf(std::string_view entry) { return entry.substr(0, entry.find('=')); }

bool holds(const std::vector<std::string>& entries, std::string_view name) {
  return std::any_of(entries.begin(), entries.end(),
                     [name](const std::string& entry) { return nameOf(entry) == name; });
}

bool isChildVariable(std::string_view name) {
  return std::any_of(kChildVariables.begin(), kChildVariables.end(),
                     [name](const Variable& variable) { return variable.name == name; });
}

std::vector<std::string> childEnvironment() {
  std::vector<std::string> entries;
  if (std::getenv("PGSERVICE") != nullptr) {
    entries = lastServerVariables();
  }
  for (const Variable& variable : kChildVariables) {
    if (variable.value != nullptr) {
      entries.push_back(std::string(variable.name) + "=" + variable.value);
    }
  }
  entries.push_back("PGOPTIONS=" + childSessionOptions(lastServerVersion()));
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view name = nameOf(*entry);
    if (!isChildVariable(name) && !holds(entries, name)) {
      entries.emplace_back(*entry);
    }
  }
  return entries;
}

// Null-terminated, as exec takes them; valid as long as the texts are.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// dup2 leaves a descriptor that has the right number already as it is, and it would be closed by the exec.
bool putAt(int target, int descriptor) {
  return descriptor == target ? fcntl(target, F_SETFD, 0) == 0 : dup2(descriptor, target) == target;
}

// `output` is where the program's standard output goes; -1 discards it.
bool setUpStreams(int output) {
  if (output < 0) {
    output = open("/dev/null", O_WRONLY | O_CLOEXEC);
  }
  // Standard output first: the pipe may have got descriptor 0 where the caller has none open.
  return putAt(STDOUT_FILENO, output) && putAt(STDIN_FILENO, open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// What the caller ignores or blocks, the program would ignore or block too.
bool setUpSignals() {
  sigset_t none;
  sigemptyset(&none);
  return std::signal(SIGPIPE, SIG_DFL) != SIG_ERR && std::signal(SIGCHLD, SIG_DFL) != SIG_ERR &&
         sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

// The program ends with the tool: one that outlived it would rename or copy later, under another run. A parent that
// ended before the kernel was asked for that is no longer the parent.
bool endWith(pid_t parent) { return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent; }

// Between fork and exec, so only calls that are safe in a signal handler.
[[noreturn]] void becomeProgram(pid_t parent, const char* path, char* const* arguments, char* const* environment,
                                int output) {
  constexpr int kNotStarted = 127;
  if (endWith(parent) && setUpStreams(output) && setUpSignals()) {
    execve(path, arguments, environment);
  }
  _exit(kNotStarted);
}

void append(std::vector<std::string>& list, std::initializer_list<const char*> arguments) {
  for (const char* argument : arguments) {
    if (argument == nullptr) {
      return;
    }
    list.emplace_back(argument);
  }
}

// False when reading failed before the end.
bool readToEnd(int descriptor, std::string& text) {
  std::array<char, 65536> piece = {};
  for (;;) {
    const ssize_t length = read(descriptor, piece.data(), piece.size());
    if (length > 0) {
      text.append(piece.data(), static_cast<std::size_t>(length));
    } else if (length == 0) {
      return true;
    } else if (errno != EINTR) {
      return false;
    }
  }
}

bool endedWell(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) {
      return false;
    }
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

namespace KAVOUtils {

ProcessRunner::ProcessRunner(const char* path, const char* a1, const char* a2, const char* a3, const char* a4,
                             const char* a5, const char* a6, const char* a7, const char* a8, const char* a9)
    : path_(path) {
  append(arguments_, {a1, a2, a3, a4, a5, a6, a7, a8, a9});
}

void ProcessRunner::addArguments(const char* a1, const char* a2, const char* a3, const char* a4, const char* a5,
                                 const char* a6, const char* a7, const char* a8, const char* a9) {
  append(arguments_, {a1, a2, a3, a4, a5, a6, a7, a8, a9});
}

int ProcessRunner::run(bool /*wait*/, bool captureOutput) {
  Descriptor readEnd;
  Descriptor writeEnd;
  if (captureOutput) {
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      return -1;
    }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }

  std::vector<std::string> variables;
  if (!callersEnvironment_) {
    variables = childEnvironment();
  }
  const std::vector<char*> arguments = pointersTo(arguments_);
  const std::vector<char*> changed = pointersTo(variables);
  char* const* const environment = callersEnvironment_ ? environ : changed.data();
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) {
    return -1;
  }
  if (child == 0) {
    becomeProgram(parent, path_.c_str(), arguments.data(), environment, writeEnd.get());
  }
  // The pipe ends only when no process holds its write end any more, this one included.
  writeEnd.reset();
  const bool captured = !captureOutput || readToEnd(readEnd.get(), output_);
  readEnd.reset();
  return endedWell(child) && captured ? 0 : -1;
}

std::string ProcessRunner::toString() const {
  std::string text;
  for (const std::string& argument : arguments_) {
    if (!text.empty()) {
      text += ' ';
    }
    text += argument;
  }
  return text;
}

}  // namespace KAVOUtils
