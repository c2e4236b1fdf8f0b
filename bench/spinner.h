#pragma once

#include <sys/types.h>

namespace bench {

// A process that keeps one processor busy from its construction to its destruction. It also ends when this process
// ends, in whatever way. Throws std::runtime_error when it cannot be started.
class Spinner {
 public:
  Spinner();
  Spinner(const Spinner&) = delete;
  Spinner& operator=(const Spinner&) = delete;
  ~Spinner();

 private:
  pid_t process_;
};

}  // namespace bench
