#include "platform/process_runner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <initializer_list>

#include "platform/handles.h"

namespace {

// The child's standard streams.
struct SpawnActions {
  SpawnActions() { posix_spawn_file_actions_init(&actions); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }

  posix_spawn_file_actions_t actions = {};
};

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

  SpawnActions streams;
  if (captureOutput) {
    posix_spawn_file_actions_adddup2(&streams.actions, writeEnd.get(), STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&streams.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  // After the dup2: the pipe may have got descriptor 0 where the caller has none open.
  posix_spawn_file_actions_addopen(&streams.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

  std::vector<char*> vector;
  vector.reserve(arguments_.size() + 1);
  for (std::string& argument : arguments_) {
    vector.push_back(argument.data());
  }
  vector.push_back(nullptr);

  pid_t child = 0;
  if (posix_spawn(&child, path_.c_str(), &streams.actions, nullptr, vector.data(), environ) != 0) {
    return -1;
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
