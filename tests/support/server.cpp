#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/internals.h"

namespace fs = std::filesystem;

namespace appliance {
namespace {

using internals::fail;
using internals::failErrno;

constexpr const char* kLog = "/appliance/server.log";

struct Server {
  pid_t pid = 0;
  pid_t owner = 0;
  std::vector<std::string> firstSettings;
  bool changed = false;
};

// Never destroyed: the process is left through an exit handler that still uses it.
Server& server_() {
  static Server& instance = *new Server;
  return instance;
}

// Starts a program as the server's user, its output in the server's log.
pid_t startAsServerUser(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  const unsigned uid = internals::serverUid();
  const unsigned gid = internals::serverGid();
  const bool root = geteuid() == 0;
  const pid_t pid = fork();
  if (pid < 0) {
    failErrno("fork");
  }
  if (pid > 0) {
    return pid;
  }

  const int null = open("/dev/null", O_RDONLY);
  const int log = open(kLog, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (null < 0 || log < 0 || dup2(null, 0) < 0 || dup2(log, 1) < 0 || dup2(log, 2) < 0) {
    _exit(126);
  }
  close_range(3, ~0U, 0);
  if (root && (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0)) {
    _exit(126);
  }
  // After the change of user, which would clear it. SIGQUIT is the server's immediate shutdown.
  prctl(PR_SET_PDEATHSIG, SIGQUIT);
  // A session of its own, so that an interrupt at the terminal reaches the tests first.
  setsid();
  execv(argv[0], argv.data());
  _exit(127);
}

void waitUntilReady(const std::string& what) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const std::string where = std::string("host=") + internals::kSocketFolder + " dbname=postgres user=postgres";
  while (PQping(where.c_str()) != PQPING_OK) {
    if (waitpid(server_().pid, nullptr, WNOHANG) == server_().pid) {
      server_().pid = 0;
      fail(what + " ended:\n" + server::log());
    }
    if (std::chrono::steady_clock::now() > limit) {
      fail(what + " does not answer:\n" + server::log());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
  }
}

void startWith(const std::vector<std::string>& settings) {
  if (server_().pid != 0) {
    fail("the server runs already");
  }
  std::vector<std::string> arguments = {internals::serverProgram("postgres"), "-D", internals::kData};
  for (const std::string& setting : server_().firstSettings) {
    arguments.insert(arguments.end(), {"-c", setting});
  }
  for (const std::string& setting : settings) {
    arguments.insert(arguments.end(), {"-c", setting});
  }
  server_().pid = startAsServerUser(arguments);
  waitUntilReady("the server");
}

void stopWith(int signal) {
  if (server_().pid == 0) {
    return;
  }
  internals::closeAdministration();
  kill(server_().pid, signal);
  internals::waitFor(server_().pid);
  server_().pid = 0;
}

std::vector<pid_t> childrenOf(pid_t parent) {
  std::vector<pid_t> children;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
    const pid_t pid = static_cast<pid_t>(atol(entry.path().filename().c_str()));
    if (pid <= 0) {
      continue;
    }
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos || name + 4 > text.size()) {
      continue;
    }
    if (atol(text.c_str() + name + 4) == parent) {
      children.push_back(pid);
    }
  }
  return children;
}

}  // namespace

namespace internals {

std::string serverProgram(const std::string& name) {
  static const std::string folder = [] {
    std::string newest;
    double newestVersion = 0;
    for (const char* place : {"/usr/lib/postgresql", "/usr/local/pgsql", "/usr"}) {
      std::error_code none;
      for (const fs::directory_entry& entry : fs::directory_iterator(place, none)) {
        const std::string version = entry.path().filename();
        const bool versioned = std::string(place) == "/usr/lib/postgresql" || version.rfind("pgsql-", 0) == 0;
        const fs::path bin = versioned ? entry.path() / "bin" : fs::path(place) / "bin";
        const double number = atof(version.c_str() + (version.rfind("pgsql-", 0) == 0 ? 6 : 0));
        if (fs::exists(bin / "initdb", none) && (newest.empty() || number > newestVersion)) {
          newest = bin;
          newestVersion = number;
        }
      }
      if (!newest.empty()) {
        break;
      }
    }
    if (newest.empty()) {
      fail("no PostgreSQL server programs found");
    }
    return newest;
  }();
  return folder + "/" + name;
}

void initialiseServer(const EnterOptions& options) {
  Server& server = server_();
  server.owner = getpid();
  for (const fs::directory_entry& entry : fs::directory_iterator(kData)) {
    fs::remove_all(entry.path());
  }
  writeFile(kLog, "");
  if (geteuid() == 0 && chown(kLog, serverUid(), serverGid()) != 0) {
    failErrno(kLog);
  }
  for (const char* name :
       {"PGHOSTADDR", "PGPORT", "PGDATABASE", "PGUSER", "PGPASSWORD", "PGSERVICE", "PGSERVICEFILE", "PGOPTIONS",
        "PGAPPNAME", "PGCLIENTENCODING", "PGSSLMODE", "PGPASSFILE", "PGDATA", "PGTZ", "PGDATESTYLE", "PGREQUIRESSL",
        "PGCONNECT_TIMEOUT", "PGTARGETSESSIONATTRS", "PGSYSCONFDIR"}) {
    unsetenv(name);
  }
  setenv("PGHOST", kSocketFolder, 1);
  setenv("HOME", kHome, 1);
  const pid_t pid = startAsServerUser(
      {serverProgram("initdb"), "-D", kData, "-U", "postgres", "-A", "trust", "-E", "UTF8", "--locale=C.UTF-8", "-N"});
  if (waitFor(pid) != 0) {
    fail("initdb failed:\n" + server::log());
  }
  server.firstSettings = {"listen_addresses=",
                          std::string("unix_socket_directories=") + kSocketFolder,
                          "unix_socket_permissions=0777",
                          "max_connections=40",
                          "shared_buffers=48MB",
                          "autovacuum=off",
                          "wal_level=minimal",
                          "max_wal_senders=0",
                          "log_min_messages=warning",
                          options.fsync ? "fsync=on" : "fsync=off",
                          options.fsync ? "full_page_writes=on" : "full_page_writes=off",
                          options.fsync ? "synchronous_commit=on" : "synchronous_commit=off"};
  server.firstSettings.insert(server.firstSettings.end(), options.settings.begin(), options.settings.end());
  startWith({});
}

void ensureDefaultServer() {
  Server& server = server_();
  if (server.changed) {
    stopWith(SIGINT);
  }
  server.changed = false;
  if (server.pid == 0) {
    startWith({});
  }
}

void stopServerAtExit() {
  if (server_().owner == getpid()) {
    stopWith(SIGQUIT);
  }
}

}  // namespace internals

namespace server {

void stop() { stopWith(SIGINT); }

void start() { startWith({}); }

void killHard() {
  if (server_().pid == 0) {
    return;
  }
  internals::closeAdministration();
  // Stopped first, so that no child is born between the listing and the kill.
  kill(server_().pid, SIGSTOP);
  std::vector<pid_t> processes = childrenOf(server_().pid);
  kill(server_().pid, SIGKILL);
  for (const pid_t process : processes) {
    kill(process, SIGKILL);
  }
  internals::waitFor(server_().pid);
  server_().pid = 0;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (const pid_t process : processes) {
    while (kill(process, 0) == 0 && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      // An ended process that its new parent has not collected yet holds nothing any more.
      std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
      std::string text;
      std::getline(stat, text);
      if (text.find(") Z ") != std::string::npos) {
        break;
      }
    }
  }
}

void restart(const std::vector<std::string>& settings) {
  stopWith(SIGINT);
  server_().changed = true;
  startWith(settings);
}

void terminateBackends(const std::string& database) {
  internals::administer("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = '" + database +
                        "' AND pid <> pg_backend_pid()");
}

pid_t pid() { return server_().pid; }

std::string log() {
  std::ifstream file(kLog);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace server
}  // namespace appliance
