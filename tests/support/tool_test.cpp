#include "support/tool_test.h"

#include "platform/run_lock.h"

namespace appliance {

void ToolTest::SetUp() {
  live_.reset();
  other_.reset();
  // The database that a test took the lock in goes.
  releaseRunLock();
  reset();
}

void ToolTest::TearDown() {
  const bool looked = observations() > 0;
  for (const std::string& message : takeMessages()) {
    ADD_FAILURE() << "logged, but not expected: [" << message << "]";
  }
  for (const std::string& report : takeSanitizerReports()) {
    ADD_FAILURE() << "sanitizer report:\n" << report;
  }
  if (!pidFileMayStay_) {
    EXPECT_FALSE(exists("/tmp/kavophoto_backup.pid")) << "the pid file was left behind";
  }
  if (!looked && !HasFailure() && !IsSkipped()) {
    ADD_FAILURE() << "the test looked at nothing";
  }
}

Outcome ToolTest::run(const std::vector<std::string>& arguments, const RunOptions& options) {
  return runTool(arguments, options);
}

void ToolTest::expectMessages(const std::vector<std::string>& expected) {
  EXPECT_THAT(takeMessages(), ::testing::ElementsAreArray(expected));
}

void ToolTest::expectMessagesMatch(const std::vector<::testing::Matcher<const std::string&>>& expected) {
  EXPECT_THAT(takeMessages(), ::testing::ElementsAreArray(expected));
}

void ToolTest::expectRows(Database& database, const std::string& sql, const Rows& expected) {
  EXPECT_EQ(database.rows(sql), expected) << sql << " on " << database.name();
}

Database& ToolTest::live() {
  if (!live_) {
    live_ = std::make_unique<Database>("photo");
  }
  return *live_;
}

Database& ToolTest::other() {
  if (!other_) {
    createDatabase("other");
    other_ = std::make_unique<Database>("other");
  }
  return *other_;
}

}  // namespace appliance
