#include <fcntl.h>
#include <poll.h>
#include <regex.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>

#include "support/internals.h"

namespace appliance {
namespace {

struct Sink {
  int socket = -1;
  int stop[2] = {-1, -1};
  std::mutex mutex;
  std::vector<std::string> messages;
  std::vector<char> buffer = std::vector<char>(1 << 20);
  std::thread reader;
};

// Never destroyed: the process is left through an exit handler that still uses it.
Sink& sink() {
  static Sink& instance = *new Sink;
  return instance;
}

struct Form {
  regex_t expression{};
  Form() {
    const char* text = "^<11>[A-Z][a-z][a-z] [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [^ ]*: kavophoto_backup:[0-9]+ ";
    if (regcomp(&expression, text, REG_EXTENDED) != 0) {
      internals::fail("the form of a message");
    }
  }
  ~Form() { regfree(&expression); }
};

std::string strip(const std::string& datagram) {
  static const Form& form = *new Form;
  regmatch_t match{};
  if (regexec(&form.expression, datagram.c_str(), 1, &match, 0) != 0) {
    return "MALFORMED: " + datagram;
  }
  return datagram.substr(static_cast<std::size_t>(match.rm_eo));
}

// Taking a datagram off the queue and storing it are one step for both readers, so the order is kept and none is
// between the two when the messages are taken.
void drain(Sink& sink) {
  for (;;) {
    const ssize_t size = recv(sink.socket, sink.buffer.data(), sink.buffer.size(), MSG_DONTWAIT);
    if (size < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    sink.messages.push_back(strip(std::string(sink.buffer.data(), static_cast<std::size_t>(size))));
  }
}

void readUntilStopped(Sink& sink) {
  for (;;) {
    pollfd waiting[2] = {{sink.socket, POLLIN, 0}, {sink.stop[0], POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0 && errno != EINTR) {
      return;
    }
    if (waiting[1].revents != 0) {
      return;
    }
    const std::lock_guard<std::mutex> lock(sink.mutex);
    drain(sink);
  }
}

}  // namespace

std::vector<std::string> takeMessages() {
  internals::observed();
  Sink& s = sink();
  const std::lock_guard<std::mutex> lock(s.mutex);
  drain(s);
  std::vector<std::string> taken;
  taken.swap(s.messages);
  return taken;
}

namespace internals {

// A socket's queue holds about ten datagrams and a full one blocks the sender, hence the thread.
void startSink() {
  Sink& s = sink();
  s.socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/dev/log");
  const int room = 8 << 20;
  if (s.socket < 0 || bind(s.socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      chmod("/dev/log", 0666) != 0 || pipe2(s.stop, O_CLOEXEC) != 0) {
    failErrno("the log socket");
  }
  setsockopt(s.socket, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  s.reader = std::thread([&s] { readUntilStopped(s); });
}

void stopSink() {
  Sink& s = sink();
  if (!s.reader.joinable()) {
    return;
  }
  close(s.stop[1]);
  s.reader.join();
  close(s.stop[0]);
  close(s.socket);
}

}  // namespace internals
}  // namespace appliance
