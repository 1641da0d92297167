// Common entry of the test programs: quiet debug channel, and any assertion that a test did
// not expect fails that test.
#include <gtest/gtest.h>

#include "base/twvmerr.h"
#include "platform/platform.h"

static int UnexpectedAssert(const char* pchText) {
  ADD_FAILURE() << "unexpected assertion: " << pchText;
  return ASSERT_IGNORE;
}

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = &UnexpectedAssert;
  return RUN_ALL_TESTS();
}
