#include "faults/crash_matrix.h"

#include "support/tool_test.h"

namespace {

using appliance::Rows;
using crash::KillPoint;
using crash::Mode;

std::string testName(Mode mode) {
  switch (mode) {
    case Mode::kBackup:
      return "Backup";
    case Mode::kRestoreSkip:
      return "RestoreSkip";
    case Mode::kRestoreOverwrite:
      return "RestoreOverwrite";
    case Mode::kImport:
      return "Import";
  }
  return "";
}

class KilledRun : public appliance::ToolTest, public ::testing::WithParamInterface<Mode> {
 protected:
  static void killAt(const KillPoint& point) {
    const crash::Trial trial = crash::killAndRunAgain(crash::referenceOf(GetParam()), point);
    EXPECT_EQ(trial.rowsLost, 0) << crash::nameOf(point);
    EXPECT_THAT(trial.faults, ::testing::IsEmpty()) << crash::nameOf(point);
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
    killAt({KillPoint::At::kProgram, 1 + (programs - 1) * point / (kPoints - 1), point % 2 == 1, ""});
  }
}

TEST_P(KilledRun, LosesNothingAtItsStatements) {
  const long statements = crash::referenceOf(GetParam()).statements;
  constexpr long kPoints = 4;
  for (long point = 0; point < kPoints; ++point) {
    killAt({KillPoint::At::kStatement, 1 + (statements - 1) * point / (kPoints - 1), point % 2 == 0, ""});
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

}  // namespace
