#include "platform/string_hash.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::Pointee;
using testing::StrEq;

TEST(StringHash, KeepsTheOrderInWhichItsKeysCame) {
  const SzHashHandle hash = KLIBCSzHashAlloc(512);
  for (const char* key : {"zebra", "", "ape", "newt"}) {
    KLIBCSzHashSetValue(*hash, key, "x");
  }
  const SzListHandle keys = KLIBCSzListAlloc(2000);
  keys->push_back("before");
  KLIBCSzHashEnumKey(*hash, *keys);
  EXPECT_THAT(*keys, ElementsAre("before", "zebra", "", "ape", "newt"));
}

TEST(StringHash, ReplacesAValueWhereItsKeyStands) {
  const SzHashHandle hash = KLIBCSzHashAlloc(2);
  KLIBCSzHashSetValue(*hash, "a", "1");
  KLIBCSzHashSetValue(*hash, "b", "2");
  KLIBCSzHashSetValue(*hash, "a", "3");
  EXPECT_THAT(KLIBCSzHashGetValue(*hash, "a"), Pointee(StrEq("3")));
  const SzListHandle keys = KLIBCSzListAlloc(0);
  KLIBCSzHashEnumKey(*hash, *keys);
  EXPECT_THAT(*keys, ElementsAre("a", "b"));
}

TEST(StringHash, HasNoValueForAKeyItDoesNotHold) {
  const SzHashHandle hash = KLIBCSzHashAlloc(0);
  EXPECT_EQ(KLIBCSzHashGetValue(*hash, "a"), nullptr);
  KLIBCSzHashSetValue(*hash, "a", "");
  EXPECT_THAT(KLIBCSzHashGetValue(*hash, "a"), Pointee(StrEq("")));
  EXPECT_EQ(KLIBCSzHashGetValue(*hash, "A"), nullptr);
}

TEST(StringHash, GrowsBeyondTheSizeItWasMadeWith) {
  const SzHashHandle hash = KLIBCSzHashAlloc(4);
  for (int number = 0; number < 5000; ++number) {
    KLIBCSzHashSetValue(*hash, "key" + std::to_string(number), std::to_string(number));
  }
  const SzListHandle keys = KLIBCSzListAlloc(4);
  KLIBCSzHashEnumKey(*hash, *keys);
  ASSERT_EQ(keys->size(), 5000U);
  for (int number = 0; number < 5000; ++number) {
    const std::string key = "key" + std::to_string(number);
    ASSERT_EQ((*keys)[static_cast<std::size_t>(number)], key);
    ASSERT_THAT(KLIBCSzHashGetValue(*hash, key), Pointee(StrEq(std::to_string(number))));
  }
}

}  // namespace
