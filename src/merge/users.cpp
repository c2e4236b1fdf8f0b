#include <utility>
#include <vector>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"

namespace {

constexpr std::size_t kDateCapacity = 64;

struct User {
  Raw sourceNumber;
  Text name;
  Text description;
  Raw password;
  Raw disabled;
  Raw lockPassword;
  Raw admin;
  Raw email;
};

std::vector<std::string> keysOf(const User& user) { return {user.name.text}; }

std::optional<User> readUser(const Result& row) {
  return User{rawField(row, "userid", kNumberCapacity),     textField(row, "username", kNameCapacity),
              textField(row, "description", kNameCapacity), rawField(row, "password", kNameCapacity),
              rawField(row, "disabled", kNumberCapacity),   rawField(row, "lock_pass", kNumberCapacity),
              rawField(row, "admin", kNumberCapacity),      rawField(row, "email", kNameCapacity)};
}

bool insertUser(DBConnect_tag* destination, const User& user) {
  const Turn turn;
  const long long number =
      nextNumber(destination, sql("Select userid from photo_user order by userid desc limit 1"), "userid");
  return execute(destination, "Insert into photo_user VALUES(%s, '%s', '%s', '%s', '%s', '%s', '%s', '%s')", number,
                 user.name, user.description, user.password, user.disabled, user.lockPassword, user.admin, user.email);
}

bool updateUser(DBConnect_tag* destination, const User& user) {
  return execute(destination,
                 "UPDATE photo_user SET description = '%s', password = '%s', disabled = '%s', lock_pass = '%s', "
                 "admin = '%s', email = '%s' where username = '%s'",
                 user.description, user.password, user.disabled, user.lockPassword, user.admin, user.email, user.name);
}

// A row of one of the three rights tables, which are alike in everything but their name. The share has the
// destination's number.
struct Right {
  Raw share;
  Raw createTime;
};

// The source user's rights on shares that both sides have; none at all when a statement fails.
std::optional<std::vector<Right>> readRights(const Sides& sides, const Name& table, const Raw& sourceUser) {
  Result rows;
  if (!execute(sides.source, rows, "Select * from %s%s where userid = %s", table, sides.suffix, sourceUser)) {
    return std::nullopt;
  }
  std::vector<Right> rights;
  const bool isWhole = takeEveryRow(rows, [&] {
    Right right = {Raw(), rawField(rows, "create_time", kDateCapacity)};
    const Lookup found = findShare(sides, rawField(rows, "shareid", kNumberCapacity), kTextCapacity, right.share);
    if (found == Lookup::kFound) {
      rights.push_back(std::move(right));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(rights)) : std::nullopt;
}

// Replaces the user's rows of one of the rights tables. What the source has is read first: when it cannot be, the user
// keeps the rights that it has. A failed delete or insert ends the copy, and the rights after it are missing then.
void copyUserRights(const Sides& sides, const Name& table, const Raw& sourceUser, const Raw& destinationUser) {
  const auto rights = readRights(sides, table, sourceUser);
  if (!rights || !execute(sides.destination, "Delete from %s where userid = %s", table, destinationUser)) {
    return;
  }
  for (const Right& right : *rights) {
    if (!execute(sides.destination, "Insert into %s Values (%s, %s, '%s')", table, destinationUser, right.share,
                 right.createTime)) {
      return;
    }
  }
}

bool mergeUser(const Sides& sides, const User& user) {
  const Statement findUser = sql("Select * from photo_user where username = '%s'", user.name);
  Result live;
  if (!execute(sides.destination, live, findUser)) {
    return false;
  }
  if (hasRows(live) && !gIsOverwiroteMode) {
    return true;
  }
  if (!(hasRows(live) ? updateUser(sides.destination, user) : insertUser(sides.destination, user))) {
    return false;
  }
  if (!execute(sides.destination, live, findUser)) {
    return false;
  }
  if (fetchRow(live)) {
    const Raw destinationUser = rawField(live, "userid", kNumberCapacity);
    // Nothing keeps two users of the destination from having one number, and so one set of rights.
    claim(destinationUser.text);
    copyUserRights(sides, "photo_access_right", user.sourceNumber, destinationUser);
    copyUserRights(sides, "photo_upload_right", user.sourceNumber, destinationUser);
    copyUserRights(sides, "photo_manage_right", user.sourceNumber, destinationUser);
  }
  return true;
}

}  // namespace

int KavophotoSyncUser(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("Select * from photo_user%s", sides.suffix), readUser,
                   [&](const User& user) { return mergeUser(sides, user); });
}
