#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/appliance.h"

namespace appliance {

// Starts every test on a fresh appliance and fails it when a message was logged that the test did not expect, when the
// tool's sanitizers reported, when the pid file is still there, or when the test looked at nothing.
class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  Outcome run(const std::vector<std::string>& arguments, const RunOptions& options = {});

  // Takes everything logged so far and compares the whole list.
  void expectMessages(const std::vector<std::string>& expected);
  void expectNoMessages() { expectMessages({}); }
  // The same with one gmock matcher per message.
  void expectMessagesMatch(const std::vector<::testing::Matcher<const std::string&>>& expected);
  void expectRows(Database& database, const std::string& sql, const Rows& expected);

  // The databases "photo" and "other"; the second is made when first asked for.
  Database& live();
  Database& other();

  // For tests that leave a pid file on purpose.
  void leavePidFile() { pidFileMayStay_ = true; }

 private:
  std::unique_ptr<Database> live_;
  std::unique_ptr<Database> other_;
  bool pidFileMayStay_ = false;
};

}  // namespace appliance
