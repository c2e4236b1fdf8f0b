#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "support/tool_test.h"

namespace {

using appliance::readFile;
using appliance::writeFile;

constexpr const char* kPath = "/tmp/file";

class FilesTest : public appliance::ToolTest {};

TEST_F(FilesTest, WritingReplacesAndAppendingAdds) {
  writeFile(kPath, "a longer text than before");
  File file = openToWrite(kPath);
  ASSERT_TRUE(file);
  std::fputs("one\n", file.get());
  EXPECT_TRUE(closeWritten(std::move(file)));
  EXPECT_EQ(readFile(kPath), "one\n");
  file = openToAppend(kPath);
  ASSERT_TRUE(file);
  std::fputs("two\n", file.get());
  EXPECT_TRUE(closeWritten(std::move(file)));
  EXPECT_EQ(readFile(kPath), "one\ntwo\n");
}

TEST_F(FilesTest, FollowsNoSymbolicLink) {
  writeFile("/tmp/target", "kept");
  ASSERT_EQ(symlink("/tmp/target", kPath), 0);
  EXPECT_FALSE(openToWrite(kPath));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(openToAppend(kPath));
  EXPECT_EQ(readFile("/tmp/target"), "kept");
}

TEST_F(FilesTest, ReadsThroughALinkOnlyWhereItMay) {
  writeFile("/tmp/target", "text");
  ASSERT_EQ(symlink("/tmp/target", kPath), 0);
  const File file = openToRead(kPath);
  ASSERT_TRUE(file);
  EXPECT_EQ(std::fgetc(file.get()), 't');
  errno = 0;
  EXPECT_FALSE(openToRead(kPath, Links::kRefused));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_TRUE(openToRead("/tmp/target", Links::kRefused));
  appliance::checked();
}

TEST_F(FilesTest, WritesInPlaceWithoutMakingOrEmptyingTheFile) {
  errno = 0;
  EXPECT_FALSE(openInPlace(kPath));
  EXPECT_EQ(errno, ENOENT);
  writeFile(kPath, "old text");
  const Descriptor file = openInPlace(kPath);
  ASSERT_TRUE(file);
  EXPECT_EQ(write(file.get(), "new", 3), 3);
  EXPECT_EQ(readFile(kPath), "new text");
}

TEST_F(FilesTest, OpensNothingButOrdinaryFilesAndNeverWaits) {
  appliance::makeDirectories("/tmp/folder");
  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  ASSERT_EQ(mkfifo("/tmp/read_pipe", 0600), 0);
  const Descriptor reader(open("/tmp/read_pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const auto errorOf = [](const std::function<bool()>& opens) {
    errno = 0;
    return opens() ? 0 : errno;
  };
  for (const auto& [path, reading, writing] : {std::tuple("/tmp/folder", EISDIR, EISDIR),
                                               {"/tmp/pipe", EINVAL, ENXIO},
                                               {"/tmp/read_pipe", EINVAL, EINVAL},
                                               {"/dev/null", EINVAL, EINVAL}}) {
    SCOPED_TRACE(path);
    const std::string name = path;
    EXPECT_EQ(errorOf([&] { return openToRead(name) != nullptr; }), reading);
    EXPECT_EQ(errorOf([&] { return openToRead(name, Links::kRefused) != nullptr; }), reading);
    EXPECT_EQ(errorOf([&] { return openToWrite(name) != nullptr; }), writing);
    EXPECT_EQ(errorOf([&] { return openToAppend(name) != nullptr; }), writing);
    EXPECT_EQ(errorOf([&] { return static_cast<bool>(openInPlace(name)); }), writing);
  }
  appliance::checked();
}

TEST_F(FilesTest, ReportsWhatDidNotReachTheDisk) {
  appliance::mountSmall("/tmp/small", 8192);
  writeFile("/tmp/small/filler", std::string(8192, 'x'));
  File file = openToWrite("/tmp/small/file");
  ASSERT_TRUE(file);
  std::fputs("lost", file.get());
  EXPECT_FALSE(closeWritten(std::move(file)));
  appliance::checked();
}

TEST_F(FilesTest, RemovesOnlyWhatIsThere) {
  writeFile(kPath, "");
  EXPECT_TRUE(exists(kPath));
  removeIfThere(kPath);
  EXPECT_FALSE(appliance::exists(kPath));
  removeIfThere(kPath);
  expectNoMessages();
}

TEST_F(FilesTest, FailedRemovalIsLogged) {
  writeFile("/tmp/file/inner", "");
  removeIfThere(kPath);
  expectMessages({"Failed to remove /tmp/file (Directory not empty)"});
}

TEST_F(FilesTest, RemovesTheNamesOfSpecialFilesOnly) {
  appliance::makeDirectories("/tmp/folder");
  writeFile("/tmp/ordinary", "kept");
  ASSERT_EQ(symlink("/tmp/ordinary", "/tmp/link"), 0);
  ASSERT_EQ(symlink("/tmp/missing", "/tmp/dangling"), 0);
  for (const char* path : {"/tmp/folder", "/tmp/ordinary", "/tmp/link", "/tmp/dangling", "/tmp/nothing"}) {
    EXPECT_FALSE(isSpecialFile(path)) << path;
    EXPECT_TRUE(removeSpecialFile(path)) << path;
  }
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/folder"));
  EXPECT_EQ(readFile("/tmp/link"), "kept");
  EXPECT_TRUE(std::filesystem::is_symlink("/tmp/dangling"));

  ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
  ASSERT_EQ(mknod("/tmp/socket", S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(symlink("/dev/null", "/tmp/device"), 0);
  ASSERT_EQ(symlink("/tmp/socket", "/tmp/to_socket"), 0);
  for (const char* path : {"/tmp/pipe", "/tmp/device", "/tmp/to_socket", "/tmp/socket"}) {
    EXPECT_TRUE(isSpecialFile(path)) << path;
    EXPECT_TRUE(removeSpecialFile(path)) << path;
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(path))) << path;
  }
  EXPECT_TRUE(exists("/dev/null"));
  expectNoMessages();
}

TEST_F(FilesTest, FailedRemovalOfASpecialFileIsLogged) {
  appliance::makeDirectories("/tmp/closed");
  ASSERT_EQ(mkfifo("/tmp/closed/pipe", 0600), 0);
  appliance::mountReadOnly("/tmp/closed");
  EXPECT_FALSE(removeSpecialFile("/tmp/closed/pipe"));
  expectMessages({"Failed to remove /tmp/closed/pipe (Read-only file system)"});
}

enum class Odd { kPipe, kFolder, kHuge };

void PrintTo(Odd odd, std::ostream* stream) {
  *stream << (odd == Odd::kPipe ? "Pipe" : odd == Odd::kFolder ? "Folder" : "Huge");
}

constexpr const char* kVersion = "/etc.defaults/VERSION";
constexpr const char* kInformation = "/var/packages/Lumora/INFO";
constexpr const char* kSettings = "/var/packages/Lumora/etc/settings.conf";
constexpr const char* kUsers = "/tmp/backup/kavophoto_backup_hox_account.txt";
constexpr const char* kGroups = "/tmp/backup/kavophoto_backup_hox_group_account.txt";
constexpr const char* kNoBuild = "KavophotoDumpDB failed when KLIBCFileGetKeyValue.\n";
constexpr const char* kCannot = "Cant restore Photo DB.\n";

// No file that the tool reads or writes may hold a run up or fill its memory, whatever kind of file it is.
class OddFiles : public appliance::ToolTest, public ::testing::WithParamInterface<Odd> {
 protected:
  using Messages = std::vector<std::string>;

  static void place(const std::string& path) {
    appliance::removeAll(path);
    switch (GetParam()) {
      case Odd::kPipe:
        ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
        break;
      case Odd::kFolder:
        appliance::makeDirectories(path);
        break;
      case Odd::kHuge:
        writeFile(path, "");
        std::filesystem::resize_file(path, (std::uintmax_t{64} << 20U) + 1);
        break;
    }
  }

  // Has the same put into the place of a member of the archive once it is unpacked.
  static void placeAfterUnpacking(const std::string& path) {
    const std::string make = GetParam() == Odd::kPipe     ? "mkfifo "
                             : GetParam() == Odd::kFolder ? "mkdir "
                                                          : "truncate -s 67108865 ";
    appliance::replaceProgram("/bin/tar",
                              R"("$REAL" "$@"; status=$?; rm -f )" + path + "; " + make + path + "; exit $status");
  }

  void runs(const std::vector<std::string>& arguments, int status, const Messages& messages) {
    appliance::RunOptions options;
    options.timeoutSeconds = 60;
    EXPECT_EQ(run(arguments, options).status, status);
    expectMessages(messages);
  }
  void restores(int status, const Messages& messages) {
    other();
    appliance::makeArchive(appliance::workDirectory(), "other");
    runs({"-r", appliance::workDirectory()}, status, messages);
  }
};

INSTANTIATE_TEST_SUITE_P(Kinds, OddFiles, ::testing::Values(Odd::kPipe, Odd::kFolder, Odd::kHuge),
                         ::testing::PrintToStringParamName());

TEST_P(OddFiles, InThePlaceOfThePidFileKeepNoRunOut) {
  constexpr const char* kPidFile = "/tmp/kavophoto_backup.pid";
  place(kPidFile);
  Messages messages;
  if (GetParam() == Odd::kFolder) {
    leavePidFile();
    messages = {"Failed to open /tmp/kavophoto_backup.pid, errno=[17/File exists]\n"};
  }
  runs({"-e", appliance::workDirectory()}, 0, messages);
  EXPECT_EQ(readFile(kUsers), "");
}

TEST_P(OddFiles, InThePlaceOfTheVersionsEndTheBackup) {
  place(kVersion);
  runs({"-b", appliance::workDirectory()}, 0, {kNoBuild});
  appliance::removeAll(kVersion);
  writeFile(kVersion, "buildnumber=\"1803\"\n");
  place(kInformation);
  runs({"-b", appliance::workDirectory()}, 0, {kNoBuild});
  EXPECT_FALSE(appliance::exists("/tmp/backup/kavophoto.backup"));
}

TEST_P(OddFiles, InThePlaceOfTheBuildNumberEndTheRestore) {
  place(kVersion);
  restores(255, {kNoBuild, kCannot});
}

TEST_P(OddFiles, InThePlaceOfTheBackupTimeEndTheRestore) {
  placeAfterUnpacking("/tmp/backup/kavophoto_backup_time.txt");
  restores(255, {"Fail to get version.\n", kCannot});
}

TEST_P(OddFiles, InThePlaceOfTheBackupTimeEndTheBackupUnlessTheyCanBeReplaced) {
  constexpr const char* kTime = "/tmp/backup/kavophoto_backup_time.txt";
  place(kTime);
  const bool isFolder = GetParam() == Odd::kFolder;
  runs({"-b", appliance::workDirectory()}, 0,
       isFolder ? Messages{"KavophotoDumpDB failed to open /tmp/backup/kavophoto_backup_time.txt.\n"} : Messages());
  EXPECT_NE(appliance::exists("/tmp/backup/kavophoto.backup"), isFolder);
}

TEST_P(OddFiles, InThePlaceOfTheAccountFilesEndTheExportUnlessTheyCanBeAddedTo) {
  place(kUsers);
  place(kGroups);
  Messages messages;
  if (GetParam() != Odd::kHuge) {
    for (const char* table : {"photo_access_right_for_hox_account", "photo_upload_right_for_hox_account",
                              "photo_manage_right_for_hox_account"}) {
      messages.push_back(std::string("Failed to open file: ") + kUsers + ".\n");
      messages.push_back(std::string("failed when ") + table + ".\n");
    }
    messages.push_back(std::string("Failed to open file: ") + kGroups + ".\n");
    messages.emplace_back("failed when photo_group_permission_for_hox_account.\n");
  }
  runs({"-e", appliance::workDirectory()}, 0, messages);
}

TEST_P(OddFiles, InThePlaceOfTheAccountFilesEndTheMergeOfTheirTables) {
  other().exec(
      "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1);"
      "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 1)");
  place(kUsers);
  place(kGroups);
  const auto before = appliance::contents("photo");
  runs({"-i", appliance::workDirectory(), "-d", "other"}, 0,
       {"Failed to fetch hox user (1026)", "Table photo_access_right_for_hox_account sync failed.",
        "Failed to fetch hox group (65600)", "Table photo_group_permission_for_hox_account sync failed.\n"});
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_P(OddFiles, InThePlaceOfTheAccountFilesOfAnArchiveEndTheMergeOfTheirTables) {
  other().exec("INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1)");
  placeAfterUnpacking(kUsers);
  restores(0, {"Failed to fetch hox user (1026)", "Table photo_access_right_for_hox_account sync failed.\n"});
}

TEST_P(OddFiles, InThePlaceOfTheSettingsStay) {
  place(kSettings);
  restores(0,
           {std::string("KavophotoRestoreSetting: read ") + kSettings + " failed\n", "Restore Setting Config Failed"});
  EXPECT_FALSE(std::filesystem::is_regular_file(kSettings) && std::filesystem::file_size(kSettings) < 100);
}

TEST_P(OddFiles, InThePlaceOfTheSavedSettingsChangeNothing) {
  const std::string live = readFile(kSettings);
  placeAfterUnpacking("/tmp/backup/settings.conf.bak");
  restores(0,
           {"KavophotoRestoreSetting: read /tmp/backup/settings.conf.bak failed\n", "Restore Setting Config Failed"});
  EXPECT_EQ(readFile(kSettings), live);
}

TEST_P(OddFiles, InThePlaceOfTheMergedSettingsEndTheMergeUnlessTheyCanBeEmptied) {
  place(std::string(kSettings) + ".tmp");
  restores(0, GetParam() == Odd::kHuge
                  ? Messages()
                  : Messages{"KavophotoRestoreSetting: write setting config failed", "Restore Setting Config Failed"});
}

}  // namespace
