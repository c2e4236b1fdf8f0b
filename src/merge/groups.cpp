#include <utility>
#include <vector>

#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"

namespace {

constexpr std::size_t kPermissionCapacity = 16;
constexpr std::size_t kDateCapacity = 128;

struct Group {
  Raw sourceNumber;
  Text name;
  Text description;
};

std::vector<std::string> keysOf(const Group& group) { return {group.name.text}; }

std::optional<Group> readGroup(const Result& row) {
  return Group{rawField(row, "groupid", kNumberCapacity), textField(row, "groupname", kNameCapacity),
               textField(row, "description", kNameCapacity)};
}

bool insertGroup(DBConnect_tag* destination, const Group& group) {
  const Turn turn;
  const long long number =
      nextNumber(destination, sql("Select groupid from photo_group order by groupid desc limit 1"), "groupid");
  return execute(destination, "Insert into photo_group VALUES('%s', '%s', '%s')", number, group.name,
                 group.description);
}

// The destination's numbers of the group's members that both sides have; none at all when a statement fails.
std::optional<std::vector<Raw>> readMembers(const Sides& sides, const Raw& sourceGroup) {
  Result rows;
  if (!execute(sides.source, rows, "Select * from photo_user_group%s where groupid = %s", sides.suffix, sourceGroup)) {
    return std::nullopt;
  }
  std::vector<Raw> members;
  const bool isWhole = takeEveryRow(rows, [&] {
    Raw user;
    const Lookup found = findUser(sides, rawField(rows, "userid", kNumberCapacity), user);
    if (found == Lookup::kFound) {
      members.push_back(std::move(user));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(members)) : std::nullopt;
}

// Replaces the group's members. What the source has is read first: when it cannot be, the group keeps the members that
// it has. A failed delete or insert ends the copy, and the members after it are missing then.
void copyMembers(const Sides& sides, const Raw& sourceGroup, const Raw& destinationGroup) {
  const auto members = readMembers(sides, sourceGroup);
  if (!members || !execute(sides.destination, "Delete from photo_user_group where groupid = %s", destinationGroup)) {
    return;
  }
  for (const Raw& user : *members) {
    if (!execute(sides.destination, "Insert into photo_user_group(userid, groupid) Values (%s, %s)", user,
                 destinationGroup)) {
      return;
    }
  }
}

// A row of photo_group_permission. The share has the destination's number.
struct Permission {
  Raw share;
  Raw permission;
  Raw createTime;
};

// The group's permissions on shares that both sides have; none at all when a statement fails.
std::optional<std::vector<Permission>> readPermissions(const Sides& sides, const Raw& sourceGroup) {
  Result rows;
  if (!execute(sides.source, rows, "Select * from photo_group_permission%s where groupid = %s", sides.suffix,
               sourceGroup)) {
    return std::nullopt;
  }
  std::vector<Permission> permissions;
  const bool isWhole = takeEveryRow(rows, [&] {
    Permission row = {Raw(), rawField(rows, "permission", kPermissionCapacity),
                      rawField(rows, "create_time", kDateCapacity)};
    const Lookup found = findShare(sides, rawField(rows, "shareid", kNumberCapacity), kNameCapacity, row.share);
    if (found == Lookup::kFound) {
      permissions.push_back(std::move(row));
    }
    return found != Lookup::kFailed;
  });
  return isWhole ? std::optional(std::move(permissions)) : std::nullopt;
}

// Replaces the group's permissions on shares, on the same terms as its members.
void copyPermissions(const Sides& sides, const Raw& sourceGroup, const Raw& destinationGroup) {
  const auto permissions = readPermissions(sides, sourceGroup);
  if (!permissions ||
      !execute(sides.destination, "Delete from photo_group_permission where groupid = %s", destinationGroup)) {
    return;
  }
  for (const Permission& row : *permissions) {
    if (!execute(sides.destination,
                 "Insert into photo_group_permission(groupid, shareid, permission, create_time) Values "
                 "(%s, %s, %s, '%s')",
                 destinationGroup, row.share, row.permission, row.createTime)) {
      return;
    }
  }
}

bool mergeGroup(const Sides& sides, const Group& group) {
  const Statement findGroup = sql("Select * from photo_group where groupname = '%s'", group.name);
  Result live;
  if (!execute(sides.destination, live, findGroup)) {
    return false;
  }
  if (hasRows(live) && !gIsOverwiroteMode) {
    return true;
  }
  const bool isWritten =
      hasRows(live) ? execute(sides.destination, "UPDATE photo_group SET description = '%s' where groupname = '%s'",
                              group.description, group.name)
                    : insertGroup(sides.destination, group);
  if (!isWritten || !execute(sides.destination, live, findGroup)) {
    return false;
  }
  if (fetchRow(live)) {
    const Raw destinationGroup = rawField(live, "groupid", kNumberCapacity);
    // Nothing keeps two groups of the destination from having one number, and so one set of members.
    claim(destinationGroup.text);
    copyMembers(sides, group.sourceNumber, destinationGroup);
    copyPermissions(sides, group.sourceNumber, destinationGroup);
  }
  return true;
}

}  // namespace

int KavophotoSyncGroup(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  const Sides sides = {destination, source, suffix};
  return mergeRows(sides, sql("Select * from photo_group%s", sides.suffix), readGroup,
                   [&](const Group& group) { return mergeGroup(sides, group); });
}
