#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "support/appliance.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (::testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();
  }
  try {
    appliance::enter();
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return 2;
  }
  const int result = RUN_ALL_TESTS();
  const ::testing::UnitTest& tests = *::testing::UnitTest::GetInstance();
  // One of several shards may be empty; a run without any test is a mistake.
  const bool sharded = getenv("GTEST_TOTAL_SHARDS") != nullptr;
  if ((sharded ? tests.total_test_count() : tests.test_to_run_count()) == 0) {
    fprintf(stderr, "no test was run\n");
    return 3;
  }
  return result;
}
