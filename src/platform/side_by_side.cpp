#include "platform/side_by_side.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <boost/context/fiber.hpp>
#include <boost/context/protected_fixedsize_stack.hpp>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/log.h"
#include "platform/pipeline.h"

#if defined(__SANITIZE_ADDRESS__)
#define KAVO_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KAVO_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KAVO_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr std::size_t kMostRows = 1024;
constexpr std::size_t kUsualRows = 128;
// A window's statements go out in so many parts.
constexpr std::size_t kBatches = 2;
#ifdef KAVO_ADDRESS_SANITIZER
constexpr std::size_t kStackBytes = 1UL << 20U;
#else
// Only the pages that a row touches cost memory.
constexpr std::size_t kStackBytes = 1UL << 17U;
#endif

// Tells the sanitizer which stack the program is on. Without one it does nothing.
struct StackMark {
  const void* bottom = nullptr;
  std::size_t size = 0;
  void* fake = nullptr;
};

void leaveStack([[maybe_unused]] StackMark* left, [[maybe_unused]] const StackMark& entered) {
#ifdef KAVO_ADDRESS_SANITIZER
  __sanitizer_start_switch_fiber(left != nullptr ? &left->fake : nullptr, entered.bottom, entered.size);
#endif
}

void enterStack([[maybe_unused]] const StackMark& entered, [[maybe_unused]] StackMark* left) {
#ifdef KAVO_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(entered.fake, left != nullptr ? &left->bottom : nullptr,
                                  left != nullptr ? &left->size : nullptr);
#endif
}

// Stacks that rows have left, for the rows to come: to map one costs more than a statement.
struct StackPool {
  StackPool() = default;
  StackPool(const StackPool&) = delete;
  StackPool& operator=(const StackPool&) = delete;
  ~StackPool() {
    for (boost::context::stack_context& stack : unused) {
      memory.deallocate(stack);
    }
  }

  boost::context::protected_fixedsize_stack memory{kStackBytes};
  std::vector<boost::context::stack_context> unused;
};

StackPool& stackPool() {
  static StackPool pool;
  return pool;
}

// What the row before has left on a stack means nothing to the next one.
void forgetStack([[maybe_unused]] const StackMark& stack) {
#ifdef KAVO_ADDRESS_SANITIZER
  __asan_unpoison_memory_region(stack.bottom, stack.size);
#endif
}

struct StackAllocator {
  boost::context::stack_context allocate() {
    StackPool& pool = stackPool();
    boost::context::stack_context stack;
    if (pool.unused.empty()) {
      stack = pool.memory.allocate();
    } else {
      stack = pool.unused.back();
      pool.unused.pop_back();
    }
    mark->size = stack.size;
    mark->bottom = static_cast<char*>(stack.sp) - stack.size;
    forgetStack(*mark);
    return stack;
  }
  void deallocate(boost::context::stack_context& stack) { stackPool().unused.push_back(stack); }

  StackMark* mark;
};

// Ends a row at the statement that it waits for, when its window is taken back.
struct TakenBack {};

enum class TurnState { kNone, kWaitedFor, kHeld, kHad };

struct Row {
  boost::context::fiber fiber;
  boost::context::fiber window;
  StackMark stack;
  // What it waits for: a statement, or its turn when there is none.
  DBConnect_tag* connection = nullptr;
  const Statement* statement = nullptr;
  DBResult_tag** result = nullptr;
  bool isThrough = false;
  int status = 0;
  TurnState turn = TurnState::kNone;
  std::vector<std::string> messages;
};

// A connection, and the rows that wait for its replies, in the order of their statements.
struct Lane {
  DBConnect_tag* connection = nullptr;
  std::deque<Row*> waiting;
  // How many of them have their statement still in this process.
  std::size_t unsent = 0;
};

struct Window {
  std::vector<std::unique_ptr<Row>> rows;
  std::array<Lane, 2> lanes;
  // Statements that go to the server together.
  std::size_t batch = 1;
  StackMark stack;
  std::set<std::string> claimed;
  std::size_t waitingForTurn = 0;
  bool isTakenBack = false;
};

Window* gWindow = nullptr;
Row* gRow = nullptr;

std::size_t rowsOfEnvironment() {
  const char* const text = std::getenv("KAVOPHOTO_WINDOW");
  std::size_t rows = kUsualRows;
  if (text != nullptr) {
    const char* const end = text + std::strlen(text);
    const auto read = std::from_chars(text, end, rows);
    rows = read.ec == std::errc() && read.ptr == end && rows <= kMostRows ? rows : kUsualRows;
  }
  return rows;
}

std::size_t& rowsOfWindow() {
  static std::size_t rows = rowsOfEnvironment();
  return rows;
}

// Goes on with a row until it waits or is through.
void resume(Window& window, Row& row) {
  gRow = &row;
  std::vector<std::string>* const messages = collectMessages(&row.messages);
  leaveStack(&window.stack, row.stack);
  row.fiber = std::move(row.fiber).resume();
  enterStack(window.stack, nullptr);
  collectMessages(messages);
  gRow = nullptr;
}

// Called on the stack of a row: goes back to the window, until the row is resumed.
void wait() {
  Row& row = *gRow;
  Window& window = *gWindow;
  leaveStack(&row.stack, window.stack);
  row.window = std::move(row.window).resume();
  enterStack(row.stack, &window.stack);
  if (window.isTakenBack) {
    throw TakenBack();
  }
}

void start(Window& window, Row& row, std::size_t number, const std::function<int(std::size_t)>& work) {
  row.fiber = boost::context::fiber(std::allocator_arg, StackAllocator{&row.stack},
                                    [&window, &row, number, &work](boost::context::fiber&& caller) {
                                      row.window = std::move(caller);
                                      enterStack({}, &window.stack);
                                      try {
                                        row.status = work(number);
                                      } catch (const TakenBack&) {
                                        row.status = -1;
                                      } catch (const std::bad_alloc&) {
                                        row.status = -1;
                                      }
                                      row.isThrough = true;
                                      leaveStack(nullptr, window.stack);
                                      return std::move(row.window);
                                    });
}

Lane& laneOf(Window& window, DBConnect_tag* connection) {
  return window.lanes[0].connection == connection ? window.lanes[0] : window.lanes[1];
}

bool mayTakeTurn(const Window& window, const Row& row) {
  for (const auto& earlier : window.rows) {
    if (earlier.get() == &row) {
      return true;
    }
    if (!earlier->isThrough && earlier->turn != TurnState::kHad) {
      return false;
    }
  }
  return true;
}

bool sendBatch(Lane& lane) {
  lane.unsent = 0;
  return flushPipeline(lane.connection);
}

// After a row has gone on: puts its next statement on its way. Statements go out in batches, so that the server works
// on one while this process makes the next.
bool follow(Window& window, Row& row) {
  if (row.isThrough) {
    return row.status >= 0;
  }
  if (row.statement == nullptr) {
    return !window.isTakenBack;
  }
  Lane& lane = laneOf(window, row.connection);
  if (!addToPipeline(lane.connection, *row.statement)) {
    return false;
  }
  lane.waiting.push_back(&row);
  return ++lane.unsent < window.batch || sendBatch(lane);
}

bool goOn(Window& window, Row& row) {
  resume(window, row);
  return follow(window, row);
}

// Goes on with the rows whose turn has come.
bool passTurns(Window& window) {
  while (window.waitingForTurn > 0) {
    const auto first = std::find_if(window.rows.begin(), window.rows.end(),
                                    [](const auto& row) { return row->turn == TurnState::kWaitedFor; });
    if (!mayTakeTurn(window, **first)) {
      return true;
    }
    --window.waitingForTurn;
    if (!goOn(window, **first)) {
      return false;
    }
  }
  return true;
}

bool isWaited(const Window& window) {
  return std::any_of(window.lanes.begin(), window.lanes.end(), [](const Lane& lane) { return !lane.waiting.empty(); });
}

bool waitForServer(Window& window) {
  std::array<pollfd, 2> sockets = {};
  nfds_t count = 0;
  for (Lane& lane : window.lanes) {
    if (!lane.waiting.empty()) {
      if (lane.unsent > 0 && !sendBatch(lane)) {
        return false;
      }
      sockets[count++] = {pipelineSocket(lane.connection), POLLIN, 0};
    }
  }
  return poll(sockets.data(), count, -1) >= 0 || errno == EINTR;
}

// Takes every reply that has come. `hasTaken` says whether there was one.
bool takeReplies(Window& window, Lane& lane, bool& hasTaken) {
  while (!lane.waiting.empty() && lane.waiting.size() > lane.unsent) {
    Row& row = *lane.waiting.front();
    const Reply reply = takeReply(lane.connection, row.result);
    if (reply != Reply::kReady) {
      return reply == Reply::kNotYet;
    }
    hasTaken = true;
    lane.waiting.pop_front();
    if (!goOn(window, row) || !passTurns(window)) {
      return false;
    }
  }
  return true;
}

// False when a statement failed or a row gave a negative result.
bool runToEnd(Window& window, std::size_t count, const std::function<int(std::size_t)>& work) {
  for (std::size_t number = 0; number < count; ++number) {
    window.rows.push_back(std::make_unique<Row>());
    start(window, *window.rows.back(), number, work);
    if (!goOn(window, *window.rows.back()) || !passTurns(window)) {
      return false;
    }
  }
  while (isWaited(window)) {
    bool hasTaken = false;
    for (Lane& lane : window.lanes) {
      if (!takeReplies(window, lane, hasTaken)) {
        return false;
      }
    }
    if (!hasTaken && isWaited(window) && !waitForServer(window)) {
      return false;
    }
  }
  return true;
}

// Rows that still wait end where they are.
void endRows(Window& window) {
  window.isTakenBack = true;
  for (const auto& row : window.rows) {
    if (!row->isThrough && row->fiber) {
      resume(window, *row);
    }
  }
}

// False too when there is no memory for all the rows at once: one row alone needs less.
bool runToEndInMemory(Window& window, std::size_t count, const std::function<int(std::size_t)>& work) {
  try {
    return runToEnd(window, count, work);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// False when nothing was written.
bool runSideBySide(const Databases& databases, std::size_t count, const std::function<int(std::size_t)>& work) {
  const bool hasSource = databases.source != databases.destination;
  if (!beginPipeline(databases.destination, true)) {
    return false;
  }
  if (hasSource && !beginPipeline(databases.source, false)) {
    endPipeline(databases.destination, false);
    return false;
  }
  Window window;
  window.lanes[0].connection = databases.destination;
  window.lanes[1].connection = hasSource ? databases.source : nullptr;
  window.batch = std::max<std::size_t>(1, count / kBatches);
  gWindow = &window;
  const bool succeeded = runToEndInMemory(window, count, work);
  endRows(window);
  gWindow = nullptr;
  const bool isRead = !hasSource || endPipeline(databases.source, succeeded);
  if (!endPipeline(databases.destination, succeeded && isRead)) {
    return false;
  }
  for (const auto& row : window.rows) {
    for (const std::string& message : row->messages) {
      sendToLog(message);
    }
  }
  return true;
}

// One that holds what earlier statements of its row have locked may meet a deadlock that each statement for itself
// never would, so such a row runs again. True when it is committed or there was nothing to commit; the messages are
// then in `messages`.
bool runInTransaction(const Databases& databases, std::size_t number, const std::function<int(std::size_t)>& work,
                      bool waits, std::vector<std::string>& messages, int& status) {
  messages.clear();
  const bool hasTransaction = KAVODBRowBegin(databases.destination, waits);
  std::vector<std::string>* const others = collectMessages(&messages);
  status = work(number);
  const bool gaveWay = hasTransaction && KAVODBRowGaveWay(databases.destination);
  if (hasTransaction && !gaveWay && KAVODBRowEnd(databases.destination) == -1) {
    KAVO_LOG("Failed to exec [COMMIT] (%s)", KAVODBErrorGet(databases.destination));
    status = -1;
  }
  collectMessages(others);
  return !gaveWay;
}

int runAlone(const Databases& databases, std::size_t number, const std::function<int(std::size_t)>& work) {
  constexpr int kMostTries = 10;
  int status = 0;
  std::vector<std::string> messages;
  for (int tries = 0; tries < kMostTries; ++tries) {
    if (runInTransaction(databases, number, work, tries == kMostTries - 1, messages, status)) {
      for (const std::string& message : messages) {
        sendToLog(message);
      }
      return status;
    }
  }
  // Each statement in a transaction of its own waits for others, but nobody can wait for it.
  return work(number);
}

}  // namespace

std::size_t windowRows() { return rowsOfWindow(); }

void setWindowRows(std::size_t rows) { rowsOfWindow() = rows; }

int runRows(const Databases& databases, std::size_t count, const std::function<int(std::size_t)>& row,
            const std::function<void()>& takeBack) {
  if (windowRows() > 0 && runSideBySide(databases, count, row)) {
    return 0;
  }
  takeBack();
  for (std::size_t number = 0; number < count; ++number) {
    const int status = runAlone(databases, number, row);
    if (status < 0) {
      return status;
    }
  }
  return 0;
}

bool isBesideOthers() { return gRow != nullptr; }

void executeBesideOthers(DBConnect_tag* connection, const Statement& statement, DBResult_tag** result) {
  KAVODBFreeResult(*result);
  *result = nullptr;
  gRow->connection = connection;
  gRow->statement = &statement;
  gRow->result = result;
  wait();
}

Turn::Turn() {
  if (gRow != nullptr && !mayTakeTurn(*gWindow, *gRow)) {
    gRow->statement = nullptr;
    gRow->turn = TurnState::kWaitedFor;
    ++gWindow->waitingForTurn;
    wait();
  }
  if (gRow != nullptr) {
    gRow->turn = TurnState::kHeld;
  }
}

Turn::~Turn() {
  if (gRow != nullptr) {
    gRow->turn = TurnState::kHad;
  }
}

void claim(const std::string& key) {
  if (gRow != nullptr && !gWindow->claimed.insert(key).second) {
    gWindow->isTakenBack = true;
    throw TakenBack();
  }
}
