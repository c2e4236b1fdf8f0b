#include "main/path_check.h"

#include <unistd.h>

#include <string>

#include "platform/query.h"
#include "support/tool_test.h"

namespace {

using appliance::Rows;

class PathCheck : public appliance::ToolTest {
 protected:
  static int check(const char* table = "video_desc", const char* column = "path") {
    const Connection connection = connectTo("photo");
    return KavophotoCheckPath(connection.get(), "unused", table, column, "unused");
  }
  // The paths after the check of a table that holds these, in this order.
  Rows checkedPaths(const std::vector<std::string>& paths) {
    live().exec("TRUNCATE video_desc");
    for (const std::string& path : paths) {
      live().exec("INSERT INTO video_desc (path) VALUES ($path$" + path + "$path$)");
    }
    EXPECT_EQ(check(), 0);
    return live().rows("SELECT path FROM video_desc ORDER BY id");
  }
  static void moveShareTo(const std::string& path) {
    appliance::makeDirectories(path);
    appliance::removeAll("/var/services/photo");
    ASSERT_EQ(symlink(path.c_str(), "/var/services/photo"), 0);
  }
};

TEST_F(PathCheck, PutsTheShareInFrontOfWhatStandsBehindTheThirdSlash) {
  moveShareTo("/var/volume1/photo");
  EXPECT_EQ(checkedPaths({"/volume2/photo/2019/a.jpg", "/volume2/photo//b.jpg", "/volume2/photo/", "a/b/c/d/e"}),
            (Rows{{"/var/volume1/photo2019/a.jpg"},
                  {"/var/volume1/photo/b.jpg"},
                  {"/var/volume1/photo"},
                  {"/var/volume1/photod/e"}}));
}

TEST_F(PathCheck, LeavesAPathThatHoldsTheShareAnywhere) {
  const Rows paths = {{"/var/services/photo/a.jpg"},
                      {"/old/var/services/photo/a.jpg"},
                      {"/var/services/photos/a.jpg"},
                      {"x/var/services/photo"}};
  // Not even by an update that changes nothing.
  live().exec("CREATE RULE no_update AS ON UPDATE TO video_desc DO INSTEAD INSERT INTO photo_group VALUES (1, '', '')");
  EXPECT_EQ(checkedPaths({paths[0][0], paths[1][0], paths[2][0], paths[3][0]}), paths);
  EXPECT_EQ(live().count("photo_group"), 0);
}

TEST_F(PathCheck, GivesAShortPathTheRelativePartOfTheRowBefore) {
  EXPECT_EQ(checkedPaths({"/short/path", "/volume2/photo/x.jpg", "short", "", "/volume2/photo/y.jpg", "/also/short"}),
            (Rows{{"/var/services/photo"},
                  {"/var/services/photox.jpg"},
                  {"/var/services/photox.jpg"},
                  {"/var/services/photox.jpg"},
                  {"/var/services/photoy.jpg"},
                  {"/var/services/photoy.jpg"}}));
}

TEST_F(PathCheck, TakesNoRelativePartFromAPathItLeavesAlone) {
  EXPECT_EQ(checkedPaths({"/var/services/photo/own.jpg", "short"}),
            (Rows{{"/var/services/photo/own.jpg"}, {"/var/services/photo"}}));
}

TEST_F(PathCheck, ForgetsTheRelativePartBetweenTables) {
  EXPECT_EQ(checkedPaths({"/volume2/photo/x.jpg"}), (Rows{{"/var/services/photox.jpg"}}));
  EXPECT_EQ(checkedPaths({"short"}), (Rows{{"/var/services/photo"}}));
}

TEST_F(PathCheck, DoesNothingOnAnEmptyTable) {
  EXPECT_EQ(check(), 0);
  EXPECT_EQ(live().count("video_desc"), 0);
  expectNoMessages();
}

TEST_F(PathCheck, RewritesAllRowsOfOneForeignPath) {
  EXPECT_EQ(checkedPaths({"/v/photo/a.jpg", "/v/photo/b.jpg", "/v/photo/a.jpg"}),
            (Rows{{"/var/services/photoa.jpg"}, {"/var/services/photob.jpg"}, {"/var/services/photoa.jpg"}}));
  expectNoMessages();
}

TEST_F(PathCheck, KeepsQuotesAndPercentSignsInPaths) {
  EXPECT_EQ(checkedPaths({"/v/photo/it's 100%s \\'.jpg"}), (Rows{{"/var/services/photoit's 100%s \\'.jpg"}}));
  expectNoMessages();
}

TEST_F(PathCheck, WorksOnAnyColumn) {
  live().exec("INSERT INTO photo_video_label (video_path, label_id) VALUES ('/v/video/a.avi', 1)");
  EXPECT_EQ(check("photo_video_label", "video_path"), 0);
  expectRows(live(), "SELECT video_path FROM photo_video_label", {{"/var/services/photoa.avi"}});
}

TEST_F(PathCheck, TreatsANullAsAnEmptyPathThatMatchesNothing) {
  live().exec("INSERT INTO video_desc (path) VALUES ('/v/photo/a.avi'), (NULL)");
  EXPECT_EQ(check(), 0);
  expectRows(live(), "SELECT path FROM video_desc ORDER BY id", {{"/var/services/photoa.avi"}, {"(null)"}});
  expectNoMessages();
}

TEST_F(PathCheck, LooksForTheSlashesInTheFirst1023Bytes) {
  const std::string early = "/a/b/" + std::string(2000, 'c');
  const std::string late = "/a/" + std::string(1100, 'b') + "/c.jpg";
  EXPECT_EQ(checkedPaths({early, late}),
            (Rows{{"/var/services/photo" + std::string(1018, 'c')}, {"/var/services/photo" + std::string(1018, 'c')}}));
  // The cut falls before a character that would not fit whole.
  EXPECT_EQ(checkedPaths({"/a/b/" + std::string(1017, 'c') + "\u00e9"}),
            (Rows{{"/var/services/photo" + std::string(1017, 'c')}}));
}

TEST_F(PathCheck, DoesNotFindAPathLongerThanItsBuffer) {
  const std::string whole = "/a/b/" + std::string(8186, 'c');
  const std::string longer = whole + "d";
  const Rows after = checkedPaths({whole, longer});
  ASSERT_EQ(whole.size(), 8191U);
  EXPECT_EQ(after, (Rows{{"/var/services/photo" + std::string(1018, 'c')}, {longer}}));
  expectNoMessages();
}

TEST_F(PathCheck, FailsWithoutAConnection) {
  EXPECT_EQ(KavophotoCheckPath(nullptr, "photo", "video_desc", "path", "id"), -1);
  expectMessages({"Bad parameters."});
}

TEST_F(PathCheck, FailsWithoutTheShare) {
  live().exec("INSERT INTO video_desc (path) VALUES ('/v/photo/a.avi')");
  appliance::removeAll("/var/services/photo");
  EXPECT_EQ(check(), -1);
  expectMessages({"KAVOShareGet failed."});
  expectRows(live(), "SELECT path FROM video_desc", {{"/v/photo/a.avi"}});
}

TEST_F(PathCheck, FailsWhenThePathsCannotBeListed) {
  EXPECT_EQ(check("missing"), -1);
  EXPECT_EQ(check("video_desc", "missing"), -1);
  expectMessages({"Failed to exec [Select path from missing] (ERROR:  relation \"missing\" does not exist)",
                  "Failed to exec [Select missing from video_desc] (ERROR:  column \"missing\" does not exist)"});
}

TEST_F(PathCheck, StopsAtAFailedUpdateAndKeepsTheOnesBefore) {
  live().exec(
      "INSERT INTO video_desc (path) VALUES ('/v/photo/a'), ('/v/photo/refused'), ('/v/photo/c');"
      "ALTER TABLE video_desc ADD CHECK (path NOT LIKE '%photorefused')");
  EXPECT_EQ(check(), -1);
  expectMessagesMatch({testing::StartsWith(
      "Failed to exec [Update video_desc set path = '/var/services/photorefused' where path = '/v/photo/refused'] "
      "(ERROR:  new row for relation \"video_desc\" violates check constraint \"video_desc_path_check\"  DETAIL:  "
      "Failing row contains ")});
  expectRows(live(), "SELECT path FROM video_desc ORDER BY id",
             {{"/var/services/photoa"}, {"/v/photo/refused"}, {"/v/photo/c"}});
}

TEST_F(PathCheck, RepairsManyPaths) {
  live().exec("INSERT INTO photo_image (path) SELECT '/v/photo/' || i FROM generate_series(1, 2000) i");
  EXPECT_EQ(check("photo_image"), 0);
  EXPECT_EQ(live().value("SELECT count(*) FROM photo_image WHERE path = '/var/services/photo' || id"), "2000");
  expectNoMessages();
}

}  // namespace
