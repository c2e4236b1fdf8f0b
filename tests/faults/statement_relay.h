#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace faults {

// Stands between the tool and the server and can hold the tool at one of its statements, so that something can be done
// to either of them just there. Programs that the tool starts are passed on without being counted.
class StatementRelay {
 public:
  enum class Hold { kNever, kBeforeStatement, kAfterStatement };

  StatementRelay();
  StatementRelay(const StatementRelay&) = delete;
  StatementRelay& operator=(const StatementRelay&) = delete;
  ~StatementRelay();

  // The entry for the tool's environment that leads it here.
  std::string environment() const;

  // Counts from 1 again, and holds at the statement of that number: before the server gets it, or when the server has
  // run it and before the tool is told.
  void holdAt(long statement, Hold hold);
  // The same at the first statement that holds this text.
  void holdAt(const std::string& text, Hold hold);
  // False when the program ended without getting there.
  bool waitUntilHeld(pid_t tool);
  // Lets the held statement or reply pass.
  void release();
  // Throws the held statement or reply away, with its connection.
  void cut();
  // How many statements the tool has sent.
  long statements();

 private:
  struct Line {
    int client = -1;
    int server = -1;
    bool greeted = false;
    bool counted = false;
    // The held statement is on this line, and its reply is still to come.
    bool awaitsReply = false;
    bool held = false;
    std::string fromClient;
    std::string fromServer;
  };

  void run();
  void accept();
  bool isDue(const std::string& message) const;
  bool pass(Line& line, bool clientReady, bool serverReady);
  bool passStatements(Line& line);
  bool passReplies(Line& line);
  void wake() const;

  std::mutex mutex_;
  std::condition_variable reached_;
  std::list<Line> lines_;
  Hold hold_ = Hold::kNever;
  long holdStatement_ = 0;
  std::string holdText_;
  long statements_ = 0;
  bool isHeld_ = false;
  bool ends_ = false;
  int listener_ = -1;
  int waker_ = -1;
  std::thread thread_;
};

}  // namespace faults
