#include "platform/process_runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "platform/handles.h"
#include "platform/query.h"
#include "support/tool_test.h"

namespace {

using KAVOUtils::ProcessRunner;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* kProgram = "/tmp/program";
constexpr const char* kCalls = "/tmp/calls";
constexpr const char* kCoverScript = "/var/packages/Lumora/target/photo_scripts/cover_convert.sh";

// Writes a program's path and its arguments as one line, each in brackets.
constexpr const char* kRecord = "{ printf '[%s]' \"$0\" \"$@\"; echo; } >> /tmp/calls\n";

std::vector<std::string> lines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> all;
  for (std::string line; std::getline(stream, line);) {
    all.push_back(line);
  }
  return all;
}

class Runner : public appliance::ToolTest {
 protected:
  static const char* script(const std::string& text) {
    appliance::writeFile(kProgram, "#!/bin/sh\n" + text + "\n", 0755);
    return kProgram;
  }
  static int statusOf(const std::string& text, bool capture) {
    const char* program = script(text);
    ProcessRunner runner(program, program);
    appliance::checked();
    return runner.run(true, capture);
  }
  static std::string outputOf(ProcessRunner& runner) {
    EXPECT_EQ(runner.run(true, true), 0) << runner.toString();
    appliance::checked();
    return runner.getCapturedOutput();
  }
  // The calls of the recorded programs since the last look.
  static std::vector<std::string> takeCalls() {
    std::vector<std::string> calls = lines(appliance::readFile(kCalls));
    appliance::removeAll(kCalls);
    return calls;
  }
  static void recordPrograms() {
    for (const char* path :
         {"/usr/bin/psql", "/usr/bin/pg_dump", "/usr/bin/pg_restore", "/bin/tar", "/bin/cp", "/bin/rm"}) {
      appliance::replaceProgram(path, std::string("NAME=") + path +
                                          "\n{ printf '[%s]' \"$NAME\" \"$@\"; echo; } >> /tmp/calls\nexec \"$REAL\" "
                                          "\"$@\"");
    }
    appliance::writeFile(kCoverScript, std::string("#!/bin/sh\n") + kRecord, 0755);
  }
};

TEST_F(Runner, HandsOnEveryArgumentAsOneElement) {
  const std::string statement = "ALTER TABLE \"a b\" SET x = 'it''s' ; $HOME `id` * \\ \"\n\t\u00e9";
  const char* program = script(R"(for argument in "$@"; do printf '<%s>' "$argument"; done)");
  ProcessRunner runner(program, program, "", statement.c_str(), "-c");
  runner.addArguments("last", "");
  EXPECT_EQ(outputOf(runner), "<><" + statement + "><-c><last><>");
}

TEST_F(Runner, GivesArgumentZeroAsItStands) {
  ProcessRunner runner("/bin/sh", "another name", "-c", R"(echo "$0"; cat /proc/$$/cmdline | tr '\0' '|')");
  EXPECT_EQ(outputOf(runner), "another name\nanother name|-c|echo \"$0\"; cat /proc/$$/cmdline | tr '\\0' '|'|");
}

TEST_F(Runner, EndsAListOfArgumentsAtANull) {
  const char* program = script("echo \"$# $*\"");
  ProcessRunner runner(program, program, "1", nullptr, "lost");
  runner.addArguments("2", "3", nullptr, "lost");
  runner.addArguments(nullptr, "lost");
  runner.addArguments("4", "5", "6", "7", "8", "9", "10", "11", "12");
  EXPECT_EQ(outputOf(runner), "12 1 2 3 4 5 6 7 8 9 10 11 12\n");
  EXPECT_EQ(runner.toString(), "/tmp/program 1 2 3 4 5 6 7 8 9 10 11 12");
}

TEST_F(Runner, TakesNineArgumentsAtOnce) {
  const char* program = script("echo \"$*\"");
  ProcessRunner runner(program, program, "1", "2", "3", "4", "5", "6", "7", "8");
  EXPECT_EQ(outputOf(runner), "1 2 3 4 5 6 7 8\n");
}

TEST_F(Runner, CopiesItsArguments) {
  std::string argument = "before";
  ProcessRunner runner("/bin/echo", "/bin/echo", argument.c_str());
  runner.addArguments(argument.c_str());
  argument = "after!";
  EXPECT_EQ(outputOf(runner), "before before\n");
}

TEST_F(Runner, FailsUnlessTheProgramEndsWithStatusZero) {
  for (const bool capture : {false, true}) {
    EXPECT_EQ(statusOf("exit 0", capture), 0) << capture;
    for (const char* ending : {"exit 1", "exit 255", "kill -9 $$", "kill -TERM $$"}) {
      EXPECT_LT(statusOf(ending, capture), 0) << ending << capture;
    }
  }
}

TEST_F(Runner, FailsWhenTheProgramCannotBeStarted) {
  appliance::writeFile("/tmp/no_program", "no program", 0644);
  for (const char* path : {"/tmp/missing", "/tmp/no_program", "/tmp", "sh"}) {
    for (const bool capture : {false, true}) {
      ProcessRunner runner(path, path);
      EXPECT_LT(runner.run(true, capture), 0) << path << capture;
    }
  }
  appliance::checked();
}

TEST_F(Runner, KeepsWhatAFailingProgramPrinted) {
  const char* program = script("echo before; exit 3");
  ProcessRunner runner(program, program);
  EXPECT_LT(runner.run(true, true), 0);
  EXPECT_EQ(runner.getCapturedOutput(), "before\n");
  appliance::checked();
}

TEST_F(Runner, CapturesAnOutputLargerThanAPipe) {
  ProcessRunner runner("/bin/sh", "/bin/sh", "-c", "yes '0123456789' | head -n 200000");
  const std::string output = outputOf(runner);
  ASSERT_EQ(output.size(), 2200000U);
  EXPECT_EQ(output.substr(output.size() - 22), "0123456789\n0123456789\n");
}

TEST_F(Runner, GivesTheProgramNothingToRead) {
  ProcessRunner captured("/bin/sh", "/bin/sh", "-c", "cat; readlink /proc/self/fd/0");
  EXPECT_EQ(outputOf(captured), "/dev/null\n");
  ProcessRunner discarded("/bin/sh", "/bin/sh", "-c", "readlink /proc/self/fd/0 /proc/self/fd/1 > /tmp/streams");
  EXPECT_EQ(discarded.run(true, false), 0);
  EXPECT_EQ(appliance::readFile("/tmp/streams"), "/dev/null\n/tmp/streams\n");
}

TEST_F(Runner, KeepsTheToolsStandardOutputClean) {
  testing::internal::CaptureStdout();
  ProcessRunner discarded("/bin/sh", "/bin/sh", "-c",
                          "echo noise; place=$(readlink /proc/$$/fd/1); echo $place > /tmp/stream");
  EXPECT_EQ(discarded.run(true, false), 0);
  ProcessRunner captured("/bin/echo", "/bin/echo", "noise");
  EXPECT_EQ(captured.run(true, true), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(appliance::readFile("/tmp/stream"), "/dev/null\n");
}

TEST_F(Runner, PassesStandardErrorThrough) {
  testing::internal::CaptureStderr();
  for (const bool capture : {false, true}) {
    ProcessRunner runner("/bin/sh", "/bin/sh", "-c", "echo complaint >&2");
    EXPECT_EQ(runner.run(true, capture), 0);
    EXPECT_EQ(runner.getCapturedOutput(), "");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "complaint\ncomplaint\n");
  appliance::checked();
}

// The descriptors of this process that a program would inherit by nobody's doing.
std::set<std::string> inheritedDescriptors() {
  std::set<std::string> inherited = {"0", "1", "2"};
  const Directory directory(opendir("/proc/self/fd"));
  while (const dirent* entry = readdir(directory.get())) {
    const int flags = fcntl(atoi(entry->d_name), F_GETFD);
    if (entry->d_name[0] != '.' && flags >= 0 && (flags & FD_CLOEXEC) == 0) {
      inherited.insert(entry->d_name);
    }
  }
  return inherited;
}

TEST_F(Runner, LeaksNoDescriptorIntoTheProgram) {
  const Connection connection = connectTo("photo");
  ASSERT_TRUE(connection);
  Result large;
  ASSERT_TRUE(execute(connection.get(), large, "SELECT repeat('x', 1000) FROM generate_series(1, 2000)"));
  for (const bool capture : {false, true}) {
    ProcessRunner runner("/bin/sh", "/bin/sh", "-c", "exec ls -U /proc/self/fd 2>&1 > /tmp/descriptors");
    EXPECT_EQ(runner.run(true, capture), 0);
    const std::vector<std::string> found = lines(appliance::readFile("/tmp/descriptors"));
    const std::set<std::string> inherited = inheritedDescriptors();
    // One more is the folder that is being listed.
    const auto foreign =
        std::count_if(found.begin(), found.end(), [&](const std::string& name) { return inherited.count(name) == 0; });
    EXPECT_LE(foreign, 1) << appliance::readFile("/tmp/descriptors");
  }
}

TEST_F(Runner, LeaksNoDescriptorOfARestoreIntoItsPrograms) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::makeArchive(appliance::workDirectory(), "other");
  // The load and the primary keys run while the connection is open.
  for (const char* path : {"/usr/bin/pg_restore", "/usr/bin/psql"}) {
    appliance::replaceProgram(path, R"(ls /proc/self/fd >> /tmp/descriptors; exec "$REAL" "$@")");
  }
  EXPECT_EQ(run({"-r", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  const std::vector<std::string> found = lines(appliance::readFile("/tmp/descriptors"));
  ASSERT_EQ(found.size(), 6U * 4U);
  EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), (std::set<std::string>{"0", "1", "2", "3"}));
}

// Interrupts this process every few milliseconds.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action = {};
    action.sa_handler = [](int) { count = count + 1; };
    sigaction(SIGALRM, &action, &before_);
    const itimerval often = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }

  static inline volatile sig_atomic_t count = 0;

 private:
  struct sigaction before_ = {};
};

TEST_F(Runner, IsNotDisturbedByInterruptions) {
  const Interruptions interruptions;
  ProcessRunner captured("/bin/sh", "/bin/sh", "-c", "sleep 0.1; echo one; sleep 0.1; echo two");
  ProcessRunner discarded("/bin/sh", "/bin/sh", "-c", "sleep 0.1");
  EXPECT_EQ(outputOf(captured), "one\ntwo\n");
  EXPECT_EQ(discarded.run(true, false), 0);
  EXPECT_GT(Interruptions::count, 0);
}

TEST_F(Runner, LeavesNoEndedChildBehind) {
  for (const bool capture : {false, true}) {
    EXPECT_EQ(statusOf("exit 0", capture), 0);
  }
  ProcessRunner missing("/tmp/missing", "/tmp/missing");
  EXPECT_LT(missing.run(true, true), 0);
  const std::string children = appliance::readFile("/proc/self/task/" + std::to_string(getpid()) + "/children");
  for (const std::string& child : lines(children)) {
    std::istringstream numbers(child);
    for (std::string number; numbers >> number;) {
      EXPECT_EQ(appliance::readFile("/proc/" + number + "/stat").find(") Z "), std::string::npos);
    }
  }
}

TEST_F(Runner, WorksWithoutStandardStreams) {
  other().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::makeArchive(appliance::workDirectory(), "other");
  appliance::RunOptions shell;
  shell.program = "/bin/sh";
  EXPECT_EQ(run({"-c", "exec " + appliance::toolPath() + " -r /tmp/backup/ <&- >&- 2>&-"}, shell).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
}

// Blocks and ignores signals, as a caller may have chosen to.
class ClosedEars {
 public:
  ClosedEars() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &mask_);
    pipe_ = signal(SIGPIPE, SIG_IGN);
  }
  ClosedEars(const ClosedEars&) = delete;
  ClosedEars& operator=(const ClosedEars&) = delete;
  ~ClosedEars() {
    signal(SIGPIPE, pipe_);
    sigprocmask(SIG_SETMASK, &mask_, nullptr);
  }

 private:
  sigset_t mask_ = {};
  void (*pipe_)(int) = SIG_DFL;
};

TEST_F(Runner, LetsTheProgramHearEverySignal) {
  const ClosedEars ears;
  ProcessRunner runner("/bin/grep", "/bin/grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status");
  EXPECT_EQ(outputOf(runner), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

// A program that was left by its tool is gone when it has ended, collected or not.
bool isGoneSoon(pid_t program) {
  const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, program, 0)));
  if (!handle) {
    return errno == ESRCH;
  }
  pollfd ended = {handle.get(), POLLIN, 0};
  constexpr int kMilliseconds = 20000;
  return poll(&ended, 1, kMilliseconds) == 1;
}

TEST_F(Runner, EndsTheProgramWithTheTool) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    appliance::reset();
    appliance::replaceProgram("/usr/bin/pg_dump",
                              "echo $$ > /tmp/starting; mv /tmp/starting /tmp/child; exec sleep 600");
    const pid_t tool = appliance::startTool({"-b", appliance::workDirectory()});
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!appliance::exists("/tmp/child") && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(appliance::exists("/tmp/child"));
    const pid_t child = std::stoi(appliance::readFile("/tmp/child"));
    kill(tool, signal);
    EXPECT_EQ(appliance::waitTool(tool).status, -signal);
    EXPECT_TRUE(isGoneSoon(child)) << signal;
    kill(child, SIGKILL);
  }
  leavePidFile();
}

TEST_F(Runner, GivesTheProgramAnEnvironmentThatChangesNothing) {
  appliance::replaceProgram("/usr/bin/pg_dump", R"(env > /tmp/environment; exec "$REAL" "$@")");
  appliance::RunOptions options;
  options.env = {
      "PGAPPNAME=other",   "PSQLRC=/tmp/psqlrc",      "TAR_OPTIONS=--format=pax", "TAPE=/tmp/tape",     "GZIP=-1",
      "POSIXLY_CORRECT=1", "PGCLIENTENCODING=LATIN1", "PGTZ=Asia/Kolkata",        "PGDATESTYLE=German", "GZIPPED=kept"};
  EXPECT_EQ(run({"-b", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  const std::vector<std::string> environment = lines(appliance::readFile("/tmp/environment"));
  EXPECT_THAT(environment, IsSupersetOf({"PGAPPNAME=kavophoto_backup", "PSQLRC=/dev/null", "TAR_OPTIONS=--no-unquote",
                                         "GZIPPED=kept"}));
  EXPECT_THAT(
      environment,
      Each(Not(MatchesRegex("(TAR_OPTIONS=--format|TAPE|GZIP|POSIXLY_CORRECT|PGCLIENTENCODING|PGTZ|PGDATESTYLE)=.*"))));
  EXPECT_EQ(std::count_if(environment.begin(), environment.end(),
                          [](const std::string& entry) { return entry.rfind("PGAPPNAME=", 0) == 0; }),
            1);
}

TEST_F(Runner, GivesItsDatabaseSessionsTheToolsName) {
  live().exec("CREATE TABLE seen (name text)");
  ProcessRunner runner("/usr/bin/psql", "/usr/bin/psql", "photo", "-U", "postgres", "-c",
                       "INSERT INTO seen VALUES (current_setting('application_name'))");
  EXPECT_EQ(runner.run(true, false), 0);
  expectRows(live(), "SELECT name FROM seen", {{"kavophoto_backup"}});
}

TEST_F(Runner, TakesFromAServiceWhereTheServerIsAndNothingElse) {
  const char* const host = getenv("PGHOST");
  appliance::writeFile("/tmp/service.conf",
                       std::string("[s]\nhost=") + (host != nullptr ? host : "") +
                           "\npassword=se cret\nconnect_timeout=77\nuser=nobody\ndbname=template1\n"
                           "application_name=theirs\nclient_encoding=LATIN1\n"
                           "options=-c search_path=theirs -c lock_timeout=200\n");
  appliance::RunOptions options;
  options.env = {"PGSERVICEFILE=/tmp/service.conf", "PGSERVICE=s", "PGHOST=/tmp/no_server_here", "PGUSER=postgres"};
  appliance::replaceProgram("/usr/bin/pg_dump", R"x(env > /tmp/environment
/usr/bin/psql photo -U postgres -Atc "SELECT current_setting('application_name'), current_setting('search_path'),
    current_setting('lock_timeout'), current_setting('client_encoding')" > /tmp/seen
exec "$REAL" "$@")x");
  EXPECT_EQ(run({"-b", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::readFile("/tmp/seen"), "kavophoto_backup|public|0|UTF8\n");
  const std::vector<std::string> environment = lines(appliance::readFile("/tmp/environment"));
  EXPECT_THAT(environment, IsSupersetOf({"PGPASSWORD=se cret", "PGCONNECT_TIMEOUT=77", "PGUSER=postgres"}));
  EXPECT_THAT(environment, Each(Not(MatchesRegex("(PGSERVICE|PGSERVICEFILE|PGDATABASE|PGCLIENTENCODING)=.*"))));
  EXPECT_EQ(std::count_if(environment.begin(), environment.end(),
                          [](const std::string& entry) { return entry.rfind("PGHOST=", 0) == 0; }),
            1);
}

TEST_F(Runner, LeavesTheServerToTheCallersVariablesWithoutAService) {
  ASSERT_TRUE(connectTo("photo"));
  ProcessRunner runner("/usr/bin/env", "/usr/bin/env");
  EXPECT_THAT(lines(outputOf(runner)), Each(Not(MatchesRegex("PGPORT=.*"))));
}

TEST_F(Runner, GivesAProgramOfAnotherPartyTheCallersEnvironment) {
  const std::vector<const char*> names = {"PGAPPNAME", "PGOPTIONS", "PGSERVICE", "PGTZ", "TAR_OPTIONS"};
  for (const char* name : names) {
    setenv(name, "theirs", 1);
  }
  const char* program = script("echo $PGAPPNAME $PGOPTIONS $PGSERVICE $PGTZ $TAR_OPTIONS ${PSQLRC-none}");
  ProcessRunner runner(program, program);
  runner.useCallersEnvironment();
  EXPECT_EQ(outputOf(runner), "theirs theirs theirs theirs theirs none\n");
  for (const char* name : names) {
    unsetenv(name);
  }
}

TEST_F(Runner, PacksAWholeArchiveWhateverTarIsAskedFor) {
  appliance::writeFile("/var/packages/Lumora/etc/blog/gr\u00fcn.css", "green");
  for (const char* variable : {"TAR_OPTIONS=--format=pax", "GZIP=--recursive", "POSIXLY_CORRECT=1"}) {
    appliance::RunOptions options;
    options.env = {variable};
    EXPECT_EQ(run({"-b", appliance::workDirectory()}, options).status, 0) << variable;
    expectNoMessages();
    const std::vector<std::string> members = appliance::listArchive(appliance::workDirectory() + "kavophoto.backup");
    EXPECT_THAT(members, testing::Contains("theme_bak/gr\u00fcn.css")) << variable;
    appliance::removeAll(appliance::workDirectory() + "kavophoto.backup");
  }
}

TEST_F(Runner, RenamesAndDumpsEverythingWhateverPsqlIsToldAtHome) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', 'v')");
  appliance::writeFile("/tmp/home/.psqlrc", "\\set AUTOCOMMIT off\n");
  appliance::RunOptions options;
  options.env = {"HOME=/tmp/home"};
  EXPECT_EQ(run({"-b", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  live().exec("TRUNCATE photo_config");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"v"}});
}

TEST_F(Runner, DumpsTextsInTheDatabasesOwnEncoding) {
  live().exec("INSERT INTO photo_config VALUES ('m', 'k', '\u20ac \u6f22')");
  appliance::RunOptions options;
  options.env = {"PGCLIENTENCODING=LATIN1"};
  EXPECT_EQ(run({"-b", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  live().exec("TRUNCATE photo_config");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  expectRows(live(), "SELECT config_value FROM photo_config", {{"\u20ac \u6f22"}});
}

TEST_F(Runner, TakesAStatementToPsqlAsOneArgument) {
  const std::string statement = "ALTER TABLE \"photo label\" ALTER name SET DEFAULT 'it''s  two  blanks'";
  appliance::replaceProgram("/usr/bin/psql", kRecord);
  ProcessRunner runner("/usr/bin/psql", "/usr/bin/psql", "photo", "-U", "postgres", "-c", statement.c_str());
  EXPECT_EQ(runner.run(true, false), 0);
  EXPECT_THAT(takeCalls(), ElementsAre("[/usr/bin/psql][photo][-U][postgres][-c][" + statement + "]"));
}

TEST_F(Runner, RunsTheseCommandsInABackup) {
  appliance::writeFile("/var/packages/Lumora/etc/blog/style sheet.css", "x");
  recordPrograms();
  EXPECT_EQ(run({"-b", "/tmp/backup/"}).status, 0);
  expectNoMessages();
  std::vector<std::string> expected;
  for (const std::string& table : appliance::tableNames()) {
    expected.push_back("[/usr/bin/psql][photo][-U][postgres][-c][ALTER TABLE " + table + " RENAME TO " + table +
                       "_bak;]");
  }
  std::string dump = "[/usr/bin/pg_dump][-U][postgres][-F][c][-d][photo]";
  for (const std::string& table : appliance::tableNames()) {
    dump += "[-t][" + table + "_bak]";
  }
  expected.push_back(dump + "[-f][/tmp/backup/kavophoto_backup.dump]");
  expected.emplace_back("[/usr/bin/pg_restore][-U][postgres][-l][/tmp/backup/kavophoto_backup.dump]");
  expected.emplace_back("[/bin/cp][-pf][/var/packages/Lumora/etc/blog/style sheet.css][/tmp/backup/theme_bak]");
  expected.emplace_back("[/bin/cp][/var/packages/Lumora/etc/settings.conf][/tmp/backup/settings.conf.bak]");
  expected.emplace_back(
      "[/bin/tar][-zcvf][/tmp/backup/kavophoto.backup][kavophoto_backup.dump][kavophoto_backup_time.txt]"
      "[kavophoto_backup_hox_account.txt][kavophoto_backup_hox_group_account.txt][theme_bak][settings.conf.bak]"
      "[-C][/tmp/backup/]");
  for (const std::string& table : appliance::tableNames()) {
    expected.push_back("[/usr/bin/psql][photo][-U][postgres][-c][ALTER TABLE " + table + "_bak RENAME TO " + table +
                       ";]");
  }
  expected.emplace_back("[/bin/rm][-rf][/tmp/backup/theme_bak]");
  expected.emplace_back("[/bin/rm][-f][/tmp/backup/settings.conf.bak]");
  EXPECT_THAT(takeCalls(), ElementsAreArray(expected));
}

TEST_F(Runner, RunsTheseCommandsInARestore) {
  recordPrograms();
  for (const bool overwrite : {false, true}) {
    appliance::ArchiveOptions options;
    options.build = "1802";
    options.theme = {{"new theme.css", "x"}};
    appliance::makeArchive("/tmp/backup/", "photo", options);
    appliance::removeAll("/var/packages/Lumora/etc/blog/new theme.css");
    appliance::removeAll(kCalls);
    std::vector<std::string> arguments = {"-r", "/tmp/backup/"};
    if (overwrite) {
      arguments.emplace_back("-o");
    }
    EXPECT_EQ(run(arguments).status, 0);
    expectNoMessages();
    const std::string psql = "[/usr/bin/psql][photo][-U][postgres][-c]";
    const auto primaryKey = [&](const std::string& table) {
      return psql + "[ALTER TABLE " + table + " ADD CONSTRAINT " + table + "_pkey PRIMARY KEY (id)]";
    };
    EXPECT_THAT(
        takeCalls(),
        ElementsAre("[/bin/tar][-zxvf][/tmp/backup/kavophoto.backup][-C][/tmp/backup/]",
                    "[/usr/bin/pg_restore][-U][postgres][-l][/tmp/backup/kavophoto_backup.dump]",
                    "[/usr/bin/pg_restore][-U][postgres][-d][photo][-L][/tmp/backup/toc_file]"
                    "[/tmp/backup/kavophoto_backup.dump]",
                    primaryKey("photo_image_bak"), primaryKey("video_comment_bak"), primaryKey("video_desc_bak"),
                    primaryKey("photo_video_label_bak"),
                    "[/bin/cp][/var/packages/Lumora/etc/settings.conf.tmp][/var/packages/Lumora/etc/settings.conf]",
                    "[/bin/rm][-f][/var/packages/Lumora/etc/settings.conf.tmp]",
                    "[/bin/cp][-pf][/tmp/backup/theme_bak/new theme.css][/var/packages/Lumora/etc/blog/]",
                    std::string("[") + kCoverScript + "][restore]" + (overwrite ? "" : "[skip]"),
                    "[/bin/rm][-rf][/tmp/backup/theme_bak]"));
  }
}

TEST_F(Runner, LearnsHowItsProgramsEndedWhereTheCallerDoesNotWantToKnow) {
  appliance::RunOptions options;
  options.program = "/usr/bin/env";
  EXPECT_EQ(run({"--ignore-signal=CHLD", appliance::toolPath(), "-b", appliance::workDirectory()}, options).status, 0);
  expectNoMessages();
  EXPECT_TRUE(appliance::exists(appliance::workDirectory() + "kavophoto.backup"));
}

}  // namespace
