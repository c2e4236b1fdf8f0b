#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/appliance.h"

namespace faults {

// Stands between the tool and the server and can hold the tool at one of its statements, so that something can be done
// to either of them just there. A statement is one execution, alone or in a pipeline, of one that was prepared or not;
// a simple query with several statements in it counts as one. Programs that the tool starts are passed on without being
// counted.
class StatementRelay {
 public:
  enum class Hold { kNever, kBeforeStatement, kAfterStatement };

  // `program` is what counts as the tool, by its path.
  explicit StatementRelay(std::string program = appliance::toolPath());
  StatementRelay(const StatementRelay&) = delete;
  StatementRelay& operator=(const StatementRelay&) = delete;
  ~StatementRelay();

  // The entry for the tool's environment that leads it here.
  std::string environment() const;

  // Counts from 1 again, and holds at the statement of that number: before the server gets it, when it has answered all
  // that was sent before, or when the server has run it and before the tool is told. Where the tool ends a transaction
  // or a pipeline right after the statement, that is a part of it.
  void holdAt(long statement, Hold hold);
  // The same at the first statement that holds this text. Parameters stand in their places as literals.
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
  enum class Kind { kExecution, kQuery, kSync };

  // What the server has been asked for and has not answered yet.
  struct Asked {
    Kind kind = Kind::kExecution;
    // The answer to this one is held.
    bool target = false;
  };

  struct Template {
    std::string text;
    std::vector<unsigned> types;
  };

  enum class Stop {
    kNone,
    // The statement is not passed on, and what was sent before it is still to be answered.
    kBeforeStatement,
    // The statement has been passed on. Whether it ends a pipeline is known by what the client sends next.
    kAfterNextMessage,
    // The answer to be held is still to come.
    kAtAnswer,
  };

  struct Line {
    int client = -1;
    int server = -1;
    bool greeted = false;
    bool counted = false;
    bool held = false;
    bool clientGone = false;
    bool serverGone = false;
    // After an error the server leaves out everything up to the end of the pipeline.
    bool skips = false;
    Stop stop = Stop::kNone;
    std::deque<Asked> asked;
    std::map<std::string, Template> templates;
    // The statement that was bound last, and its messages, which wait for the one that executes it.
    std::string boundText;
    std::string unsent;
    std::string fromClient;
    std::string fromServer;
    std::string toServer;
    std::string toClient;
  };

  void run();
  void accept();
  bool isDue(const std::string& text) const;
  bool pass(Line& line);
  void passStatements(Line& line);
  bool passMessage(Line& line, const std::string& message);
  bool passStatement(Line& line, const std::string& text, const std::string& message);
  static void noteTemplate(Line& line, const std::string& message);
  static void noteBinding(Line& line, const std::string& message);
  void passReplies(Line& line);
  static std::deque<Asked>::iterator endOfAnswered(Line& line, char reply);
  void holdNow(Line& line);
  void wake() const;

  std::string program_;
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
