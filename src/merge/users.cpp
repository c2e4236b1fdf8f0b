#include <optional>
#include <utility>
#include <vector>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kDateCapacity = 64;

// A row of photo_user as it stands in the statements: escaped where its column is.
struct User {
  std::string name;
  std::string description;
  std::string password;
  std::string disabled;
  std::string lockPassword;
  std::string admin;
  std::string email;
};

User readUser(const Result& row) {
  User user;
  user.name = escapeText(fieldText(row, "username", kNameCapacity));
  user.description = escapeText(fieldText(row, "description", kNameCapacity));
  user.password = fieldText(row, "password", kNameCapacity);
  user.disabled = fieldText(row, "disabled", kNumberCapacity);
  user.lockPassword = fieldText(row, "lock_pass", kNumberCapacity);
  user.admin = fieldText(row, "admin", kNumberCapacity);
  user.email = fieldText(row, "email", kNameCapacity);
  return user;
}

RawValues rawValues(const User& user) {
  return {{user.password, user.disabled, user.lockPassword, user.admin, user.email}, {}};
}

long long nextUserNumber(DBConnect_tag* connection) {
  return nextNumber(connection, "Select userid from photo_user order by userid desc limit 1", "userid");
}

bool insertUser(DBConnect_tag* destination, const User& user) {
  return execute(
      destination,
      formatText("Insert into photo_user VALUES(%lld, '%s', '%s', '%s', '%s', '%s', '%s', '%s')",
                 nextUserNumber(destination), user.name.c_str(), user.description.c_str(), user.password.c_str(),
                 user.disabled.c_str(), user.lockPassword.c_str(), user.admin.c_str(), user.email.c_str()),
      rawValues(user));
}

bool updateUser(DBConnect_tag* destination, const User& user) {
  return execute(destination,
                 formatText("UPDATE photo_user SET description = '%s', password = '%s', disabled = '%s', "
                            "lock_pass = '%s', admin = '%s', email = '%s' where username = '%s'",
                            user.description.c_str(), user.password.c_str(), user.disabled.c_str(),
                            user.lockPassword.c_str(), user.admin.c_str(), user.email.c_str(), user.name.c_str()),
                 rawValues(user));
}

// A row of one of the three rights tables, which are alike in everything but their name. The share has the
// destination's number.
struct Right {
  std::string share;
  std::string createTime;
};

// The source user's rights on shares that both sides have; none at all when a statement fails.
std::optional<std::vector<Right>> readRights(DBConnect_tag* destination, DBConnect_tag* source, const char* table,
                                             const std::string& sourceUser, const char* suffix) {
  Result rows;
  if (!execute(source, formatText("Select * from %s%s where userid = %s", table, suffix, sourceUser.c_str()),
               {{}, {sourceUser}}, rows)) {
    return std::nullopt;
  }
  std::vector<Right> rights;
  const bool isWhole = takeEveryRow(rows, [&] {
    const std::string sourceShare = fieldText(rows, "shareid", kNumberCapacity);
    Right right;
    right.createTime = fieldText(rows, "create_time", kDateCapacity);
    const Lookup found = findShare(destination, source, suffix, sourceShare, kTextCapacity, right.share);
    if (found == Lookup::kFound) {
      rights.push_back(std::move(right));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(rights)) : std::nullopt;
}

// Replaces the user's rows of one of the rights tables. What the source has is read first: when it cannot be, the user
// keeps the rights that it has. A failed delete or insert ends the copy, and the rights after it are missing then.
void copyUserRights(DBConnect_tag* destination, DBConnect_tag* source, const char* table, const std::string& sourceUser,
                    const std::string& destinationUser, const char* suffix) {
  const auto rights = readRights(destination, source, table, sourceUser, suffix);
  if (!rights ||
      !execute(destination, formatText("Delete from %s where userid = %s", table, destinationUser.c_str()))) {
    return;
  }
  for (const Right& right : *rights) {
    if (!execute(destination,
                 formatText("Insert into %s Values (%s, %s, '%s')", table, destinationUser.c_str(), right.share.c_str(),
                            right.createTime.c_str()),
                 RawValues{{right.createTime}, {}})) {
      return;
    }
  }
}

bool mergeUser(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix, const Result& row) {
  const std::string sourceUser = fieldText(row, "userid", kNumberCapacity);
  const User user = readUser(row);
  const std::string findUser = formatText("Select * from photo_user where username = '%s'", user.name.c_str());
  Result live;
  if (!execute(destination, findUser, live)) {
    return false;
  }
  if (hasRows(live) && !gIsOverwiroteMode) {
    return true;
  }
  if (!(hasRows(live) ? updateUser(destination, user) : insertUser(destination, user))) {
    return false;
  }

  if (!execute(destination, findUser, live)) {
    return false;
  }
  if (fetchRow(live)) {
    const std::string destinationUser = fieldText(live, "userid", kNumberCapacity);
    copyUserRights(destination, source, "photo_access_right", sourceUser, destinationUser, suffix);
    copyUserRights(destination, source, "photo_upload_right", sourceUser, destinationUser, suffix);
    copyUserRights(destination, source, "photo_manage_right", sourceUser, destinationUser, suffix);
  }
  return true;
}

}  // namespace

int KavophotoSyncUser(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result users;
  if (!execute(source, formatText("Select * from photo_user%s", suffix), users)) {
    return -1;
  }
  while (fetchRow(users)) {
    if (!mergeUser(destination, source, suffix, users)) {
      return -1;
    }
  }
  return 0;
}
