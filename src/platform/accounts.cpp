#include "platform/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace {

// Runs one of the reentrant look-ups of the account database with as much room as it asks for. `call` takes the record,
// the room and the place of the found pointer, and returns the look-up's error number.
template <typename Record, typename Call>
bool lookUp(Record& record, std::vector<char>& room, Call call) {
  constexpr std::size_t kFirstRoom = 4096;
  constexpr std::size_t kMostRoom = std::size_t{64} << 20U;
  Record* found = nullptr;
  int error = ERANGE;
  for (std::size_t size = kFirstRoom; error == ERANGE && size <= kMostRoom; size *= 2) {
    room.resize(size);
    do {
      error = call(record, room, &found);
    } while (error == EINTR);
  }
  return error == 0 && found != nullptr;
}

template <typename Call>
int userFrom(Call call, KAVOUser** user) {
  passwd record = {};
  std::vector<char> room;
  if (!lookUp(record, room, call)) {
    return -1;
  }
  *user = std::make_unique<KAVOUser>(KAVOUser{record.pw_uid, record.pw_name}).release();
  return 0;
}

template <typename Call>
int groupFrom(Call call, KAVOGroup** account) {
  group record = {};
  std::vector<char> room;
  if (!lookUp(record, room, call)) {
    return -1;
  }
  *account = std::make_unique<KAVOGroup>(KAVOGroup{record.gr_gid, record.gr_name}).release();
  return 0;
}

}  // namespace

int KAVOUserGet(const char* name, KAVOUser** user) {
  return userFrom([name](passwd& record, std::vector<char>& room,
                         passwd** found) { return getpwnam_r(name, &record, room.data(), room.size(), found); },
                  user);
}

int KAVOUserGetByUID(long long uid, KAVOUser** user) {
  // Cut to the type, 4294967296 would be root.
  if (!std::in_range<uid_t>(uid)) {
    return -1;
  }
  return userFrom(
      [number = static_cast<uid_t>(uid)](passwd& record, std::vector<char>& room, passwd** found) {
        return getpwuid_r(number, &record, room.data(), room.size(), found);
      },
      user);
}

void KAVOUserFree(KAVOUser* user) { std::default_delete<KAVOUser>()(user); }

int KAVOGroupGet(const char* name, KAVOGroup** account) {
  return groupFrom([name](group& record, std::vector<char>& room,
                          group** found) { return getgrnam_r(name, &record, room.data(), room.size(), found); },
                   account);
}

int KAVOGroupGetByGID(long long gid, KAVOGroup** account) {
  if (!std::in_range<gid_t>(gid)) {
    return -1;
  }
  return groupFrom(
      [number = static_cast<gid_t>(gid)](group& record, std::vector<char>& room, group** found) {
        return getgrgid_r(number, &record, room.data(), room.size(), found);
      },
      account);
}

void KAVOGroupFree(KAVOGroup* account) { std::default_delete<KAVOGroup>()(account); }
