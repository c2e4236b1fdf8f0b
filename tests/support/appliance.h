#pragma once

#include <libpq-fe.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// A scratch appliance: the calling process moves into private mount and IPC
// namespaces whose root holds fresh /tmp, /var, /etc.defaults and /dev, a
// PostgreSQL server of its own, its own host accounts and its own syslog socket.
// The machine's files of those names are neither read nor written.
//
// Everything here throws std::runtime_error when the appliance itself fails, which
// gtest reports as a failure of the running test.
namespace appliance {

struct EnterOptions {
  // A folder of the machine for the server's data; empty: memory. An existing cluster in it is not reused.
  std::string dataDirectory;
  // "name=value" server settings on top of (and winning over) the appliance's own.
  std::vector<std::string> settings;
  bool fsync = false;
  // The tool to copy into the appliance; empty: the one built with this library.
  std::string tool;
};

// Enters the appliance and starts its server. Called once, before any thread exists. The process forks: the caller
// goes on in the child, the parent waits for it, passes its exit status or signal on and removes the scratch folder.
void enter(const EnterOptions& options = {});

// Brings the appliance back to its initial state: a fresh "photo" database (every other test database dropped), fresh
// files, the real programs, no mounts, the default accounts, no queued messages, a server with its first settings.
void reset();

struct RunOptions {
  std::string cwd = "/";
  // "NAME=value" entries on top of the environment; "NAME" alone removes one.
  std::vector<std::string> env;
  // Gives up the capabilities that let root ignore file modes, also for the tool's children.
  bool dropPrivileges = false;
  int timeoutSeconds = 120;
  // A path inside the appliance; empty: the tool.
  std::string program;
};

struct Outcome {
  int status = 0;  // exit status 0..255, or the negative number of the signal
  std::string out;
  std::string err;
  long peakKilobytes = 0;  // largest resident size of the program or of a child that it waited for
};

// Runs the tool and waits. A run that takes longer than the limit is killed and throws.
Outcome runTool(const std::vector<std::string>& arguments, const RunOptions& options = {});
// Starts the tool; every started process must be handed to waitTool.
pid_t startTool(const std::vector<std::string>& arguments, const RunOptions& options = {});
Outcome waitTool(pid_t pid);
// The tool's path inside the appliance.
std::string toolPath();

// Everything logged since the last call, in order, without "<11>date ident: " and without "kavophoto_backup:<line> ";
// a trailing newline stays. A datagram of another form is given whole behind "MALFORMED: ".
std::vector<std::string> takeMessages();
// Sanitizer reports seen on the standard error of the programs run since the last call.
std::vector<std::string> takeSanitizerReports();

// How often a test looked at the appliance's state (rows, files, messages) since reset(). Code that checks by other
// means says so with checked().
long observations();
void checked();

using Rows = std::vector<std::vector<std::string>>;

// A connection of user "postgres". After a restart of the server it connects again by itself.
class Database {
 public:
  explicit Database(std::string name, const std::string& options = "");
  const std::string& name() const { return name_; }
  // Runs one or several statements; throws with the server's text.
  void exec(const std::string& sql);
  // The rows of the last statement; null is "(null)".
  Rows rows(const std::string& sql);
  // The first field of the only row; throws when there is not exactly one row.
  std::string value(const std::string& sql);
  long count(const std::string& table);
  PGconn* raw() { return connection_.get(); }

 private:
  struct Finish {
    void operator()(PGconn* connection) const { PQfinish(connection); }
  };
  using Result = std::unique_ptr<PGresult, void (*)(PGresult*)>;
  Result run(const std::string& sql);

  std::string name_;
  std::unique_ptr<PGconn, Finish> connection_;
};

// A database with the application's tables. UTF8 is copied from the template; any other encoding is made with the C
// locale. A database of that name is replaced.
void createDatabase(const std::string& name, const std::string& encoding = "UTF8");
void dropDatabase(const std::string& name);
// Every table of schema public with its rows as sorted row texts, all columns.
std::map<std::string, std::vector<std::string>> contents(const std::string& database);
// Sorted lines for the tables, columns with types and defaults, indexes, constraints, sequences with their state,
// owners.
std::vector<std::string> structure(const std::string& database);
// The 33 tables that a backup holds, in their order.
const std::vector<std::string>& tableNames();

// Files inside the appliance. writeFile makes the missing folders.
void writeFile(const std::string& path, const std::string& text, mode_t mode = 0644);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
void makeDirectories(const std::string& path);
void removeAll(const std::string& path);
// "/tmp/backup/", made empty by reset().
std::string workDirectory();

// Puts a shell script in the place of a program; $REAL is the path of the original in it.
void replaceProgram(const std::string& path, const std::string& script);
// Removes a program, so that it cannot be started.
void hideProgram(const std::string& path);
void restorePrograms();

void mountReadOnly(const std::string& path);
// Puts an empty file system of that size over a folder, which is made when missing.
void mountSmall(const std::string& path, std::size_t bytes);
void unmountAll();

using Accounts = std::vector<std::pair<unsigned, std::string>>;
// The host's accounts besides its own few (root and the server's user).
void setAccounts(const Accounts& users, const Accounts& groups);
const Accounts& defaultUsers();
const Accounts& defaultGroups();

namespace server {
void stop();
void start();
// The server and its children vanish without a shutdown.
void killHard();
void restart(const std::vector<std::string>& settings);
void terminateBackends(const std::string& database);
pid_t pid();
std::string log();
}  // namespace server

struct ArchiveOptions {
  std::string build = "1803";
  std::string photoVersion = "6.0";
  std::map<std::string, std::string> theme;
  std::optional<std::string> settings = "site_name=\"Saved\"\n";
  // The account files; absent: a line per row of the source's host-account tables, as a backup writes them.
  std::optional<std::string> users;
  std::optional<std::string> groups;
  // Members to leave out, by name.
  std::vector<std::string> leaveOut;
};

// The members of a backup, in the archive's order.
const std::vector<std::string>& archiveMembers();
// Writes `directory` + "kavophoto.backup" from a database whose tables stand under their bare names. The tables are
// renamed for the time of the dump and back.
void makeArchive(const std::string& directory, const std::string& sourceDatabase, const ArchiveOptions& options = {});
// The two account files for the rows of a database, for accounts that exist.
void writeAccountFiles(const std::string& directory, const std::string& sourceDatabase);
// Names of all entries of an archive, in order.
std::vector<std::string> listArchive(const std::string& path);

}  // namespace appliance
