#include <string>
#include <vector>

#include "support/tool_test.h"

namespace {

constexpr const char* kUsers = "/tmp/backup/kavophoto_backup_hox_account.txt";
constexpr const char* kGroups = "/tmp/backup/kavophoto_backup_hox_group_account.txt";

class Export : public appliance::ToolTest {
 protected:
  void addRights() {
    live().exec(
        "INSERT INTO photo_access_right_for_hox_account VALUES (1026, 1, now()), (1027, 1, now());"
        "INSERT INTO photo_upload_right_for_hox_account VALUES (1028, 2, now());"
        "INSERT INTO photo_manage_right_for_hox_account VALUES (1026, 3, now());"
        "INSERT INTO photo_group_permission_for_hox_account VALUES (65600, 1, 2, now()), (65601, 1, 2, now())");
  }
  appliance::Outcome exportAccounts() { return run({"-e", appliance::workDirectory()}); }
};

TEST_F(Export, WritesTheAccountsOfTheFourTablesInOrder) {
  addRights();
  const auto before = appliance::contents("photo");
  const appliance::Outcome outcome = exportAccounts();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  expectNoMessages();
  EXPECT_EQ(appliance::readFile(kUsers),
            "1026 =\"editor\"\n1027 =\"viewer\"\n1028 =\"first last\"\n1026 =\"editor\"\n");
  EXPECT_EQ(appliance::readFile(kGroups), "65600 =\"family\"\n65601 =\"friends\"\n");
  EXPECT_EQ(appliance::contents("photo"), before);
}

TEST_F(Export, AddsToTheFilesOfAnEarlierOne) {
  addRights();
  EXPECT_EQ(exportAccounts().status, 0);
  const std::string users = appliance::readFile(kUsers);
  EXPECT_EQ(run({"-o", "-e", appliance::workDirectory()}).status, 0);
  expectNoMessages();
  EXPECT_EQ(appliance::readFile(kUsers), users + users);
}

TEST_F(Export, GoesOnAfterEachTableThatFails) {
  addRights();
  live().exec(
      "DROP TABLE photo_access_right_for_hox_account;"
      "UPDATE photo_manage_right_for_hox_account SET userid = 4711;"
      "ALTER TABLE photo_group_permission_for_hox_account RENAME TO elsewhere");
  EXPECT_EQ(exportAccounts().status, 0);
  expectMessages(
      {"Failed to exec [Select * from photo_access_right_for_hox_account] (ERROR:  relation "
       "\"photo_access_right_for_hox_account\" does not exist)",
       "failed when photo_access_right_for_hox_account.\n", "Failed to fetch hox user (4711)",
       "failed when photo_manage_right_for_hox_account.\n",
       "Failed to exec [Select * from photo_group_permission_for_hox_account] (ERROR:  relation "
       "\"photo_group_permission_for_hox_account\" does not exist)",
       "failed when photo_group_permission_for_hox_account.\n"});
  EXPECT_EQ(appliance::readFile(kUsers), "1028 =\"first last\"\n");
}

TEST_F(Export, SaysOfEveryTableThatItCouldNotBeRead) {
  appliance::server::stop();
  EXPECT_EQ(exportAccounts().status, 0);
  expectMessages({"Failed to connect to database", "failed when photo_access_right_for_hox_account.\n",
                  "Failed to connect to database", "failed when photo_upload_right_for_hox_account.\n",
                  "Failed to connect to database", "failed when photo_manage_right_for_hox_account.\n",
                  "Failed to connect to database", "failed when photo_group_permission_for_hox_account.\n"});
  EXPECT_FALSE(appliance::exists(kUsers));
}

TEST_F(Export, SaysOfEveryTableThatItsFileCannotBeWritten) {
  appliance::mountReadOnly("/tmp/backup");
  EXPECT_EQ(exportAccounts().status, 0);
  const std::string users = std::string("Failed to open file: ") + kUsers + ".\n";
  const std::string groups = std::string("Failed to open file: ") + kGroups + ".\n";
  expectMessages({users, "failed when photo_access_right_for_hox_account.\n", users,
                  "failed when photo_upload_right_for_hox_account.\n", users,
                  "failed when photo_manage_right_for_hox_account.\n", groups,
                  "failed when photo_group_permission_for_hox_account.\n"});
}

}  // namespace
