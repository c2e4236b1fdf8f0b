#include "faults/statement_relay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include "support/appliance.h"

namespace faults {
namespace {

constexpr const char* kFolder = "/appliance/relay";
constexpr const char* kSocketName = "/.s.PGSQL.5432";

[[noreturn]] void failErrno(const std::string& what) {
  throw std::runtime_error("relay: " + what + ": " + strerror(errno));
}

int makeSocket() {
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    failErrno("socket");
  }
  return descriptor;
}

sockaddr_un addressOf(const std::string& folder) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = folder + kSocketName;
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("relay: the path of the socket is too long");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

void closeBoth(int one, int other) {
  for (const int descriptor : {one, other}) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

// False at the end of the stream.
bool readSome(int descriptor, std::string& text) {
  std::array<char, 65536> piece = {};
  for (;;) {
    const ssize_t size = read(descriptor, piece.data(), piece.size());
    if (size < 0 && errno == EINTR) {
      continue;
    }
    text.append(piece.data(), static_cast<std::size_t>(size > 0 ? size : 0));
    return size > 0;
  }
}

bool sendAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
    if (size < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(size > 0 ? size : 0));
  }
  return true;
}

std::size_t numberAt(const std::string& text, std::size_t at) {
  std::size_t number = 0;
  for (std::size_t byte = 0; byte < 4; ++byte) {
    number = number << 8U | static_cast<unsigned char>(text[at + byte]);
  }
  return number;
}

// The size of the message that the text begins with, 0 when it is not whole yet. Only the first message of a client has
// no type in front of its length.
std::size_t wholeMessage(const std::string& text, bool typed) {
  const std::size_t head = typed ? 1 : 0;
  if (text.size() < head + 4) {
    return 0;
  }
  const std::size_t size = head + numberAt(text, head);
  return text.size() >= size ? size : 0;
}

// The tool's programs give the same application name as the tool.
bool isTool(int client) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return false;
  }
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + std::to_string(peer.pid) + "/exe", error) == appliance::toolPath();
}

bool isOver(pid_t process) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == process;
}

}  // namespace

StatementRelay::StatementRelay() {
  appliance::makeDirectories(kFolder);
  const sockaddr_un address = addressOf(kFolder);
  unlink(address.sun_path);
  listener_ = makeSocket();
  waker_ = eventfd(0, EFD_CLOEXEC);
  if (waker_ < 0 || bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_, SOMAXCONN) != 0) {
    const int error = errno;
    closeBoth(listener_, waker_);
    errno = error;
    failErrno(address.sun_path);
  }
  thread_ = std::thread([this] { run(); });
}

StatementRelay::~StatementRelay() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ends_ = true;
  }
  wake();
  thread_.join();
  for (const Line& line : lines_) {
    closeBoth(line.client, line.server);
  }
  closeBoth(listener_, waker_);
  unlink((std::string(kFolder) + kSocketName).c_str());
}

std::string StatementRelay::environment() const { return std::string("PGHOST=") + kFolder; }

void StatementRelay::holdAt(long statement, Hold hold) {
  const std::lock_guard<std::mutex> lock(mutex_);
  statements_ = 0;
  holdStatement_ = statement;
  holdText_.clear();
  hold_ = hold;
  isHeld_ = false;
}

void StatementRelay::holdAt(const std::string& text, Hold hold) {
  holdAt(0, hold);
  const std::lock_guard<std::mutex> lock(mutex_);
  holdText_ = text;
}

bool StatementRelay::waitUntilHeld(pid_t tool) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!isHeld_) {
    if (isOver(tool)) {
      return false;
    }
    reached_.wait_for(lock, std::chrono::milliseconds(5));
  }
  return true;
}

void StatementRelay::release() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    hold_ = Hold::kNever;
    isHeld_ = false;
    for (Line& line : lines_) {
      line.held = false;
    }
  }
  wake();
}

void StatementRelay::cut() {
  const std::lock_guard<std::mutex> lock(mutex_);
  hold_ = Hold::kNever;
  isHeld_ = false;
  lines_.remove_if([](const Line& line) {
    if (line.held) {
      closeBoth(line.client, line.server);
    }
    return line.held;
  });
}

long StatementRelay::statements() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return statements_;
}

void StatementRelay::wake() const {
  const std::uint64_t one = 1;
  // It fails only when it has been woken often enough not to need it.
  [[maybe_unused]] const ssize_t size = write(waker_, &one, sizeof one);
}

void StatementRelay::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ends_) {
    std::vector<pollfd> waiting = {{waker_, POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const Line& line : lines_) {
      // A held line is not looked at: its reader must not see that the other side went away before it is let go.
      waiting.push_back({line.held ? -1 : line.client, POLLIN, 0});
      waiting.push_back({line.held ? -1 : line.server, POLLIN, 0});
    }
    lock.unlock();
    poll(waiting.data(), waiting.size(), -1);
    lock.lock();
    if (waiting[0].revents != 0) {
      std::uint64_t count = 0;
      if (read(waker_, &count, sizeof count) != sizeof count) {
        return;
      }
    }
    const auto isReady = [&waiting](int descriptor) {
      for (const pollfd& one : waiting) {
        if (one.fd == descriptor && one.revents != 0) {
          return true;
        }
      }
      return false;
    };
    for (auto line = lines_.begin(); line != lines_.end();) {
      if (line->held || pass(*line, isReady(line->client), isReady(line->server))) {
        ++line;
      } else {
        closeBoth(line->client, line->server);
        line = lines_.erase(line);
      }
    }
    if (waiting[1].revents != 0) {
      accept();
    }
  }
}

void StatementRelay::accept() {
  Line line;
  line.client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (line.client < 0) {
    return;
  }
  line.counted = isTool(line.client);
  line.server = makeSocket();
  const char* folder = getenv("PGHOST");
  const sockaddr_un address = addressOf(folder != nullptr ? folder : "/tmp");
  if (connect(line.server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    closeBoth(line.client, line.server);
    return;
  }
  lines_.push_back(line);
}

bool StatementRelay::isDue(const std::string& message) const {
  if (hold_ == Hold::kNever || isHeld_) {
    return false;
  }
  return holdText_.empty() ? statements_ + 1 == holdStatement_ : message.find(holdText_) != std::string::npos;
}

// False when one of the sides is gone.
bool StatementRelay::pass(Line& line, bool clientReady, bool serverReady) {
  const bool clientIsThere = !clientReady || readSome(line.client, line.fromClient);
  const bool serverIsThere = !serverReady || readSome(line.server, line.fromServer);
  return passReplies(line) && passStatements(line) && ((clientIsThere && serverIsThere) || line.held);
}

bool StatementRelay::passStatements(Line& line) {
  while (!line.held) {
    const std::size_t size = wholeMessage(line.fromClient, line.greeted);
    if (size == 0) {
      return true;
    }
    const std::string message = line.fromClient.substr(0, size);
    if (!line.greeted) {
      line.greeted = true;
    } else if (line.counted && (message[0] == 'P' || message[0] == 'Q')) {
      const bool due = isDue(message);
      if (due && hold_ == Hold::kBeforeStatement) {
        line.held = true;
        isHeld_ = true;
        reached_.notify_all();
        return true;
      }
      ++statements_;
      line.awaitsReply = due;
    }
    line.fromClient.erase(0, size);
    if (!sendAll(line.server, message)) {
      return false;
    }
  }
  return true;
}

bool StatementRelay::passReplies(Line& line) {
  while (!line.held) {
    const std::size_t size = wholeMessage(line.fromServer, true);
    if (size == 0) {
      return true;
    }
    constexpr char kReadyForQuery = 'Z';
    if (line.awaitsReply && line.fromServer[0] == kReadyForQuery) {
      line.awaitsReply = false;
      line.held = true;
      isHeld_ = true;
      reached_.notify_all();
      return true;
    }
    const std::string message = line.fromServer.substr(0, size);
    line.fromServer.erase(0, size);
    if (!sendAll(line.client, message)) {
      return false;
    }
  }
  return true;
}

}  // namespace faults
