// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

// A deliberate crash must be seen as the signal that it is, not as a sanitizer's report.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "handle_segv=0:handle_abort=0"; }
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { return "handle_segv=0"; }

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
