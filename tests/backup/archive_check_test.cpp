#include "backup/archive_check.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <memory>

#include "platform/text.h"
#include "support/tool_test.h"

namespace {

using appliance::writeFile;

struct Member {
  std::string name;
  std::string text;
  mode_t type = AE_IFREG;
};

constexpr const char* kArchive = "/tmp/checked.tar.gz";
constexpr const char* kOrigin = "/tmp/origin/";

std::vector<Member> wholeMembers() {
  return {{"kavophoto_backup.dump", std::string(200000, 'd')},
          {"kavophoto_backup_time.txt", "backuptime=\"26-03-07 09:05\"\n"},
          {"kavophoto_backup_hox_account.txt", ""},
          {"kavophoto_backup_hox_group_account.txt", "65600 =\"family\"\n"},
          {"theme_bak/", "", AE_IFDIR},
          {"theme_bak/a b", "x"},
          {"theme_bak/" + std::string(200, 'n') + "\n%s", "y"},
          {"settings.conf.bak", "key=\"value\"\n"}};
}

enum class Packing { kGzip, kPlain, kPlainPax };

void pack(const std::vector<Member>& members, Packing packing = Packing::kGzip) {
  const std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(), archive_write_free);
  if (packing == Packing::kGzip) {
    archive_write_add_filter_gzip(writer.get());
  }
  if (packing == Packing::kPlainPax) {
    archive_write_set_format_pax(writer.get());
  } else {
    archive_write_set_format_gnutar(writer.get());
  }
  ASSERT_EQ(archive_write_open_filename(writer.get(), kArchive), ARCHIVE_OK);
  for (const Member& member : members) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), member.name.c_str());
    archive_entry_set_perm(entry.get(), 0644);
    if (member.type == AE_IFLNK) {
      archive_entry_set_symlink(entry.get(), member.text.c_str());
    }
    archive_entry_set_filetype(entry.get(), member.type);
    archive_entry_set_size(entry.get(), member.type == AE_IFREG ? static_cast<la_int64_t>(member.text.size()) : 0);
    ASSERT_EQ(archive_write_header(writer.get(), entry.get()), ARCHIVE_OK);
    if (member.type == AE_IFREG) {
      archive_write_data(writer.get(), member.text.data(), member.text.size());
    }
  }
  ASSERT_EQ(archive_write_close(writer.get()), ARCHIVE_OK);
}

class ArchiveCheckTest : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    for (const Member& member : wholeMembers()) {
      if (member.type == AE_IFDIR) {
        appliance::makeDirectories(kOrigin + member.name);
      } else {
        writeFile(kOrigin + member.name, member.text);
      }
    }
  }

  void TearDown() override {
    appliance::checked();
    ToolTest::TearDown();
  }

  static bool holds(const std::vector<Member>& members) {
    pack(members);
    return archiveIsWhole(kArchive);
  }

  static bool equalsOrigin() {
    pack(wholeMembers());
    return archiveIsWhole(kArchive, kOrigin);
  }
};

TEST_F(ArchiveCheckTest, AcceptsAWholeArchive) {
  EXPECT_TRUE(holds(wholeMembers()));
  EXPECT_TRUE(equalsOrigin());
}

TEST_F(ArchiveCheckTest, AcceptsAnArchiveWithoutThemes) {
  auto members = wholeMembers();
  members.erase(members.begin() + 5, members.begin() + 7);
  EXPECT_TRUE(holds(members));
}

TEST_F(ArchiveCheckTest, AcceptsWhatTarMakes) {
  appliance::RunOptions options;
  options.program = "/bin/tar";
  options.cwd = kOrigin;
  ASSERT_EQ(appliance::runTool({"-zcf", kArchive, "kavophoto_backup.dump", "kavophoto_backup_time.txt",
                                "kavophoto_backup_hox_account.txt", "kavophoto_backup_hox_group_account.txt",
                                "theme_bak", "settings.conf.bak"},
                               options)
                .status,
            0);
  EXPECT_TRUE(archiveIsWhole(kArchive, kOrigin));
}

TEST_F(ArchiveCheckTest, RefusesWhatIsNoArchive) {
  EXPECT_FALSE(archiveIsWhole(kArchive));
  EXPECT_FALSE(archiveIsWhole("/tmp"));
  writeFile(kArchive, "");
  EXPECT_FALSE(archiveIsWhole(kArchive));
  writeFile(kArchive, std::string(4096, '\0'));
  EXPECT_FALSE(archiveIsWhole(kArchive));
  writeFile(kArchive, "\x1f\x8b\x08 and no more");
  EXPECT_FALSE(archiveIsWhole(kArchive));
}

TEST_F(ArchiveCheckTest, RefusesAnArchiveThatIsNotCompressed) {
  pack(wholeMembers(), Packing::kPlain);
  EXPECT_FALSE(archiveIsWhole(kArchive));
}

TEST_F(ArchiveCheckTest, RefusesAnArchiveCutAnywhere) {
  pack(wholeMembers());
  const std::string whole = appliance::readFile(kArchive);
  const auto refusesCutTo = [&whole](std::size_t size) {
    writeFile(kArchive, whole.substr(0, size));
    EXPECT_FALSE(archiveIsWhole(kArchive)) << size << " of " << whole.size() << " bytes";
  };
  for (std::size_t cut = 1; cut <= 40; ++cut) {
    refusesCutTo(whole.size() - cut);
  }
  for (std::size_t part = 0; part < 20; ++part) {
    refusesCutTo(whole.size() * part / 20);
  }
}

TEST_F(ArchiveCheckTest, RefusesAMissingMember) {
  for (std::size_t missing : {0U, 1U, 2U, 3U, 4U, 7U}) {
    auto members = wholeMembers();
    members.erase(members.begin() + static_cast<std::ptrdiff_t>(missing));
    EXPECT_FALSE(holds(members)) << missing;
  }
}

TEST_F(ArchiveCheckTest, RefusesADoubledMember) {
  for (std::size_t doubled = 0; doubled < wholeMembers().size(); ++doubled) {
    auto members = wholeMembers();
    members.insert(members.begin() + static_cast<std::ptrdiff_t>(doubled), members[doubled]);
    EXPECT_FALSE(holds(members)) << doubled;
  }
}

TEST_F(ArchiveCheckTest, RefusesAnotherOrder) {
  for (std::size_t first : {0U, 1U, 2U, 3U, 4U, 6U}) {
    auto members = wholeMembers();
    std::swap(members[first], members[first + 1]);
    EXPECT_FALSE(holds(members)) << first;
  }
}

TEST_F(ArchiveCheckTest, RefusesForeignMembers) {
  for (const Member& foreign :
       {Member{"foreign", "x"}, Member{"../escape", "x"}, Member{"theme_bak/sub/", "", AE_IFDIR},
        Member{"theme_bak/sub/file", "x"}, Member{"theme_bak/link", "/etc/passwd", AE_IFLNK}, Member{"", "x"}}) {
    for (std::ptrdiff_t place : {0, 1, 6, 8}) {
      auto members = wholeMembers();
      members.insert(members.begin() + place, foreign);
      pack(members);
      EXPECT_FALSE(archiveIsWhole(kArchive)) << foreign.name << " at " << place;
    }
  }
}

TEST_F(ArchiveCheckTest, RefusesMembersOfAnotherKind) {
  auto members = wholeMembers();
  members[0] = {"kavophoto_backup.dump", "/etc/passwd", AE_IFLNK};
  EXPECT_FALSE(holds(members));
  members = wholeMembers();
  members[7] = {"settings.conf.bak/", "", AE_IFDIR};
  EXPECT_FALSE(holds(members));
  members = wholeMembers();
  members.erase(members.begin() + 5, members.begin() + 7);
  members[4] = {"theme_bak", "a file", AE_IFREG};
  EXPECT_FALSE(holds(members));
  members[4] = {"theme_bak/", "/etc", AE_IFLNK};
  EXPECT_FALSE(holds(members));
}

TEST_F(ArchiveCheckTest, RefusesASecondArchiveBehindTheFirst) {
  pack(wholeMembers());
  const std::string whole = appliance::readFile(kArchive);
  writeFile(kArchive, whole + whole);
  EXPECT_FALSE(archiveIsWhole(kArchive));
}

// Has tar pack what the shell commands make of the files.
bool holdsAfter(const std::string& commands) {
  appliance::RunOptions options;
  options.program = "/bin/sh";
  options.cwd = kOrigin;
  appliance::runTool({"-c", commands + "; tar -Szcf /tmp/checked.tar.gz kavophoto_backup.dump "
                                       "kavophoto_backup_time.txt kavophoto_backup_hox_account.txt "
                                       "kavophoto_backup_hox_group_account.txt theme_bak settings.conf.bak"},
                     options);
  return archiveIsWhole(kArchive);
}

TEST_F(ArchiveCheckTest, RefusesWhateverFollowsTheCompressedStream) {
  pack(wholeMembers());
  const std::string whole = appliance::readFile(kArchive);
  for (const std::string& ballast : {std::string(1, '\0'), std::string(1, 'x'), std::string(100000, '\0')}) {
    writeFile(kArchive, whole + ballast);
    EXPECT_FALSE(archiveIsWhole(kArchive)) << ballast.size();
  }
}

TEST_F(ArchiveCheckTest, RefusesAFileWithHoles) {
  EXPECT_TRUE(holdsAfter("true"));
  EXPECT_FALSE(holdsAfter("truncate -s 100M kavophoto_backup.dump"));
  EXPECT_FALSE(holdsAfter("echo behind the hole >> kavophoto_backup.dump"));
}

TEST_F(ArchiveCheckTest, RefusesAFileThatIsALinkToAnother) {
  EXPECT_FALSE(holdsAfter("ln -f kavophoto_backup_hox_account.txt kavophoto_backup_hox_group_account.txt"));
}

// Marks the last file of an archive that is not compressed as a link, and makes its header's checksum fit.
void turnIntoLink(std::string& archive, const std::string& member) {
  constexpr std::size_t kHeader = 512;
  constexpr std::size_t kChecksum = 148;
  constexpr std::size_t kKind = 156;
  constexpr std::size_t kTarget = 157;
  std::string header = archive.substr(archive.rfind(member), kHeader);
  const std::string target = "kavophoto_backup.dump";
  header[kKind] = '1';
  header.replace(kTarget, target.size(), target);
  header.replace(kChecksum, 8, 8, ' ');
  unsigned sum = 0;
  for (const char byte : header) {
    sum += static_cast<unsigned char>(byte);
  }
  header.replace(kChecksum, 7, formatText("%06o", sum) + std::string(1, '\0'));
  archive.replace(archive.rfind(member), kHeader, header);
}

TEST_F(ArchiveCheckTest, RefusesALinkThatBringsAText) {
  appliance::RunOptions gzip;
  gzip.program = "/usr/bin/gzip";
  const auto holdsCompressed = [&gzip](const std::string& archive) {
    writeFile("/tmp/checked.tar", archive);
    EXPECT_EQ(appliance::runTool({"-f", "/tmp/checked.tar"}, gzip).status, 0);
    return archiveIsWhole(kArchive);
  };
  // The only kind of archive whose links may.
  pack(wholeMembers(), Packing::kPlainPax);
  std::string archive = appliance::readFile(kArchive);
  EXPECT_TRUE(holdsCompressed(archive));
  turnIntoLink(archive, "settings.conf.bak");
  EXPECT_FALSE(holdsCompressed(archive));
}

TEST_F(ArchiveCheckTest, ComparesEveryFileWithItsOriginal) {
  for (const Member& member : wholeMembers()) {
    if (member.type == AE_IFDIR) {
      continue;
    }
    const std::string path = kOrigin + member.name;
    writeFile(path, member.text + "x");
    EXPECT_FALSE(equalsOrigin()) << "longer: " << member.name;
    if (!member.text.empty()) {
      writeFile(path, member.text.substr(1));
      EXPECT_FALSE(equalsOrigin()) << "shorter: " << member.name;
      std::string changed = member.text;
      changed.back() = '!';
      writeFile(path, changed);
      EXPECT_FALSE(equalsOrigin()) << "changed: " << member.name;
    }
    appliance::removeAll(path);
    EXPECT_FALSE(equalsOrigin()) << "missing: " << member.name;
    writeFile(path, member.text);
    EXPECT_TRUE(equalsOrigin());
  }
}

TEST_F(ArchiveCheckTest, WaitsForNoPipe) {
  const std::string origin = std::string(kOrigin) + "settings.conf.bak";
  appliance::removeAll(origin);
  ASSERT_EQ(mkfifo(origin.c_str(), 0600), 0);
  EXPECT_FALSE(equalsOrigin());
  appliance::removeAll(kArchive);
  ASSERT_EQ(mkfifo(kArchive, 0600), 0);
  EXPECT_FALSE(archiveIsWhole(kArchive));
  appliance::removeAll(kArchive);
  EXPECT_FALSE(archiveIsWhole(kArchive));
  appliance::makeDirectories(kArchive);
  EXPECT_FALSE(archiveIsWhole(kArchive));
}

TEST_F(ArchiveCheckTest, MissesAThemeFileThatTheArchiveLacks) {
  writeFile(std::string(kOrigin) + "theme_bak/new.css", "x");
  EXPECT_FALSE(equalsOrigin());
}

}  // namespace
