#include "package/installed.h"
#include "support/tool_test.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

std::string field(const std::string& name) { return outputOf(std::string("dpkg-deb -f ") + PACKAGE_FILE + " " + name); }

class Package : public appliance::ToolTest {};

// A package database of its own in /tmp/root, and a systemctl that only says what it was asked for.
class InstalledPackage : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    for (const char* folder : {"info", "updates", "triggers"}) {
      appliance::makeDirectories(std::string("/tmp/root/var/lib/dpkg/") + folder);
    }
    appliance::writeFile("/tmp/root/var/lib/dpkg/status", "");
    appliance::writeFile("/tmp/programs/systemctl", "#!/bin/sh\necho \"$*\" >> /tmp/asked\n", 0755);
  }

  // Nobody but root may give files away; fakeroot lets an ordinary user believe it can, and must not even try where the
  // appliance knows no other accounts.
  static void dpkg(const std::string& arguments) {
    outputOf(
        "$([ $(id -u) -eq 0 ] || echo env FAKEROOTDONTTRYCHOWN=1 fakeroot) dpkg --root=/tmp/root --log=/dev/null "
        "--force-depends "
        "--force-script-chrootless " +
        arguments);
  }

  // All but the package database.
  static std::vector<std::string> files() {
    return linesOf(outputOf("find /tmp/root -path /tmp/root/var/lib/dpkg -prune -o -print | sort"));
  }
};

TEST_F(Package, HasTheVersionOfTheTool) {
  EXPECT_EQ(field("Package"), "kavophoto-backup\n");
  EXPECT_EQ(field("Version"), std::string(PACKAGE_VERSION) + "\n");
  EXPECT_THAT(run({"-h"}).out, StartsWith(std::string("kavophoto_backup ") + PACKAGE_VERSION + "\n"));
  unpackPackage();
  EXPECT_EQ(outputOf("zcat /tmp/installed/usr/share/doc/kavophoto-backup/changelog.gz > /tmp/changelog && "
                     "dpkg-parsechangelog -S Version -l /tmp/changelog"),
            std::string(PACKAGE_VERSION) + "\n");
  appliance::checked();
}

TEST_F(Package, DependsOnTheLibrariesAndProgramsThatTheToolUses) {
  const std::string depends = field("Depends");
  for (const char* library : {"libpq[0-9]+", "libjsoncpp[0-9]+", "libarchive[0-9a-z]+", "libssl[0-9]+", "libc6",
                              "postgresql-client", "tar", "gzip", "coreutils"}) {
    EXPECT_THAT(depends, MatchesRegex(std::string("(.*, )?") + library + " \\(>= .*")) << library;
  }
  appliance::checked();
}

TEST_F(Package, HoldsTheseFilesAndNoOthers) {
  unpackPackage();
  EXPECT_THAT(
      linesOf(outputOf("cd /tmp/installed && find . ! -type d ! -path '*/docs/*' -printf '%m %P\\n' | sort -k2")),
      ElementsAre(
          "755 usr/bin/kavophoto_backup", "644 usr/lib/systemd/system/kavophoto-backup.service",
          "644 usr/lib/systemd/system/kavophoto-backup.timer", "755 usr/libexec/kavophoto-backup/nightly-backup",
          "644 usr/share/bash-completion/completions/kavophoto_backup", "644 usr/share/doc/kavophoto-backup/README.md",
          "644 usr/share/doc/kavophoto-backup/changelog.gz", "644 usr/share/doc/kavophoto-backup/copyright",
          "644 usr/share/doc/kavophoto-backup/examples/kavophoto-backup.default",
          "644 usr/share/lintian/overrides/kavophoto-backup", "644 usr/share/man/man8/kavophoto_backup.8.gz"));
  EXPECT_TRUE(appliance::exists("/tmp/installed/usr/share/doc/kavophoto-backup/docs/operations.md"));
  EXPECT_EQ(outputOf(std::string("dpkg-deb -c ") + PACKAGE_FILE + " | grep -v ' root/root ' || true"), "");
}

TEST_F(Package, ServiceStartsAProgramOfThePackage) {
  unpackPackage();
  const std::string service = appliance::readFile("/tmp/installed/usr/lib/systemd/system/kavophoto-backup.service");
  const std::string key = "\nExecStart=";
  const std::size_t begin = service.find(key) + key.size();
  const std::string program = service.substr(begin, service.find('\n', begin) - begin);
  EXPECT_TRUE(appliance::exists(kInstalled + program)) << program;
}

TEST_F(Package, CompressedFilesHoldNoNameAndNoTime) {
  unpackPackage();
  for (const char* path : {"man/man8/kavophoto_backup.8.gz", "doc/kavophoto-backup/changelog.gz"}) {
    const std::string file = appliance::readFile(std::string("/tmp/installed/usr/share/") + path);
    // Behind the two magic bytes and the method: the flags, then the time in four bytes.
    EXPECT_EQ(file.substr(3, 5), std::string(5, '\0')) << path;
  }
}

TEST_F(Package, ManualPageIsSetWithoutAWarning) {
  unpackPackage();
  const appliance::Outcome page = runShell("man --warnings -l /tmp/installed/usr/share/man/man8/kavophoto_backup.8.gz",
                                           {"MANWIDTH=80", "LC_ALL=C", "MANPAGER=cat"});
  EXPECT_EQ(page.status, 0);
  EXPECT_EQ(page.err, "");
  EXPECT_THAT(page.out, HasSubstr("kavophoto_backup"));
  EXPECT_THAT(linesOf(page.out), Not(Contains(MatchesRegex(".{81,}"))));
  appliance::checked();
}

TEST_F(InstalledPackage, BacksUpAndIsRemovedWithoutATrace) {
  const std::vector<std::string> before = files();
  dpkg(std::string("--install ") + PACKAGE_FILE);
  live().exec("INSERT INTO photo_config VALUES ('module', 'key', 'value')");

  appliance::RunOptions installed;
  installed.program = "/tmp/root/usr/bin/kavophoto_backup";
  EXPECT_EQ(run({"-b", appliance::workDirectory()}, installed).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::listArchive(appliance::workDirectory() + "kavophoto.backup").size(),
            appliance::archiveMembers().size());
  live().exec("TRUNCATE photo_config");
  EXPECT_EQ(run({"-r", appliance::workDirectory()}, installed).status, 0);
  expectRows(live(), "SELECT * FROM photo_config", {{"module", "key", "value"}});

  EXPECT_NE(files(), before);
  dpkg("--remove kavophoto-backup");
  EXPECT_EQ(files(), before);
  EXPECT_THAT(appliance::readFile("/tmp/root/var/lib/dpkg/status"), Not(HasSubstr("kavophoto")));
  EXPECT_EQ(appliance::readFile("/tmp/asked"), "--root=/tmp/root disable kavophoto-backup.timer\n");
}

TEST_F(InstalledPackage, TimerStaysEnabledWhenThePackageIsReplaced) {
  dpkg(std::string("--install ") + PACKAGE_FILE);
  dpkg(std::string("--install ") + PACKAGE_FILE);
  EXPECT_FALSE(appliance::exists("/tmp/asked"));
}

}  // namespace
