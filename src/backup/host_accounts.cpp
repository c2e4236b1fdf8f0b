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
  if (!execute(connection, rows, "Select * from %s%s", Name(table), Name(suffix))) {
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

std::optional<long long> userNumber(const std::string& name) {
  KAVOUser* user = nullptr;
  if (KAVOUserGet(name.c_str(), &user) < 0) {
    return std::nullopt;
  }
  return UserHandle(user)->uid;
}

std::optional<long long> groupNumber(const std::string& name) {
  KAVOGroup* account = nullptr;
  if (KAVOGroupGet(name.c_str(), &account) < 0) {
    return std::nullopt;
  }
  return GroupHandle(account)->gid;
}

// A table of rights that is keyed by a kind of host account.
struct HostTable {
  const char* table;
  const char* column;
  // "user" or "group".
  const char* kind;
  std::optional<long long> (*numberOf)(const std::string& name);
};

// A right that an account of the source has on a share.
struct Right {
  Raw savedNumber;
  bool isKnown = false;
  // What the account's name has here.
  long long number = 0;
  Raw share;
  Raw permission;
  Text createTime;
};

// A right is looked for under the account's number of this machine, and inserted under the saved one.
std::vector<std::string> keysOf(const Right& right) {
  if (!isPrintedNumber(right.savedNumber.text)) {
    return {};
  }
  return {std::to_string(right.number), right.savedNumber.text};
}

// Nothing for a right of an account that this machine lacks.
std::optional<Right> readRight(const HostTable& host, const SzHash& accounts, const Result& row) {
  Right right;
  right.savedNumber = rawField(row, host.column, kNumberCapacity);
  right.share = rawField(row, "shareid", kNumberCapacity);
  right.permission = rawField(row, "permission", kPermissionCapacity);
  right.createTime = textField(row, "create_time", kTimeCapacity);
  const std::string* name = KLIBCSzHashGetValue(accounts, right.savedNumber.text);
  right.isKnown = name != nullptr;
  if (!right.isKnown) {
    return right;
  }
  const std::optional<long long> number = host.numberOf(*name);
  if (!number) {
    return std::nullopt;
  }
  right.number = *number;
  return right;
}

// False when the reader must stop, which is then logged. `insert` makes the statement that inserts the right on the
// live share.
bool mergeRight(const Sides& sides, const HostTable& host, const Right& right,
                const std::function<Statement(const Right& right, const Raw& liveShare)>& insert) {
  if (!right.isKnown) {
    KAVO_LOG("Failed to fetch hox %s (%s)", host.kind, right.savedNumber.text.c_str());
    return false;
  }
  const Name table = host.table;
  const Name column = host.column;
  Result rights;
  if (!execute(sides.destination, rights, "Select * from %s where %s = %s", table, column, right.number)) {
    return false;
  }
  if (hasRows(rights) && !gIsOverwiroteMode) {
    return true;
  }
  if (!execute(sides.destination, "Delete from %s where %s = %s and shareid = %s", table, column, right.number,
               right.share)) {
    return false;
  }
  Raw liveShare;
  const Lookup share = findShare(sides, right.share, kWhole, liveShare);
  if (share != Lookup::kFound) {
    return share == Lookup::kMissing;
  }
  // The row keeps the number that it was saved with, although the account may have another one here.
  return execute(sides.destination, "Delete from %s where %s = %s and shareid = %s", table, column, right.number,
                 liveShare) &&
         execute(sides.destination, insert(right, liveShare));
}

int mergeRights(const Sides& sides, const HostTable& host, const std::string& accountFile,
                const std::function<Statement(const Right& right, const Raw& liveShare)>& insert) {
  const SzHashHandle accounts = readAccounts(accountFile);
  return mergeRows(
      sides, sql("Select * from %s%s", Name(host.table), sides.suffix), {{host.table, {host.column, "shareid"}}},
      [&](const Result& row) { return readRight(host, *accounts, row); },
      [&](const Right& right) { return mergeRight(sides, host, right, insert); });
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
  return mergeRights({live, source, suffix}, {table, "userid", "user", userNumber},
                     joinPath(dir, "kavophoto_backup_hox_account.txt"), [table](const Right& right, const Raw& share) {
                       return sql("Insert into %s Values (%s, %s, '%s')", Name(table), right.savedNumber, share,
                                  right.createTime);
                     });
}

int KavophotoSyncHoxGroupPermission(DBConnect_tag* live, DBConnect_tag* source, const char* dir, const char* suffix) {
  return mergeRights(
      {live, source, suffix}, {"photo_group_permission_for_hox_account", "groupid", "group", groupNumber},
      joinPath(dir, "/kavophoto_backup_hox_group_account.txt"), [](const Right& right, const Raw& share) {
        return sql(
            "Insert into photo_group_permission_for_hox_account(groupid, shareid, permission, "
            "create_time) Values (%s, %s, %s, '%s')",
            right.savedNumber, share, right.permission, right.createTime);
      });
}
