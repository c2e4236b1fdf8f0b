#pragma once

#include <ostream>
#include <string>

#include "support/tool_test.h"

namespace appliance {

enum class Mode { Import, RestoreSkip, RestoreOverwrite };

std::string modeName(Mode mode);
void PrintTo(Mode mode, std::ostream* stream);

// A test of merging the rows of the database "other" into "photo", run once by an import and by a restore of either
// mode:
//
//   class Shares : public appliance::MergeTest {};
//   APPLIANCE_ALL_MODES(Shares);
//   TEST_P(Shares, KeepsNumbers) { source().exec(...); EXPECT_EQ(merge().status, 0); expectRows(live(), ...); }
class MergeTest : public ToolTest, public ::testing::WithParamInterface<Mode> {
 protected:
  Database& source() { return other(); }
  // Runs the tool. A restore takes its rows from an archive of the source made here, with these options; the account
  // files of an import are written from the source's rows unless the options give their text.
  Outcome merge(const ArchiveOptions& options = {});

  // The messages of the merge. A restore also leaves the staged copy of a table that the live database lacks, or has
  // something else than an ordinary table for, and says so at its end; these messages are expected without being named.
  void expectMessages(std::vector<std::string> expected);

  bool overwrites() const { return GetParam() != Mode::RestoreSkip; }
  bool imports() const { return GetParam() == Mode::Import; }
  // What the source's tables are called while they are merged: "" or "_bak".
  std::string suffix() const { return imports() ? "" : "_bak"; }
  // "(...)" around the server's text is not part of it.
  std::string failedToExec(const std::string& statement, const std::string& error) const {
    return "Failed to exec [" + statement + "] (" + error + ")";
  }

 private:
  void noteCopiesLeft();

  std::vector<std::string> copiesLeft_;
};

}  // namespace appliance

#define APPLIANCE_ALL_MODES(fixture)                                                                               \
  INSTANTIATE_TEST_SUITE_P(                                                                                        \
      Modes, fixture,                                                                                              \
      ::testing::Values(appliance::Mode::Import, appliance::Mode::RestoreSkip, appliance::Mode::RestoreOverwrite), \
      [](const ::testing::TestParamInfo<appliance::Mode>& run) { return appliance::modeName(run.param); })
