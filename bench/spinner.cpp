#include "spinner.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>

namespace bench {
namespace {

[[noreturn]] void spin(pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
    _exit(1);
  }
  close_range(0, ~0U, 0);
  volatile unsigned long turns = 0;
  for (;;) {
    turns = turns + 1;
  }
}

}  // namespace

Spinner::Spinner() {
  const pid_t parent = getpid();
  process_ = fork();
  if (process_ < 0) {
    throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  }
  if (process_ == 0) {
    spin(parent);
  }
}

Spinner::~Spinner() {
  kill(process_, SIGKILL);
  while (waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace bench
