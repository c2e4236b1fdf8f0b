#include "faults/crash_matrix.h"

#include "faults/company.h"
#include "faults/next_run.h"
#include "support/tool_test.h"

namespace {

using appliance::Rows;
using crash::KillPoint;
using crash::Mode;
using crash::testName;
using When = KillPoint::When;

constexpr When kInTurn[] = {When::kBefore, When::kWhile, When::kAfter};

// The tables of the sample hold a few rows, which are several windows then.
constexpr int kSmallWindow = 3;

class KilledRun : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    crash::useWindow(kSmallWindow);
  }
  void TearDown() override {
    crash::useWindow(0);
    ToolTest::TearDown();
  }

  static void killAt(const std::vector<KillPoint>& points) {
    const crash::Trial trial = crash::killAndRunAgain(crash::referenceOf(GetParam()), points);
    EXPECT_EQ(trial.rowsLost, 0) << crash::nameOf(points.front());
    EXPECT_THAT(trial.faults, ::testing::IsEmpty()) << crash::nameOf(points.front());
  }
};

INSTANTIATE_TEST_SUITE_P(Modes, KilledRun, ::testing::ValuesIn(crash::kModes),
                         [](const auto& mode) { return testName(mode.param); });

// A part of the points that the crash matrix tries.
TEST_P(KilledRun, LosesNothingAtItsPrograms) {
  const long programs = crash::referenceOf(GetParam()).programs;
  if (GetParam() == Mode::kImport) {
    EXPECT_EQ(programs, 0);
    return;
  }
  constexpr long kPoints = 6;
  for (long point = 0; point < kPoints; ++point) {
    killAt({{KillPoint::At::kProgram, 1 + (programs - 1) * point / (kPoints - 1), kInTurn[point % 3], ""}});
  }
}

TEST_P(KilledRun, LosesNothingAtItsStatements) {
  const long statements = crash::referenceOf(GetParam()).statements;
  constexpr long kPoints = 4;
  for (long point = 0; point < kPoints; ++point) {
    killAt({{KillPoint::At::kStatement, 1 + (statements - 1) * point / (kPoints - 1),
             point % 2 == 0 ? When::kAfter : When::kBefore, ""}});
  }
}

TEST_P(KilledRun, LosesNothingWhenTheNextRunIsKilledToo) {
  const crash::Reference& reference = crash::referenceOf(GetParam());
  const auto at = GetParam() == Mode::kImport ? KillPoint::At::kStatement : KillPoint::At::kProgram;
  const long all = GetParam() == Mode::kImport ? reference.statements : reference.programs;
  killAt({{at, all / 2, When::kAfter, ""}, {at, all / 4, When::kBefore, ""}});
  killAt({{at, all * 3 / 4, When::kBefore, ""}, {at, all / 2, When::kAfter, ""}, {at, 1, When::kAfter, ""}});
}

class AnyModeAfterAKilledRun : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {};

INSTANTIATE_TEST_SUITE_P(Modes, AnyModeAfterAKilledRun, ::testing::ValuesIn(crash::kEveryMode),
                         [](const auto& mode) { return testName(mode.param); });

TEST_P(AnyModeAfterAKilledRun, FindsEveryRowAndPutsEveryTableInItsPlace) {
  const crash::Reference& reference = crash::sharedReferenceOf(GetParam());
  constexpr long kParts = 6;
  long part = 0;
  for (const Mode next : crash::kEveryMode) {
    ++part;
    // An odd one, which is late.
    KillPoint point = {KillPoint::At::kProgram, (reference.programs * part / kParts) | 1, When::kWhile, ""};
    if (part % 2 == 0 || reference.programs == 0) {
      point = {KillPoint::At::kStatement, reference.statements * part / kParts,
               part % 4 == 0 ? When::kAfter : When::kBefore, ""};
    }
    point.signal = part == 2 || part == 5 ? SIGTERM : SIGKILL;
    point.scope = part == 2 || part == 3 ? crash::Scope::kGroup : crash::Scope::kTool;
    if (next == GetParam() && next != Mode::kExport) {
      continue;
    }
    const crash::Trial trial = crash::killAndRunNext(GetParam(), next, point);
    EXPECT_EQ(trial.rowsLost, 0) << crash::nameOf(point) << ", then " << crash::nameOf(next);
    EXPECT_THAT(trial.faults, ::testing::IsEmpty()) << crash::nameOf(point) << ", then " << crash::nameOf(next);
  }
}

class RunBesideAHeldOne : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {};

INSTANTIATE_TEST_SUITE_P(Modes, RunBesideAHeldOne, ::testing::ValuesIn(crash::kEveryMode),
                         [](const auto& mode) { return testName(mode.param); });

TEST_P(RunBesideAHeldOne, IsTurnedAwayAndChangesNothing) {
  const crash::Reference& reference = crash::sharedReferenceOf(GetParam());
  constexpr std::size_t kModes = std::size(crash::kEveryMode);
  const auto place = static_cast<std::size_t>(GetParam());
  std::vector<KillPoint> points = {{KillPoint::At::kStatement, reference.statements / 2, When::kAfter, ""}};
  if (reference.programs > 0) {
    points.push_back({KillPoint::At::kProgram, (reference.programs + 1) / 2, When::kBefore, ""});
  } else {
    points.push_back({KillPoint::At::kStatement, reference.statements / 4 + 1, When::kBefore, ""});
  }
  for (std::size_t point = 0; point < points.size(); ++point) {
    const Mode started = crash::kEveryMode[(place + 1 + 2 * point) % kModes];
    EXPECT_THAT(crash::startBesideHeldRun(GetParam(), started, points[point]), ::testing::IsEmpty())
        << crash::nameOf(started) << " " << crash::nameOf(points[point]);
  }
}

class KilledSkipMode : public appliance::ToolTest {
 protected:
  Rows rightsOf(const std::string& user) {
    return live().rows(
        "SELECT sharename FROM photo_access_right JOIN photo_user u USING (userid) JOIN photo_share s USING (shareid) "
        "WHERE username = '" +
        user + "' ORDER BY 1");
  }
  Rows membersOf(const std::string& group) {
    return live().rows(
        "SELECT username FROM photo_user_group JOIN photo_user u USING (userid) JOIN photo_group g USING (groupid) "
        "WHERE groupname = '" +
        group + "' ORDER BY 1");
  }
  // In skip mode a user or group that is there is left alone, so it must not be there without what belongs to it.
  void killAfterAndRunAgain(const std::string& statement) {
    crash::layOut(Mode::kRestoreSkip);
    ASSERT_TRUE(crash::runAndKill(Mode::kRestoreSkip, {KillPoint::At::kStatement, 0, When::kAfter, statement}));
    ASSERT_EQ(run(crash::commandLine(Mode::kRestoreSkip)).status, 0);
    appliance::takeMessages();
  }
};

TEST_F(KilledSkipMode, GivesAUserItsRightsInTheNextRun) {
  for (const char* statement : {"Insert into photo_user VALUES", "Insert into photo_access_right Values"}) {
    SCOPED_TRACE(statement);
    killAfterAndRunAgain(statement);
    EXPECT_EQ(rightsOf("m anna"), (Rows{{"m it's"}, {"m trips"}}));
    EXPECT_EQ(rightsOf("m o''ben"), (Rows{{"m trips"}}));
  }
}

TEST_F(KilledSkipMode, GivesAGroupItsMembersInTheNextRun) {
  for (const char* statement : {"Insert into photo_group VALUES", "Insert into photo_user_group("}) {
    SCOPED_TRACE(statement);
    killAfterAndRunAgain(statement);
    EXPECT_EQ(membersOf("m family"), (Rows{{"m anna"}, {"m o'ben"}}));
  }
}

class KilledOverwriteMode : public appliance::ToolTest {};

// Labels are merged before the photos that have them, and get other numbers.
TEST_F(KilledOverwriteMode, LeavesLinksWithTheEarlierNumbersOfLabelsUntilTheNextRun) {
  const auto links = [this](const std::string& join) {
    return live().value("SELECT count(*) FROM photo_image_label r " + join);
  };
  const std::string toLabels = "JOIN photo_label l ON l.id = r.label_id";
  crash::layOut(Mode::kRestoreOverwrite);
  ASSERT_EQ(links(""), "8");
  ASSERT_EQ(links(toLabels), "8");
  ASSERT_TRUE(crash::runAndKill(Mode::kRestoreOverwrite,
                                {KillPoint::At::kStatement, 0, When::kBefore, "from photo_image where path"}));
  EXPECT_EQ(links(""), "8");
  EXPECT_EQ(links(toLabels), "4");
  ASSERT_EQ(run(crash::commandLine(Mode::kRestoreOverwrite)).status, 0);
  appliance::takeMessages();
  EXPECT_EQ(links(toLabels), "12");
}

class KilledHostAccount : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {};

INSTANTIATE_TEST_SUITE_P(Modes, KilledHostAccount, ::testing::Values(Mode::kRestoreSkip, Mode::kRestoreOverwrite),
                         [](const auto& mode) { return testName(mode.param); });

// The rights are looked for under the number that the account has here, and inserted under the one that they were saved
// with.
TEST_P(KilledHostAccount, WithAnotherNumberHereMayHoldARightTwice) {
  other().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'trips'), (2, 'home');"
      "INSERT INTO photo_access_right_for_hox_account VALUES (1099, 1, '2020-01-01'), (1099, 2, '2020-01-02')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (11, 'trips'), (12, 'home')");
  appliance::ArchiveOptions options;
  options.users = "1099 =\"editor\"\n";
  appliance::makeArchive(appliance::workDirectory(), "other", options);
  crash::useWindow(1);
  const bool killed = crash::runAndKill(GetParam(), {KillPoint::At::kStatement, 0, When::kBefore, "'2020-01-02"});
  crash::useWindow(0);
  ASSERT_TRUE(killed);
  ASSERT_EQ(run(crash::commandLine(GetParam())).status, 0);
  expectNoMessages();
  expectRows(live(),
             "SELECT userid, sharename FROM photo_access_right_for_hox_account JOIN photo_share USING (shareid) "
             "ORDER BY 1, 2",
             {{"1099", "home"}, {"1099", "trips"}, {"1099", "trips"}});
}

}  // namespace
