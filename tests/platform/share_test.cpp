#include "platform/share.h"

#include <unistd.h>

#include <string>

#include "support/tool_test.h"

namespace {

class Share : public appliance::ToolTest {
 protected:
  // "name at path", or nothing when there is no such share.
  static std::string find(const char* name) {
    KAVOShare untouched;
    KAVOShare* found = &untouched;
    appliance::checked();
    if (KAVOShareGet(name, &found) < 0) {
      EXPECT_EQ(found, &untouched);
      return "";
    }
    const ShareHandle share(found);
    return share->name + " at " + share->path;
  }
  static void link(const std::string& target, const std::string& path) {
    appliance::removeAll(path);
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
  }
};

TEST_F(Share, IsTheFolderOfItsName) {
  EXPECT_EQ(find("photo"), "photo at /var/services/photo");
  appliance::makeDirectories("/var/services/m\u00fcsik 1");
  EXPECT_EQ(find("m\u00fcsik 1"), "m\u00fcsik 1 at /var/services/m\u00fcsik 1");
}

TEST_F(Share, IsTheFolderThatItsNameResolvesTo) {
  appliance::makeDirectories("/var/volume1/photo");
  link("../volume1/photo", "/var/services/elsewhere");
  link("/var/services/elsewhere", "/var/services/photo");
  EXPECT_EQ(find("photo"), "photo at /var/volume1/photo");
}

TEST_F(Share, IsMissingWhenItsNameResolvesToNoFolder) {
  EXPECT_EQ(find("missing"), "");
  appliance::writeFile("/var/services/file", "x");
  EXPECT_EQ(find("file"), "");
  link("/var/volume9/photo", "/var/services/photo");
  EXPECT_EQ(find("photo"), "");
  link("/var/services/loop", "/var/services/loop");
  EXPECT_EQ(find("loop"), "");
}

TEST_F(Share, MayBeFreedWhenThereIsNone) {
  KAVOShareFree(nullptr);
  EXPECT_EQ(find("photo"), "photo at /var/services/photo");
}

}  // namespace
