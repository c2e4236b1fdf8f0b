#include "faults/statement_relay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "support/appliance.h"

namespace faults {
namespace {

constexpr const char* kFolder = "/appliance/relay";
constexpr const char* kSocketName = "/.s.PGSQL.5432";

// Messages of a client.
constexpr char kParse = 'P';
constexpr char kBind = 'B';
constexpr char kDescribe = 'D';
constexpr char kExecute = 'E';
constexpr char kQuery = 'Q';
constexpr char kSync = 'S';
const std::string kFlushMessage("H\0\0\0\4", 5);

// Messages of the server.
constexpr char kCommandComplete = 'C';
constexpr char kEmptyQueryResponse = 'I';
constexpr char kErrorResponse = 'E';
constexpr char kReadyForQuery = 'Z';

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
  const ssize_t size = recv(descriptor, piece.data(), piece.size(), MSG_DONTWAIT);
  text.append(piece.data(), static_cast<std::size_t>(size > 0 ? size : 0));
  return size > 0 || (size < 0 && (errno == EINTR || errno == EAGAIN));
}

// Sends what the other side takes at once, as neither side reads while it waits to write. False when it is gone.
bool sendSome(int descriptor, std::string& text) {
  while (!text.empty()) {
    const ssize_t size = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size < 0) {
      return errno == EINTR || errno == EAGAIN;
    }
    text.erase(0, static_cast<std::size_t>(size));
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

// The fields of one message, behind its type and length.
class Fields {
 public:
  explicit Fields(const std::string& message) : message_(message) {}

  std::string text() {
    const std::size_t end = message_.find('\0', at_);
    std::string text = message_.substr(at_, end - at_);
    at_ = end + 1;
    return text;
  }
  std::string bytes(std::size_t size) {
    at_ += size;
    return message_.substr(at_ - size, size);
  }
  std::size_t shortNumber() {
    at_ += 2;
    return static_cast<std::size_t>(static_cast<unsigned char>(message_[at_ - 2])) << 8U |
           static_cast<unsigned char>(message_[at_ - 1]);
  }
  unsigned number() {
    at_ += 4;
    return static_cast<unsigned>(numberAt(message_, at_ - 4));
  }

 private:
  const std::string& message_;
  std::size_t at_ = 5;
};

std::string literal(const std::string& value, unsigned type) {
  constexpr unsigned kNumericTypes[] = {20, 21, 23, 1700};
  if (std::find(std::begin(kNumericTypes), std::end(kNumericTypes), type) != std::end(kNumericTypes)) {
    return value;
  }
  std::string text = "'";
  for (const char letter : value) {
    text.append(letter == '\'' ? 2 : 1, letter);
  }
  return text + "'";
}

std::string withValues(const std::string& text, const std::vector<std::string>& literals) {
  std::string filled;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t number = 0;
    std::size_t digits = 0;
    while (text[at] == '$' && at + 1 + digits < text.size() && std::isdigit(text[at + 1 + digits]) != 0) {
      number = number * 10 + static_cast<std::size_t>(text[at + 1 + digits] - '0');
      ++digits;
    }
    if (number > 0 && number <= literals.size()) {
      filled += literals[number - 1];
      at += 1 + digits;
    } else {
      filled += text[at];
      ++at;
    }
  }
  return filled;
}

// The tool's programs give the same application name as the tool.
bool runsProgram(int client, const std::string& program) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return false;
  }
  std::error_code error;
  return std::filesystem::read_symlink("/proc/" + std::to_string(peer.pid) + "/exe", error) == program;
}

bool isOver(pid_t process) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == process;
}

}  // namespace

StatementRelay::StatementRelay(std::string program) : program_(std::move(program)) {
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
      line.stop = Stop::kNone;
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
      // Of a held line nothing is read: neither side must see that the other one went away before it is let go.
      const auto wait = [&](int descriptor, bool gone, bool writes) {
        const int events = (line.held || gone ? 0 : POLLIN) | (writes ? POLLOUT : 0);
        waiting.push_back({events == 0 ? -1 : descriptor, static_cast<short>(events), 0});
      };
      wait(line.client, line.clientGone, !line.toClient.empty());
      wait(line.server, line.serverGone, !line.toServer.empty());
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
      if (!line->held && isReady(line->client) && !line->clientGone) {
        line->clientGone = !readSome(line->client, line->fromClient);
      }
      if (!line->held && isReady(line->server) && !line->serverGone) {
        line->serverGone = !readSome(line->server, line->fromServer);
      }
      if (pass(*line)) {
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
  line.counted = runsProgram(line.client, program_);
  line.server = makeSocket();
  const char* folder = getenv("PGHOST");
  const sockaddr_un address = addressOf(folder != nullptr ? folder : "/tmp");
  if (connect(line.server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    closeBoth(line.client, line.server);
    return;
  }
  lines_.push_back(line);
}

bool StatementRelay::isDue(const std::string& text) const {
  if (hold_ == Hold::kNever) {
    return false;
  }
  return holdText_.empty() ? statements_ + 1 == holdStatement_ : text.find(holdText_) != std::string::npos;
}

void StatementRelay::holdNow(Line& line) {
  line.stop = Stop::kNone;
  line.held = true;
  isHeld_ = true;
  reached_.notify_all();
}

// False when one of the sides is gone, and the other one has got what was meant for it.
bool StatementRelay::pass(Line& line) {
  if (!line.held) {
    passReplies(line);
    passStatements(line);
    // A statement that waited for the last reply.
    passReplies(line);
  }
  if (!sendSome(line.server, line.toServer)) {
    line.serverGone = true;
    line.toServer.clear();
  }
  if (!sendSome(line.client, line.toClient)) {
    line.clientGone = true;
    line.toClient.clear();
  }
  return line.held || !((line.clientGone && line.toServer.empty()) || (line.serverGone && line.toClient.empty()));
}

void StatementRelay::passStatements(Line& line) {
  if (!line.counted) {
    line.toServer += line.fromClient;
    line.fromClient.clear();
    return;
  }
  if (line.stop == Stop::kBeforeStatement && line.asked.empty()) {
    holdNow(line);
  }
  while (!line.held && line.stop != Stop::kBeforeStatement && line.stop != Stop::kAtAnswer) {
    const std::size_t size = wholeMessage(line.fromClient, line.greeted);
    if (size == 0) {
      return;
    }
    if (passMessage(line, line.fromClient.substr(0, size))) {
      line.fromClient.erase(0, size);
    }
  }
}

// False when the message has to wait.
bool StatementRelay::passMessage(Line& line, const std::string& message) {
  if (!line.greeted) {
    line.greeted = true;
    line.toServer += message;
    return true;
  }
  const char type = message[0];
  if (line.stop == Stop::kAfterNextMessage && type != kSync) {
    line.toServer += kFlushMessage;
    line.stop = Stop::kAtAnswer;
    // The server has left the statement out already.
    if (line.asked.empty() || !line.asked.back().target) {
      holdNow(line);
    }
    return false;
  }
  switch (type) {
    case kParse:
      noteTemplate(line, message);
      return true;
    case kBind:
      noteBinding(line, message);
      return true;
    case kDescribe:
      line.unsent += message;
      return true;
    case kExecute:
      return passStatement(line, line.boundText, message);
    case kQuery:
      return passStatement(line, Fields(message).text(), message);
    default:
      break;
  }
  line.toServer += line.unsent + message;
  line.unsent.clear();
  if (type == kSync) {
    const bool ends = line.stop == Stop::kAfterNextMessage;
    for (Asked& asked : line.asked) {
      asked.target = false;
    }
    line.asked.push_back({Kind::kSync, ends});
    line.skips = false;
    line.stop = ends ? Stop::kAtAnswer : Stop::kNone;
  }
  return true;
}

bool StatementRelay::passStatement(Line& line, const std::string& text, const std::string& message) {
  const bool due = isDue(text);
  const bool isBefore = due && hold_ == Hold::kBeforeStatement;
  if (due) {
    hold_ = Hold::kNever;
  }
  if (isBefore) {
    line.stop = Stop::kBeforeStatement;
    if (line.asked.empty()) {
      holdNow(line);
    } else {
      line.toServer += kFlushMessage;
    }
    return false;
  }
  ++statements_;
  line.toServer += line.unsent + message;
  line.unsent.clear();
  const bool isQuery = message[0] == kQuery;
  if (isQuery || !line.skips) {
    line.asked.push_back({isQuery ? Kind::kQuery : Kind::kExecution, due});
  }
  if (due) {
    line.stop = isQuery ? Stop::kAtAnswer : Stop::kAfterNextMessage;
  }
  return true;
}

void StatementRelay::noteTemplate(Line& line, const std::string& message) {
  line.unsent += message;
  Fields fields(message);
  Template& made = line.templates[fields.text()];
  made = {fields.text(), {}};
  for (std::size_t types = fields.shortNumber(); types > 0; --types) {
    made.types.push_back(fields.number());
  }
}

void StatementRelay::noteBinding(Line& line, const std::string& message) {
  line.unsent += message;
  Fields fields(message);
  fields.text();
  const Template& bound = line.templates[fields.text()];
  for (std::size_t formats = fields.shortNumber(); formats > 0; --formats) {
    fields.shortNumber();
  }
  std::vector<std::string> literals;
  for (std::size_t values = fields.shortNumber(); values > 0; --values) {
    constexpr unsigned kNull = 0xFFFFFFFF;
    const unsigned size = fields.number();
    const unsigned type = literals.size() < bound.types.size() ? bound.types[literals.size()] : 0;
    literals.push_back(size == kNull ? "NULL" : literal(fields.bytes(size), type));
  }
  line.boundText = withValues(bound.text, literals);
}

void StatementRelay::passReplies(Line& line) {
  if (!line.counted) {
    line.toClient += line.fromServer;
    line.fromServer.clear();
    return;
  }
  // What is held is not known yet until the client has sent more.
  while (!line.held && line.stop != Stop::kAfterNextMessage) {
    const std::size_t size = wholeMessage(line.fromServer, true);
    if (size == 0) {
      return;
    }
    const auto end = endOfAnswered(line, line.fromServer[0]);
    for (auto asked = line.asked.begin(); asked != end; ++asked) {
      if (std::exchange(asked->target, false)) {
        holdNow(line);
        return;
      }
    }
    line.asked.erase(line.asked.begin(), end);
    line.skips = line.skips || (line.fromServer[0] == kErrorResponse && line.asked.empty());
    line.toClient.append(line.fromServer, 0, size);
    line.fromServer.erase(0, size);
  }
}

// The end of what a reply of this type answers.
std::deque<StatementRelay::Asked>::iterator StatementRelay::endOfAnswered(Line& line, char reply) {
  const auto begin = line.asked.begin();
  const auto end = line.asked.end();
  const auto ending = std::find_if(begin, end, [](const Asked& asked) { return asked.kind != Kind::kExecution; });
  switch (reply) {
    case kCommandComplete:
    case kEmptyQueryResponse:
      return ending == begin ? begin : std::next(begin);
    case kErrorResponse:
      return ending;
    case kReadyForQuery:
      return ending == end ? end : std::next(ending);
    default:
      return begin;
  }
}

}  // namespace faults
