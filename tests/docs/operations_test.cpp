#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/tool_test.h"

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

const std::string kDocuments = DOCUMENTS;

struct Block {
  std::string heading;
  std::string commands;
};

// The blocks of shell commands, each with the heading that it stands under.
std::vector<Block> commandBlocks(const std::string& document) {
  std::istringstream lines(document);
  std::vector<Block> blocks;
  std::string heading;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("## ", 0) == 0) {
      heading = line.substr(3);
    }
    if (line != "```sh") {
      continue;
    }
    Block block{heading, ""};
    while (std::getline(lines, line) && line != "```") {
      block.commands += line + "\n";
    }
    blocks.push_back(block);
  }
  return blocks;
}

appliance::Outcome runCommands(const std::string& commands) {
  const char* path = getenv("PATH");
  appliance::RunOptions options;
  options.program = "/bin/sh";
  options.env = {std::string("PATH=/tmp/programs:") + (path != nullptr ? path : "") + ":/usr/bin:/bin:/usr/sbin:/sbin"};
  return appliance::runTool({"-euc", commands}, options);
}

void addProgram(const std::string& name, const std::string& script) {
  appliance::writeFile("/tmp/programs/" + name, "#!/bin/sh\nset -eu\n" + script, 0755);
}

// What the commands need of a whole machine: the tool in the path, the server's own programs, and a service manager, a
// journal, a package manager and a second machine that do what counts here.
void addPrograms() {
  addProgram("kavophoto_backup", "exec " + appliance::toolPath() + " \"$@\"");
  for (const char* name : {"createdb", "dropdb"}) {
    addProgram(name, std::string("exec $(ls /usr/lib/postgresql/*/bin/") + name + " | tail -n 1) \"$@\"");
  }
  addProgram("apt", "[ \"$1\" = install ]");
  addProgram("journalctl", "echo \"$*\" >> /tmp/journal");
  addProgram("scp", R"(cp "$1" "/tmp/copied"; case $2 in *:/*) ;; *) exit 1 ;; esac)");
  // The service runs with the settings and the program of its unit; the timer is only asked for.
  addProgram("systemctl",
             "for unit; do :; done\n"
             "case \"$*\" in\n"
             "'start kavophoto-backup.service')\n"
             "  service=" +
                 kDocuments +
                 "/kavophoto-backup.service\n"
                 "  export $(sed -n 's/^Environment=//p' $service)\n"
                 "  exec " +
                 kDocuments +
                 "/$(sed -n 's/^ExecStart=.*\\///p' $service) ;;\n"
                 "'is-failed kavophoto-backup.service') echo inactive; exit 1 ;;\n"
                 "'enable --now kavophoto-backup.timer' | 'list-timers kavophoto-backup.timer') ;;\n"
                 "*) echo \"unexpected: $*\" >&2; exit 64 ;;\n"
                 "esac");
}

class Operations : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    addPrograms();
    appliance::makeDirectories("/var/services/photo/holiday");
    appliance::writeFile("/var/services/photo/holiday/a.jpg", "x");
    addPhoto(live(), "/var/services/photo/holiday/a.jpg");
    live().exec(
        "INSERT INTO photo_share (shareid, sharename, public, hits, comment, is_subdir, conversion) "
        "VALUES (1, 'holiday', 't', 0, 't', 'f', 't');"
        "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1, '2020-01-01');"
        "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 3, '2020-01-01')");
  }

  static void addPhoto(appliance::Database& database, const std::string& path) {
    database.exec(
        "INSERT INTO photo_image (path, size, resolutionx, resolutiony, iso, timetaken, version, create_time) "
        "VALUES ('" +
        path + "', 1, 1, 1, 1, now(), 1, now())");
  }

  // The account of the same name has another number there, and nothing is in the table yet.
  void becomeTheNewMachine() {
    appliance::setAccounts({{1041, "editor"}}, appliance::defaultGroups());
    live().exec("TRUNCATE photo_access_right_for_hox_account");
  }

  // What the reader is led to believe after a block that contains the text.
  std::vector<std::pair<std::string, std::function<void(const appliance::Outcome&)>>> promises_ = {
      {"SHOW server_version", [](const auto& outcome) { EXPECT_THAT(outcome.out, HasSubstr("pg_dump (PostgreSQL)")); }},
      {"SELECT path FROM photo_image LIMIT 3",
       [](const auto& outcome) { EXPECT_EQ(outcome.out, "/var/services/photo\n/var/services/photo/holiday/a.jpg\n"); }},
      {"chmod 700 /var/backups/photo",
       [](const auto& outcome) {
         EXPECT_THAT(outcome.out, StartsWith("kavophoto_backup.dump\nkavophoto_backup_time.txt\n"));
       }},
      {"systemctl start",
       [](const auto& outcome) {
         EXPECT_THAT(outcome.out, MatchesRegex("/var/backups/kavophoto/20[0-9-]+_[0-9]+/kavophoto.backup\n"));
       }},
      {"pg_restore -l", [](const auto& outcome) { EXPECT_EQ(outcome.out, "33\n"); }},
      {"is-failed",
       [](const auto& outcome) {
         EXPECT_EQ(outcome.out, "inactive\n");
         EXPECT_THAT(appliance::readFile("/tmp/journal"), HasSubstr("-q -t kavophoto_backup --since today"));
       }},
      {"scp ",
       [](const auto& outcome) {
         EXPECT_EQ(outcome.out, "1026 =\"editor\"\n65600 =\"family\"\n");
         EXPECT_TRUE(appliance::exists("/tmp/copied"));
       }},
      {"getent passwd",
       [](const auto& outcome) { EXPECT_THAT(outcome.out, HasSubstr("no account has the number 1026\n")); }},
      {"userid = 1041",
       [this](const auto&) {
         expectRows(live(), "SELECT userid FROM photo_access_right_for_hox_account", {{"1041"}});
       }},
      {"createdb -U postgres second",
       [](const auto&) {
         appliance::Database second("second");
         EXPECT_EQ(second.count("photo_image"), 1);
         addPhoto(second, "/volume2/photo/holiday/b.jpg");
         appliance::writeFile("/var/services/photo/holiday/b.jpg", "x");
       }},
      {"dropdb -U postgres second",
       [this](const auto&) {
         expectRows(live(), "SELECT path FROM photo_image ORDER BY path",
                    {{"/var/services/photo/holiday/a.jpg"}, {"/var/services/photo/holiday/b.jpg"}});
       }},
      {"journalctl -t",
       [](const auto&) { EXPECT_THAT(appliance::readFile("/tmp/journal"), HasSubstr("-t kavophoto_backup")); }},
  };
};

TEST_F(Operations, EveryCommandOfTheGuideRunsAndDoesWhatItSays) {
  const std::vector<Block> blocks = commandBlocks(appliance::readFile(kDocuments + "/operations.md"));
  ASSERT_GT(blocks.size(), 15U);
  std::size_t kept = 0;
  for (const Block& block : blocks) {
    if (block.commands.find("getent passwd") != std::string::npos) {
      becomeTheNewMachine();
    }
    SCOPED_TRACE(block.heading + ":\n" + block.commands);
    const appliance::Outcome outcome = runCommands(block.commands);
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    expectNoMessages();
    for (const auto& [text, promise] : promises_) {
      if (block.commands.find(text) != std::string::npos) {
        promise(outcome);
        ++kept;
      }
    }
  }
  EXPECT_EQ(kept, promises_.size());
}

}  // namespace
