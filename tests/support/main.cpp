#include <gtest/gtest.h>

#include "support/sandbox.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // Listing the tests touches nothing, and the machine that builds may not be one that can test.
  if (!testing::GTEST_FLAG(list_tests) && !kestrelbridge::test::EnterSandbox()) {
    return 1;
  }
  return RUN_ALL_TESTS();
}
