#include "platform/banner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Banner, IsOneLineWithTheNameAndTheVersion) {
  testing::internal::CaptureStdout();
  printProgramBanner();
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::MatchesRegex("kavophoto_backup [0-9]+[.][0-9.]+\n"));
}

}  // namespace
