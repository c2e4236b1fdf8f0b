#include "platform/accounts.h"

#include <limits>
#include <string>

#include "support/tool_test.h"

namespace {

class HostAccounts : public appliance::ToolTest {
 protected:
  // "number name", or nothing when there is no such account.
  static std::string userNamed(const char* name) {
    KAVOUser* user = nullptr;
    const int result = KAVOUserGet(name, &user);
    return describe(result, UserHandle(user));
  }
  static std::string userNumbered(long long number) {
    KAVOUser* user = nullptr;
    const int result = KAVOUserGetByUID(number, &user);
    return describe(result, UserHandle(user));
  }
  static std::string groupNamed(const char* name) {
    KAVOGroup* group = nullptr;
    const int result = KAVOGroupGet(name, &group);
    return describe(result, GroupHandle(group));
  }
  static std::string groupNumbered(long long number) {
    KAVOGroup* group = nullptr;
    const int result = KAVOGroupGetByGID(number, &group);
    return describe(result, GroupHandle(group));
  }

 private:
  static std::string describe(int result, const UserHandle& user) {
    appliance::checked();
    EXPECT_EQ(result, user ? 0 : -1);
    return user ? std::to_string(user->uid) + " " + user->name : "";
  }
  static std::string describe(int result, const GroupHandle& group) {
    appliance::checked();
    EXPECT_EQ(result, group ? 0 : -1);
    return group ? std::to_string(group->gid) + " " + group->name : "";
  }
};

TEST_F(HostAccounts, AreFoundByNameAndByNumber) {
  EXPECT_EQ(userNamed("editor"), "1026 editor");
  EXPECT_EQ(userNamed("first last"), "1028 first last");
  EXPECT_EQ(userNumbered(1027), "1027 viewer");
  EXPECT_EQ(groupNamed("family"), "65600 family");
  EXPECT_EQ(groupNumbered(65601), "65601 friends");
}

TEST_F(HostAccounts, LeaveTheRecordAloneWhenThereIsNone) {
  KAVOUser user;
  KAVOUser* userPlace = &user;
  EXPECT_EQ(KAVOUserGet("nobody of that name", &userPlace), -1);
  EXPECT_EQ(KAVOUserGetByUID(4711, &userPlace), -1);
  EXPECT_EQ(userPlace, &user);
  KAVOGroup group;
  KAVOGroup* groupPlace = &group;
  EXPECT_EQ(KAVOGroupGet("", &groupPlace), -1);
  EXPECT_EQ(KAVOGroupGetByGID(4711, &groupPlace), -1);
  EXPECT_EQ(groupPlace, &group);
  appliance::checked();
}

TEST_F(HostAccounts, AreAskedOfTheHostEveryTime) {
  EXPECT_EQ(userNumbered(5000), "");
  appliance::setAccounts({{5000, "m\u00fcller%s"}}, {{5001, "n\u00e4chste"}});
  EXPECT_EQ(userNumbered(5000), "5000 m\u00fcller%s");
  EXPECT_EQ(groupNamed("n\u00e4chste"), "5001 n\u00e4chste");
  EXPECT_EQ(userNamed("editor"), "");
}

TEST_F(HostAccounts, MayHaveEntriesOfAnyLength) {
  std::string members = "member0";
  for (int number = 1; number < 20000; ++number) {
    members += ",member" + std::to_string(number);
  }
  appliance::writeFile("/etc/group", "crowd:x:70000:" + members + "\n");
  appliance::writeFile("/etc/passwd", "talker:x:70001:1:" + std::string(100000, 'x') + ":/:/bin/sh\n");
  EXPECT_EQ(groupNamed("crowd"), "70000 crowd");
  EXPECT_EQ(groupNumbered(70000), "70000 crowd");
  EXPECT_EQ(userNamed("talker"), "70001 talker");
  EXPECT_EQ(userNumbered(70001), "70001 talker");
}

TEST_F(HostAccounts, AreNotFoundBehindAnEntryThatIsTooLongToRead) {
  appliance::setAccounts({{2000, std::string(std::size_t{65} << 20U, 'x')}, {2001, "behind"}}, {});
  KAVOUser* user = nullptr;
  EXPECT_EQ(KAVOUserGet("behind", &user), -1);
  EXPECT_EQ(user, nullptr);
  appliance::checked();
}

TEST_F(HostAccounts, MayHaveLargeNumbers) {
  appliance::setAccounts({{4294967290U, "last"}}, {{4294967290U, "lasts"}});
  EXPECT_EQ(userNumbered(4294967290U), "4294967290 last");
  EXPECT_EQ(groupNumbered(4294967290U), "4294967290 lasts");
}

TEST_F(HostAccounts, HaveNoNumbersBeyondTheirType) {
  constexpr long long kWrap = 4294967296;
  EXPECT_EQ(userNumbered(1026), "1026 editor");
  EXPECT_EQ(groupNumbered(65600), "65600 family");
  for (const long long number : {kWrap, -kWrap, std::numeric_limits<long long>::max()}) {
    EXPECT_EQ(userNumbered(number), "") << number;
    EXPECT_EQ(groupNumbered(number), "") << number;
  }
  EXPECT_EQ(userNumbered(kWrap + 1026), "");
  EXPECT_EQ(userNumbered(1026 - kWrap), "");
  EXPECT_EQ(groupNumbered(kWrap + 65600), "");
}

TEST_F(HostAccounts, MayBeFreedWhenThereIsNone) {
  KAVOUserFree(nullptr);
  KAVOGroupFree(nullptr);
  EXPECT_EQ(userNamed("viewer"), "1027 viewer");
}

}  // namespace
