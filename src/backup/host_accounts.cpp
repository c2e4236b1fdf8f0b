#include "backup/host_accounts.h"

#include <strings.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "merge/common.h"
#include "platform/accounts.h"
#include "platform/files.h"
#include "platform/key_value_file.h"
#include "platform/log.h"
#include "platform/overwrite_mode.h"
#include "platform/query.h"
#include "platform/string_hash.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kTimeCapacity = 64;
constexpr std::size_t kPermissionCapacity = 16;
constexpr std::size_t kLineCapacity = 1024;

std::optional<std::string> userName(long long number) {
  KAVOUser* user = nullptr;
  if (KAVOUserGetByUID(number, &user) < 0) {
    return std::nullopt;
  }
  return UserHandle(user)->name;
}

std::optional<std::string> groupName(long long number) {
  KAVOGroup* account = nullptr;
  if (KAVOGroupGetByGID(number, &account) < 0) {
    return std::nullopt;
  }
  return GroupHandle(account)->name;
}

// Appends a line for each row, named by what `nameOf` finds for the number in `column`.
bool appendAccounts(Result& rows, const char* column, std::optional<std::string> (*nameOf)(long long),
                    std::FILE* file) {
  constexpr int kDecimal = 10;
  while (fetchRow(rows)) {
    const std::string number = fieldText(rows, column, kNumberCapacity);
    const std::optional<std::string> name = nameOf(std::strtoll(number.c_str(), nullptr, kDecimal));
    if (!name) {
      KAVO_LOG("Failed to fetch hox user (%s)", number.c_str());
      return false;
    }
    const std::string line = formatText("%s =\"%s\"\n", number.c_str(), name->c_str());
    std::fputs(asPrinted(cutText(line, kLineCapacity)).c_str(), file);
  }
  return true;
}

int dumpAccounts(const std::string& path, const char* table, const char* suffix, const char* column,
                 std::optional<std::string> (*nameOf)(long long)) {
  DBConnect_tag* const connection = KAVODBPConnect(nullptr, "postgres", nullptr, "photo");
  if (connection == nullptr) {
    KAVO_LOG("Failed to connect to database");
    return -1;
  }
  Result rows;
  if (!execute(connection, formatText("Select * from %s%s", table, suffix), rows)) {
    return -1;
  }
  File file = openToAppend(path);
  if (!file) {
    KAVO_LOG("Failed to open file: %s.\n", path.c_str());
    return -1;
  }
  if (!appendAccounts(rows, column, nameOf, file.get())) {
    return -1;
  }
  if (!closeWritten(std::move(file))) {
    KAVO_LOG("Failed to write file: %s.\n", path.c_str());
    return -1;
  }
  return 0;
}

// The names by account number; none when the file cannot be read, and then no number is found, which is logged. Read
// once, because a look-up in the file for every row would take the square of their number.
SzHashHandle readAccounts(const std::string& path) {
  constexpr std::size_t kUsualAccounts = 512;
  SzHashHandle accounts = KLIBCSzHashAlloc(kUsualAccounts);
  KLIBCFileGetPair(path.c_str(), *accounts);
  return accounts;
}

// False when the reader must stop, which is then logged.
bool mergeUserRight(DBConnect_tag* live, DBConnect_tag* source, const Result& right, const SzHash& accounts,
                    const char* table, const char* suffix) {
  const std::string userid = fieldText(right, "userid", kNumberCapacity);
  const std::string* name = KLIBCSzHashGetValue(accounts, userid);
  if (name == nullptr) {
    KAVO_LOG("Failed to fetch hox user (%s)", userid.c_str());
    return false;
  }
  KAVOUser* found = nullptr;
  if (KAVOUserGet(name->c_str(), &found) < 0) {
    return true;
  }
  const UserHandle user(found);
  const long long uid = user->uid;
  Result rights;
  if (!execute(live, formatText("Select * from %s where userid = %lld", table, uid), rights)) {
    return false;
  }
  if (hasRows(rights) && !gIsOverwiroteMode) {
    return true;
  }
  const std::string shareid = fieldText(right, "shareid", kNumberCapacity);
  const std::string createTime = escapeText(fieldText(right, "create_time", kTimeCapacity));
  if (!execute(live, formatText("Delete from %s where userid = %lld and shareid = %s", table, uid, shareid.c_str()),
               RawValues{{}, {shareid}})) {
    return false;
  }
  std::string liveShare;
  const Lookup share = findShare(live, source, suffix, shareid, kWhole, liveShare);
  if (share != Lookup::kFound) {
    return share == Lookup::kMissing;
  }
  // The row keeps the number that it was saved with, although the user may have another one here.
  return execute(live,
                 formatText("Delete from %s where userid = %lld and shareid = %s", table, uid, liveShare.c_str())) &&
         execute(live,
                 formatText("Insert into %s Values (%s, %s, '%s')", table, userid.c_str(), liveShare.c_str(),
                            createTime.c_str()),
                 RawValues{{}, {userid}});
}

// False when the reader must stop, which is then logged.
bool mergeGroupPermission(DBConnect_tag* live, DBConnect_tag* source, const Result& right, const SzHash& accounts,
                          const char* suffix) {
  const std::string groupid = fieldText(right, "groupid", kNumberCapacity);
  const std::string* name = KLIBCSzHashGetValue(accounts, groupid);
  if (name == nullptr) {
    KAVO_LOG("Failed to fetch hox group (%s)", groupid.c_str());
    return false;
  }
  KAVOGroup* found = nullptr;
  if (KAVOGroupGet(name->c_str(), &found) < 0) {
    return true;
  }
  const GroupHandle account(found);
  const long long gid = account->gid;
  Result permissions;
  if (!execute(live, formatText("Select * from photo_group_permission_for_hox_account where groupid = %lld", gid),
               permissions)) {
    return false;
  }
  if (hasRows(permissions) && !gIsOverwiroteMode) {
    return true;
  }
  const std::string shareid = fieldText(right, "shareid", kNumberCapacity);
  const std::string permission = fieldText(right, "permission", kPermissionCapacity);
  const std::string createTime = escapeText(fieldText(right, "create_time", kTimeCapacity));
  if (!execute(live,
               formatText("Delete from photo_group_permission_for_hox_account where groupid = %lld and shareid = %s",
                          gid, shareid.c_str()),
               RawValues{{}, {shareid}})) {
    return false;
  }
  std::string liveShare;
  const Lookup share = findShare(live, source, suffix, shareid, kWhole, liveShare);
  if (share != Lookup::kFound) {
    return share == Lookup::kMissing;
  }
  return execute(live,
                 formatText("Delete from photo_group_permission_for_hox_account where groupid = %lld and shareid = %s",
                            gid, liveShare.c_str())) &&
         execute(live,
                 formatText("Insert into photo_group_permission_for_hox_account(groupid, shareid, permission, "
                            "create_time) Values (%s, %s, %s, '%s')",
                            groupid.c_str(), liveShare.c_str(), permission.c_str(), createTime.c_str()),
                 RawValues{{}, {groupid, permission}});
}

}  // namespace

bool isHoxUserRightsTable(const char* table) {
  return strcasecmp(table, "photo_access_right_for_hox_account") == 0 ||
         strcasecmp(table, "photo_upload_right_for_hox_account") == 0 ||
         strcasecmp(table, "photo_manage_right_for_hox_account") == 0;
}

int KavophotoDumpHoxUserOnDB(const char* dir, const char* table, const char* suffix) {
  return dumpAccounts(joinPath(dir, "kavophoto_backup_hox_account.txt"), table, suffix, "userid", userName);
}

int KavophotoDumpHoxGroupOnDB(const char* dir, const char* table, const char* suffix) {
  return dumpAccounts(joinPath(dir, "kavophoto_backup_hox_group_account.txt"), table, suffix, "groupid", groupName);
}

int KavophotoSyncHoxUserRights(DBConnect_tag* live, DBConnect_tag* source, const char* dir, const char* table,
                               const char* suffix) {
  const SzHashHandle accounts = readAccounts(joinPath(dir, "kavophoto_backup_hox_account.txt"));
  Result rights;
  if (!execute(source, formatText("Select * from %s%s", table, suffix), rights)) {
    return -1;
  }
  while (fetchRow(rights)) {
    if (!mergeUserRight(live, source, rights, *accounts, table, suffix)) {
      return -1;
    }
  }
  return 0;
}

int KavophotoSyncHoxGroupPermission(DBConnect_tag* live, DBConnect_tag* source, const char* dir, const char* suffix) {
  const SzHashHandle accounts = readAccounts(joinPath(dir, "/kavophoto_backup_hox_group_account.txt"));
  Result permissions;
  if (!execute(source, formatText("Select * from photo_group_permission_for_hox_account%s", suffix), permissions)) {
    return -1;
  }
  while (fetchRow(permissions)) {
    if (!mergeGroupPermission(live, source, permissions, *accounts, suffix)) {
      return -1;
    }
  }
  return 0;
}
