#pragma once

#include <string>
#include <vector>

namespace KAVOUtils {

// One external program with its arguments: filled once, run once. No shell is involved, every argument reaches the
// child as one element of its argument vector. A null argument ends a list.
class ProcessRunner {
 public:
  // `path` is the program that is started, a1 becomes the child's argument zero (by custom the path again).
  explicit ProcessRunner(const char* path, const char* a1 = nullptr, const char* a2 = nullptr, const char* a3 = nullptr,
                         const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                         const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr);

  void addArguments(const char* a1, const char* a2 = nullptr, const char* a3 = nullptr, const char* a4 = nullptr,
                    const char* a5 = nullptr, const char* a6 = nullptr, const char* a7 = nullptr,
                    const char* a8 = nullptr, const char* a9 = nullptr);

  // Gives the program this process's environment as it is. For programs that are none of the tool's own: their database
  // sessions, and those of what they leave in the background, are then not taken for sessions of the tool.
  void useCallersEnvironment() { callersEnvironment_ = true; }

  // Starts the program and waits for its end. The child is killed when the calling thread ends before it. It reads
  // /dev/null, writes to this process's standard error, and its standard output is captured or discarded. Its
  // environment is this process's without what would change how the database clients and tar work (unless
  // useCallersEnvironment was called); of a libpq service (PGSERVICE) it gets what lastServerVariables gives. 0 when it
  // ended with status 0; negative when it could not be started, its output could not be read, or it ended with another
  // status or by a signal. Nothing is logged. `wait` is always true: there is no running in the background.
  int run(bool wait, bool captureOutput);

  // What a run with captureOutput printed, whole.
  const std::string& getCapturedOutput() const { return output_; }

  // The argument vector joined with blanks, for log messages only.
  std::string toString() const;

 private:
  std::string path_;
  std::vector<std::string> arguments_;
  std::string output_;
  bool callersEnvironment_ = false;
};

}  // namespace KAVOUtils
