#include "faults/crash_matrix.h"

#include "support/tool_test.h"

namespace {

using appliance::Rows;
using crash::KillPoint;
using crash::Mode;
using crash::testName;

class KilledRun : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {
 protected:
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
    killAt({{KillPoint::At::kProgram, 1 + (programs - 1) * point / (kPoints - 1), point % 2 == 1, ""}});
  }
}

TEST_P(KilledRun, LosesNothingAtItsStatements) {
  const long statements = crash::referenceOf(GetParam()).statements;
  constexpr long kPoints = 4;
  for (long point = 0; point < kPoints; ++point) {
    killAt({{KillPoint::At::kStatement, 1 + (statements - 1) * point / (kPoints - 1), point % 2 == 0, ""}});
  }
}

TEST_P(KilledRun, LosesNothingWhenTheNextRunIsKilledToo) {
  const crash::Reference& reference = crash::referenceOf(GetParam());
  const auto at = GetParam() == Mode::kImport ? KillPoint::At::kStatement : KillPoint::At::kProgram;
  const long all = GetParam() == Mode::kImport ? reference.statements : reference.programs;
  killAt({{at, all / 2, true, ""}, {at, all / 4, false, ""}});
  killAt({{at, all * 3 / 4, false, ""}, {at, all / 2, true, ""}, {at, 1, true, ""}});
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
  void killAfterAndRunAgain(const std::string& statement) {
    crash::layOut(Mode::kRestoreSkip);
    ASSERT_TRUE(crash::runAndKill(Mode::kRestoreSkip, {KillPoint::At::kStatement, 0, true, statement}));
    ASSERT_EQ(run(crash::commandLine(Mode::kRestoreSkip)).status, 0);
  }
  void runWithOverwriting() {
    ASSERT_EQ(run(crash::commandLine(Mode::kRestoreOverwrite)).status, 0);
    appliance::takeMessages();
  }
};

TEST_F(KilledSkipMode, LeavesAUserWithTheRightsThatWereCopiedBeforeTheKillUntilRunWithOverwriting) {
  killAfterAndRunAgain("Insert into photo_user VALUES");
  EXPECT_EQ(rightsOf("m anna"), Rows{});
  EXPECT_EQ(rightsOf("m o''ben"), (Rows{{"m trips"}}));
  runWithOverwriting();
  EXPECT_EQ(rightsOf("m anna"), (Rows{{"m it's"}, {"m trips"}}));
}

TEST_F(KilledSkipMode, LeavesAGroupWithTheMembersThatWereCopiedBeforeTheKillUntilRunWithOverwriting) {
  killAfterAndRunAgain("Insert into photo_group VALUES");
  EXPECT_EQ(membersOf("m family"), Rows{});
  runWithOverwriting();
  EXPECT_EQ(membersOf("m family"), (Rows{{"m anna"}, {"m o'ben"}}));
}

class KilledHostAccount : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {};

INSTANTIATE_TEST_SUITE_P(Modes, KilledHostAccount, ::testing::Values(Mode::kRestoreSkip, Mode::kRestoreOverwrite),
                         [](const auto& mode) { return testName(mode.param); });

// The rights are looked for under the number that the account has here, and inserted under the one that they were saved
// with.
TEST_P(KilledHostAccount, WithAnotherNumberHereMayHoldARightTwice) {
  other().exec(
      "INSERT INTO photo_share (shareid, sharename) VALUES (1, 'trips'), (2, 'home');"
      "INSERT INTO photo_access_right_for_hox_account VALUES (1099, 1, '2020-01-01'), (1099, 2, '2020-01-01')");
  live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (11, 'trips'), (12, 'home')");
  appliance::ArchiveOptions options;
  options.users = "1099 =\"editor\"\n";
  appliance::makeArchive(appliance::workDirectory(), "other", options);
  ASSERT_TRUE(crash::runAndKill(
      GetParam(), {KillPoint::At::kStatement, 0, true, "Insert into photo_access_right_for_hox_account"}));
  ASSERT_EQ(run(crash::commandLine(GetParam())).status, 0);
  expectNoMessages();
  expectRows(live(),
             "SELECT userid, sharename FROM photo_access_right_for_hox_account JOIN photo_share USING (shareid) "
             "ORDER BY 1, 2",
             {{"1099", "home"}, {"1099", "trips"}, {"1099", "trips"}});
}

}  // namespace
