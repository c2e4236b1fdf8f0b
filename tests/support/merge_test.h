#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/tool_test.h"

namespace appliance {

enum class Mode { Import, RestoreSkip, RestoreOverwrite };

// How the rows are merged, and how many of them at a time: the result must not depend on the second.
struct MergeRun {
  Mode mode;
  int window;
};

std::string modeName(Mode mode);
// The mode and the window, as a part of a test's name.
std::string runName(const MergeRun& run);
// Every mode with each of the windows.
std::vector<MergeRun> mergeRuns(const std::vector<int>& windows);
void PrintTo(const MergeRun& run, std::ostream* stream);

// A test of merging the rows of the database "other" into "photo", run by an import and by a restore of either mode,
// with one row at a time and with 64 at a time:
//
//   class Shares : public appliance::MergeTest {};
//   APPLIANCE_ALL_MODES(Shares);
//   TEST_P(Shares, KeepsNumbers) { source().exec(...); EXPECT_EQ(merge().status, 0); expectRows(live(), ...); }
class MergeTest : public ToolTest, public ::testing::WithParamInterface<MergeRun> {
 protected:
  Database& source() { return other(); }
  // Runs the tool. A restore takes its rows from an archive of the source made here, with these options; the account
  // files of an import are written from the source's rows unless the options give their text.
  Outcome merge(const ArchiveOptions& options = {});
  // Runs the tool with the test's window.
  Outcome run(const std::vector<std::string>& arguments, RunOptions options = {});

  // The messages of the merge. A restore also leaves the staged copy of a table that the live database lacks, or has
  // something else than an ordinary table for, and says so at its end; these messages are expected without being named.
  void expectMessages(std::vector<std::string> expected);

  bool overwrites() const { return GetParam().mode != Mode::RestoreSkip; }
  bool imports() const { return GetParam().mode == Mode::Import; }
  // How many rows at a time the tool takes from now on.
  void setWindow(int window) { window_ = window; }
  // What the source's tables are called while they are merged: "" or "_bak".
  std::string suffix() const { return imports() ? "" : "_bak"; }
  // "(...)" around the server's text is not part of it.
  std::string failedToExec(const std::string& statement, const std::string& error) const {
    return "Failed to exec [" + statement + "] (" + error + ")";
  }

 private:
  void noteCopiesLeft();

  std::vector<std::string> copiesLeft_;
  // In place of the parameter's.
  std::optional<int> window_;
};

}  // namespace appliance

#define APPLIANCE_ALL_MODES(fixture)                                      \
  INSTANTIATE_TEST_SUITE_P(                                               \
      Modes, fixture, ::testing::ValuesIn(appliance::mergeRuns({1, 64})), \
      [](const ::testing::TestParamInfo<appliance::MergeRun>& tested) { return appliance::runName(tested.param); })
